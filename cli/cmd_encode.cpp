// kavo encode and kavo expand: not in this build yet.
#include "commands.h"

namespace kavocli {

int cmd_encode(const std::string&, const std::string&, float) {
    return not_built("encode", "the ADPCM encoder");
}

int cmd_expand(const std::string&, const std::string&) {
    return not_built("expand", "the ADPCM decoder");
}

}  // namespace kavocli
