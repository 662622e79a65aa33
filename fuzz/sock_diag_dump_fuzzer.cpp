// Fuzzes the sock_diag dump walk: each input is the bytes of one receive from the kernel,
// walked the way a TCP-info pass walks it (socket records, their attributes and the
// tcp_info handed to the reader) and the way a destroy pass walks it (loopback test and
// destroy request of each record).
#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <memory>

#include "netlink/sock_diag.h"
#include "netlink/sock_diag_dump.h"
#include "vekt_host/log_capture.h"

namespace {

using namespace android::net;

// Logs of foreign messages stay out of the fuzzer's output.
const bool kQuiet = (vekt::host::setStderrEcho(false), true);

// Folds in every byte the walk hands out, so a pointer or length past the input shows up
// under the address sanitizer instead of going unread.
uint64_t sink;

void touch(const void* data, size_t length) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    for (size_t i = 0; i < length; ++i) sink += bytes[i];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    (void)kQuiet;
    // Exactly the input's bytes on the heap (aligned as a receive buffer is), so the
    // sanitizer sees the first byte beyond them.
    std::unique_ptr<uint8_t[]> bytes(new uint8_t[size > 0 ? size : 1]);
    if (size > 0) memcpy(bytes.get(), data, size);

    const TcpInfoReader reader = [](const inet_diag_msg* msg, const tcp_info_ext* info,
                                    unsigned int length) {
        touch(msg, sizeof(*msg));
        if (info == nullptr && length != 0) abort();
        if (info != nullptr) touch(info, length);
    };
    const DumpWalk tcpInfoPass =
        walkNetlinkDump(bytes.get(), size, [&](nlmsghdr* nlh) { reportTcpInfo(nlh, reader); });

    const DumpWalk destroyPass = walkNetlinkDump(bytes.get(), size, [](nlmsghdr* nlh) {
        touch(nlh, nlh->nlmsg_len);
        const inet_diag_msg* msg = diagMsgOf(nlh);
        if (msg == nullptr) return;
        sink += SockDiag::isLoopbackSocket(msg);
        const DiagRequest request = makeDestroyRequest(IPPROTO_TCP, *msg);
        touch(&request, sizeof(request));
    });

    // Walking the same bytes twice ends the same way, and only an ended dump has an error.
    if (tcpInfoPass.finished != destroyPass.finished || tcpInfoPass.result != destroyPass.result ||
        (!tcpInfoPass.finished && tcpInfoPass.result != 0)) {
        abort();
    }
    return 0;
}
