// The generated tables against their sources: the Huffman code lists against the text data
// (complete prefix codes, h_cue, every 19-bit string decoded to its one matching code), the
// synthesis window against its text, and the formula constants recomputed in long double.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "frame/bitstream.h"
#include "layer3/layer3_stages.h"
#include "layer3/layer3_tables.h"

using namespace kavolib;

namespace {

constexpr long double kPi = 3.141592653589793238462643383279502884L;

struct Code {
    std::string bits;
    uint32_t value;  // x << 4 | y, or v w x y in the low four bits
};

std::map<std::string, std::vector<Code>> load_codes() {
    std::ifstream in(std::string(KAVO_SHARED_DIR) + "/data/layer3_huffman.txt");
    std::map<std::string, std::vector<Code>> tables;
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream s(line);
        std::string key;
        s >> key;
        if (key == "linbits" || key == "codes") continue;
        if (key == "A" || key == "B") {
            uint32_t v, w, x, y, len;
            std::string bits;
            s >> v >> w >> x >> y >> len >> bits;
            tables[key].push_back({bits, v << 3 | w << 2 | x << 1 | y});
        } else {
            uint32_t x, y, len;
            std::string bits;
            s >> x >> y >> len >> bits;
            tables[key].push_back({bits, x << 4 | y});
        }
    }
    return tables;
}

std::string slot_source(int slot) {
    if (slot == 4) return "5";
    if (slot == 14) return "15";
    if (slot >= 17 && slot <= 23) return "16";
    if (slot >= 25 && slot <= 31) return "24";
    if (slot == 32) return "A";
    if (slot == 33) return "B";
    return std::to_string(slot);
}

std::string code_of(uint32_t entry) {
    const uint32_t len = (entry >> 8) & 31u;
    std::string bits;
    for (uint32_t b = 0; b < len; ++b) bits += ((entry >> (31 - b)) & 1u) != 0 ? '1' : '0';
    return bits;
}

TEST(HuffmanTables, CodeListsHoldTheTextTablesSortedWithTheirCues) {
    const auto tables = load_codes();
    const int linbits[32] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                             1, 2, 3, 4, 6, 8, 10, 13, 4, 5, 6, 7, 8, 9, 11, 13};
    for (int slot = 1; slot < kHuffmanSlots; ++slot) {
        const HuffmanTable& t = kHuffmanTables[slot];
        const auto& source = tables.at(slot_source(slot));
        ASSERT_EQ(static_cast<size_t>(t.count), source.size()) << slot;
        std::map<std::string, uint32_t> expected;
        for (const Code& c : source) expected[c.bits] = c.value;
        long double kraft = 0;
        for (int i = 0; i < t.count; ++i) {
            const uint32_t e = t.codes[i];
            if (i > 0) {
                EXPECT_LT(t.codes[i - 1], e) << "slot " << slot << " not sorted at " << i;
            }
            const std::string bits = code_of(e);
            ASSERT_TRUE(expected.count(bits)) << "slot " << slot << " code " << bits;
            EXPECT_EQ(e & 0xFFu, expected[bits]) << "slot " << slot << " code " << bits;
            EXPECT_EQ(e & ((1u << (32 - bits.size())) - 1u) & ~0x1FFFu, 0u);
            kraft += std::ldexp(1.0L, -static_cast<int>(bits.size()));
        }
        EXPECT_EQ(kraft, 1.0L) << "slot " << slot << " is not a complete prefix code";
        for (uint32_t k = 0; k < 16; ++k) {
            // The entry matching k's four bits followed by zeros.
            int match = -1;
            for (int i = 0; i < t.count; ++i) {
                const std::string bits = code_of(t.codes[i]);
                std::string probe;
                for (int b = 3; b >= 0; --b) probe += ((k >> b) & 1u) != 0 ? '1' : '0';
                probe += std::string(15, '0');
                if (probe.compare(0, bits.size(), bits) == 0) match = i;
            }
            EXPECT_EQ(t.h_cue[k], match) << "slot " << slot << " k " << k;
        }
        EXPECT_EQ(t.linbits, slot < 32 ? linbits[slot] : 0) << slot;
    }
    EXPECT_EQ(kHuffmanTables[0].count, 1);
    EXPECT_EQ(kHuffmanTables[0].codes[0], 0u);
}

// Every 19-bit string, placed at every bit offset in turn, decodes to the one code word that
// begins it, consumes exactly its length, and prints no warning.
TEST(HuffmanTables, EveryNineteenBitStringFindsItsCodeWord) {
    StreamBuffer stream{};
    BitReader reader{};
    testing::internal::CaptureStdout();
    for (int slot : {1, 2, 3, 5, 6, 7, 8, 9, 10, 11, 12, 13, 15, 16, 24, 32, 33}) {
        for (uint32_t w = 0; w < (1u << 19); ++w) {
            const int offset = static_cast<int>(w % 8);
            const uint64_t bits = static_cast<uint64_t>(w) << (45 - offset);
            for (int b = 0; b < 4; ++b) stream.bytes[1900 + b] = static_cast<uint8_t>(bits >> (56 - 8 * b));
            reader.cursor = BitPosition{stream.bytes, offset, 1900};
            const uint32_t entry = huffman_lookup(reader, slot);
            const uint32_t len = (entry >> 8) & 31u;
            const bool ok = len == 0 || (entry >> (32 - len)) == (w >> (19 - len));
            const int consumed = (reader.cursor.byte_index - 1900) * 8 + reader.cursor.bit_offset - offset;
            if (!ok || consumed != static_cast<int>(len)) {
                FAIL() << "slot " << slot << " string " << w << " entry " << std::hex << entry;
            }
        }
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(SynthesisWindowTable, HoldsHalfTheTextWindow) {
    std::ifstream in(std::string(KAVO_SHARED_DIR) + "/data/synthesis_window.txt");
    std::vector<double> d;
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line[0] != '#') d.push_back(std::stod(line));
    }
    ASSERT_EQ(d.size(), 512u);
    for (int k = 0; k < 256; ++k) EXPECT_EQ(SynthesisWindow[k], d[static_cast<size_t>(k + 1)] / 2) << k;
}

void expect_table(const double* table, const std::vector<long double>& exact, const char* name) {
    for (size_t i = 0; i < exact.size(); ++i) {
        // Nearest double, or one unit in the last place away where the format's table says so.
        const double nearest = static_cast<double>(exact[i]);
        EXPECT_LE(std::fabs(table[i] - nearest), std::fabs(nearest) * 2.3e-16) << name << "[" << i << "]";
    }
}

TEST(ConstantTables, EqualTheirFormulas) {
    std::vector<long double> v;
    auto fill = [&](int n, auto f) {
        v.clear();
        for (int i = 0; i < n; ++i) v.push_back(f(i));
    };
    fill(18, [](int n) { return std::sin(kPi / 36 * (n + 0.5L)); });
    expect_table(LongWindow, v, "LongWindow");
    fill(6, [](int n) { return std::sin(kPi / 12 * (n + 0.5L)); });
    expect_table(ShortWindow, v, "ShortWindow");
    const long double c[8] = {-0.6L, -0.535L, -0.33L, -0.185L, -0.095L, -0.041L, -0.0142L, -0.0037L};
    fill(8, [&](int i) { return 1 / std::sqrt(1 + c[i] * c[i]); });
    expect_table(cs, v, "cs");
    fill(8, [&](int i) { return c[i] / std::sqrt(1 + c[i] * c[i]); });
    expect_table(ca, v, "ca");
    auto sign = [](int k) { return (k & 1) != 0 ? -1.0L : 1.0L; };
    fill(9, [&](int k) { return sign(k) * std::cos(kPi * (37 + 8 * k) / 144); });
    expect_table(LongPreCos, v, "LongPreCos");
    fill(9, [&](int k) { return sign(k) * std::sin(kPi * (37 + 8 * k) / 144); });
    expect_table(LongPreSin, v, "LongPreSin");
    fill(9, [](int m) { return std::cos(kPi * (1 + 8 * m) / 144); });
    expect_table(LongPostCos, v, "LongPostCos");
    fill(9, [](int m) { return std::sin(kPi * (1 + 8 * m) / 144); });
    expect_table(LongPostSin, v, "LongPostSin");
    fill(3, [&](int k) { return sign(k) * std::cos(kPi * (13 + 8 * k) / 48); });
    expect_table(ShortPreCos, v, "ShortPreCos");
    fill(3, [&](int k) { return sign(k) * std::sin(kPi * (13 + 8 * k) / 48); });
    expect_table(ShortPreSin, v, "ShortPreSin");
    fill(3, [](int m) { return std::cos(kPi * (1 + 8 * m) / 48); });
    expect_table(ShortPostCos, v, "ShortPostCos");
    fill(3, [](int m) { return std::sin(kPi * (1 + 8 * m) / 48); });
    expect_table(ShortPostSin, v, "ShortPostSin");
    const long double angles[4] = {2 * kPi / 3, 2 * kPi / 9, 4 * kPi / 9, 8 * kPi / 9};
    fill(8, [&](int i) { return i < 4 ? std::cos(angles[i]) : std::sin(angles[i - 4]); });
    expect_table(DftConstants, v, "DftConstants");
    fill(31, [](int i) {
        if (i < 16) return std::cos((4 * i + 1) * kPi / 64);
        if (i < 24) return std::cos((4 * (i - 16) + 1) * kPi / 32);
        if (i < 28) return std::cos((4 * (i - 24) + 1) * kPi / 16);
        if (i < 30) return std::cos((4 * (i - 28) + 1) * kPi / 8);
        return std::cos(kPi / 4);
    });
    expect_table(DctCos, v, "DctCos");
    fill(4, [](int k) { return std::pow(2.0L, k / 4.0L); });
    expect_table(QuarterPowerUp, v, "QuarterPowerUp");
    fill(4, [](int k) { return std::pow(2.0L, -k / 4.0L); });
    expect_table(QuarterPowerDown, v, "QuarterPowerDown");
    fill(7, [](int p) {
        const long double r = std::tan(p * kPi / 12);
        return p == 6 ? 1.0L : r / (1 + r);
    });
    expect_table(IntensityLeftFactor, v, "IntensityLeftFactor");
    fill(16, [](int j) { return std::pow(2.0L, -(j + 1) / 4.0L); });
    expect_table(LsfIntensityFactor[0], v, "LsfIntensityFactor[0]");
    fill(16, [](int j) { return std::pow(2.0L, -(j + 1) / 2.0L); });
    expect_table(LsfIntensityFactor[1], v, "LsfIntensityFactor[1]");
}

TEST(BandTables, RiseToTheGranuleAndWindowLengths) {
    for (int row = 0; row < 3; ++row) {
        for (int rate = 0; rate < 3; ++rate) {
            const int32_t* l = kLongBandBounds[row][rate];
            const int32_t* s = kShortBandBounds[row][rate];
            EXPECT_EQ(l[0], 0);
            EXPECT_EQ(l[22], 576);
            EXPECT_EQ(s[0], 0);
            EXPECT_EQ(s[13], 192);
            for (int b = 0; b < 22; ++b) EXPECT_LT(l[b], l[b + 1]);
            for (int b = 0; b < 13; ++b) EXPECT_LT(s[b], s[b + 1]);
        }
    }
}

}  // namespace
