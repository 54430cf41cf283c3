// The conversion entry: the pieces of one call of kavo, in the order they run.
#pragma once

#include <cstdint>

#include "kavo/kavo.h"

namespace kavolib {

inline constexpr double kLibraryVersion = 1.2;
inline constexpr int32_t kStatusSuccess = 1;
inline constexpr int32_t kStatusNoInput = 3;
inline constexpr int32_t kStatusNoOutput = 4;
inline constexpr int32_t kStatusBadGain = 5;

// The argument checks of kavo, in their order: 0 when the call may go on, else the status of
// the refusal (3, 4 or 5).
int32_t check_arguments(const char* input_path, const char* output_path, float gain);

// The banner printed on standard error at the start of every accepted call.
void print_banner();

}  // namespace kavolib
