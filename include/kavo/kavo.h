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
 * 8000 Hz sample by gain before encoding (no saturation: the product wraps in 16 bits). */
KAVO_API ConversionResult kavo(const char* input_path, const char* output_path, float gain,
                               ProgressCallback callback, int32_t user);


/*
 * The conversion engine: the same output bytes as kavo(), without temporary files, module
 * state, console text or process exit. Every call owns its own state, so any number of
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
 * the layer and the byte offset of that frame), or decodes to more than 2^31 bytes of 16-bit
 * PCM (some 3 hours of 48 kHz stereo), beyond what the conversion's sizes can count. Nothing
 * is written in any of these cases. */
#define KAVO_ERROR_FORMAT (-4)
/* Memory for the conversion could not be allocated. */
#define KAVO_ERROR_MEMORY (-5)
/* The write function returned non-zero: the conversion stopped there. */
#define KAVO_ERROR_STOPPED (-6)

/* Progress: percent runs from 0 to 100, never falls, and the last call passes 100. */
typedef void (*kavo_progress_fn)(void* user, int percent);
/* Receives the next size bytes of output; return 0 to go on, non-zero to stop. */
typedef int (*kavo_write_fn)(void* user, const void* bytes, size_t size);

/* Converts the MP3 file input_path into the ADPCM file output_path with the given gain.
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

/* Converts the mp3_size bytes at mp3 and hands the ADPCM output to write, in order, in
 * blocks of whole 80-byte frames. Nothing is written when the input is refused (format
 * errors are found before the first write). progress may be NULL. */
KAVO_API int kavo_convert_memory(const void* mp3, size_t mp3_size, float gain,
                                 kavo_write_fn write, kavo_progress_fn progress, void* user,
                                 char* message, size_t message_size);

/* A short English text for a status ("success", "invalid argument", ...); never NULL. */
KAVO_API const char* kavo_status_text(int status);

#ifdef __cplusplus
}
#endif

#endif /* KAVO_KAVO_H */
