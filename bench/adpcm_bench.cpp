// Speed of the ADPCM output stage on a whole file: the WAV's data copied aside, the gain, the
// coding and the packing, as adpcm_encode_file does them. The input is named by the
// environment variable KAVO_BENCH_ADPCM_INPUT (bench/parts/adpcm.sh makes it).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

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

}  // namespace

BENCHMARK_MAIN();
