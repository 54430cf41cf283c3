// The table path of the filter: for each starting position of a wing in the filter table
// (in units of 1/128 entry) the row of interpolated coefficients that wing uses, computed on
// first use and then summed against the input with vector instructions. Each tap is rounded
// on its own before it is added, and 32-bit sums wrap the same in any order, so the result is
// identical to summing tap by tap.
#pragma once

#include <cstdint>
#include <vector>

namespace kavolib {

class TapTable {
public:
    // False when the filter cannot use the table path: an interpolated coefficient outside
    // 16 bits (possible only in a filter file), or a table that would exceed maxEntries.
    static bool usable(const int16_t* Coeffs, const int16_t* Differences, uint16_t Length,
                       int interpCoeffs, uint32_t dh, long maxEntries);

    // dh: the table step per tap in 1/128 entry (32768 when the filter is not stretched).
    TapTable(const int16_t* Coeffs, const int16_t* Differences, uint16_t Length,
             int interpCoeffs, uint32_t dh);

    // Left wing at input index p, read from the channel's reversed buffer (index IBUFFSIZE-1-p
    // holds input[p]); phase is the 15-bit fraction of the position register.
    int32_t leftSum(const int16_t* reversedAtP, uint32_t phase);
    // Right wing starting at input index p (= i + 1), phase the fraction to the next sample.
    int32_t rightSum(const int16_t* inputAtP, uint32_t phase);

    // Taps that one wing can span at most, for any starting position.
    static int maxTaps(uint16_t Length, uint32_t dh);

private:
    const int16_t* row(uint32_t start);

    const int16_t* coeffs_;
    const int16_t* differences_;
    uint16_t length_;
    int interp_;
    uint32_t dh_;
    int rowLen_;  // maxTaps rounded up to whole vectors; entries past a row's taps are 0
    std::vector<int16_t> rows_;
    std::vector<uint16_t> countLeft_;   // taps with table index below Length
    std::vector<uint16_t> countRight_;  // taps with table index below Length - 1
    std::vector<uint8_t> filled_;
};

}  // namespace kavolib
