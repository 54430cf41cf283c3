/* A small host of the conversion API: converts one MP3 file with kavo_convert_memory (the
 * whole input read into memory first) or kavo_convert_file, and prints the status line.
 *
 * usage: engine_run memory|file INPUT OUTPUT [GAIN] */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kavo/kavo.h"

static int write_to_file(void* user, const void* bytes, size_t size) {
    return fwrite(bytes, 1, size, (FILE*)user) == size ? 0 : 1;
}

static int convert_in_memory(const char* input, const char* output, float gain, char* message,
                             size_t message_size) {
    FILE* in = fopen(input, "rb");
    if (in == NULL) return KAVO_ERROR_READ;
    fseek(in, 0, SEEK_END);
    const long size = ftell(in);
    rewind(in);
    unsigned char* mp3 = malloc(size > 0 ? (size_t)size : 1);
    const size_t got = mp3 != NULL ? fread(mp3, 1, (size_t)size, in) : 0;
    fclose(in);
    FILE* out = fopen(output, "wb");
    int status = KAVO_ERROR_WRITE;
    if (out != NULL) {
        status = kavo_convert_memory(mp3, got, gain, write_to_file, NULL, out, message,
                                     message_size);
        fclose(out);
    }
    free(mp3);
    return status;
}

int main(int argc, char** argv) {
    if (argc < 4) {
        fprintf(stderr, "usage: engine_run memory|file INPUT OUTPUT [GAIN]\n");
        return 64;
    }
    const float gain = argc > 4 ? strtof(argv[4], NULL) : 1.0f;
    char message[256] = "";
    const int status = strcmp(argv[1], "file") == 0
                           ? kavo_convert_file(argv[2], argv[3], gain, NULL, NULL, message,
                                               sizeof message)
                           : convert_in_memory(argv[2], argv[3], gain, message, sizeof message);
    printf("status %d %s: %s\n", status, kavo_status_text(status), message);
    return status == KAVO_OK ? 0 : 1;
}
