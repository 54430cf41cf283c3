/* A minimal host program written in C: it loads libkavo.so like any other program would,
 * calls kavo once with the arguments given on its command line, prints every progress call
 * on standard output as "progress <user> <low> <high> <percent> <one>" and finally
 * "status <status> version <version>".
 *
 * usage: c_host INPUT OUTPUT GAIN [USER]      ("-" stands for an empty path) */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kavo/kavo.h"

static int32_t on_progress(int32_t user, int32_t low, int32_t high, int32_t percent, int32_t one) {
    printf("progress %d %d %d %d %d\n", (int)user, (int)low, (int)high, (int)percent, (int)one);
    fflush(stdout);
    return 0;
}

int main(int argc, char** argv) {
    if (argc < 4) {
        fprintf(stderr, "usage: c_host INPUT OUTPUT GAIN [USER]\n");
        return 64;
    }
    const char* input = strcmp(argv[1], "-") == 0 ? "" : argv[1];
    const char* output = strcmp(argv[2], "-") == 0 ? "" : argv[2];
    const float gain = strtof(argv[3], NULL);
    const int32_t user = argc > 4 ? (int32_t)strtol(argv[4], NULL, 10) : 0;
    ConversionResult result = kavo(input, output, gain, on_progress, user);
    /* The version must be exactly the double nearest 1.2. */
    if (result.version == 1.2)
        printf("status %d version 1.2\n", (int)result.status);
    else
        printf("status %d version %.17g\n", (int)result.status, result.version);
    return 0;
}
