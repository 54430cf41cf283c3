// The subcommands of the kavo command. Each returns the process exit status:
// 0 success, 1 a conversion failed, 2 a usage error or a refused argument; an interrupted
// kavo convert or kavo expand ends as the signal would (130 for SIGINT, 143 for SIGTERM).
#pragma once

#include <string>
#include <vector>

namespace kavocli {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

struct ConvertOptions {
    std::vector<std::string> files;  // IN OUT, or the inputs when out_dir is set
    std::string out_dir;
    unsigned jobs = 0;  // 0: one per core
    float gain = 1.0f;
    int target = 0;  // KAVO_TARGET_*: --peak, --level or --gain max choose the gain
    float target_db = 0.0f;
    bool quiet = false;
    bool verbose = false;
    bool gapless = false;  // honour the encoder's header: its delay and padding left out
    bool no_clobber = false;
};

int cmd_convert(const ConvertOptions& options);

// The stage subcommands: quiet leaves out everything but errors.
int cmd_decode(const std::string& in, const std::string& out, bool quiet, bool verbose,
               bool gapless);
int cmd_mix(const std::string& in, const std::string& out, bool quiet);
int cmd_resample(const std::string& in, const std::string& out, bool quiet);
int cmd_encode(const std::string& in, const std::string& out, float gain, bool quiet);
int cmd_expand(const std::string& in, const std::string& out, bool quiet);

}  // namespace kavocli
