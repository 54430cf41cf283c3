// Vector helpers for the decoder's hot loops. The loops compute several independent outputs at
// once (each output keeps its own order of operations), so any vector width gives the same bits.
// On x86-64 ELF targets with GCC the marked functions are also built for AVX2 and the wider
// version is chosen at load time; elsewhere (Windows, other compilers) the baseline build runs.
#pragma once

#if defined(__x86_64__) && defined(__ELF__) && defined(__GNUC__) && !defined(__clang__)
#define KAVO_VECTOR_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define KAVO_VECTOR_CLONES
#endif

namespace kavolib {

// Four doubles; the compiler maps it to one AVX register or to two SSE2 registers.
typedef double Double4 __attribute__((vector_size(32)));
typedef long long Long4 __attribute__((vector_size(32)));

// Rows a, b, c, d (four doubles each) become columns, in place.
__attribute__((always_inline)) inline void transpose4(Double4& a, Double4& b, Double4& c,
                                                      Double4& d) {
    const Long4 low = {0, 4, 2, 6};
    const Long4 high = {1, 5, 3, 7};
    const Long4 first = {0, 1, 4, 5};
    const Long4 second = {2, 3, 6, 7};
    const Double4 t0 = __builtin_shuffle(a, b, low);
    const Double4 t1 = __builtin_shuffle(a, b, high);
    const Double4 t2 = __builtin_shuffle(c, d, low);
    const Double4 t3 = __builtin_shuffle(c, d, high);
    a = __builtin_shuffle(t0, t2, first);
    b = __builtin_shuffle(t1, t3, first);
    c = __builtin_shuffle(t0, t2, second);
    d = __builtin_shuffle(t1, t3, second);
}

}  // namespace kavolib
