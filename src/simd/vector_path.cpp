// The choice of the vector unit, made once when the library is loaded.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "simd/simd.h"

namespace kavolib {

namespace {
bool processor_has_avx2() {
#if KAVO_X86
    // The compiler's run-time support reads CPUID and checks with XGETBV that the operating
    // system saves the AVX registers; initialised here because this may run before its own
    // constructor.
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") != 0;
#else
    return false;
#endif
}

VectorPath choose_vector_path() {
    const char* request = std::getenv("KAVO_VECTOR_PATH");
    VectorPath path = processor_has_avx2() ? VectorPath::avx2 : VectorPath::plain;
    if (request != nullptr) {
        if (std::strcmp(request, "plain") == 0) path = VectorPath::plain;
        std::fprintf(stderr, "kavo vector path: %s\n", vector_path_name(path));
    }
    return path;
}
}  // namespace

const char* vector_path_name(VectorPath path) { return path == VectorPath::avx2 ? "avx2" : "plain"; }

namespace simd_detail {
const VectorPath g_vector_path = choose_vector_path();
}

}  // namespace kavolib
