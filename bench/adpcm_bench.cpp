// Speed of the ADPCM output stage on a whole file: the WAV's data copied aside, the gain, the
// coding and the packing, as adpcm_encode_file does them. The input is named by the
// environment variable KAVO_BENCH_ADPCM_INPUT (bench/parts/adpcm.sh makes it).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "adpcm/adpcm_core.h"
#include "adpcm/adpcm_output.h"
#include "platform/platform.h"

namespace {

void EncodeFile(benchmark::State& state) {
    const char* input = std::getenv("KAVO_BENCH_ADPCM_INPUT");
    if (input == nullptr) {
        state.SkipWithError("KAVO_BENCH_ADPCM_INPUT is not set");
        return;
    }
    FILE* f = std::fopen(input, "rb");
    if (f == nullptr) {
        state.SkipWithError("cannot open the input");
        return;
    }
    const long bytes = kavolib::file_length(f);
    std::fclose(f);
    for (auto _ : state) {
        kavolib::adpcm_encode_file(input, "bench_out.adpcm", 1.0f, nullptr, 0);
    }
    std::remove("bench_out.adpcm");
    state.SetItemsProcessed(state.iterations() * ((bytes - 44) / 2));
}
BENCHMARK(EncodeFile)->Unit(benchmark::kMillisecond)->MinTime(2.0);

// The coder alone, in memory: blocks of 160 samples of a noisy two-tone signal, one sample at a
// time through adpcm_encode_sample (Arg 0) or by blocks through adpcm_encode_block (Arg 1).
void EncodeInMemory(benchmark::State& state) {
    std::vector<int16_t> in(160 * 500);
    uint32_t seed = 1;
    for (size_t i = 0; i < in.size(); ++i) {
        seed = seed * 1103515245u + 12345u;
        const double t = static_cast<double>(i);
        const double v = 9000.0 * __builtin_sin(t * 0.11) + 5000.0 * __builtin_sin(t * 0.73) +
                         static_cast<double>((seed >> 16) & 2047) - 1024.0;
        in[i] = static_cast<int16_t>(v);
    }
    std::vector<uint8_t> codes(in.size());
    kavolib::AdpcmState st;
    kavolib::adpcm_init(st);
    for (auto _ : state) {
        for (size_t at = 0; at < in.size(); at += 160) {
            if (state.range(0) == 0) {
                for (size_t i = at; i < at + 160; ++i) {
                    codes[i] = static_cast<uint8_t>(kavolib::adpcm_encode_sample(st, in[i]));
                }
            } else {
                kavolib::adpcm_encode_block(st, in.data() + at, 160, codes.data() + at);
            }
        }
        benchmark::DoNotOptimize(codes.data());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(in.size()));
}
BENCHMARK(EncodeInMemory)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
