// Micro-benchmarks of the Layer III decoder's hot stages, each in its plain form next to the
// form the decoder runs: polyphase synthesis per slot, the IMDCT per subband, and the Huffman
// decoding of one granule. Inputs are random but repeatable.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <random>

#include "layer3/layer3_stages.h"
#include "layer3/layer3_tables.h"

using namespace kavolib;

namespace {

void fill_random(double* x, int count, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> unit(-0.5, 0.5);
    for (int i = 0; i < count; ++i) x[i] = unit(rng);
}

// The plain slot: a 512-value history moved by 32 values each slot.
void BM_SynthesisSlotPlain(benchmark::State& st) {
    double spectrum[576];
    fill_random(spectrum, 576, 1);
    double history[512] = {};
    double out[32];
    int t = 0;
    for (auto _ : st) {
        synthesize_slot(spectrum + 32 * t, history, out);
        benchmark::DoNotOptimize(out);
        t = t == 17 ? 0 : t + 1;
    }
    st.SetItemsProcessed(st.iterations());
}
BENCHMARK(BM_SynthesisSlotPlain);

// The decoder's granule synthesis; items are slots, so the figure compares with the plain one.
void BM_SynthesisSlotGranule(benchmark::State& st) {
    auto state = std::make_unique<Layer3State>();
    std::memset(state->synthesis, 0, sizeof state->synthesis);
    double spectrum[576];
    fill_random(spectrum, 576, 1);
    double out[576];
    for (auto _ : st) {
        std::memcpy(state->spectrum, spectrum, sizeof spectrum);
        synthesize_granule(*state, 0, out);
        benchmark::DoNotOptimize(out);
    }
    st.SetItemsProcessed(st.iterations() * 18);
}
BENCHMARK(BM_SynthesisSlotGranule);

// The plain subband transform, long blocks; items are subbands.
void BM_ImdctSubbandPlain(benchmark::State& st) {
    double x[576];
    fill_random(x, 576, 2);
    double overlap[32][9] = {};
    double output[576];
    for (auto _ : st) {
        for (int s = 0; s < 32; ++s) imdct_subband(x + 18 * s, overlap[s], output + s, 0, 0, s);
        benchmark::DoNotOptimize(output);
    }
    st.SetItemsProcessed(st.iterations() * 32);
}
BENCHMARK(BM_ImdctSubbandPlain);

// The decoder's hybrid filterbank over a granule of long blocks (or short blocks, arg 2).
void BM_ImdctSubbandGranule(benchmark::State& st) {
    auto state = std::make_unique<Layer3State>();
    std::memset(state->overlap, 0, sizeof state->overlap);
    std::memset(state->previous_block, 0, sizeof state->previous_block);
    GranuleInfo& gi = state->side_info.gr[0][0];
    gi = GranuleInfo{};
    gi.block_type = static_cast<uint32_t>(st.range(0));
    gi.window_switching_flag = gi.block_type != 0 ? 1u : 0u;
    state->previous_block[0].block_type = gi.block_type;
    double x[576];
    fill_random(x, 576, 2);
    for (auto _ : st) {
        hybrid_synthesis(*state, 0, 0, x);
        benchmark::DoNotOptimize(state->spectrum);
    }
    st.SetItemsProcessed(st.iterations() * 32);
}
BENCHMARK(BM_ImdctSubbandGranule)->Arg(0)->Arg(2);

// One channel's Huffman data: random bits decode to a full spectrum with any complete code
// (every bit string begins with a code word). Big values in three regions with tables of
// escapes and of small values, then count1 quadruples to the end of part2_3_length.
void BM_HuffmanGranule(benchmark::State& st) {
    auto state = std::make_unique<Layer3State>();
    auto stream = std::make_unique<StreamBuffer>();
    std::mt19937 rng(3);
    for (uint8_t& b : stream->bytes) b = static_cast<uint8_t>(rng());
    state->long_bounds = kLongBandBounds[0][0];
    state->short_bounds = kShortBandBounds[0][0];
    GranuleInfo& gi = state->side_info.gr[0][0];
    gi = GranuleInfo{};
    gi.big_values = 200;
    gi.table_select[0] = 24;
    gi.table_select[1] = 13;
    gi.table_select[2] = 7;
    gi.region0_count = 7;
    gi.region1_count = 7;
    gi.part2_3_length = 4000;
    gi.count1table_select = 0;
    state->is_stereo = 0;
    for (auto _ : st) {
        BitReader reader{BitPosition{stream->bytes, 0, 0}, 0};
        state->part2_start = reader.cursor;
        huffman_decode(*state, reader, 0, 0);
        benchmark::DoNotOptimize(state->spectrum);
    }
    st.SetItemsProcessed(st.iterations());
}
BENCHMARK(BM_HuffmanGranule);

}  // namespace

BENCHMARK_MAIN();
