/* A program as a user of the installed library writes it: converts IN into OUT. */
#include <stdio.h>

#include <kavo/kavo.h>

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: consumer IN OUT\n");
        return 2;
    }
    char message[256];
    const int status = kavo_convert_file(argv[1], argv[2], 1.0f, NULL, NULL, message, sizeof message);
    if (status != KAVO_OK) {
        fprintf(stderr, "consumer: %s (%s)\n", message, kavo_status_text(status));
        return 1;
    }
    return 0;
}
