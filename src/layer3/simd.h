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

}  // namespace kavolib
