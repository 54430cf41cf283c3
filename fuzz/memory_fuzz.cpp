// Fuzz target over the whole conversion in memory: the input bytes are an MP3 file handed to
// kavo_convert, which must never crash, print or leak, and must keep its promises on
// every input: a status that is success or a refusal of the format, a one-line message exactly
// when it fails, output only in whole 80-byte frames and none when the input is refused,
// progress that never falls and ends at 100. A broken promise aborts, so the fuzzer keeps the
// input. The input's size picks the gain and whether the encoder's header in the first frame is
// honoured (gapless: a header that says anything, the cut that follows from it).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "kavo/kavo.h"

namespace {

struct Observed {
    size_t written = 0;
    bool misaligned = false;
    int last_percent = -1;
    bool fell = false;
};

int take_output(void* user, const void*, size_t size) {
    auto* seen = static_cast<Observed*>(user);
    if (size % 80 != 0) seen->misaligned = true;
    seen->written += size;
    return 0;
}

void take_progress(void* user, int percent) {
    auto* seen = static_cast<Observed*>(user);
    if (percent < seen->last_percent || percent < 0 || percent > 100) seen->fell = true;
    seen->last_percent = percent;
}

constexpr float kGains[] = {1.0f, 0.5f, 2.0f, -1.0f};

}  // namespace

// AddressSanitizer holds freed blocks back for 16 MB of frees instead of 256: still some fifty
// conversions, far more than one conversion allocates, while the memory it cycles through
// stays in use instead of being faulted in page by page (a tenth of each input's time).
extern "C" const char* __asan_default_options() {
    return "quarantine_size_mb=16";
}

// The fuzzer works one core: each conversion runs on the calling thread, without a decode
// thread started per input (it would hand over the same granules, as the threads test shows).
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("KAVO_ENGINE_THREADS", "1", 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Observed seen;
    char message[256];
    std::memset(message, 'x', sizeof message);
    kavo_settings settings = KAVO_SETTINGS_INIT;
    settings.gain = kGains[size % 4];
    settings.gapless = static_cast<int32_t>((size / 4) % 2);
    const kavo_io io{nullptr, data, size, nullptr, take_output, take_progress, &seen};
    const int status = kavo_convert(&io, &settings, nullptr, message, sizeof message);
    const size_t length = strnlen(message, sizeof message);
    const bool one_line = length < sizeof message && std::strchr(message, '\n') == nullptr;
    bool kept = one_line && !seen.misaligned && !seen.fell;
    if (status == KAVO_OK) {
        kept = kept && length == 0 && seen.last_percent == 100;
    } else {
        kept = kept && status == KAVO_ERROR_FORMAT && length > 0 && seen.written == 0;
    }
    if (!kept) std::abort();
    return 0;
}
