// The resampling engine: converts interleaved 16-bit frames to another rate by a real factor,
// in fixed point throughout: a position register with 15 fraction bits, a tabulated
// band-limited filter evaluated at the exact fractional position, rounding with saturation to
// 16 bits. A linear mode interpolates between neighbouring samples instead. The core takes its
// input from and hands its output to a ResampleIo; the file form (resample, convertFiltered,
// convertLinear) reads stageInput, writes stageOutput and prints its errors.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>

#include "kavo/kavo.h"
#include "resample/filter_set.h"

namespace kavolib {

inline constexpr int IBUFFSIZE = 4096;
inline constexpr int OUTBUFFSIZE = 6 * IBUFFSIZE + 2;
inline constexpr int SCRATCHSIZE = 8192;
// Zeroed entries behind each input buffer: the table path reads whole vectors past a wing's
// last tap (multiplied by zero coefficients).
inline constexpr int INPUTSLACK = 32;

// The two streams the resample stages open and the engine reads and writes.
extern FILE* stageInput;
extern FILE* stageOutput;

// Everything one conversion works on; one per call of the engine.
struct ResampleState {
    int16_t input[2][IBUFFSIZE + INPUTSLACK];
    int16_t reversed[IBUFFSIZE + INPUTSLACK];  // one channel's input back to front (table path)
    // One more than OUTBUFFSIZE each: a block stops at OUTBUFFSIZE + 1 samples, enough to
    // detect the overflow without ever writing past the buffer (factors above 6). Only the
    // channels converted have one, in a buffer of their own.
    int16_t* output[2];
    std::unique_ptr<int16_t[]> outputs;
    int16_t scratch[SCRATCHSIZE];
    uint32_t timeReg;
    uint16_t guardLen;
    uint16_t blockLen;
    int lastIndex;
    int outDone;
};

// The core's connections. read fills up to n samples (interleaved frames) and returns how
// many; fewer only at the end of the input. write takes n interleaved samples and returns 0,
// or non-zero to stop the conversion (the core then returns kResampleStopped). progress, when
// set, is told after every block. A failing core leaves its message in failure.
struct ResampleIo {
    size_t (*read)(void* context, int16_t* dst, size_t n);
    int (*write)(void* context, const int16_t* samples, size_t n);
    void (*progress)(void* context, int outDone, int outCount);
    void* context;
    const char* failure;
};

inline constexpr int kResampleStopped = -2;

// How the filter taps are summed. Plain follows the table lookups tap by tap. Auto sums
// cached coefficient rows with vector instructions whenever the filter allows it (always for
// the built-in filters), with identical output.
enum class TapPath { Auto, Plain };

int resample(double factor, int inCount, int outCount, int nChans, int interpCoeffs,
             int linearOnly, int useLargeFilter, const char* filterFileName,
             ProgressCallback callback, int32_t user);

int convertFiltered(double factor, int inCount, int outCount, int nChans, int interpCoeffs,
                    const int16_t* Coeffs, const int16_t* Differences, uint16_t scale,
                    uint16_t Nmult, uint16_t Length, ProgressCallback callback, int32_t user,
                    TapPath path = TapPath::Auto);

int convertLinear(double factor, int inCount, int outCount, int nChans,
                  ProgressCallback callback, int32_t user);

// The cores behind convertFiltered and convertLinear: the number of output frames written,
// -1 on an error (message in io.failure) or kResampleStopped.
int convertFilteredCore(ResampleIo& io, double factor, int inCount, int outCount, int nChans,
                        int interpCoeffs, const int16_t* Coeffs, const int16_t* Differences,
                        uint16_t scale, uint16_t Nmult, uint16_t Length,
                        TapPath path = TapPath::Auto);
int convertLinearCore(ResampleIo& io, double factor, int inCount, int outCount, int nChans);

// Fills buffer1 (and buffer2 with two channels) from index start with the next frames of
// the input, zeros past its end. Returns the buffer index of the input's last frame when the
// whole input (inCount frames) fits in this read, else 0.
int readData(ResampleState& state, ResampleIo& io, int inCount, int16_t* buffer1,
             int16_t* buffer2, int capacity, int nChans, int start);

int filterBlockUp(const int16_t* input, int16_t* output, double factor, uint32_t& timeReg,
                  uint16_t blockLen, uint16_t Length, uint16_t scale, const int16_t* Coeffs,
                  const int16_t* Differences, int interpCoeffs);
int filterBlockDown(const int16_t* input, int16_t* output, double factor, uint32_t& timeReg,
                    uint16_t blockLen, uint16_t Length, uint16_t scale, const int16_t* Coeffs,
                    const int16_t* Differences, int interpCoeffs);

int32_t wingSumUp(const int16_t* Coeffs, const int16_t* Differences, uint16_t Length,
                  int interpCoeffs, const int16_t* input, int position, uint32_t phase,
                  int direction);
int32_t wingSumDown(const int16_t* Coeffs, const int16_t* Differences, uint16_t Length,
                    int interpCoeffs, const int16_t* input, int position, uint32_t phase,
                    int direction, uint32_t dh);

int linearBlock(const int16_t* input, int16_t* output, double factor, uint32_t& timeReg,
                uint16_t blockLen);

// shift is 1 or more.
int16_t roundShiftSat16(int32_t value, int shift);

// Prints "resample: <message> \n\n" on standard error; returns -1.
int resampleError(const char* message);

// The per-conversion constants, as the engine computes them.
uint32_t resampleTimeStep(double factor);                  // trunc(32768 / factor + 0.5)
uint32_t resampleTableStep(double factor);                 // dh of the stretched filter
double resampleGuardLen(uint16_t Nmult, double factor);    // before narrowing to 16 bits
uint16_t resampleScale(uint16_t ScaleFactor);              // trunc(ScaleFactor * 0.95)

}  // namespace kavolib
