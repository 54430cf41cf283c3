/* A Windows host of kavo.dll: loads the DLL with LoadLibrary, finds kavo with GetProcAddress,
 * converts one file with a progress callback and writes what it saw on standard output:
 * one line "progress <user> <low> <high> <percent> <one>" per callback, then
 * "status <status> version <version>".
 *
 * usage: win_host DLL INPUT OUTPUT GAIN */
#include <stdio.h>
#include <stdlib.h>
#include <windows.h>

#include "kavo/kavo.h"

typedef ConversionResult (*KavoFunction)(const char*, const char*, float, ProgressCallback,
                                         int32_t);

static int32_t on_progress(int32_t user, int32_t low, int32_t high, int32_t percent, int32_t one) {
    printf("progress %d %d %d %d %d\n", (int)user, (int)low, (int)high, (int)percent, (int)one);
    fflush(stdout);
    return 0;
}

int main(int argc, char** argv) {
    if (argc < 5) {
        fprintf(stderr, "usage: win_host DLL INPUT OUTPUT GAIN\n");
        return 64;
    }
    HMODULE module = LoadLibraryA(argv[1]);
    if (module == NULL) {
        fprintf(stderr, "win_host: cannot load %s (error %lu)\n", argv[1], GetLastError());
        return 65;
    }
    KavoFunction convert = (KavoFunction)(void (*)(void))GetProcAddress(module, "kavo");
    if (convert == NULL) {
        fprintf(stderr, "win_host: %s exports no kavo\n", argv[1]);
        return 66;
    }
    ConversionResult result = convert(argv[2], argv[3], strtof(argv[4], NULL), on_progress, 7);
    if (result.version == 1.2)
        printf("status %d version 1.2\n", (int)result.status);
    else
        printf("status %d version %.17g\n", (int)result.status, result.version);
    fflush(stdout);
    FreeLibrary(module);
    return 0;
}
