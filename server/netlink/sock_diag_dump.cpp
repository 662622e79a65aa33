#define LOG_TAG "SLM-Vekt-SockDiag"

#include "netlink/sock_diag_dump.h"

#include <errno.h>
#include <linux/inet_diag.h>
#include <log/log.h>
#include <string.h>

namespace android {
namespace net {
namespace {

// Netlink messages and attributes both start on 4-byte boundaries. Computed in size_t so a
// length near 4 GiB cannot wrap to a step of 0.
size_t align4(size_t length) { return (length + 3) & ~static_cast<size_t>(3); }

}  // namespace

DumpWalk walkNetlinkDump(uint8_t* data, size_t length, const NetlinkDumpCallback& callback) {
    size_t offset = 0;
    while (length - offset >= sizeof(nlmsghdr)) {
        const size_t left = length - offset;
        // Bounds: a whole header is there; nlmsg_len is checked before anything past it.
        auto* nlh = reinterpret_cast<nlmsghdr*>(data + offset);
        if (nlh->nlmsg_len < sizeof(nlmsghdr) || nlh->nlmsg_len > left) break;

        if (nlh->nlmsg_type == NLMSG_DONE) return {true, 0};
        if (nlh->nlmsg_type == NLMSG_ERROR) {
            // An error message too short to carry its error code is no answer at all.
            if (nlh->nlmsg_len < sizeof(nlmsghdr) + sizeof(int32_t)) return {true, -EBADMSG};
            int32_t error;
            memcpy(&error, data + offset + sizeof(nlmsghdr), sizeof(error));
            return {true, error};
        }
        callback(nlh);

        const size_t step = align4(nlh->nlmsg_len);
        if (step >= left) break;
        offset += step;
    }
    return {false, 0};
}

const inet_diag_msg* diagMsgOf(const nlmsghdr* nlh) {
    if (nlh->nlmsg_len < kDiagMessageHeadSize) return nullptr;
    // Bounds: nlmsg_len covers the header and the whole record.
    return reinterpret_cast<const inet_diag_msg*>(reinterpret_cast<const uint8_t*>(nlh) +
                                                  sizeof(nlmsghdr));
}

TcpInfoAttribute findTcpInfo(const nlmsghdr* nlh) {
    TcpInfoAttribute found = {nullptr, 0};
    if (diagMsgOf(nlh) == nullptr) return found;
    const uint8_t* area = reinterpret_cast<const uint8_t*>(nlh) + kDiagMessageHeadSize;
    const size_t areaLength = nlh->nlmsg_len - kDiagMessageHeadSize;
    size_t offset = 0;
    while (areaLength - offset >= sizeof(rtattr)) {
        const size_t left = areaLength - offset;
        // Bounds: a whole attribute header is there; rta_len is checked before the payload.
        const auto* attr = reinterpret_cast<const rtattr*>(area + offset);
        if (attr->rta_len < sizeof(rtattr) || attr->rta_len > left) break;
        if (attr->rta_type == INET_DIAG_INFO) {
            found.info = reinterpret_cast<const tcp_info_ext*>(area + offset + sizeof(rtattr));
            found.length = attr->rta_len - sizeof(rtattr);
        }
        const size_t step = align4(attr->rta_len);
        if (step >= left) break;
        offset += step;
    }
    return found;
}

void reportTcpInfo(const nlmsghdr* nlh, const TcpInfoReader& reader) {
    if (nlh->nlmsg_type != SOCK_DIAG_BY_FAMILY) {
        ALOGE("expected nlmsg_type=SOCK_DIAG_BY_FAMILY, got nlmsg_type=%d", nlh->nlmsg_type);
        return;
    }
    const inet_diag_msg* msg = diagMsgOf(nlh);
    if (msg == nullptr) return;
    const TcpInfoAttribute tcpInfo = findTcpInfo(nlh);
    reader(msg, tcpInfo.info, tcpInfo.length);
}

DiagRequest makeDumpRequest(uint8_t proto, uint8_t family, uint8_t extensions, uint32_t states) {
    DiagRequest request = {};
    request.nlh.nlmsg_len = sizeof(request);
    request.nlh.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.nlh.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.req.sdiag_family = family;
    request.req.sdiag_protocol = proto;
    request.req.idiag_ext = extensions;
    request.req.idiag_states = states;
    return request;
}

DiagRequest makeDestroyRequest(uint8_t proto, const inet_diag_msg& msg) {
    DiagRequest request = {};
    request.nlh.nlmsg_len = sizeof(request);
    request.nlh.nlmsg_type = SOCK_DESTROY;
    request.nlh.nlmsg_flags = NLM_F_REQUEST;
    request.req.sdiag_family = msg.idiag_family;
    request.req.sdiag_protocol = proto;
    // The kernel's states fit in the mask; a state byte beyond it (never sent by a kernel)
    // must not become an undefined shift.
    request.req.idiag_states = msg.idiag_state < 32 ? 1u << msg.idiag_state : 0;
    request.req.id = msg.id;
    return request;
}

}  // namespace net
}  // namespace android
