// Cached coefficient rows and the rounded dot product over them.
#include "resample/tap_table.h"

#include <cstddef>

namespace kavolib {

namespace {

constexpr int kVector = 16;

// Sum of round(c[j] * x[j] / 2^14) over n taps, n a multiple of kVector. A 16-bit coefficient
// times a 16-bit sample fits 31 bits, so adding 8192 before the arithmetic shift is the same
// as adding it only when bit 13 is set. The sum wraps in 32 bits.
__attribute__((target_clones("avx2", "default"))) uint32_t dotRounded(const int16_t* c,
                                                                      const int16_t* x, int n) {
    uint32_t sum = 0;
    for (int j = 0; j < n; ++j) {
        const int32_t t = int32_t{c[j]} * int32_t{x[j]};
        sum += static_cast<uint32_t>((t + 8192) >> 14);
    }
    return sum;
}

uint32_t roundedTap(int16_t c, int16_t x) {
    const int32_t t = int32_t{c} * int32_t{x};
    return static_cast<uint32_t>((t + 8192) >> 14);
}

int32_t coefficientAt(const int16_t* coeffs, const int16_t* differences, int interp,
                      uint32_t pos) {
    const uint32_t k = pos >> 7;
    int32_t c = coeffs[k];
    if (interp != 0) c += (int32_t{differences[k]} * static_cast<int32_t>(pos & 127u)) >> 7;
    return c;
}

}  // namespace

int TapTable::maxTaps(uint16_t Length, uint32_t dh) {
    const uint64_t span = uint64_t{Length} * 128u;
    return static_cast<int>((span + dh - 1) / dh);
}

bool TapTable::usable(const int16_t* Coeffs, const int16_t* Differences, uint16_t Length,
                      int interpCoeffs, uint32_t dh, long maxEntries) {
    if (dh == 0) return false;
    const long rowLen = (maxTaps(Length, dh) + kVector - 1) / kVector * kVector;
    if (rowLen * (long{dh} + 1) > maxEntries) return false;
    if (interpCoeffs == 0) return true;
    for (uint32_t k = 0; k < Length; ++k) {
        // The interpolated value lies between the entry and entry + (difference * 127) >> 7.
        const int32_t far = Coeffs[k] + ((int32_t{Differences[k]} * 127) >> 7);
        if (far < INT16_MIN || far > INT16_MAX) return false;
    }
    return true;
}

TapTable::TapTable(const int16_t* Coeffs, const int16_t* Differences, uint16_t Length,
                   int interpCoeffs, uint32_t dh)
    : coeffs_(Coeffs),
      differences_(Differences),
      length_(Length),
      interp_(interpCoeffs),
      dh_(dh),
      rowLen_((maxTaps(Length, dh) + kVector - 1) / kVector * kVector),
      rows_(static_cast<size_t>(rowLen_) * (dh + 1)),
      countLeft_(dh + 1),
      countRight_(dh + 1),
      filled_(dh + 1) {}

const int16_t* TapTable::row(uint32_t start) {
    int16_t* out = rows_.data() + static_cast<size_t>(start) * static_cast<size_t>(rowLen_);
    if (filled_[start] != 0) return out;
    int left = 0;
    int right = 0;
    for (uint32_t pos = start; (pos >> 7) < length_; pos += dh_) {
        out[left++] = static_cast<int16_t>(coefficientAt(coeffs_, differences_, interp_, pos));
        if ((pos >> 7) + 1u < length_) right = left;
    }
    countLeft_[start] = static_cast<uint16_t>(left);
    countRight_[start] = static_cast<uint16_t>(right);
    filled_[start] = 1;
    return out;
}

int32_t TapTable::leftSum(const int16_t* reversedAtP, uint32_t phase) {
    const uint32_t start = (phase * dh_) >> 15;
    const int16_t* c = row(start);
    return static_cast<int32_t>(dotRounded(c, reversedAtP, rowLen_));
}

int32_t TapTable::rightSum(const int16_t* inputAtP, uint32_t phase) {
    uint32_t start = (phase * dh_) >> 15;
    // At phase 0 the centre tap belongs to the left wing.
    if (phase == 0) start += dh_;
    const int16_t* c = row(start);
    uint32_t sum = dotRounded(c, inputAtP, rowLen_);
    // Taps at the table's last entry belong to the left wing only.
    for (int j = countRight_[start]; j < countLeft_[start]; ++j) {
        sum -= roundedTap(c[j], inputAtP[j]);
    }
    return static_cast<int32_t>(sum);
}

}  // namespace kavolib
