// Reading a filter set from its text file. The layout is matched token by token, so any white
// space may separate keys and numbers; the coefficient sections are read without checks.
#include <cstdio>

#include "platform/platform.h"
#include "resample/filter_set.h"

namespace kavolib {

namespace {

// Reads the next decimal integer into value; a failed read leaves value as it was, so an entry
// missing at the end of the file repeats the number read last.
void read_entry(FILE* file, int& value) {
    int read = 0;
    if (std::fscanf(file, "%d", &read) == 1) value = read;
}

}  // namespace

int read_filter_file(const char* name, int16_t** coeffs, int16_t** differences,
                     uint16_t* scaleFactor, uint16_t* nmult, uint16_t* length) {
    char defaultName[32];
    if (name == nullptr || name[0] == '\0') {
        if (*nmult != 0 && (*nmult & 1u) != 0) {
            std::snprintf(defaultName, sizeof defaultName, "F%dT%d.filter", int{*nmult}, 8);
        } else {
            std::snprintf(defaultName, sizeof defaultName, "F65dT%d.filter", 8);
        }
        name = defaultName;
    }
    FILE* file = open_stream(name, "r");
    if (file == nullptr) return kFilterFileCannotOpen;

    int value = 0;
    if (std::fscanf(file, " ScaleFactor %d", &value) != 1) {
        close_stream(file);
        return kFilterFileNoScaleFactor;
    }
    *scaleFactor = static_cast<uint16_t>(value);
    if (std::fscanf(file, " Length %d", &value) != 1) {
        close_stream(file);
        return kFilterFileNoLength;
    }
    *length = static_cast<uint16_t>(value);
    if (std::fscanf(file, " Nmult %d", &value) != 1) {
        close_stream(file);
        return kFilterFileNoNmult;
    }
    *nmult = static_cast<uint16_t>(value);

    const uint16_t count = *length;
    auto* c = new int16_t[count];
    std::fscanf(file, " Coeffs:");
    for (uint16_t i = 0; i < count; ++i) {
        read_entry(file, value);
        c[i] = static_cast<int16_t>(value);
    }
    auto* d = new int16_t[count];
    std::fscanf(file, " Differences:");
    for (uint16_t i = 0; i < count; ++i) {
        read_entry(file, value);
        d[i] = static_cast<int16_t>(value);
    }
    close_stream(file);
    *coeffs = c;
    *differences = d;
    return kFilterFileOk;
}

}  // namespace kavolib
