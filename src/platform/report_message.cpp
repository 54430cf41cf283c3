// Warnings and fatal errors of the decoding side, routed through one place.
#include "platform/report_message.h"

#include <cstdio>

#include "platform/platform.h"

namespace kavolib {

int verbosity = 0;

void report_message(const char* text, int kind) {
    if (kind == kMessageFatal) {
        std::fprintf(stderr, "\nFATAL ERROR: %s", text);
        end_process(1);
    }
    if (verbosity != 0) std::fprintf(stderr, "\nWARNING: %s", text);
}

}  // namespace kavolib
