// Validation of the texts that arrive from the control socket (world-writable) and the
// settings file, applied where a text becomes an interface name, a UID, an address, a mark
// or a number. Each check refuses only what cannot be that thing; a refusal is logged once,
// naming the handler and the refused piece, and the caller goes on with the rest.
#pragma once

#include <stdint.h>

#include <string>

namespace vekt {

// What the kernel itself accepts as a network interface name: 1 to 15 bytes, no "/", no
// ":", no white space, not "." or "..". Such a name is one tool argument and one path
// component.
bool isValidInterfaceName(const std::string& name);

// A UID as the lists carry it: one or more decimal digits and nothing else.
bool isValidUid(const std::string& uid);

// An IPv4 or IPv6 address, optionally followed by "/" and a prefix length that fits it.
bool isValidGatewayAddress(const std::string& text);

// A firewall mark as the registry writes it: "0x" and 1 to 8 hexadecimal digits.
bool isValidFwmark(const std::string& text);

// Client text made safe for one log line: printable ASCII stays, anything else becomes
// \xNN, and the text is cut after 64 characters with "...".
std::string printableText(const std::string& text);

// Logs at error priority, under tag: "<handler> refused <kind> \"<piece>\"".
void logRefused(const char* tag, const char* handler, const char* kind, const std::string& piece);

// The range a numeric setting must lie in to work at all, for the keys that have one.
struct SettingRange {
    const char* key;
    int32_t min;
    int32_t max;
};
// The range of key, or null for keys whose every value has a meaning.
const SettingRange* findSettingRange(const char* key);

}  // namespace vekt
