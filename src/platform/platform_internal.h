// Shared between the common platform code and the per-system files.
#pragma once

namespace kavolib::platform_internal {

// Closes every stream in the registry and empties it; returns how many were closed.
int close_registered_streams();
// Empties the registry without closing anything (the system closes the streams itself).
void forget_registered_streams();

}  // namespace kavolib::platform_internal
