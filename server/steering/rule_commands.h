// How the rule manager writes its commands: the tool paths, chain names and the formatted
// command runner shared by the mark-chain, ratio and selection rules.
#pragma once

#include <stddef.h>

#define IPTABLES "/system/bin/iptables-wrapper-1.0"
#define IP_TOOL "/system/bin/ip-wrapper-1.0"

namespace vekt {

// Chain names are bounded like the registry's text fields: at most 127 characters.
constexpr size_t kChainNameSize = 128;

struct ChainName {
    char text[kChainNameSize];
    const char* c_str() const { return text; }
};

// Joins two texts into a chain name, cutting what does not fit.
ChainName joinBounded(const char* head, const char* tail);

// "tarn_fw_" + interface name: the interface's mark chain.
inline ChainName markChain(const char* ifname) { return joinBounded("tarn_fw_", ifname); }
// The mark chain's name + "_wrapper": the per-UID gate in front of the mark chain.
inline ChainName wrapperChain(const ChainName& mark) { return joinBounded(mark.text, "_wrapper"); }
// "tarn_sls_" + interface name: where selected traffic is sent on to the mark chain.
inline ChainName selectionChain(const char* ifname) { return joinBounded("tarn_sls_", ifname); }
// "tarn_sls_uid_" + interface name: the gaming UIDs' gate in front of the selection chain.
inline ChainName selectionUidChain(const char* ifname) {
    return joinBounded("tarn_sls_uid_", ifname);
}

// Formats one command line and runs it; the result is 0 or -1 (see execnetd) and is added
// into the operation's status.
__attribute__((format(printf, 1, 2))) int runCommand(const char* format, ...);

// The end of every counted command sequence: 0 when every command could be started, else
// the sequence's failure line (failureFormat and its arguments) logged at error and -1.
__attribute__((format(printf, 2, 3))) int sequenceResult(int status, const char* failureFormat,
                                                         ...);

// For commands whose failure is harmless by design (creating a chain that may exist,
// flushing one that is about to go): their result never counts.
__attribute__((format(printf, 1, 2))) void runCommandUncounted(const char* format, ...);

}  // namespace vekt
