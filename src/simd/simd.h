// Vector helpers for the hot loops of every stage, and the choice of the vector unit they run
// on. The loops compute several independent outputs at once (each output keeps its own order
// of operations), so any vector width gives the same bits.
//
// A fast kernel is written once (an always-inline body over the vector types below) and built
// twice: plain, for any processor of the target, and with KAVO_AVX2, for processors with AVX2.
// use_avx2() says which one to call; it is decided once, from the processor's features, in the
// same way on every operating system (no loader support is needed, so the Windows DLL takes
// the AVX2 path too).
#pragma once

#if defined(__x86_64__) || defined(__i386__)
#define KAVO_X86 1
// Builds a function for AVX2 (without FMA: products and sums stay separate roundings).
#define KAVO_AVX2 __attribute__((target("avx2")))
#else
#define KAVO_X86 0
#define KAVO_AVX2
#endif

namespace kavolib {

// Four doubles; the compiler maps it to one AVX register or to two SSE2 registers.
typedef double Double4 __attribute__((vector_size(32)));
typedef long long Long4 __attribute__((vector_size(32)));

// The vector units a build can choose between.
enum class VectorPath { plain, avx2 };

namespace simd_detail {
extern const VectorPath g_vector_path;
}

// The path chosen at load time: AVX2 when the processor (and the operating system, which must
// save the wide registers) supports it. The environment variable KAVO_VECTOR_PATH, when set,
// makes the library name its choice on standard error once; the value "plain" also forces the
// plain path (to compare the two paths' outputs, which must be identical).
inline bool use_avx2() { return simd_detail::g_vector_path == VectorPath::avx2; }
const char* vector_path_name(VectorPath path);

// Rows a, b, c, d (four doubles each) become columns, in place.
__attribute__((always_inline)) inline void transpose4(Double4& a, Double4& b, Double4& c,
                                                      Double4& d) {
    // __builtin_shufflevector takes constant lane indices and exists in GCC (12 on) and clang.
    const Double4 t0 = __builtin_shufflevector(a, b, 0, 4, 2, 6);
    const Double4 t1 = __builtin_shufflevector(a, b, 1, 5, 3, 7);
    const Double4 t2 = __builtin_shufflevector(c, d, 0, 4, 2, 6);
    const Double4 t3 = __builtin_shufflevector(c, d, 1, 5, 3, 7);
    a = __builtin_shufflevector(t0, t2, 0, 1, 4, 5);
    b = __builtin_shufflevector(t1, t3, 0, 1, 4, 5);
    c = __builtin_shufflevector(t0, t2, 2, 3, 6, 7);
    d = __builtin_shufflevector(t1, t3, 2, 3, 6, 7);
}

}  // namespace kavolib
