// The exported conversion API: argument checks and the record-size rules, the input in memory
// or in a file, and a file output written by what its name is (engine/output_target.h). Every
// call runs the same code.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <system_error>

#include "engine/conversion.h"
#include "engine/file_source.h"
#include "engine/memory_source.h"
#include "engine/output_target.h"
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

// The caller's progress function and user value, and the output the engine writes to.
struct FileJob {
    OutputTarget output;
    std::string write_error;  // why the first failed write failed
    kavo_progress_fn progress;
    void* user;
};

int file_write(void* user, const void* bytes, size_t size) {
    auto* job = static_cast<FileJob*>(user);
    return job->output.write(bytes, size, job->write_error) ? 0 : 1;
}

void file_progress(void* user, int percent) {
    const auto* job = static_cast<const FileJob*>(user);
    if (job->progress != nullptr) job->progress(job->user, percent);
}

// The output file, written by what its name is; never the input, whatever name reaches it.
int convert_to_file(EngineInput& input, const char* input_path, const char* output_path,
                    const kavo_settings& settings, kavo_progress_fn progress, void* user,
                    kavo_report* report, char* message, size_t message_size) {
    if (input_path != nullptr && same_file(input_path, output_path)) {
        set_message(message, message_size,
                    std::string("the output ") + output_path + " is the input file");
        return KAVO_ERROR_ARGUMENT;
    }
    FileJob job{{}, {}, progress, user};
    std::string why;
    if (!job.output.open(output_path, false, why)) {
        set_message(message, message_size, std::string("cannot create ") + output_path + ": " + why);
        return KAVO_ERROR_WRITE;
    }
    int status = run_engine(input, settings, file_write, file_progress, &job, report, message,
                            message_size);
    if (status == KAVO_ERROR_STOPPED && !job.write_error.empty()) {
        status = KAVO_ERROR_WRITE;
        set_message(message, message_size,
                    std::string("cannot write ") + output_path + ": " + job.write_error);
    }
    bool exists = false;
    if (status == KAVO_OK && !job.output.commit(true, exists, why)) {
        status = KAVO_ERROR_WRITE;
        set_message(message, message_size, std::string("cannot write ") + output_path + ": " + why);
    }
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
    if (settings.target < KAVO_TARGET_NONE || settings.target > KAVO_TARGET_MAX_GAIN) {
        return refuse(message, message_size, "the target is not one of KAVO_TARGET_*");
    }
    if ((settings.target == KAVO_TARGET_PEAK || settings.target == KAVO_TARGET_LEVEL) &&
        !std::isfinite(settings.target_db)) {
        return refuse(message, message_size, "the target's dB value is not a finite number");
    }
    if (settings.target == KAVO_TARGET_PEAK && settings.target_db > 0.0f) {
        return refuse(message, message_size, "a peak target is at most 0 dB (full scale)");
    }
    FileInput in{nullptr};
    try {
        MemoryInput memory{static_cast<const uint8_t*>(io.input_data),
                           io.input_data == nullptr ? 0 : io.input_size, 0};
        EngineInput input{memory.reader(), memory_failed};
        if (io.input_path != nullptr) {
            errno = 0;
            in.file = std::fopen(io.input_path, "rb");
            // The container layer reads the input's end first: it must have a size.
            if (in.file == nullptr || !in.measure()) {
                const int error = errno;
                if (in.file != nullptr) std::fclose(in.file);
                set_message(message, message_size,
                            std::string("cannot open ") + io.input_path + ": " + error_text(error));
                return KAVO_ERROR_READ;
            }
            input = EngineInput{in.reader(), FileInput::failed};
        }
        int status = KAVO_OK;
        try {
            status = io.output_path != nullptr
                         ? convert_to_file(input, io.input_path, io.output_path, settings,
                                           io.progress, io.user, report, message, message_size)
                         : run_engine(input, settings, io.write, io.progress, io.user, report,
                                      message, message_size);
        } catch (...) {
            if (in.file != nullptr) std::fclose(in.file);
            in.file = nullptr;  // closed once, not again by the handler below
            throw;
        }
        if (in.file != nullptr) std::fclose(in.file);
        return status;
    } catch (const std::bad_alloc&) {
        if (in.file != nullptr) std::fclose(in.file);
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
