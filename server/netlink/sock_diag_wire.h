// Kernel layout of the socket-diagnostics netlink records the daemon writes and reads:
// the dump and destroy requests, the error acknowledgement and the per-socket reply. The
// kernel's own structures are used; the records built from them are pinned here, so a
// header that ever changed under us would stop the build instead of garbling the wire.
#pragma once

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <stddef.h>
#include <stdint.h>

// The kernel's tcp_info record as carried by the INET_DIAG_INFO attribute. This module only
// hands out a pointer to it and its length; the TCP socket monitor, which reads its fields,
// owns its layout.
struct tcp_info_ext;

namespace android {
namespace net {

// Dump request (SOCK_DIAG_BY_FAMILY) and destroy request (SOCK_DESTROY): one layout.
struct DiagRequest {
    nlmsghdr nlh;
    inet_diag_req_v2 req;
};

// What the kernel sends back for a failed request, or for one that asked for an
// acknowledgement: the header, the error (0 or a negative errno) and the header of the
// request it answers. The kernel may append the request's payload; only this much is read.
struct DiagAck {
    nlmsghdr nlh;
    nlmsgerr err;
};

constexpr size_t kDiagRequestSize = 72;
constexpr size_t kDiagAckSize = 36;
// A socket record: the netlink header and the inet_diag_msg, then its attributes.
constexpr size_t kDiagMessageHeadSize = sizeof(nlmsghdr) + sizeof(inet_diag_msg);

static_assert(sizeof(nlmsghdr) == 16, "netlink header layout");
static_assert(offsetof(nlmsghdr, nlmsg_type) == 4 && offsetof(nlmsghdr, nlmsg_flags) == 6 &&
                  offsetof(nlmsghdr, nlmsg_seq) == 8 && offsetof(nlmsghdr, nlmsg_pid) == 12,
              "netlink header layout");
static_assert(sizeof(inet_diag_sockid) == 48, "socket id layout");
static_assert(offsetof(inet_diag_sockid, idiag_src) == 4 &&
                  offsetof(inet_diag_sockid, idiag_dst) == 20 &&
                  offsetof(inet_diag_sockid, idiag_if) == 36,
              "socket id layout");

static_assert(sizeof(DiagRequest) == kDiagRequestSize, "request layout");
static_assert(offsetof(DiagRequest, req) == 16, "request layout");
static_assert(offsetof(DiagRequest, req.sdiag_family) == 16 &&
                  offsetof(DiagRequest, req.sdiag_protocol) == 17 &&
                  offsetof(DiagRequest, req.idiag_ext) == 18 &&
                  offsetof(DiagRequest, req.pad) == 19,
              "request layout");
static_assert(offsetof(DiagRequest, req.idiag_states) == 20 && offsetof(DiagRequest, req.id) == 24,
              "request layout");

static_assert(sizeof(DiagAck) == kDiagAckSize, "acknowledgement layout");
static_assert(offsetof(DiagAck, err.error) == 16 && offsetof(DiagAck, err.msg) == 20,
              "acknowledgement layout");

static_assert(sizeof(inet_diag_msg) == 72, "socket record layout");
static_assert(offsetof(inet_diag_msg, idiag_family) == 0 &&
                  offsetof(inet_diag_msg, idiag_state) == 1 && offsetof(inet_diag_msg, id) == 4,
              "socket record layout");
static_assert(offsetof(inet_diag_msg, idiag_uid) == 64 &&
                  offsetof(inet_diag_msg, idiag_inode) == 68,
              "socket record layout");
static_assert(kDiagMessageHeadSize == 88, "socket record layout");

static_assert(sizeof(rtattr) == 4, "attribute header layout");

}  // namespace net
}  // namespace android
