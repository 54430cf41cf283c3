// The choice of the vector unit, made once when the library is loaded.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

#include "simd/simd.h"

namespace kavolib {

namespace {
// The widest path the processor supports and the operating system enables: CPUID names the
// instructions, and XGETBV (allowed once CPUID reports OSXSAVE) tells which register states the
// operating system saves on a context switch: XMM and YMM (bits 1 and 2) for AVX2, and also the
// opmask registers and both halves of the 32 ZMM registers (bits 5, 6 and 7) for AVX-512.
VectorPath processor_path() {
#if KAVO_X86
    unsigned a = 0;
    unsigned b = 0;
    unsigned c = 0;
    unsigned d = 0;
    if (__get_cpuid(1, &a, &b, &c, &d) == 0) return VectorPath::plain;
    const bool osxsave = (c & (1u << 27)) != 0;
    const bool avx = (c & (1u << 28)) != 0;
    if (!osxsave || !avx) return VectorPath::plain;
    unsigned xcr0 = 0;
    unsigned xcr0_high = 0;
    __asm__ volatile("xgetbv" : "=a"(xcr0), "=d"(xcr0_high) : "c"(0u));
    constexpr unsigned kYmmState = (1u << 1) | (1u << 2);
    constexpr unsigned kZmmState = kYmmState | (1u << 5) | (1u << 6) | (1u << 7);
    if ((xcr0 & kYmmState) != kYmmState) return VectorPath::plain;
    if (__get_cpuid_count(7, 0, &a, &b, &c, &d) == 0) return VectorPath::plain;
    const bool avx2 = (b & (1u << 5)) != 0;
    if (!avx2) return VectorPath::plain;
    // AVX512F (16), AVX512DQ (17), AVX512BW (30) and AVX512VL (31).
    constexpr unsigned kAvx512 = (1u << 16) | (1u << 17) | (1u << 30) | (1u << 31);
    if ((b & kAvx512) == kAvx512 && (xcr0 & kZmmState) == kZmmState) return VectorPath::avx512;
    return VectorPath::avx2;
#else
    return VectorPath::plain;
#endif
}

VectorPath choose_vector_path() {
    const char* request = std::getenv("KAVO_VECTOR_PATH");
    const VectorPath widest = processor_path();
    if (request == nullptr) return widest;
    VectorPath path = widest;
    for (VectorPath named : {VectorPath::plain, VectorPath::avx2, VectorPath::avx512}) {
        if (std::strcmp(request, vector_path_name(named)) != 0) continue;
        if (named <= widest) {
            path = named;
        } else {
            std::fprintf(stderr, "kavo vector path: %s is not supported by this processor\n",
                         request);
        }
    }
    std::fprintf(stderr, "kavo vector path: %s\n", vector_path_name(path));
    return path;
}
}  // namespace

const char* vector_path_name(VectorPath path) {
    static const char* const kNames[] = {"plain", "avx2", "avx512"};  // in VectorPath's order
    return kNames[static_cast<int>(path)];
}

namespace simd_detail {
const VectorPath g_vector_path = choose_vector_path();
}

}  // namespace kavolib
