// The exported conversion API: argument checks, the input in memory or in a file, and for a
// file output the write beside the final name with the rename into place only when complete.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>

#include "engine/conversion.h"
#include "engine/file_source.h"
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

bool memory_failed(void*) { return false; }

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

}  // namespace

}  // namespace kavolib

extern "C" KAVO_API int kavo_convert_memory(const void* mp3, size_t mp3_size, float gain,
                                            kavo_write_fn write, kavo_progress_fn progress,
                                            void* user, char* message, size_t message_size) {
    using namespace kavolib;
    if (mp3 == nullptr && mp3_size > 0) return refuse(message, message_size, "the input is NULL");
    if (write == nullptr) return refuse(message, message_size, "the write function is NULL");
    if (!std::isfinite(gain)) return refuse(message, message_size, "the gain is not a finite number");
    MemoryInput memory{static_cast<const uint8_t*>(mp3), mp3 == nullptr ? 0 : mp3_size, 0};
    EngineInput input{memory.reader(), memory_failed};
    return run_engine(input, gain, write, progress, user, message, message_size);
}

extern "C" KAVO_API int kavo_convert_file(const char* input_path, const char* output_path,
                                          float gain, kavo_progress_fn progress, void* user,
                                          char* message, size_t message_size) {
    using namespace kavolib;
    namespace fs = std::filesystem;
    if (input_path == nullptr || input_path[0] == '\0') {
        return refuse(message, message_size, "the input path is empty");
    }
    if (output_path == nullptr || output_path[0] == '\0') {
        return refuse(message, message_size, "the output path is empty");
    }
    if (!std::isfinite(gain)) return refuse(message, message_size, "the gain is not a finite number");

    try {
        errno = 0;
        FileInput in;
        in.file = std::fopen(input_path, "rb");
        if (in.file == nullptr || !in.measure()) {
            if (in.file != nullptr) std::fclose(in.file);
            set_message(message, message_size,
                        std::string("cannot open ") + input_path + ": " + error_text(errno));
            return KAVO_ERROR_READ;
        }
        const std::string partial = partial_name(output_path);
        errno = 0;
        FILE* out = create_new(partial);
        if (out == nullptr) {
            const int error = errno;
            std::fclose(in.file);
            set_message(message, message_size,
                        std::string("cannot create ") + partial + ": " + error_text(error));
            return KAVO_ERROR_WRITE;
        }
        FileJob job{FileOutput{out, false, 0}, progress, user};
        EngineInput input{in.reader(), FileInput::failed};
        int status = run_engine(input, gain, file_write, file_progress, &job, message, message_size);
        std::fclose(in.file);
        if (status == KAVO_ERROR_STOPPED && job.output.failed) {
            status = KAVO_ERROR_WRITE;
            set_message(message, message_size,
                        std::string("cannot write ") + partial + ": " +
                            error_text(job.output.error));
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
    } catch (const std::bad_alloc&) {
        set_message(message, message_size, "out of memory");
        return KAVO_ERROR_MEMORY;
    }
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
