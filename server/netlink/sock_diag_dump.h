// Reading socket-diagnostics dumps: pure functions over the bytes of one receive. Nothing
// here trusts a length from the kernel before checking it against the bytes that actually
// arrived, so the socket path and the fuzzer walk the same code.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <functional>

#include "netlink/sock_diag_wire.h"

namespace android {
namespace net {

// Called for each message of a dump that is neither NLMSG_DONE nor NLMSG_ERROR. The
// message's nlmsg_len has been checked: it is at least a header and lies within the bytes
// received.
using NetlinkDumpCallback = std::function<void(nlmsghdr* nlh)>;
// Decides whether one dumped socket of a destroy pass is destroyed; msg may be null.
using DestroyFilter = std::function<bool(uint8_t proto, const inet_diag_msg* msg)>;
// Sees one live TCP socket and its tcp_info (null and 0 when the kernel sent none). Both
// pointers point into the receive buffer and are valid only during the call.
using TcpInfoReader = std::function<void(const inet_diag_msg* msg, const tcp_info_ext* info,
                                         unsigned int infoLength)>;

// What one receive of a dump came to.
struct DumpWalk {
    bool finished;  // NLMSG_DONE or NLMSG_ERROR seen: the dump is over, stop reading
    int result;     // 0, or the kernel's negative error when NLMSG_ERROR ended the dump
};

// Walks the messages of one receive (data 4-byte aligned, as netlink messages are). The
// walk ends at the first message whose header or nlmsg_len does not fit in what is left:
// the kernel never splits a message across datagrams, so nothing after it can be trusted.
[[nodiscard]] DumpWalk walkNetlinkDump(uint8_t* data, size_t length,
                                       const NetlinkDumpCallback& callback);

// The socket record of a dump message, or null when nlmsg_len is too short to hold one.
const inet_diag_msg* diagMsgOf(const nlmsghdr* nlh);

struct TcpInfoAttribute {
    const tcp_info_ext* info;  // null when the message carries no INET_DIAG_INFO
    unsigned int length;       // payload bytes, 0 when info is null
};

// The INET_DIAG_INFO attribute among those that follow a socket record (the last one when
// several are present); none when the message is too short for a socket record.
TcpInfoAttribute findTcpInfo(const nlmsghdr* nlh);

// One message of a TCP-info dump: hands the socket and its tcp_info to the reader. A
// message of another type is logged and skipped, and so is one too short for a socket.
void reportTcpInfo(const nlmsghdr* nlh, const TcpInfoReader& reader);

// A dump of every socket of (family, proto) in the given states, with the extensions asked
// for; nlmsg_len covers the request alone.
DiagRequest makeDumpRequest(uint8_t proto, uint8_t family, uint8_t extensions, uint32_t states);
// The request that destroys one dumped socket.
DiagRequest makeDestroyRequest(uint8_t proto, const inet_diag_msg& msg);

}  // namespace net
}  // namespace android
