// The table path of the filter: for each starting position of a wing in the filter table
// (in units of 1/128 entry) the row of interpolated coefficients that wing uses, computed on
// first use and then summed against the input with vector instructions. Each tap is rounded
// on its own before it is added, and 32-bit sums wrap the same in any order, so the result is
// identical to summing tap by tap.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

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

    // The table of a filter whose arrays live as long as the process (the built-in ones) at
    // step dh, shared by every conversion: each row is computed once per process, and usable
    // is asked once, when the table is made (null when the filter cannot use the table path).
    // A few tables are kept; past that each caller gets a table of its own.
    static std::shared_ptr<TapTable> shared(const int16_t* Coeffs, const int16_t* Differences,
                                            uint16_t Length, int interpCoeffs, uint32_t dh,
                                            long maxEntries);

    // The sum of both wings for the output at timeReg (input index i = timeReg >> 15):
    // the left wing read from the reversed buffer at index IBUFFSIZE-1-i (input[i] and
    // before it), the right wing from input[i + 1] on.
    int32_t sum(const int16_t* reversedAtI, const int16_t* inputAfterI, uint32_t timeReg);

    // input[0 .. n) back to front into reversed, the buffer the left wings are read from.
    static void reverse(const int16_t* input, int16_t* reversed, int n);

    // The sums for the outputs from timeReg on, timeReg advancing by timeStep, while timeReg
    // is below end and fewer than capacity are made; returns how many. input and reversed are
    // a block's buffer and the same back to front (reversedLast: its last entry, input[0]).
    int sums(const int16_t* input, const int16_t* reversedLast, uint32_t& timeReg, uint32_t end,
             uint32_t timeStep, int32_t* out, int capacity);

    // The sums without vector instructions beyond the compiler's own (for the tests).
    void usePortableKernel();

    // Taps that one wing can span at most, for any starting position.
    static int maxTaps(uint16_t Length, uint32_t dh);

private:
    const int16_t* row(uint32_t start);
    const int16_t* fillRow(uint32_t start);  // row's first use
    // Asks the memory system early for the rows the output at timeReg will use.
    void prefetch(uint32_t timeReg) const;
    using Kernel = uint32_t (*)(const int16_t* cl, int wl, const int16_t* xl,
                                const int16_t* cr, int wr, const int16_t* xr, int n);

    const int16_t* coeffs_;
    const int16_t* differences_;
    uint16_t length_;
    int interp_;
    uint32_t dh_;
    int rowLen_;  // maxTaps rounded up to whole vectors; entries past a row's taps are 0
    // Per row: the leading whole vectors holding a coefficient of 2^14 or more in magnitude
    // are stored as is; the rest are stored doubled for the narrow sum. A row's memory is
    // only written when the row is first used: the whole table runs to megabytes, of which a
    // short conversion touches little. A row is written once, under the lock, before its
    // filled flag is set; readers that see the flag need no lock.
    std::unique_ptr<int16_t[]> rows_;
    struct RowInfo {
        uint16_t wide;
        uint16_t countLeft;   // taps with table index below Length
        uint16_t countRight;  // taps with table index below Length - 1
        std::atomic<uint8_t> filled;
    };
    std::unique_ptr<RowInfo[]> info_;  // zeroed: no row filled yet
    std::mutex fill_;
    Kernel kernel_;
};

}  // namespace kavolib
