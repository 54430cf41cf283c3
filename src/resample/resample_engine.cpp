// The resampling engine. Input is read per block into one buffer per channel with guardLen
// samples of history before and after the block, filtered at the positions of timeReg, and
// the block's output written at once. Wrapping 32-bit arithmetic (position register, tap
// products and sums) is done in unsigned and converted, so it is defined and identical on
// every compiler; right shifts of negative values are arithmetic.
#include "resample/resample_engine.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>

#include "platform/platform.h"
#include "resample/tap_table.h"

namespace kavolib {

FILE* stageInput = nullptr;
FILE* stageOutput = nullptr;

namespace {

static_assert(std::endian::native == std::endian::little, "samples are read as stored");

constexpr uint32_t kOne = 32768;  // one input-sample interval in timeReg units
// Above this many cached coefficients (16-bit) a filter-file filter keeps the plain path.
constexpr long kMaxTableEntries = 32L * 1024 * 1024;

int32_t wrapAdd(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

int32_t wrapMul(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

// One tap: the 32-bit product, rounded by adding bit 13 back before the shift by 14.
int32_t roundedTap(int32_t c, int16_t x) {
    int32_t t = wrapMul(c, x);
    if ((t & 0x2000) != 0) t = wrapAdd(t, 8192);
    return t >> 14;
}

int32_t coefficient(const int16_t* Coeffs, const int16_t* Differences, int interpCoeffs,
                    uint32_t k, uint32_t weight) {
    int32_t c = Coeffs[k];
    if (interpCoeffs != 0) c += (int32_t{Differences[k]} * static_cast<int32_t>(weight)) >> 7;
    return c;
}

// The filtered output sample from the two wing sums.
int16_t filteredSample(int32_t left, int32_t right, uint16_t scale) {
    const int32_t v = wrapMul(wrapAdd(left, right) >> 2, scale);
    return roundShiftSat16(v, 13);
}

// factor must give a time step that the 32-bit register can hold.
bool factorInRange(double factor) {
    return std::isfinite(factor) && factor > 0.0 && 32768.0 / factor + 0.5 < 4294967296.0;
}

int fail(ResampleIo& io, const char* message) {
    io.failure = message;
    return -1;
}

// 0, or the write's request to stop.
int writeFrames(ResampleIo& io, const ResampleState& s, int n, int nChans) {
    if (n <= 0) return 0;
    if (nChans == 1) return io.write(io.context, s.output[0], static_cast<size_t>(n));
    int16_t frames[2 * 1024];
    for (int done = 0; done < n;) {
        const int count = std::min(1024, n - done);
        for (int i = 0; i < count; ++i) {
            frames[2 * i] = s.output[0][done + i];
            frames[2 * i + 1] = s.output[1][done + i];
        }
        if (io.write(io.context, frames, static_cast<size_t>(2 * count)) != 0) return 1;
        done += count;
    }
    return 0;
}

// The file form's connections: stageInput, stageOutput and the caller's callback.
struct FileIo {
    ProgressCallback callback;
    int32_t user;
};

size_t readStage(void*, int16_t* dst, size_t n) {
    if (stageInput == nullptr) return 0;
    const size_t got = std::fread(dst, sizeof(int16_t), n, stageInput);
    if (std::ferror(stageInput) != 0) {
        std::fputs("readData: Can't read data!\n", stderr);
        close_all_streams();
        end_process(1);
    }
    return got;
}

int writeStage(void*, const int16_t* samples, size_t n) {
    if (stageOutput != nullptr) std::fwrite(samples, sizeof(int16_t), n, stageOutput);
    return 0;
}

void reportStage(void* context, int outDone, int outCount) {
    const auto* file = static_cast<const FileIo*>(context);
    if (file->callback == nullptr) return;
    // With nothing to produce the conversion is complete at once: 80.
    int percent = 80;
    if (outCount != 0) {
        percent = 60 - static_cast<int>(std::trunc(static_cast<double>(outDone) /
                                                   static_cast<double>(outCount) * (-20.0)));
    }
    file->callback(file->user, 0, 100, percent, 1);
}

template <class Convert>
int onStageFiles(ProgressCallback callback, int32_t user, Convert&& convert) {
    FileIo file{callback, user};
    ResampleIo io{readStage, writeStage, reportStage, &file, nullptr};
    const int result = convert(io);
    if (result == -1 && io.failure != nullptr) resampleError(io.failure);
    return result;
}

// The block loop shared by the filter and the linear modes. filterBlock(input, reversed,
// output, timeReg) filters one channel's block and returns its output count.
template <class FilterBlock>
int runConversion(ResampleState& s, ResampleIo& io, int inCount, int outCount, int nChans,
                  FilterBlock&& filterBlock) {
    const int guardLen = s.guardLen;
    s.timeReg = static_cast<uint32_t>(guardLen) * kOne;
    s.lastIndex = 0;
    s.outDone = 0;
    int nextRead = guardLen;
    for (;;) {
        if (s.lastIndex == 0) {
            s.lastIndex =
                readData(s, io, inCount, s.input[0], s.input[1], IBUFFSIZE, nChans, nextRead);
            // A header's frame count can be negative, down to INT_MIN: subtract in 64 bits.
            const int64_t shortened = int64_t{s.lastIndex} - guardLen;
            if (s.lastIndex != 0 && shortened < s.blockLen) {
                if (shortened <= 0) break;
                s.blockLen = static_cast<uint16_t>(shortened);
            }
        }
        // Both channels are sampled at the same positions; channel 1's register is kept.
        const uint32_t blockStart = s.timeReg;
        int n = filterBlock(s.input[0], s.output[0], s.timeReg);
        if (nChans == 2) {
            uint32_t second = blockStart;
            n = filterBlock(s.input[1], s.output[1], second);
        }

        s.timeReg -= uint32_t{s.blockLen} * kOne;
        int consumed = guardLen + s.blockLen;
        const int creep = static_cast<int>(s.timeReg >> 15) - guardLen;
        if (creep != 0) {
            s.timeReg -= static_cast<uint32_t>(creep) * kOne;
            consumed += creep;
        }
        const int keep = IBUFFSIZE - consumed + guardLen;
        const int from = consumed - guardLen;  // never negative; checked so the copy stays inside
        if (keep > 0 && from >= 0) {
            for (int ch = 0; ch < nChans; ++ch) {
                std::memmove(s.input[ch], s.input[ch] + from, static_cast<size_t>(keep) * 2);
            }
        }
        nextRead = std::clamp(keep, 0, IBUFFSIZE);
        if (s.lastIndex != 0) {
            s.lastIndex -= consumed;
            if (s.lastIndex == 0) s.lastIndex = 1;
        }

        s.outDone += n;
        if (s.outDone > outCount) {
            n -= s.outDone - outCount;
            s.outDone = outCount;
        }
        if (n > OUTBUFFSIZE) return fail(io, "Output array overflow");
        if (writeFrames(io, s, n, nChans) != 0) return kResampleStopped;
        if (io.progress != nullptr) io.progress(io.context, s.outDone, outCount);
        if (s.outDone >= outCount) return s.outDone;
    }
    return s.outDone;
}

// Value-initialised: buffers zero, so the history before the first block is silence.
std::unique_ptr<ResampleState> newState(int nChans) {
    auto state = std::make_unique<ResampleState>();
    constexpr size_t kOutputLength = OUTBUFFSIZE + 1;
    state->outputs = std::make_unique<int16_t[]>(static_cast<size_t>(nChans) * kOutputLength);
    state->output[0] = state->outputs.get();
    state->output[1] = nChans == 2 ? state->outputs.get() + kOutputLength : nullptr;
    return state;
}

// filterBlockUp / filterBlockDown over the cached coefficient rows.
int filterBlockTable(const int16_t* input, const int16_t* reversed, int16_t* output,
                     uint32_t& timeReg, uint16_t blockLen, uint32_t timeStep, uint16_t scale,
                     TapTable& table) {
    const uint32_t end = timeReg + uint32_t{blockLen} * kOne;
    int count = 0;
    int32_t sums[256];
    while (timeReg < end && count <= OUTBUFFSIZE) {
        const int wanted = std::min(256, OUTBUFFSIZE + 1 - count);
        const int made = table.sums(input, reversed + (IBUFFSIZE - 1), timeReg, end, timeStep,
                                    sums, wanted);
        for (int k = 0; k < made; ++k) output[count++] = filteredSample(sums[k], 0, scale);
    }
    return count;
}

}  // namespace

uint32_t resampleTimeStep(double factor) {
    return static_cast<uint32_t>(std::trunc(32768.0 / factor + 0.5));
}

uint32_t resampleTableStep(double factor) {
    return static_cast<uint32_t>(std::trunc(std::min(256.0, 256.0 * factor) * 128.0 + 0.5));
}

double resampleGuardLen(uint16_t Nmult, double factor) {
    return std::trunc((Nmult + 1) * 0.5 * std::max(1.0, 1.0 / factor) + 10.0);
}

uint16_t resampleScale(uint16_t ScaleFactor) {
    return static_cast<uint16_t>(std::trunc(ScaleFactor * 0.95));
}

int resampleError(const char* message) {
    std::fprintf(stderr, "resample: %s \n\n", message);
    return -1;
}

int16_t roundShiftSat16(int32_t value, int shift) {
    const uint32_t half = uint32_t{1} << (shift - 1);
    const int32_t v = static_cast<int32_t>(static_cast<uint32_t>(value) + half) >> shift;
    if (v > 32767) return 32767;
    if (v < -32768) return -32768;
    return static_cast<int16_t>(v);
}

int readData(ResampleState& state, ResampleIo& io, int inCount, int16_t* buffer1,
             int16_t* buffer2, int capacity, int nChans, int start) {
    const int frames = capacity - start;
    const size_t wanted = static_cast<size_t>(std::max(0, frames * nChans));
    size_t got = 0;
    if (wanted > 0) got = std::min(wanted, io.read(io.context, state.scratch, wanted));
    std::fill(state.scratch + got, state.scratch + wanted, int16_t{0});
    if (nChans == 1) {
        std::memcpy(buffer1 + start, state.scratch, wanted * sizeof(int16_t));
    } else {
        for (int f = 0; f < frames; ++f) {
            buffer1[start + f] = state.scratch[f * nChans];
            buffer2[start + f] = state.scratch[f * nChans + 1];
        }
    }
    if (frames < inCount) return 0;
    // Below 0 (a negative count) every value ends the conversion alike; keep it an int.
    return static_cast<int>(std::max<int64_t>(int64_t{inCount} + start - 1, INT_MIN));
}

int32_t wingSumUp(const int16_t* Coeffs, const int16_t* Differences, uint16_t Length,
                  int interpCoeffs, const int16_t* input, int position, uint32_t phase,
                  int direction) {
    uint32_t k = phase >> 7;
    const uint32_t a = phase & 127u;
    uint32_t limit = Length;
    if (direction == 1) {
        limit = Length - 1u;
        if (phase == 0) k += 256;  // the centre tap belongs to the left wing
    }
    int32_t sum = 0;
    for (int p = position; k < limit; k += 256, p += direction) {
        sum = wrapAdd(sum, roundedTap(coefficient(Coeffs, Differences, interpCoeffs, k, a),
                                      input[p]));
    }
    return sum;
}

int32_t wingSumDown(const int16_t* Coeffs, const int16_t* Differences, uint16_t Length,
                    int interpCoeffs, const int16_t* input, int position, uint32_t phase,
                    int direction, uint32_t dh) {
    uint32_t pos = (phase * dh) >> 15;
    uint32_t limit = Length;
    if (direction == 1) {
        limit = Length - 1u;
        if (phase == 0) pos += dh;
    }
    int32_t sum = 0;
    for (int p = position; (pos >> 7) < limit; pos += dh, p += direction) {
        sum = wrapAdd(sum, roundedTap(coefficient(Coeffs, Differences, interpCoeffs, pos >> 7,
                                                  pos & 127u),
                                      input[p]));
    }
    return sum;
}

// Both block filters stop after OUTBUFFSIZE + 1 samples: the caller then fails with "Output
// array overflow" unless the block is trimmed to the frames still wanted, which gives the
// same result as producing the whole block (factors above 6).
int filterBlockUp(const int16_t* input, int16_t* output, double factor, uint32_t& timeReg,
                  uint16_t blockLen, uint16_t Length, uint16_t scale, const int16_t* Coeffs,
                  const int16_t* Differences, int interpCoeffs) {
    const uint32_t timeStep = resampleTimeStep(factor);
    const uint32_t end = timeReg + uint32_t{blockLen} * kOne;
    int count = 0;
    while (timeReg < end && count <= OUTBUFFSIZE) {
        const int i = static_cast<int>(timeReg >> 15);
        const int32_t left = wingSumUp(Coeffs, Differences, Length, interpCoeffs, input, i,
                                       timeReg & 0x7FFFu, -1);
        const int32_t right = wingSumUp(Coeffs, Differences, Length, interpCoeffs, input, i + 1,
                                        (0u - timeReg) & 0x7FFFu, 1);
        output[count++] = filteredSample(left, right, scale);
        timeReg += timeStep;
    }
    return count;
}

int filterBlockDown(const int16_t* input, int16_t* output, double factor, uint32_t& timeReg,
                    uint16_t blockLen, uint16_t Length, uint16_t scale, const int16_t* Coeffs,
                    const int16_t* Differences, int interpCoeffs) {
    const uint32_t timeStep = resampleTimeStep(factor);
    const uint32_t dh = resampleTableStep(factor);
    const uint32_t end = timeReg + uint32_t{blockLen} * kOne;
    int count = 0;
    while (timeReg < end && count <= OUTBUFFSIZE) {
        const int i = static_cast<int>(timeReg >> 15);
        const int32_t left = wingSumDown(Coeffs, Differences, Length, interpCoeffs, input, i,
                                         timeReg & 0x7FFFu, -1, dh);
        const int32_t right = wingSumDown(Coeffs, Differences, Length, interpCoeffs, input,
                                          i + 1, (0u - timeReg) & 0x7FFFu, 1, dh);
        output[count++] = filteredSample(left, right, scale);
        timeReg += timeStep;
    }
    return count;
}

int linearBlock(const int16_t* input, int16_t* output, double factor, uint32_t& timeReg,
                uint16_t blockLen) {
    const uint32_t timeStep = resampleTimeStep(factor);
    const uint32_t end = timeReg + uint32_t{blockLen} * kOne;
    int count = 0;
    while (timeReg < end && count <= OUTBUFFSIZE) {
        const int i = static_cast<int>(timeReg >> 15);
        const int32_t f = static_cast<int32_t>(timeReg & 0x7FFFu);
        const int32_t v = input[i] * (32768 - f) + input[i + 1] * f;
        output[count++] = roundShiftSat16(v, 15);
        timeReg += timeStep;
    }
    return count;
}

int convertFilteredCore(ResampleIo& io, double factor, int inCount, int outCount, int nChans,
                        int interpCoeffs, const int16_t* Coeffs, const int16_t* Differences,
                        uint16_t scale, uint16_t Nmult, uint16_t Length, TapPath path) {
    if (nChans != 1 && nChans != 2) return fail(io, "only one or two channels");
    if (factor < 1.0) scale = static_cast<uint16_t>(std::trunc(scale * factor + 0.5));
    // The guard is checked before it is narrowed to 16 bits; a guard of exactly half the
    // buffer would leave blocks of 0 samples that never advance, so it fails too.
    const double guard = resampleGuardLen(Nmult, factor);
    if (!(2.0 * guard < IBUFFSIZE)) return fail(io, "IBUFFSIZE (or factor) is too small");
    if (!factorInRange(factor)) return fail(io, "factor out of range");
    const bool up = factor >= 1.0;
    const uint32_t dh = up ? kOne : resampleTableStep(factor);
    const auto guardLen = static_cast<uint16_t>(guard);
    // A filter file's table may reach further than its Nmult says; its taps would then fall
    // outside the block's history.
    if (dh == 0 || TapTable::maxTaps(Length, dh) >= guardLen) {
        return fail(io, "filter is longer than its Nmult allows");
    }

    auto state = newState(nChans);
    state->guardLen = guardLen;
    state->blockLen = static_cast<uint16_t>(IBUFFSIZE - 2 * guardLen);

    // The built-in filters' tables are made, and found usable, once per process, not once
    // per conversion.
    std::shared_ptr<TapTable> shared;
    if (path == TapPath::Auto) {
        if (Coeffs == largeFilter().Coeffs || Coeffs == smallFilter().Coeffs) {
            shared = TapTable::shared(Coeffs, Differences, Length, interpCoeffs, dh,
                                      kMaxTableEntries);
        } else if (TapTable::usable(Coeffs, Differences, Length, interpCoeffs, dh,
                                    kMaxTableEntries)) {
            shared = std::make_shared<TapTable>(Coeffs, Differences, Length, interpCoeffs, dh);
        }
    }
    if (shared != nullptr) {
        TapTable& taps = *shared;
        const uint32_t timeStep = resampleTimeStep(factor);
        ResampleState& s = *state;
        return runConversion(s, io, inCount, outCount, nChans,
                             [&](const int16_t* input, int16_t* output, uint32_t& timeReg) {
                                 TapTable::reverse(input, s.reversed, IBUFFSIZE);
                                 return filterBlockTable(input, s.reversed, output, timeReg,
                                                         s.blockLen, timeStep, scale, taps);
                             });
    }
    ResampleState& s = *state;
    return runConversion(s, io, inCount, outCount, nChans,
                         [&](const int16_t* input, int16_t* output, uint32_t& timeReg) {
                             if (up) {
                                 return filterBlockUp(input, output, factor, timeReg, s.blockLen,
                                                      Length, scale, Coeffs, Differences,
                                                      interpCoeffs);
                             }
                             return filterBlockDown(input, output, factor, timeReg, s.blockLen,
                                                    Length, scale, Coeffs, Differences,
                                                    interpCoeffs);
                         });
}

int convertFiltered(double factor, int inCount, int outCount, int nChans, int interpCoeffs,
                    const int16_t* Coeffs, const int16_t* Differences, uint16_t scale,
                    uint16_t Nmult, uint16_t Length, ProgressCallback callback, int32_t user,
                    TapPath path) {
    return onStageFiles(callback, user, [&](ResampleIo& io) {
        return convertFilteredCore(io, factor, inCount, outCount, nChans, interpCoeffs, Coeffs,
                                   Differences, scale, Nmult, Length, path);
    });
}

int convertLinear(double factor, int inCount, int outCount, int nChans,
                  ProgressCallback callback, int32_t user) {
    return onStageFiles(callback, user, [&](ResampleIo& io) {
        return convertLinearCore(io, factor, inCount, outCount, nChans);
    });
}

int convertLinearCore(ResampleIo& io, double factor, int inCount, int outCount, int nChans) {
    if (nChans != 1 && nChans != 2) return fail(io, "only one or two channels");
    if (!factorInRange(factor)) return fail(io, "factor out of range");
    auto state = newState(nChans);
    state->guardLen = 10;
    state->blockLen = IBUFFSIZE - 20;
    ResampleState& s = *state;
    return runConversion(s, io, inCount, outCount, nChans,
                         [&](const int16_t* input, int16_t* output, uint32_t& timeReg) {
                             return linearBlock(input, output, factor, timeReg, s.blockLen);
                         });
}

int resample(double factor, int inCount, int outCount, int nChans, int interpCoeffs,
             int linearOnly, int useLargeFilter, const char* filterFileName,
             ProgressCallback callback, int32_t user) {
    if (linearOnly != 0) return convertLinear(factor, inCount, outCount, nChans, callback, user);
    if (filterFileName != nullptr && filterFileName[0] != '\0') {
        int16_t* coeffs = nullptr;
        int16_t* differences = nullptr;
        uint16_t scaleFactor = 0;
        uint16_t nmult = 0;
        uint16_t length = 0;
        if (read_filter_file(filterFileName, &coeffs, &differences, &scaleFactor, &nmult,
                             &length) != kFilterFileOk) {
            return resampleError(
                "could not find filter file, or syntax error in contents of filter file");
        }
        const std::unique_ptr<int16_t[]> ownedCoeffs(coeffs);
        const std::unique_ptr<int16_t[]> ownedDifferences(differences);
        return convertFiltered(factor, inCount, outCount, nChans, interpCoeffs, coeffs,
                               differences, resampleScale(scaleFactor), nmult, length, callback,
                               user);
    }
    // Only the low byte of the flag counts.
    const FilterSet filter = (useLargeFilter & 0xFF) != 0 ? largeFilter() : smallFilter();
    return convertFiltered(factor, inCount, outCount, nChans, interpCoeffs, filter.Coeffs,
                           filter.Differences, resampleScale(filter.ScaleFactor), filter.Nmult,
                           filter.Length, callback, user);
}

}  // namespace kavolib
