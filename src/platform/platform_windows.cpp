// The runtime services on Windows, where the C runtime provides them directly: _fcloseall
// closes every stream of the process (the standard ones excepted), _filelength measures an
// open file, _putw writes a 32-bit word.
#include <io.h>
#include <stdio.h>

#include "platform/platform.h"
#include "platform/platform_internal.h"

namespace kavolib {

int close_all_streams() {
    platform_internal::forget_registered_streams();
    return _fcloseall();
}

long file_length(FILE* stream) {
    if (stream == nullptr) return -1;
    std::fflush(stream);
    return _filelength(_fileno(stream));
}

int put_word32(int32_t value, FILE* stream) { return _putw(value, stream); }

}  // namespace kavolib
