/* A program built against the first version of the settings and report records: its own copy
 * of them, checked field by field against kavo.h's, must keep converting as the records grow.
 * Also the size rules: a size below the first version's is refused, a larger one than the
 * library's own is read and written no further than the library's own.
 *
 * usage: report_v1 INPUT.mp3   (exit status 0 when every check holds, else 1 and the reasons) */
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "kavo/kavo.h"

typedef struct { uint32_t size; float gain; } settings_v1;

typedef struct {
    uint32_t size;
    int32_t input_kind, encoding, sample_rate, channels, format_changed;
    int64_t input_frames;
    double input_seconds;
    int64_t mp3_frames, skipped_bytes, output_bytes;
    double output_seconds, gain;
    int32_t highest, lowest;
    double max_gain, max_gain_high, max_gain_low;
    int64_t wrapped;
} report_v1;

/* The same offsets for every compiler (no padding the compiler chooses), and kavo.h's records
 * still begin with the first version's fields. */
#define AT(type, lib, field, offset)                                                     \
    _Static_assert(offsetof(type, field) == (offset) &&                                  \
                       offsetof(lib, field) == (offset),                                 \
                   #field " moved")
AT(settings_v1, kavo_settings, gain, 4); AT(report_v1, kavo_report, input_kind, 4);
AT(report_v1, kavo_report, encoding, 8); AT(report_v1, kavo_report, sample_rate, 12);
AT(report_v1, kavo_report, channels, 16); AT(report_v1, kavo_report, format_changed, 20);
AT(report_v1, kavo_report, input_frames, 24); AT(report_v1, kavo_report, input_seconds, 32);
AT(report_v1, kavo_report, mp3_frames, 40); AT(report_v1, kavo_report, skipped_bytes, 48);
AT(report_v1, kavo_report, output_bytes, 56); AT(report_v1, kavo_report, output_seconds, 64);
AT(report_v1, kavo_report, gain, 72); AT(report_v1, kavo_report, highest, 80);
AT(report_v1, kavo_report, lowest, 84); AT(report_v1, kavo_report, max_gain, 88);
AT(report_v1, kavo_report, max_gain_high, 96); AT(report_v1, kavo_report, max_gain_low, 104);
AT(report_v1, kavo_report, wrapped, 112);
_Static_assert(sizeof(settings_v1) == KAVO_SETTINGS_SIZE_1, "settings size");
_Static_assert(sizeof(report_v1) == KAVO_REPORT_SIZE_1, "report size");

enum { kTail = 64, kFill = 0xA5 };

/* A record with room behind it, filled with kFill so that a write beyond shows. */
typedef struct { unsigned char bytes[sizeof(kavo_report) + kTail]; } Room;
/* The output of one conversion (the fixture's is some 15 kB). */
typedef struct { unsigned char data[1 << 16]; size_t size; } Output;

static int collect(void* user, const void* bytes, size_t size) {
    Output* out = (Output*)user;
    if (size > sizeof out->data - out->size) return 1;
    memcpy(out->data + out->size, bytes, size);
    out->size += size;
    return 0;
}

static int failures = 0;
#define CHECK(condition, what) \
    ((condition) ? (void)0 : (void)(++failures, fprintf(stderr, "report_v1: %s\n", what)))

static int untouched(const unsigned char* from, size_t n) {
    while (n > 0 && from[n - 1] == kFill) --n;
    return n == 0;
}

/* One conversion of input through the memory call; output and report kept. */
static int convert(const void* input, size_t size, const void* settings, void* report,
                   Output* out) {
    kavo_io io = {NULL, input, size, NULL, collect, NULL, out};
    char message[256];
    out->size = 0;
    return kavo_convert(&io, (const kavo_settings*)settings, (kavo_report*)report, message,
                        sizeof message);
}

static int same_output(const Output* a, const Output* b) {
    return a->size == b->size && memcmp(a->data, b->data, a->size) == 0;
}

int main(int argc, char** argv) {
    FILE* file = argc == 2 ? fopen(argv[1], "rb") : NULL;
    if (file == NULL) return 2;
    static unsigned char mp3[1 << 20];
    const size_t mp3_size = fread(mp3, 1, sizeof mp3, file);
    fclose(file);

    /* The first version's records, exactly their size, with room behind both. */
    struct {
        settings_v1 s;
        unsigned char tail[kTail];
    } v1_settings;
    memset(&v1_settings, 0x7F, sizeof v1_settings);
    v1_settings.s.size = KAVO_SETTINGS_SIZE_1;
    v1_settings.s.gain = 2.0f;
    Room v1_room;
    memset(&v1_room, kFill, sizeof v1_room);
    report_v1* v1 = (report_v1*)(void*)v1_room.bytes;
    v1->size = KAVO_REPORT_SIZE_1;
    static Output v1_out, big_out, unity_out, null_out, out;
    CHECK(convert(mp3, mp3_size, &v1_settings, v1, &v1_out) == KAVO_OK, "first version refused");
    CHECK(untouched(v1_room.bytes + KAVO_REPORT_SIZE_1, sizeof v1_room - KAVO_REPORT_SIZE_1) &&
              v1->size == KAVO_REPORT_SIZE_1, "written beyond the caller's report");
    CHECK(v1->gain == 2.0 && v1->input_kind == KAVO_INPUT_MP3 && v1_out.size > 0 &&
              v1->output_bytes == (int64_t)v1_out.size, "report not filled");

    /* Larger than the library's own: read and written up to the library's own size only. */
    struct {
        kavo_settings s;
        unsigned char tail[kTail];
    } big_settings;
    memset(&big_settings, 0x7F, sizeof big_settings);
    big_settings.s = (kavo_settings)KAVO_SETTINGS_INIT;
    big_settings.s.size = (uint32_t)sizeof big_settings;
    big_settings.s.gain = 2.0f;
    Room big_room;
    memset(&big_room, kFill, sizeof big_room);
    kavo_report* big = (kavo_report*)(void*)big_room.bytes;
    big->size = (uint32_t)sizeof big_room;
    CHECK(convert(mp3, mp3_size, &big_settings, big, &big_out) == KAVO_OK, "larger size refused");
    CHECK(same_output(&v1_out, &big_out), "a larger record changed the output");
    CHECK(untouched(big_room.bytes + sizeof(kavo_report), kTail) && big->size == sizeof big_room,
          "written beyond the library's own report");
    CHECK(memcmp(big_room.bytes + 4, v1_room.bytes + 4, KAVO_REPORT_SIZE_1 - 4) == 0,
          "the first version's fields differ between sizes");

    /* NULL settings are the defaults, and a NULL report is allowed. */
    settings_v1 unity = {KAVO_SETTINGS_SIZE_1, 1.0f};
    CHECK(convert(mp3, mp3_size, &unity, NULL, &unity_out) == KAVO_OK, "no report refused");
    CHECK(convert(mp3, mp3_size, NULL, NULL, &null_out) == KAVO_OK, "no settings refused");
    CHECK(same_output(&unity_out, &null_out), "NULL settings are not gain 1.0");
    CHECK(!same_output(&unity_out, &v1_out), "the gain was not applied");

    /* Below the first version's size: refused, nothing written, the report left alone. */
    const uint32_t small[] = {0, KAVO_SETTINGS_SIZE_1 - 4};
    for (int i = 0; i < 2; ++i) {
        settings_v1 s = {small[i], 2.0f};
        CHECK(convert(mp3, mp3_size, &s, NULL, &out) == KAVO_ERROR_ARGUMENT && out.size == 0,
              "small settings accepted");
        Room room;
        memset(&room, kFill, sizeof room);
        ((report_v1*)(void*)room.bytes)->size = i == 0 ? 0 : KAVO_REPORT_SIZE_1 - 8;
        CHECK(convert(mp3, mp3_size, NULL, room.bytes, &out) == KAVO_ERROR_ARGUMENT &&
                  out.size == 0 && untouched(room.bytes + 4, sizeof room - 4),
              "small report accepted");
    }
    if (failures == 0) printf("report_v1: all checks hold\n");
    return failures == 0 ? 0 : 1;
}
