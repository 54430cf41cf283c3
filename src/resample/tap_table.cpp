// Cached coefficient rows and the rounded dot product over them.
#include "resample/tap_table.h"

#include <algorithm>
#include <cstddef>
#include <vector>

#include "simd/simd.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace kavolib {

namespace {

constexpr int kVector = 16;

// Sum of round(c[j] * x[j] / 2^14) over n taps. A 16-bit coefficient times a 16-bit sample
// fits 31 bits, so adding 8192 before the arithmetic shift is the same as adding it only when
// bit 13 is set. The sum wraps in 32 bits.
uint32_t dotWide(const int16_t* c, const int16_t* x, int n) {
    uint32_t sum = 0;
    for (int j = 0; j < n; ++j) {
        const int32_t t = int32_t{c[j]} * int32_t{x[j]};
        sum += static_cast<uint32_t>((t + 8192) >> 14);
    }
    return sum;
}

// The same sum for coefficients below 2^14 in magnitude, stored doubled (c2 = 2c): then
// ((c2 * x >> 14) + 1) >> 1 equals (c * x + 8192) >> 14 and fits 16 bits, which is what a
// rounding high multiply of the vector unit computes in one instruction.
uint32_t dotNarrow(const int16_t* c2, const int16_t* x, int n) {
    uint32_t sum = 0;
    for (int j = 0; j < n; ++j) {
        const int32_t t = int32_t{c2[j]} * int32_t{x[j]};
        const auto r = static_cast<int16_t>(((t >> 14) + 1) >> 1);
        sum += static_cast<uint32_t>(int32_t{r});
    }
    return sum;
}

uint32_t bothPortable(const int16_t* cl, int wl, const int16_t* xl, const int16_t* cr, int wr,
                      const int16_t* xr, int n) {
    return dotWide(cl, xl, wl) + dotNarrow(cl + wl, xl + wl, n - wl) + dotWide(cr, xr, wr) +
           dotNarrow(cr + wr, xr + wr, n - wr);
}

#if defined(__x86_64__)
KAVO_AVX2 inline __m256i wideTaps(__m256i acc, const int16_t* c,
                                                        const int16_t* x) {
    const __m256i vc = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(c));
    const __m256i vx = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(x));
    const __m256i lo = _mm256_mullo_epi16(vc, vx);
    const __m256i hi = _mm256_mulhi_epi16(vc, vx);
    const __m256i round = _mm256_set1_epi32(8192);
    const __m256i p0 =
        _mm256_srai_epi32(_mm256_add_epi32(_mm256_unpacklo_epi16(lo, hi), round), 14);
    const __m256i p1 =
        _mm256_srai_epi32(_mm256_add_epi32(_mm256_unpackhi_epi16(lo, hi), round), 14);
    return _mm256_add_epi32(acc, _mm256_add_epi32(p0, p1));
}

KAVO_AVX2 inline __m256i narrowTaps(__m256i acc, const int16_t* c2,
                                                          const int16_t* x) {
    const __m256i vc = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(c2));
    const __m256i vx = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(x));
    const __m256i r = _mm256_mulhrs_epi16(vc, vx);
    return _mm256_add_epi32(acc, _mm256_madd_epi16(r, _mm256_set1_epi16(1)));
}

// The leading vectors of both wings that hold wide coefficients in either, walked side by side:
// first while both hold wide coefficients, then while one of them does. Returns the first tap
// past them.
KAVO_AVX2 inline int wideWings(__m256i& left, __m256i& right, const int16_t* cl, int wl,
                               const int16_t* xl, const int16_t* cr, int wr, const int16_t* xr) {
    const int both = wl < wr ? wl : wr;
    int j = 0;
    for (; j < both; j += kVector) {
        left = wideTaps(left, cl + j, xl + j);
        right = wideTaps(right, cr + j, xr + j);
    }
    for (; j < wl; j += kVector) {
        left = wideTaps(left, cl + j, xl + j);
        right = narrowTaps(right, cr + j, xr + j);
    }
    for (; j < wr; j += kVector) {
        left = narrowTaps(left, cl + j, xl + j);
        right = wideTaps(right, cr + j, xr + j);
    }
    return j;
}

KAVO_AVX2 inline uint32_t lanesSum(__m256i acc) {
    __m128i s = _mm_add_epi32(_mm256_castsi256_si128(acc), _mm256_extracti128_si256(acc, 1));
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, 0x4E));
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, 0xB1));
    return static_cast<uint32_t>(_mm_cvtsi128_si32(s));
}

// Both wings of one output sample; row lengths are whole vectors. The wide leading part, then
// the narrow rest.
KAVO_AVX2 uint32_t bothAvx2(const int16_t* cl, int wl, const int16_t* xl,
                                                  const int16_t* cr, int wr, const int16_t* xr,
                                                  int n) {
    __m256i left = _mm256_setzero_si256();
    __m256i right = _mm256_setzero_si256();
    for (int j = wideWings(left, right, cl, wl, xl, cr, wr, xr); j < n; j += kVector) {
        left = narrowTaps(left, cl + j, xl + j);
        right = narrowTaps(right, cr + j, xr + j);
    }
    return lanesSum(_mm256_add_epi32(left, right));
}

// The same with the narrow rest 32 taps of both wings a step (the 32-bit sums wrap, so their
// order does not matter); a row's last 16 taps may remain for the 256-bit step.
KAVO_AVX512 uint32_t bothAvx512(const int16_t* cl, int wl, const int16_t* xl, const int16_t* cr,
                                int wr, const int16_t* xr, int n) {
    __m256i left = _mm256_setzero_si256();
    __m256i right = _mm256_setzero_si256();
    int j = wideWings(left, right, cl, wl, xl, cr, wr, xr);
    __m512i rest = _mm512_setzero_si512();
    const __m512i ones = _mm512_set1_epi16(1);
    for (; j + 2 * kVector <= n; j += 2 * kVector) {
        const __m512i l = _mm512_mulhrs_epi16(_mm512_loadu_si512(cl + j), _mm512_loadu_si512(xl + j));
        const __m512i r = _mm512_mulhrs_epi16(_mm512_loadu_si512(cr + j), _mm512_loadu_si512(xr + j));
        rest = _mm512_add_epi32(rest, _mm512_add_epi32(_mm512_madd_epi16(l, ones),
                                                       _mm512_madd_epi16(r, ones)));
    }
    if (j < n) {
        left = narrowTaps(left, cl + j, xl + j);
        right = narrowTaps(right, cr + j, xr + j);
    }
    // The masked extractions with every lane set: GCC's unmasked ones start from an undefined
    // register, which its uninitialised-value warning flags.
    const __m256i lower = _mm512_mask_extracti64x4_epi64(_mm256_setzero_si256(), 0xF, rest, 0);
    const __m256i upper = _mm512_mask_extracti64x4_epi64(_mm256_setzero_si256(), 0xF, rest, 1);
    const __m256i halves = _mm256_add_epi32(lower, upper);
    return lanesSum(_mm256_add_epi32(_mm256_add_epi32(left, right), halves));
}
#endif

bool narrow(int32_t c) {
    return c > -16384 && c < 16384;
}

uint32_t roundedTap(int16_t c, int16_t x) {
    const int32_t t = int32_t{c} * int32_t{x};
    return static_cast<uint32_t>((t + 8192) >> 14);
}

int32_t coefficientAt(const int16_t* coeffs, const int16_t* differences, int interp, uint32_t pos) {
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
    if (rowLen * (static_cast<long>(dh) + 1) > maxEntries) return false;
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
      rows_(new int16_t[static_cast<size_t>(rowLen_) * (dh + 1)]),
      info_(new RowInfo[dh + 1]()),
      kernel_(bothPortable) {
#if defined(__x86_64__)
    if (use_avx2()) kernel_ = bothAvx2;
    if (use_avx512()) kernel_ = bothAvx512;
#endif
}

std::shared_ptr<TapTable> TapTable::shared(const int16_t* Coeffs, const int16_t* Differences,
                                           uint16_t Length, int interpCoeffs, uint32_t dh,
                                           long maxEntries) {
    constexpr size_t kKept = 16;
    static std::mutex lock;
    static std::vector<std::shared_ptr<TapTable>> kept;
    const std::lock_guard<std::mutex> guard(lock);
    for (const auto& table : kept) {
        if (table->coeffs_ == Coeffs && table->differences_ == Differences &&
            table->length_ == Length && table->interp_ == interpCoeffs && table->dh_ == dh) {
            return table;
        }
    }
    if (!usable(Coeffs, Differences, Length, interpCoeffs, dh, maxEntries)) return nullptr;
    auto table = std::make_shared<TapTable>(Coeffs, Differences, Length, interpCoeffs, dh);
    if (kept.size() < kKept) kept.push_back(table);
    return table;
}

void TapTable::usePortableKernel() {
    kernel_ = bothPortable;
}

__attribute__((always_inline)) inline const int16_t* TapTable::row(uint32_t start) {
    if (info_[start].filled.load(std::memory_order_acquire) != 0) {
        return rows_.get() + static_cast<size_t>(start) * static_cast<size_t>(rowLen_);
    }
    return fillRow(start);
}

const int16_t* TapTable::fillRow(uint32_t start) {
    int16_t* out = rows_.get() + static_cast<size_t>(start) * static_cast<size_t>(rowLen_);
    RowInfo& info = info_[start];
    const std::lock_guard<std::mutex> lock(fill_);
    if (info.filled.load(std::memory_order_relaxed) != 0) return out;
    int left = 0;
    int right = 0;
    int wideChunks = 0;
    for (uint32_t pos = start; (pos >> 7) < length_; pos += dh_) {
        const int32_t c = coefficientAt(coeffs_, differences_, interp_, pos);
        if (!narrow(c)) wideChunks = left / kVector + 1;
        out[left++] = static_cast<int16_t>(c);
        if ((pos >> 7) + 1u < length_) right = left;
    }
    for (int j = wideChunks * kVector; j < left; ++j) out[j] = static_cast<int16_t>(2 * out[j]);
    std::fill(out + left, out + rowLen_, int16_t{0});
    info.wide = static_cast<uint16_t>(wideChunks * kVector);
    info.countLeft = static_cast<uint16_t>(left);
    info.countRight = static_cast<uint16_t>(right);
    info.filled.store(1, std::memory_order_release);
    return out;
}

__attribute__((always_inline)) inline void TapTable::prefetch(uint32_t timeReg) const {
    const uint32_t phaseLeft = timeReg & 0x7FFFu;
    const uint32_t phaseRight = (0u - timeReg) & 0x7FFFu;
    const uint32_t startLeft = (phaseLeft * dh_) >> 15;
    const uint32_t startRight = ((phaseRight * dh_) >> 15) + (phaseRight == 0 ? dh_ : 0u);
    const auto bytes = static_cast<size_t>(rowLen_) * sizeof(int16_t);
    const char* left = reinterpret_cast<const char*>(rows_.get() + startLeft * size_t(rowLen_));
    const char* right = reinterpret_cast<const char*>(rows_.get() + startRight * size_t(rowLen_));
    for (size_t at = 0; at < bytes; at += 64) {
        __builtin_prefetch(left + at);
        __builtin_prefetch(right + at);
    }
}

int32_t TapTable::sum(const int16_t* reversedAtI, const int16_t* inputAfterI, uint32_t timeReg) {
    const uint32_t phaseLeft = timeReg & 0x7FFFu;
    const uint32_t phaseRight = (0u - timeReg) & 0x7FFFu;
    const uint32_t startLeft = (phaseLeft * dh_) >> 15;
    // At phase 0 the centre tap belongs to the left wing.
    const uint32_t startRight = ((phaseRight * dh_) >> 15) + (phaseRight == 0 ? dh_ : 0u);
    const int16_t* cl = row(startLeft);
    const int16_t* cr = row(startRight);
    uint32_t total =
        kernel_(cl, info_[startLeft].wide, reversedAtI, cr, info_[startRight].wide, inputAfterI,
                rowLen_);
    // Taps at the table's last entry belong to the left wing only.
    for (int j = info_[startRight].countRight; j < info_[startRight].countLeft; ++j) {
        const uint32_t pos = startRight + static_cast<uint32_t>(j) * dh_;
        total -=
            roundedTap(static_cast<int16_t>(coefficientAt(coeffs_, differences_, interp_, pos)),
                       inputAfterI[j]);
    }
    return static_cast<int32_t>(total);
}

void TapTable::reverse(const int16_t* input, int16_t* reversed, int n) {
    for (int q = 0; q < n; ++q) reversed[q] = input[n - 1 - q];
}

int TapTable::sums(const int16_t* input, const int16_t* reversedLast, uint32_t& timeReg,
                   uint32_t end, uint32_t timeStep, int32_t* out, int capacity) {
    int count = 0;
    while (timeReg < end && count < capacity) {
        const auto i = static_cast<int>(timeReg >> 15);
        prefetch(timeReg + timeStep);
        out[count++] = sum(reversedLast - i, input + i + 1, timeReg);
        timeReg += timeStep;
    }
    return count;
}

}  // namespace kavolib
