// The message of a subcommand whose stage this build does not contain: it says so plainly and
// fails with the usage status; it never pretends to have worked.
#include <cstdio>

#include "commands.h"

namespace kavocli {

int not_built(const char* command, const char* what) {
    std::fprintf(stderr, "kavo %s: %s is not built into this version of kavo yet\n", command,
                 what);
    return kExitUsage;
}

}  // namespace kavocli
