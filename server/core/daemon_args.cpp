#include "core/daemon_args.h"

#include <string.h>

namespace vekt {

bool parseDaemonArgs(int argc, const char* const* argv, DaemonArgs& args, std::string& error) {
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0) {
            args.help = true;
        } else if (strcmp(arg, "--root") == 0) {
            if (i + 1 >= argc || argv[i + 1][0] == '\0') {
                error = "--root needs a directory";
                return false;
            }
            args.root = argv[++i];
        } else if (strncmp(arg, "--root=", 7) == 0 && arg[7] != '\0') {
            args.root = arg + 7;
        } else {
            error = std::string("unknown argument: ") + arg;
            return false;
        }
    }
    return true;
}

}  // namespace vekt
