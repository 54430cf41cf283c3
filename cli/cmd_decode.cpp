// kavo decode: not in this build yet.
#include "commands.h"

namespace kavocli {

int cmd_decode(const std::string&, const std::string&) {
    return not_built("decode", "the MP3 decoder");
}

}  // namespace kavocli
