// What a conversion does after its decode phase (which has closed the decoded file and
// printed its statistics): the decoded PCM is mixed to mono and brought to 8000 Hz, every
// stream is closed and the intermediate files go, then the ADPCM stage writes the caller's
// output with the caller's gain. The stages report their own progress (40..59, 60..80,
// 80..100); nothing here adds a call.
#include "entry/conversion_stages.h"

#include "adpcm/adpcm_output.h"
#include "entry/entry.h"
#include "platform/platform.h"
#include "resample/resample_stages.h"

namespace kavolib {

namespace {

// The removals were written for a file system that ignores case, under other spellings of
// the created names. Windows keeps those spellings; here names are case-sensitive, so the
// files are removed by the names they were created with.
#if defined(_WIN32)
constexpr const char* kRemoveAdpcmCopy = "Zutmp.tm1";
constexpr const char* kRemoveDecoded = "Zuvrtemp.tm2";
#else
constexpr const char* kRemoveAdpcmCopy = kAdpcmCopyName;
constexpr const char* kRemoveDecoded = kDecodedName;
#endif

}  // namespace

ConversionResult run_conversion_stages(const char* output_path, float gain,
                                       ProgressCallback callback, int32_t user) {
    mix_to_mono(kDecodedName, kMonoName, callback, user);
    resample_to_8k(kMonoName, kEightKName, 1, callback, user);
    close_all_streams();
    // Each removal may fail (the file may be gone already); that is not an error.
    remove_file(kMonoName);
    remove_file(kRemoveAdpcmCopy);
    remove_file(kRemoveDecoded);
    remove_file(kFlagName);
    adpcm_encode_file(kEightKName, output_path, gain, callback, user);
    remove_file(kEightKName);
    return ConversionResult{kStatusSuccess, kLibraryVersion};
}

}  // namespace kavolib
