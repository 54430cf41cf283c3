// The arithmetic of the mix to mono, shared by the file stage and the in-memory chain.
#pragma once

#include <cstdint>

namespace kavolib {

// One mono sample from a stereo frame: the sum formed in 32 bits, halved with truncation
// toward zero (-3 and 0 give -1; 3 and 0 give 1).
inline int16_t mix_pair(int16_t left, int16_t right) {
    return static_cast<int16_t>((int32_t{left} + int32_t{right}) / 2);
}

}  // namespace kavolib
