// The low-pass filters of the sample-rate converter: one wing of a symmetric impulse response,
// 256 table entries per input-sample interval, with first differences for interpolating
// between entries. Two are built in; others can be read from a text file.
#pragma once

#include <cstdint>

namespace kavolib {

struct FilterSet {
    const int16_t* Coeffs = nullptr;       // Length entries, entry 0 at the centre
    const int16_t* Differences = nullptr;  // Coeffs[i+1] - Coeffs[i]; last is -Coeffs[Length-1]
    uint16_t ScaleFactor = 0;              // gain of the filtered sum, in units of 1/8192
    uint16_t Nmult = 0;                    // filter length in input intervals at unity factor
    uint16_t Length = 0;
};

extern const int16_t largeFilterCoeffs[8192];
extern const int16_t largeFilterDifferences[8192];
extern const int16_t smallFilterCoeffs[1536];
extern const int16_t smallFilterDifferences[1536];

// The built-in filters: Nmult 65 / Length 8192 / ScaleFactor 14746 and 13 / 1536 / 13128.
FilterSet largeFilter();
FilterSet smallFilter();

inline constexpr int kFilterFileOk = 0;
inline constexpr int kFilterFileCannotOpen = 1;
inline constexpr int kFilterFileNoScaleFactor = 2;
inline constexpr int kFilterFileNoLength = 3;
inline constexpr int kFilterFileNoNmult = 4;

// Reads a filter file (text: "ScaleFactor n", "Length n", "Nmult n", "Coeffs:" and Length
// integers, "Differences:" and Length integers; any white space between tokens). On success
// returns 0 and hands over two arrays allocated with new[] that the caller deletes with
// delete[]. ScaleFactor, Length and Nmult are stored as each is read, so a failure leaves the
// earlier ones set; the arrays are only allocated once all three were read. An empty or null
// name reads the default name "F<nmult>T8.filter" when the Nmult passed in is odd and
// non-zero, else the historical "F65dT8.filter".
int read_filter_file(const char* name, int16_t** coeffs, int16_t** differences,
                     uint16_t* scaleFactor, uint16_t* nmult, uint16_t* length);

}  // namespace kavolib
