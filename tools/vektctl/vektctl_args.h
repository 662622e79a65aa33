// vektctl's command line, checked without touching the socket: which record to send, and
// the refusals that keep a hand-typed command from ending or aborting the daemon.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "control/msg.h"

namespace vektctl {

struct CommandInfo {
    const char* name;      // the named form, e.g. "interfaces"
    int32_t id;            // the message id it sends
    const char* argument;  // the argument form shown in the help, "" when none is taken
    bool needsArgument;    // the named form refuses to run without TEXT
    const char* summary;
};

// The fifteen commands, in id order.
const std::vector<CommandInfo>& commands();

struct Request {
    std::string root;  // --root DIR; empty for the device paths as they stand
    bool help = false;
    bool raw = false;  // --raw: any numeric id may be sent
    bool stay = false;  // --stay: keep the connection until the daemon hangs up
    int32_t id = 0;
    std::string text;
    // `status [--json] [--watch N]`: read the status socket instead of sending a record.
    bool status = false;
    bool json = false;       // print the document as it came
    int watchSeconds = 0;    // > 0: print it again every so many seconds
};

// Parses the arguments after the program name. Options come before the command; what
// follows the command is its text, even when it starts with "-" (e.g. `rtt -1`). Returns
// false with a one-line reason in error when the command must not be sent.
bool parseCommandLine(const std::vector<std::string>& args, Request& request, std::string& error);

// The daemon-side limits for one record's text. Returns false with the reason in error.
bool checkText(int32_t id, const std::string& text, std::string& error);

// The 1032-byte record for a checked request: zero-filled, length = strlen(text).
msg_t makeRecord(int32_t id, const std::string& text);

// The --help text.
std::string usage();

}  // namespace vektctl
