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

#include <stdint.h>

#if defined(_WIN32)
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
 * 8000 Hz sample by gain before encoding (no saturation: the product wraps in 16 bits). */
KAVO_API ConversionResult kavo(const char* input_path, const char* output_path, float gain,
                               ProgressCallback callback, int32_t user);

#ifdef __cplusplus
}
#endif

#endif /* KAVO_KAVO_H */
