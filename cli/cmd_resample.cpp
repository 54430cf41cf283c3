// kavo mix and kavo resample: not in this build yet.
#include "commands.h"

namespace kavocli {

int cmd_mix(const std::string&, const std::string&) {
    return not_built("mix", "the mix-to-mono stage");
}

int cmd_resample(const std::string&, const std::string&) {
    return not_built("resample", "the 8000 Hz resampler");
}

}  // namespace kavocli
