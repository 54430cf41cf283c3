// The exported conversion API: argument checks and the record-size rules, the input in memory
// or in a file, and for a file output the write beside the final name with the rename into
// place only when complete. Every call runs the same code.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "engine/conversion.h"
#include "engine/memory_source.h"
#include "kavo/kavo.h"

namespace kavolib {

namespace {

void set_message(char* message, size_t size, const std::string& text) {
    if (message != nullptr && size > 0) std::snprintf(message, size, "%s", text.c_str());
}

int refuse(char* message, size_t size, const char* text) {
    set_message(message, size, text);
    return KAVO_ERROR_ARGUMENT;
}

std::string error_text(int code) { return std::generic_category().message(code); }

bool memory_rewind(void* context) {
    static_cast<MemoryInput*>(context)->position = 0;
    return true;
}

bool memory_failed(void*) { return false; }

struct FileInput {
    FILE* file;
};

size_t file_read(void* context, uint8_t* dst, size_t n) {
    return std::fread(dst, 1, n, static_cast<FileInput*>(context)->file);
}

bool file_rewind(void* context) {
    FILE* file = static_cast<FileInput*>(context)->file;
    return std::ferror(file) == 0 && std::fseek(file, 0, SEEK_SET) == 0;
}

bool file_failed(void* context) { return std::ferror(static_cast<FileInput*>(context)->file) != 0; }

struct FileOutput {
    FILE* file;
    bool failed;
    int error;
};

int file_write(void* user, const void* bytes, size_t size) {
    auto* output = static_cast<FileOutput*>(user);
    errno = 0;
    if (std::fwrite(bytes, 1, size, output->file) != size) {
        output->failed = true;
        output->error = errno;
        return 1;
    }
    return 0;
}

// The caller's progress function and user value, passed through the file output's user value.
struct FileJob {
    FileOutput output;
    kavo_progress_fn progress;
    void* user;
};

void file_progress(void* user, int percent) {
    const auto* job = static_cast<const FileJob*>(user);
    if (job->progress != nullptr) job->progress(job->user, percent);
}

// A name beside the output that no other call uses: the output's own name, this process's
// clock and a counter shared by every call.
std::string partial_name(const char* output) {
    static std::atomic<unsigned long long> counter{0};
    const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
    return std::string(output) + ".partial-" +
           std::to_string(static_cast<unsigned long long>(now) & 0xFFFFFFFFull) + "-" +
           std::to_string(counter.fetch_add(1));
}

// Creates the partial file, never opening one that exists already.
FILE* create_new(const std::string& name) {
#if defined(_WIN32)
    std::error_code error;
    if (std::filesystem::exists(std::filesystem::path(name), error)) return nullptr;
    return std::fopen(name.c_str(), "wb");
#else
    return std::fopen(name.c_str(), "wbx");
#endif
}

// The output file: written under a partial name beside output_path, renamed into place only
// when complete, removed after any failure.
int convert_to_file(EngineInput& input, const char* output_path, const kavo_settings& settings,
                    kavo_progress_fn progress, void* user, kavo_report* report, char* message,
                    size_t message_size) {
    namespace fs = std::filesystem;
    const std::string partial = partial_name(output_path);
    errno = 0;
    FILE* out = create_new(partial);
    if (out == nullptr) {
        set_message(message, message_size,
                    std::string("cannot create ") + partial + ": " + error_text(errno));
        return KAVO_ERROR_WRITE;
    }
    FileJob job{FileOutput{out, false, 0}, progress, user};
    int status = run_engine(input, settings, file_write, file_progress, &job, report, message,
                            message_size);
    if (status == KAVO_ERROR_STOPPED && job.output.failed) {
        status = KAVO_ERROR_WRITE;
        set_message(message, message_size,
                    std::string("cannot write ") + partial + ": " + error_text(job.output.error));
    }
    errno = 0;
    const bool closed = std::fflush(out) == 0 && std::fclose(out) == 0;
    if (status == KAVO_OK && !closed) {
        status = KAVO_ERROR_WRITE;
        set_message(message, message_size,
                    std::string("cannot write ") + partial + ": " + error_text(errno));
    }
    std::error_code error;
    if (status == KAVO_OK) {
        fs::rename(fs::path(partial), fs::path(output_path), error);
        if (error) {
            status = KAVO_ERROR_WRITE;
            set_message(message, message_size,
                        std::string("cannot rename the output to ") + output_path + ": " +
                            error.message());
        }
    }
    if (status != KAVO_OK) fs::remove(fs::path(partial), error);
    return status;
}

// Every conversion call ends here: the arguments checked, the input opened (a file, or the
// bytes in memory), the output to a file or to the write function.
int convert(const kavo_io& io, const kavo_settings& settings, kavo_report* report, char* message,
            size_t message_size) {
    if (io.input_path != nullptr && io.input_path[0] == '\0') {
        return refuse(message, message_size, "the input path is empty");
    }
    if (io.input_path == nullptr && io.input_data == nullptr && io.input_size > 0) {
        return refuse(message, message_size, "the input is NULL");
    }
    if (io.output_path != nullptr && io.output_path[0] == '\0') {
        return refuse(message, message_size, "the output path is empty");
    }
    if (io.output_path == nullptr && io.write == nullptr) {
        return refuse(message, message_size, "the write function is NULL");
    }
    if (!std::isfinite(settings.gain)) {
        return refuse(message, message_size, "the gain is not a finite number");
    }
    try {
        MemoryInput memory{static_cast<const uint8_t*>(io.input_data),
                           io.input_data == nullptr ? 0 : io.input_size, 0};
        EngineInput input{memory.source(), memory_rewind, memory_failed};
        FileInput in{nullptr};
        if (io.input_path != nullptr) {
            errno = 0;
            in.file = std::fopen(io.input_path, "rb");
            if (in.file == nullptr) {
                set_message(message, message_size,
                            std::string("cannot open ") + io.input_path + ": " + error_text(errno));
                return KAVO_ERROR_READ;
            }
            input = EngineInput{ByteSource{file_read, &in}, file_rewind, file_failed};
        }
        int status = KAVO_OK;
        try {
            status = io.output_path != nullptr
                         ? convert_to_file(input, io.output_path, settings, io.progress, io.user,
                                           report, message, message_size)
                         : run_engine(input, settings, io.write, io.progress, io.user, report,
                                      message, message_size);
        } catch (...) {
            if (in.file != nullptr) std::fclose(in.file);
            throw;
        }
        if (in.file != nullptr) std::fclose(in.file);
        return status;
    } catch (const std::bad_alloc&) {
        set_message(message, message_size, "out of memory");
        return KAVO_ERROR_MEMORY;
    }
}

}  // namespace

}  // namespace kavolib

extern "C" KAVO_API int kavo_convert(const kavo_io* io, const kavo_settings* settings,
                                     kavo_report* report, char* message, size_t message_size) {
    using namespace kavolib;
    if (io == nullptr) return refuse(message, message_size, "the input and output are NULL");
    if (settings != nullptr && settings->size < KAVO_SETTINGS_SIZE_1) {
        return refuse(message, message_size, "the settings' size is below the first version's");
    }
    if (report != nullptr && report->size < KAVO_REPORT_SIZE_1) {
        return refuse(message, message_size, "the report's size is below the first version's");
    }
    // The caller's part of the settings over the defaults; the report in full, then the
    // caller's part of it copied out.
    kavo_settings own = KAVO_SETTINGS_INIT;
    if (settings != nullptr) {
        std::memcpy(&own, settings, std::min<size_t>(settings->size, sizeof own));
        own.size = sizeof own;
    }
    kavo_report full = KAVO_REPORT_INIT;
    const int status = convert(*io, own, &full, message, message_size);
    if (report != nullptr) {
        const uint32_t size = report->size;
        full.size = size;
        std::memcpy(report, &full, std::min<size_t>(size, sizeof full));
    }
    return status;
}

extern "C" KAVO_API int kavo_convert_memory(const void* mp3, size_t mp3_size, float gain,
                                            kavo_write_fn write, kavo_progress_fn progress,
                                            void* user, char* message, size_t message_size) {
    const kavo_io io{nullptr, mp3, mp3_size, nullptr, write, progress, user};
    return kavolib::convert(io, kavolib::settings_with_gain(gain), nullptr, message, message_size);
}

extern "C" KAVO_API int kavo_convert_file(const char* input_path, const char* output_path,
                                          float gain, kavo_progress_fn progress, void* user,
                                          char* message, size_t message_size) {
    using namespace kavolib;
    if (input_path == nullptr) return refuse(message, message_size, "the input path is empty");
    if (output_path == nullptr) return refuse(message, message_size, "the output path is empty");
    const kavo_io io{input_path, nullptr, 0, output_path, nullptr, progress, user};
    return convert(io, settings_with_gain(gain), nullptr, message, message_size);
}

extern "C" KAVO_API const char* kavo_status_text(int status) {
    switch (status) {
        case KAVO_OK:
            return "success";
        case KAVO_ERROR_ARGUMENT:
            return "invalid argument";
        case KAVO_ERROR_READ:
            return "the input cannot be read";
        case KAVO_ERROR_WRITE:
            return "the output cannot be written";
        case KAVO_ERROR_FORMAT:
            return "not an MPEG audio Layer III stream";
        case KAVO_ERROR_MEMORY:
            return "out of memory";
        case KAVO_ERROR_STOPPED:
            return "stopped by the write function";
        default:
            return "unknown status";
    }
}
