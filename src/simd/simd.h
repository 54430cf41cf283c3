// Vector helpers for the hot loops of every stage, and the choice of the vector unit they run
// on. The loops compute several independent outputs at once (each output keeps its own order
// of operations), so any vector width gives the same bits.
//
// A fast kernel is written once (an always-inline body over the vector types below) and built
// for each vector unit: plain, for any processor of the target; with KAVO_AVX2, for processors
// with AVX2; and with KAVO_AVX512, eight doubles a step, for processors with AVX-512 (F, DQ,
// BW and VL). use_avx2() and use_avx512() say which one to call; the path is decided once,
// from the processor's features and the registers the operating system saves, in the same way
// on every operating system (no loader support is needed, so the Windows DLL dispatches the
// same way).
//
// None of the targets fuses a multiply with an add: GCC's AVX2 and AVX-512 targets do not
// enable FMA, and where clang's AVX-512 target implies it, -ffp-contract=off keeps every
// product and sum a rounding of its own (the fma_free test checks the built library).
#pragma once

#if defined(__x86_64__) || defined(__i386__)
#define KAVO_X86 1
// Builds a function for AVX2 (without FMA: products and sums stay separate roundings).
#define KAVO_AVX2 __attribute__((target("avx2")))
// Builds a function for AVX-512: 512-bit registers and the opmask registers, the 64-bit and
// 16-bit integer forms and the same operations on 128 and 256 bits.
#define KAVO_AVX512 __attribute__((target("avx2,avx512f,avx512dq,avx512bw,avx512vl")))
#else
#define KAVO_X86 0
#define KAVO_AVX2
#define KAVO_AVX512
#endif

namespace kavolib {

// Four doubles; the compiler maps it to one AVX register or to two SSE2 registers.
typedef double Double4 __attribute__((vector_size(32)));
typedef long long Long4 __attribute__((vector_size(32)));
// Eight doubles: one AVX-512 register. Used only in functions built with KAVO_AVX512.
typedef double Double8 __attribute__((vector_size(64)));
typedef long long Long8 __attribute__((vector_size(64)));

// The vector units a build can choose between, narrowest first.
enum class VectorPath { plain, avx2, avx512 };

namespace simd_detail {
extern const VectorPath g_vector_path;
}

// The path chosen at load time: the widest one that the processor supports and whose
// registers the operating system saves. The environment variable KAVO_VECTOR_PATH, when set,
// makes the library name its choice on standard error once; the values "plain", "avx2" and
// "avx512" force that path (to compare the paths' outputs, which must be identical). A forced
// path the processor lacks is not taken: the library says so and takes the widest it has.
// A kernel with no AVX-512 form of its own takes its AVX2 form on the AVX-512 path:
// use_avx2() is true on both.
inline bool use_avx2() { return simd_detail::g_vector_path >= VectorPath::avx2; }
inline bool use_avx512() { return simd_detail::g_vector_path == VectorPath::avx512; }
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

// Eight rows of eight doubles become columns, in place: pairs of lanes, then pairs of pairs,
// then halves are exchanged between rows.
__attribute__((always_inline)) inline void transpose8(Double8* r) {
    Double8 t[8];
#pragma GCC unroll 4
    for (int i = 0; i < 8; i += 2) {
        t[i] = __builtin_shufflevector(r[i], r[i + 1], 0, 8, 2, 10, 4, 12, 6, 14);
        t[i + 1] = __builtin_shufflevector(r[i], r[i + 1], 1, 9, 3, 11, 5, 13, 7, 15);
    }
#pragma GCC unroll 2
    for (int i = 0; i < 8; i += 4) {
#pragma GCC unroll 2
        for (int k = 0; k < 2; ++k) {
            r[i + k] = __builtin_shufflevector(t[i + k], t[i + k + 2], 0, 1, 8, 9, 4, 5, 12, 13);
            r[i + k + 2] =
                __builtin_shufflevector(t[i + k], t[i + k + 2], 2, 3, 10, 11, 6, 7, 14, 15);
        }
    }
#pragma GCC unroll 4
    for (int k = 0; k < 4; ++k) {
        t[k] = __builtin_shufflevector(r[k], r[k + 4], 0, 1, 2, 3, 8, 9, 10, 11);
        t[k + 4] = __builtin_shufflevector(r[k], r[k + 4], 4, 5, 6, 7, 12, 13, 14, 15);
    }
#pragma GCC unroll 8
    for (int k = 0; k < 8; ++k) r[k] = t[k];
}

}  // namespace kavolib
