// The resampling engine: converts interleaved 16-bit frames read from stageInput to another
// rate by a real factor and writes them to stageOutput, in fixed point throughout: a position
// register with 15 fraction bits, a tabulated band-limited filter evaluated at the exact
// fractional position, rounding with saturation to 16 bits. A linear mode interpolates
// between neighbouring samples instead.
#pragma once

#include <cstdint>
#include <cstdio>

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
    // One more than OUTBUFFSIZE: a block stops at OUTBUFFSIZE + 1 samples, enough to detect
    // the overflow without ever writing past the buffer (factors above 6).
    int16_t output[2][OUTBUFFSIZE + 1];
    int16_t scratch[SCRATCHSIZE];
    uint32_t timeReg;
    uint16_t guardLen;
    uint16_t blockLen;
    int lastIndex;
    int outDone;
};

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

// Fills buffer1 (and buffer2 with two channels) from index start with the next frames of
// stageInput, zeros past its end. Returns the buffer index of the input's last frame when the
// whole input (inCount frames) fits in this read, else 0.
int readData(ResampleState& state, int inCount, int16_t* buffer1, int16_t* buffer2,
             int capacity, int nChans, int start);

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
