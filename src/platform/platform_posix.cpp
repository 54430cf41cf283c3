// The runtime services that a POSIX C library does not offer under the Windows names:
// "close every open stream" reaches the streams the library opened; the length of an open
// file comes from fstat; the 32-bit word is written least significant byte first.
#include <sys/stat.h>

#include "platform/platform.h"
#include "platform/platform_internal.h"

namespace kavolib {

int close_all_streams() { return platform_internal::close_registered_streams(); }

long file_length(FILE* stream) {
    if (stream == nullptr) return -1;
    // Written data may still sit in the stream's buffer; the length must include it.
    std::fflush(stream);
    struct stat info {};
    if (fstat(fileno(stream), &info) != 0) return -1;
    return static_cast<long>(info.st_size);
}

int put_word32(int32_t value, FILE* stream) {
    const auto bits = static_cast<uint32_t>(value);
    const unsigned char bytes[4] = {
        static_cast<unsigned char>(bits & 0xFFu), static_cast<unsigned char>((bits >> 8) & 0xFFu),
        static_cast<unsigned char>((bits >> 16) & 0xFFu),
        static_cast<unsigned char>((bits >> 24) & 0xFFu)};
    if (std::fwrite(bytes, 1, 4, stream) != 4) return EOF;
    return value;
}

}  // namespace kavolib
