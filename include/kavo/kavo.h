/*
 * kavo: MPEG audio Layer III to 32 kbit/s, 8000 Hz, 4-bit ADPCM.
 *
 * One exported function converts a whole MP3 file (MPEG-1, MPEG-2 or MPEG-2.5 Layer III)
 * into a headerless stream of 4-bit ADPCM codes, four codes to a 16-bit little-endian word,
 * the earliest sample in the lowest nibble.
 *
 * Status codes of ConversionResult.status:
 *   1  success: the output file was written
 *   3  refused: the input path is empty
 *   4  refused: the output path is empty
 *   5  refused: the gain is -1.0
 *   6  refused: the input or output path names one of the temporary files below in the
 *      current directory (the conversion would overwrite or remove it)
 * The checks run in that order; a refusal prints nothing and touches no file.
 * ConversionResult.version is always 1.2.
 *
 * The callback, when not NULL, is called as callback(user, 0, 100, percent, 1), with percent
 * rising from 0 to at most 100 over the call (0..40 decoding, 40..59 mixing to mono, 60..80
 * converting to 8000 Hz, 80..100 encoding); its result is ignored.
 *
 * The call is synchronous, runs on the caller's thread and is not re-entrant: do not call
 * kavo again from the callback or from another thread while a call runs. It works in the
 * current directory with fixed temporary file names ("ZUVRTEMP.TM2", "resample_tmp.wav",
 * "temp.wav", "ZUTMP.TM1", "chkmode.txt"; "temp.txt" is left behind), so run one conversion
 * per directory at a time. Once the arguments are accepted there are no error returns:
 * a missing input, a Layer I or II frame or any other fatal condition prints a message on
 * standard error and ends the whole process with exit code 1.
 */
#ifndef KAVO_KAVO_H
#define KAVO_KAVO_H

#include <stddef.h>
#include <stdint.h>

/* KAVO_STATIC: the program links the static library, not the DLL. */
#if defined(_WIN32) && !defined(KAVO_STATIC)
#if defined(KAVO_BUILDING_LIBRARY)
#define KAVO_API __declspec(dllexport)
#else
#define KAVO_API __declspec(dllimport)
#endif
#elif defined(KAVO_BUILDING_LIBRARY)
#define KAVO_API __attribute__((visibility("default")))
#else
#define KAVO_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The record kavo returns by value: the status, then the library version (1.2). */
typedef struct ConversionResult {
    int32_t status;
    double version;
} ConversionResult;

/* Progress report: (user value, 0, 100, percent 0..100, 1). The result is ignored. */
typedef int32_t (*ProgressCallback)(int32_t user, int32_t low, int32_t high, int32_t percent,
                                    int32_t one);

/* Converts the MP3 file input_path into the ADPCM file output_path, multiplying every
 * 8000 Hz sample by gain before encoding (no saturation: the product wraps in 16 bits).
 * It searches the bytes of tags (ID3, APE, Lyrics3) for frames like any other bytes, while
 * the kavo_convert_* calls below skip them. */
KAVO_API ConversionResult kavo(const char* input_path, const char* output_path, float gain,
                               ProgressCallback callback, int32_t user);


/*
 * The conversion engine: the same output bytes as kavo() for the same audio frames, without
 * temporary files, module state, console text or process exit. The input is recognised by
 * its content: MPEG audio, with any ID3v2 tags in front, ID3v1, APE, Lyrics3 or appended
 * ID3v2 tags at the end, or inside a RIFF WAVE file (format 0x55 or 0x50), of which only the
 * frames are converted; or a WAV file of 8, 16, 24 or 32-bit PCM, 32-bit float, mu-law or
 * A-law samples, mono or stereo, 8000 to 48000 Hz, whose samples take the same road as
 * decoded ones (16-bit PCM WAV gives the bytes of the mix, resample and encode stages). Every call owns its own state, so any number of
 * calls may run at once on different threads. Nothing is allocated that the caller must
 * free; the callbacks are always called on the caller's thread, never after the call returns.
 *
 * Statuses: 0 on success, otherwise one of the negative KAVO_ERROR_* values below. When
 * message is not NULL and message_size is not 0, it receives one line (NUL-terminated,
 * truncated to fit, no line end) saying what happened; "" on success.
 */
#define KAVO_OK 0
/* A NULL or empty path, an output path that is the input file, a NULL input buffer with a
 * non-zero size, a NULL write function, or a gain that is not finite. Any finite gain is
 * accepted, -1.0 included. */
#define KAVO_ERROR_ARGUMENT (-1)
/* The input cannot be opened or read. */
#define KAVO_ERROR_READ (-2)
/* The output cannot be written (created, written, flushed or renamed into place). */
#define KAVO_ERROR_WRITE (-3)
/* The input holds no Layer III frame, or holds a Layer I or II frame (the message then names
 * the layer and the byte offset of that frame in the whole input), or is a WAV file of a kind
 * not converted (the message names it and says what converts), or decodes to more than 2^31
 * bytes of 16-bit PCM (some 3 hours of 48 kHz stereo), beyond what the conversion's sizes can
 * count. Nothing is written in any of these cases. */
#define KAVO_ERROR_FORMAT (-4)
/* Memory for the conversion could not be allocated. */
#define KAVO_ERROR_MEMORY (-5)
/* The write function returned non-zero: the conversion stopped there. */
#define KAVO_ERROR_STOPPED (-6)

/* Progress: percent runs from 0 to 100, never falls, and the last call passes 100. */
typedef void (*kavo_progress_fn)(void* user, int percent);
/* Receives the next size bytes of output; return 0 to go on, non-zero to stop. */
typedef int (*kavo_write_fn)(void* user, const void* bytes, size_t size);

/* Converts the MP3 or WAV file input_path into the ADPCM file output_path with the given gain.
 * The output is written by what output_path is. A regular file, or a name not taken yet, is
 * written under a temporary name beside it and renamed into place only when complete: on any
 * failure an existing file is left as it was and no file remains. A symbolic link is followed
 * (its target is replaced, or created when missing; the link stays). A character device, a
 * FIFO or a socket is written in place as it goes. A directory or a block device is refused
 * (KAVO_ERROR_WRITE), and so is an output_path that reaches the input file itself, by any
 * path or link (KAVO_ERROR_ARGUMENT). Messages name the paths as given. progress may be NULL;
 * user is handed back to it. */
KAVO_API int kavo_convert_file(const char* input_path, const char* output_path, float gain,
                               kavo_progress_fn progress, void* user, char* message,
                               size_t message_size);

/* Converts the mp3_size bytes at mp3 (an MP3 or WAV file) and hands the ADPCM output to
 * write, in order, in blocks of whole 80-byte frames. Nothing is written when the input is
 * refused (format errors are found before the first write). progress may be NULL. */
KAVO_API int kavo_convert_memory(const void* mp3, size_t mp3_size, float gain,
                                 kavo_write_fn write, kavo_progress_fn progress, void* user,
                                 char* message, size_t message_size);

/*
 * Settings in, a report out: kavo_convert converts a file or a block of memory, like
 * kavo_convert_file and kavo_convert_memory (which run the same code), with its settings in
 * a kavo_settings record and what it found in a kavo_report record.
 *
 * Both records begin with their own size in bytes, set by the caller (KAVO_SETTINGS_INIT and
 * KAVO_REPORT_INIT fill it with the size the program was built with, and the defaults). New
 * versions of the library only ever append fields, of fixed-width types with explicit padding
 * (so that 32-bit and 64-bit compilers lay them out alike), so a program built against an
 * older kavo.h keeps working: the library reads the first min(size, its own size) bytes of the
 * settings and takes the defaults for the rest, and writes the first min(size, its own size)
 * bytes of the report, never a byte beyond. A size below the first version's
 * (KAVO_SETTINGS_SIZE_1, KAVO_REPORT_SIZE_1) is refused with KAVO_ERROR_ARGUMENT.
 */

/* The settings. NULL settings mean the defaults. */
typedef struct kavo_settings {
    uint32_t size; /* sizeof(kavo_settings) as the program knows it */
    float gain;    /* every 8000 Hz sample is multiplied by it before coding (default 1.0);
                      the product is truncated toward zero and wraps in 16 bits. Finite. */
    /* Since the second version: a target the library chooses the gain for (gain is then
     * ignored). A target needs the whole 8000 Hz signal before the first code: it is kept in
     * memory, 16 kB a second; without one, memory does not grow with the input. */
    int32_t target;    /*  8: KAVO_TARGET_* (default KAVO_TARGET_NONE) */
    float target_db;   /* 12: for KAVO_TARGET_PEAK, dB of full scale, at most 0; for
                              KAVO_TARGET_LEVEL, dBov. Finite. */
    int32_t gapless;   /* 16: 1 honours the encoder's header in the first MP3 frame (Xing/Info
                              with its extension, or VBRI): that frame is not decoded, and the
                              decoded PCM loses the encoder's delay and padding and the
                              decoder's 529 samples, giving back the samples that were encoded.
                              0 (default): every frame decoded, as kavo() does. */
} kavo_settings;

#define KAVO_SETTINGS_SIZE_1 8u
#define KAVO_SETTINGS_INIT {(uint32_t)sizeof(kavo_settings), 1.0f, 0, 0.0f, 0}

/* settings.target. Every target is capped at the largest gain that wraps no sample (the
 * report's max_gain), and leaves the gain at 1.0 when there is nothing to measure. */
#define KAVO_TARGET_NONE 0     /* the settings' gain */
#define KAVO_TARGET_PEAK 1     /* the largest magnitude P of the 8000 Hz samples brought to
                                  target_db: gain 10^(target_db / 20) x 32767 / P */
#define KAVO_TARGET_LEVEL 2    /* the active speech level (ITU-T P.56 method B) brought to
                                  target_db dBov */
#define KAVO_TARGET_MAX_GAIN 3 /* the largest gain that wraps no sample */

/* report.input_kind */
#define KAVO_INPUT_MP3 1
#define KAVO_INPUT_WAV 2

/* report.encoding: for MP3 the MPEG version of the last frame delivered (always Layer III),
 * for WAV the sample format. */
#define KAVO_ENCODING_MPEG1_LAYER3 1
#define KAVO_ENCODING_MPEG2_LAYER3 2
#define KAVO_ENCODING_MPEG25_LAYER3 3
#define KAVO_ENCODING_PCM_16 16
#define KAVO_ENCODING_PCM_U8 17
#define KAVO_ENCODING_PCM_24 18
#define KAVO_ENCODING_PCM_32 19
#define KAVO_ENCODING_FLOAT_32 20
#define KAVO_ENCODING_MULAW 21
#define KAVO_ENCODING_ALAW 22

/* What a conversion did. Every call that passes the argument checks writes it; after a
 * failure it holds what was learned before the failure and zeros elsewhere. "Before the gain" means the 8000 Hz mono samples as the coder receives them;
 * all the sample figures are over the samples coded (whole 160-sample frames; a partial
 * frame at the end is not coded). Offsets are the same for every compiler. */
typedef struct kavo_report {
    uint32_t size;          /*  0: sizeof(kavo_report) as the program knows it */
    int32_t input_kind;     /*  4: KAVO_INPUT_MP3 or KAVO_INPUT_WAV */
    int32_t encoding;       /*  8: KAVO_ENCODING_* */
    int32_t sample_rate;    /* 12: Hz; for MP3 that of the last frame delivered, which decides
                                   how the whole decoded stream is read */
    int32_t channels;       /* 16: 1 or 2; for MP3 those of the last frame delivered */
    int32_t format_changed; /* 20: 1 when the MP3 stream changed rate or channels on the way */
    int64_t input_frames;   /* 24: sample frames the conversion takes from the input */
    double input_seconds;   /* 32: input_frames / sample_rate */
    int64_t mp3_frames;     /* 40: MP3 frames decoded (0 for WAV) */
    int64_t skipped_bytes;  /* 48: bytes skipped around MP3 audio: tags (ID3v2, ID3v1, APE,
                                   Lyrics3) and a RIFF WAVE wrapper; 0 for WAV samples */
    int64_t output_bytes;   /* 56: ADPCM bytes written, 80 per 160 samples */
    double output_seconds;  /* 64: output_bytes / 4000 */
    double gain;            /* 72: the gain applied */
    int32_t highest;        /* 80: the highest 8000 Hz sample before the gain (0 if none) */
    int32_t lowest;         /* 84: the lowest 8000 Hz sample before the gain (0 if none) */
    double max_gain;        /* 88: the largest gain g > 0 that wraps no sample: the smaller
                                   of the two below */
    double max_gain_high;   /* 96: the largest float g > 0 with trunc(highest x g) <= 32767;
                                   FLT_MAX when highest <= 0 */
    double max_gain_low;    /* 104: the largest float g > 0 with trunc(lowest x g) >= -32768;
                                   FLT_MAX when lowest >= 0 */
    int64_t wrapped;        /* 112: samples whose product with the gain left the 16-bit range
                                   (trunc(x x gain) > 32767 or < -32768) and wrapped */
    /* Since the second version. The level is that of the 8000 Hz samples before the gain. */
    int32_t speech;         /* 120: 1 when the speech level was measured; 0 for silence or
                                   when nothing was active (level, activity and level_reached
                                   are then 0) */
    int32_t gain_capped;    /* 124: 1 when the target asked for a gain that wraps a sample and
                                   the largest one that wraps none was applied instead */
    double level;           /* 128: active speech level, dBov (ITU-T P.56 method B) */
    double activity;        /* 136: the share of the samples that counted as speech, 0..1 */
    double level_reached;   /* 144: level + 20 log10 |gain| (-inf for gain 0) */
    int32_t gapless_applied; /* 152: 1 when settings.gapless found an encoder's header and cut
                                     the decoded PCM (input_frames then counts what was kept, and
                                     mp3_frames leaves the header frame out) */
    int32_t padding_1;       /* 156: 0 */
} kavo_report;

#define KAVO_REPORT_SIZE_1 120u
/* Every field listed, so that no compiler warns of one missing: append to both together. */
#define KAVO_REPORT_INIT \
    {(uint32_t)sizeof(kavo_report), 0, 0, 0, 0, 0, 0, 0.0, 0, 0, 0, 0.0, 0.0, 0, 0, 0.0, 0.0, \
     0.0, 0, 0, 0, 0.0, 0.0, 0.0, 0, 0}

/* Where a conversion reads and writes. The input: the file input_path, or when input_path is
 * NULL the input_size bytes at input_data. The output: the file output_path (written by what
 * it is, as kavo_convert_file does), or when output_path is NULL the write function (blocks of whole 80-byte frames, as kavo_convert_memory does).
 * progress may be NULL; user is handed back to write and progress. */
typedef struct kavo_io {
    const char* input_path;
    const void* input_data;
    size_t input_size;
    const char* output_path;
    kavo_write_fn write;
    kavo_progress_fn progress;
    void* user;
} kavo_io;

/* Converts as io says with settings (NULL: the defaults) and fills report (may be NULL).
 * Statuses and message as for kavo_convert_file and kavo_convert_memory; a record size below
 * the first version's is KAVO_ERROR_ARGUMENT. */
KAVO_API int kavo_convert(const kavo_io* io, const kavo_settings* settings, kavo_report* report,
                          char* message, size_t message_size);

/* A short English text for a status ("success", "invalid argument", ...); never NULL. */
KAVO_API const char* kavo_status_text(int status);

#ifdef __cplusplus
}
#endif

#endif /* KAVO_KAVO_H */
