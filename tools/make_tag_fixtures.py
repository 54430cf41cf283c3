#!/usr/bin/env python3
"""Makes tests/fixtures/tags: short MP3 clips cut from the committed fixtures, and the same
clips with each kind of tag and wrapper around them, plus expected.tsv, the table the tests
read: each file, the bare clip it must convert like, the items the command names with -v, and for
a refused file a part of its message. Byte-for-byte repeatable; run it from anywhere.

The tags are built here from their published layouts; a few carry payloads full of false
frame headers (every layer, a free-format one, JPEG markers that read as headers), which a
byte-by-byte frame search would take for audio."""

import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
FIXTURES = os.path.join(HERE, "..", "tests", "fixtures")
OUT = os.path.join(FIXTURES, "tags")

RATES = {3: (44100, 48000, 32000), 2: (22050, 24000, 16000), 0: (11025, 12000, 8000)}
KBPS = {(1, 3): (0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320),
        (1, 2): (0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384),
        (0, 3): (0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160),
        (0, 2): (0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160)}


def frames(name, first, count):
    """count whole frames from frame first of a fixture that begins with a frame."""
    data = open(os.path.join(FIXTURES, name), "rb").read()
    at, index, out = 0, 0, b""
    while index < first + count:
        h = data[at:at + 4]
        assert h[0] == 0xFF and h[1] & 0xE0 == 0xE0, (name, at)
        version, layer = (h[1] >> 3) & 3, 4 - ((h[1] >> 1) & 3)
        mpeg1 = version == 3
        br = KBPS[(int(mpeg1), layer)][h[2] >> 4] * 1000
        rate, pad = RATES[version][(h[2] >> 2) & 3], (h[2] >> 1) & 1
        length = (144 if mpeg1 or layer == 2 else 72) * br // rate + pad
        if index >= first:
            out += data[at:at + length]
        at, index = at + length, index + 1
    return out


def syncsafe(n):
    return bytes([(n >> 21) & 0x7F, (n >> 14) & 0x7F, (n >> 7) & 0x7F, n & 0x7F])


def id3v2(version, frames_bytes, footer=False, padding=0):
    """An ID3v2 tag; padding zero bytes are counted in its size."""
    body = frames_bytes + bytes(padding)
    flags = 0x10 if footer else 0
    tag = b"ID3" + bytes([version, 0, flags]) + syncsafe(len(body)) + body
    if footer:
        tag += b"3DI" + bytes([version, 0, flags]) + syncsafe(len(body))
    return tag


def text_frame(version, frame_id, text):
    payload = b"\x00" + text.encode("latin-1")
    if version == 2:
        return frame_id + struct.pack(">I", len(payload))[1:] + payload
    length = syncsafe(len(payload)) if version == 4 else struct.pack(">I", len(payload))
    return frame_id + length + b"\x00\x00" + payload


# False headers of every kind: Layer III/II/I of MPEG-1, MPEG-2 and MPEG-2.5, a free-format
# Layer III header, and the JPEG markers that read as headers (0xFFFE comment: free-format
# Layer I; 0xFFE2 ICC profile: MPEG-2.5 Layer III).
FALSE_HEADERS = (b"\xff\xfb\x90\x64" + bytes(60) + b"\xff\xfd\x90\x44" + bytes(60) +
                 b"\xff\xff\x90\x44" + bytes(60) + b"\xff\xf3\x90\xc4" + bytes(60) +
                 b"\xff\xe3\x18\xc4" + bytes(60) + b"\xff\xfb\x00\x44" + bytes(100) +
                 b"\xff\xfb\x02\x44" + bytes(100))
JPEG = (b"\xff\xd8\xff\xe0\x00\x10JFIF\x00\x01\x01\x00\x00\x01\x00\x01\x00\x00"
        b"\xff\xfe\x00\x13kavo cover comment" + b"\xff\xe2\x00\x40ICC_PROFILE\x00\x01\x01" +
        bytes(50) + FALSE_HEADERS + b"\xff\xd9")


def apic(payload):
    body = b"\x00image/jpeg\x00\x03cover\x00" + payload
    return b"APIC" + struct.pack(">I", len(body)) + b"\x00\x00" + body


def id3v1(title="kavo test"):
    return b"TAG" + title.encode().ljust(30, b"\x00") + b"artist".ljust(30, b"\x00") + \
        b"album".ljust(30, b"\x00") + b"2026" + b"comment".ljust(30, b"\x00") + b"\x0c"


def tag_plus():
    return b"TAG+" + b"long title".ljust(60, b"\x00") + b"long artist".ljust(60, b"\x00") + \
        b"long album".ljust(60, b"\x00") + b"\x00" + b"genre".ljust(30, b"\x00") + \
        b"000:00" + b"000:30"


def ape(version, items, header):
    """APEv1 (1000, no header) or APEv2 (2000) tag; the size counts the items and footer."""
    body = b"".join(struct.pack("<II", len(v), 0) + k + b"\x00" + v for k, v in items)
    length = len(body) + 32
    flags = 0x80000000 if header else 0

    def block(is_header):
        f = flags | (0x20000000 if is_header else 0)
        return b"APETAGEX" + struct.pack("<IIII", version, length, len(items), f) + bytes(8)
    return (block(True) if header else b"") + body + block(False)


def lyrics3v1(text):
    return b"LYRICSBEGIN" + text + b"LYRICSEND"


def lyrics3v2(fields):
    body = b"LYRICSBEGIN" + b"".join(k + b"%05d" % len(v) + v for k, v in fields)
    return body + b"%06d" % len(body) + b"LYRICS200"


def riff(fmt, chunks_before, data, chunks_after=()):
    def chunk(cid, body):
        return cid + struct.pack("<I", len(body)) + body + (b"\x00" if len(body) & 1 else b"")
    body = b"WAVE" + chunk(b"fmt ", fmt) + b"".join(chunk(c, b) for c, b in chunks_before) + \
        chunk(b"data", data) + b"".join(chunk(c, b) for c, b in chunks_after)
    return b"RIFF" + struct.pack("<I", len(body)) + body


def mpeg_fmt(tag, channels, rate, kbps):
    # The 12 (Layer III) or 22 (MPEG) extra bytes are left zero: nothing reads them.
    extra = 12 if tag == 0x55 else 22
    return struct.pack("<HHIIHHH", tag, channels, rate, kbps * 125, 1, 0, extra) + bytes(extra)


def commas(n):
    return f"{n:,}"


def main():
    os.makedirs(OUT, exist_ok=True)
    a = frames("tone_m1_44k_mono.mp3", 1, 12)      # MPEG-1, 44.1 kHz, 64 kbit/s
    b = frames("tone_m25_8k_mono.mp3", 1, 16)      # MPEG-2.5, 8 kHz, 16 kbit/s
    layer2 = frames("layer2_m1_44k_stereo.mp2", 0, 3)
    rows = []

    def add(name, data, bare, skipped, refused=""):
        with open(os.path.join(OUT, name), "wb") as f:
            f.write(data)
        said = "; ".join(f"{n}, {commas(s)} bytes" for n, s in skipped)
        rows.append((name, bare, said or "-", refused or "-"))

    add("bare_m1_44k.mp3", a, "bare_m1_44k.mp3", [])
    add("bare_m25_8k.mp3", b, "bare_m25_8k.mp3", [])

    t = id3v2(2, text_frame(2, b"TT2", "two point two"))
    add("id3v22.mp3", t + a, "bare_m1_44k.mp3", [("ID3v2.2 tag", len(t))])
    t = id3v2(3, text_frame(3, b"TIT2", "padded"))
    add("id3v23_unsized_padding.mp3", t + bytes(300) + a, "bare_m1_44k.mp3",
        [("ID3v2.3 tag", len(t) + 300)])
    t = id3v2(4, text_frame(4, b"TIT2", "footer"), footer=True)
    add("id3v24_footer.mp3", t + b, "bare_m25_8k.mp3", [("ID3v2.4 tag", len(t))])
    t1 = id3v2(3, text_frame(3, b"TIT2", "first"), padding=40)
    t2 = id3v2(4, text_frame(4, b"TIT2", "second"))
    add("id3v2_twice.mp3", t1 + t2 + a, "bare_m1_44k.mp3",
        [("ID3v2.3 tag", len(t1)), ("ID3v2.4 tag", len(t2))])
    t = id3v2(3, text_frame(3, b"TIT2", "cover") + apic(JPEG), padding=64)
    add("id3v2_false_headers.mp3", t + b, "bare_m25_8k.mp3", [("ID3v2.3 tag", len(t))])

    v1 = id3v1()
    add("id3v1.mp3", a + v1, "bare_m1_44k.mp3", [("ID3v1 tag", 128)])
    add("id3v1_enhanced.mp3", a + tag_plus() + v1, "bare_m1_44k.mp3",
        [("ID3v1 tag with a TAG+ block", 355)])
    t = ape(2000, [(b"Title", b"ape two"), (b"Cover", FALSE_HEADERS)], True)
    add("apev2_id3v1.mp3", b + t + v1, "bare_m25_8k.mp3",
        [("ID3v1 tag", 128), ("APEv2 tag", len(t))])
    t = ape(1000, [(b"Title", b"ape one")], False)
    add("apev1.mp3", a + t, "bare_m1_44k.mp3", [("APEv1 tag", len(t))])
    l1 = lyrics3v1(b"[00:01]first line\r\n[00:02]second line")
    add("lyrics3v1.mp3", a + l1 + v1, "bare_m1_44k.mp3",
        [("ID3v1 tag", 128), ("Lyrics3 v1 tag", len(l1))])
    l2 = lyrics3v2([(b"IND", b"10"), (b"LYR", b"[00:01]a line" + FALSE_HEADERS[:80])])
    add("lyrics3v2.mp3", b + l2, "bare_m25_8k.mp3", [("Lyrics3 v2 tag", len(l2))])
    t = id3v2(4, text_frame(4, b"TIT2", "appended"), footer=True)
    add("id3v24_appended.mp3", a + t, "bare_m1_44k.mp3", [("ID3v2.4 tag", len(t))])

    front = id3v2(3, apic(JPEG))
    ap = ape(2000, [(b"Artist", b"both ends")], True)
    l2 = lyrics3v2([(b"IND", b"00"), (b"ETT", b"both ends")])
    add("both_ends.mp3", front + a + ap + l2 + v1, "bare_m1_44k.mp3",
        [("ID3v2.3 tag", len(front)), ("ID3v1 tag", 128), ("Lyrics3 v2 tag", len(l2)),
         ("APEv2 tag", len(ap))])

    # Sizes that cannot be trusted: a size byte with its top bit set, and an APE footer
    # declaring more than the file holds. Their bytes stay in the stream.
    t = bytearray(id3v2(3, text_frame(3, b"TIT2", "untrusted length")))
    t[7] |= 0x80
    add("malformed_id3v2_size.mp3", bytes(t) + a, "malformed_id3v2_size.mp3", [])
    t = bytearray(ape(2000, [(b"Title", b"too long")], False))
    t[-20:-16] = struct.pack("<I", 100000)
    add("ape_size_past_start.mp3", a + bytes(t), "ape_size_past_start.mp3", [])

    # RIFF WAVE wrappers: MPEG Layer III (0x55) with chunks before and after the data, the
    # data beginning with an ID3v2 tag and of odd length; MPEG (0x50) around Layer II.
    fmt = mpeg_fmt(0x55, 1, 44100, 64)
    w = riff(fmt, [(b"fact", struct.pack("<I", 12 * 1152))], a, [(b"LIST", b"INFOISFT\x05\x00\x00\x00kavo\x00\x00")])
    add("riff_mp3.wav", w, "bare_m1_44k.mp3", [("RIFF WAVE wrapper", len(w) - len(a))])
    t = id3v2(3, text_frame(3, b"TIT2", "inside"))
    data = t + b + b"\x00"  # one stray byte makes the data odd, so a pad byte follows it
    w = riff(mpeg_fmt(0x55, 1, 8000, 16), [(b"LIST", b"INFO")], data, [(b"id3 ", t)])
    add("riff_mp3_id3v2.wav", w, "bare_m25_8k.mp3",
        [("RIFF WAVE wrapper", len(w) - len(data)), ("ID3v2.3 tag", len(t))])
    w = riff(mpeg_fmt(0x50, 2, 44100, 128), [], layer2)
    offset = w.index(layer2)
    add("riff_layer2.wav", w, "-", [("RIFF WAVE wrapper", len(w) - len(layer2))],
        f"a Layer II frame at byte {offset}")

    with open(os.path.join(OUT, "expected.tsv"), "w") as f:
        f.write("# input\tconverts like\twhat kavo convert -v names as skipped\trefusal\n")
        for row in rows:
            f.write("\t".join(row) + "\n")


if __name__ == "__main__":
    main()
