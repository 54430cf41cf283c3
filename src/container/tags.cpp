// Finding tags by their headers and footers. Each check reads only the few bytes it needs
// and trusts a size only when the whole tag lies inside the range still unclaimed.
#include "container/tags.h"

#include <cstring>

namespace kavolib {

namespace {

// A 28-bit size stored 7 bits to a byte, or -1 when a byte has its top bit set.
int64_t syncsafe(const uint8_t* p) {
    if (((p[0] | p[1] | p[2] | p[3]) & 0x80) != 0) return -1;
    return int64_t{p[0]} << 21 | int64_t{p[1]} << 14 | int64_t{p[2]} << 7 | int64_t{p[3]};
}

bool is_digits(const uint8_t* p, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        if (p[i] < '0' || p[i] > '9') return false;
    }
    return true;
}

// The ID3v2 tag at begin: 10 + size bytes, 10 more with the v2.4 footer; 0 when there is
// none or it does not fit before end.
uint64_t id3v2_at(const ByteReader& in, uint64_t begin, uint64_t end, int& version) {
    uint8_t h[10];
    if (end - begin < 10 || !in.get(begin, h, sizeof h)) return 0;
    if (std::memcmp(h, "ID3", 3) != 0 || h[3] < 2 || h[3] > 4) return 0;
    const int64_t size = syncsafe(h + 6);
    if (size < 0) return 0;
    const uint64_t total = 10 + static_cast<uint64_t>(size) + (h[3] == 4 && (h[5] & 0x10) ? 10 : 0);
    if (total > end - begin) return 0;
    version = h[3];
    return total;
}

// Zero bytes from begin (at most to end): padding that a tag's size does not count.
uint64_t zero_run(const ByteReader& in, uint64_t begin, uint64_t end) {
    uint8_t block[512];
    uint64_t at = begin;
    while (at < end) {
        const size_t n = end - at < sizeof block ? static_cast<size_t>(end - at) : sizeof block;
        if (!in.get(at, block, n)) break;
        size_t i = 0;
        while (i < n && block[i] == 0) ++i;
        at += i;
        if (i < n) break;
    }
    return at - begin;
}

// One tag ending at end, at least; its size (0 when none) and name.
uint64_t tag_before(const ByteReader& in, uint64_t begin, uint64_t end, std::string& name,
                    bool& id3v1) {
    const uint64_t room = end - begin;
    id3v1 = false;
    // APEv1/APEv2: a 32-byte footer "APETAGEX", version, size (items + footer), count, flags.
    uint8_t f[32];
    if (room >= 32 && in.get(end - 32, f, 32) && std::memcmp(f, "APETAGEX", 8) == 0) {
        const uint32_t version = get_le32(f + 8);
        const uint64_t size = get_le32(f + 12);
        const bool header = (get_le32(f + 20) & 0x80000000u) != 0;
        const uint64_t total = size + (header ? 32 : 0);
        if (size >= 32 && total <= room && (version == 1000 || version == 2000)) {
            uint8_t h[8];
            if (!header || (in.get(end - total, h, 8) && std::memcmp(h, "APETAGEX", 8) == 0)) {
                name = version == 1000 ? "APEv1 tag" : "APEv2 tag";
                return total;
            }
        }
    }
    // An ID3v2.4 tag after the audio, found from its footer "3DI".
    if (room >= 20 && in.get(end - 10, f, 10) && std::memcmp(f, "3DI", 3) == 0 && f[3] == 4) {
        const int64_t size = syncsafe(f + 6);
        int version = 0;
        if (size >= 0 && static_cast<uint64_t>(size) + 20 <= room &&
            id3v2_at(in, end - static_cast<uint64_t>(size) - 20, end, version) ==
                static_cast<uint64_t>(size) + 20) {
            name = "ID3v2.4 tag";
            return static_cast<uint64_t>(size) + 20;
        }
    }
    // Lyrics3 v2: the tag, then its size in 6 digits and "LYRICS200"; the size counts from
    // "LYRICSBEGIN" to just before the digits.
    if (room >= 15 + 11 && in.get(end - 15, f, 15) && std::memcmp(f + 6, "LYRICS200", 9) == 0 &&
        is_digits(f, 6)) {
        uint64_t size = 0;
        for (int i = 0; i < 6; ++i) size = size * 10 + (f[i] - '0');
        uint8_t h[11];
        if (size >= 11 && size + 15 <= room && in.get(end - 15 - size, h, 11) &&
            std::memcmp(h, "LYRICSBEGIN", 11) == 0) {
            name = "Lyrics3 v2 tag";
            return size + 15;
        }
    }
    // ID3v1: the last 128 bytes begin "TAG"; the enhanced block "TAG+" of 227 bytes may
    // stand before them.
    if (room >= 128 && in.get(end - 128, f, 3) && std::memcmp(f, "TAG", 3) == 0) {
        id3v1 = true;
        if (room >= 128 + 227 && in.get(end - 128 - 227, f, 4) && std::memcmp(f, "TAG+", 4) == 0) {
            name = "ID3v1 tag with a TAG+ block";
            return 128 + 227;
        }
        name = "ID3v1 tag";
        return 128;
    }
    return 0;
}

// Lyrics3 v1, which stands only before an ID3v1 tag: "LYRICSBEGIN" ... "LYRICSEND", at most
// 5100 bytes in all.
uint64_t lyrics3v1_before(const ByteReader& in, uint64_t begin, uint64_t end) {
    uint8_t tail[9];
    if (end - begin < 20 || !in.get(end - 9, tail, 9) || std::memcmp(tail, "LYRICSEND", 9) != 0) {
        return 0;
    }
    const uint64_t reach = end - begin < 5100 ? end - begin : 5100;
    uint8_t block[5100];
    if (!in.get(end - reach, block, static_cast<size_t>(reach))) return 0;
    for (size_t at = static_cast<size_t>(reach) - 20 + 1; at-- > 0;) {
        if (std::memcmp(block + at, "LYRICSBEGIN", 11) == 0) return reach - at;
    }
    return 0;
}

}  // namespace

void strip_tags(const ByteReader& in, uint64_t& begin, uint64_t& end,
                std::vector<SkippedItem>& skipped) {
    for (int version = 0;;) {
        const uint64_t tag = id3v2_at(in, begin, end, version);
        if (tag == 0) break;
        const uint64_t total = tag + zero_run(in, begin + tag, end);
        skipped.push_back({"ID3v2." + std::to_string(version) + " tag", total});
        begin += total;
    }
    for (;;) {
        std::string name;
        bool id3v1 = false;
        const uint64_t tag = tag_before(in, begin, end, name, id3v1);
        if (tag == 0) break;
        skipped.push_back({name, tag});
        end -= tag;
        if (id3v1) {
            const uint64_t lyrics = lyrics3v1_before(in, begin, end);
            if (lyrics > 0) {
                skipped.push_back({"Lyrics3 v1 tag", lyrics});
                end -= lyrics;
            }
        }
    }
}

}  // namespace kavolib
