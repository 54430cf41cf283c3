// The subcommands of the kavo command. Each returns the process exit status:
// 0 success, 1 the conversion failed, 2 a usage error or a refused argument.
#pragma once

#include <string>

namespace kavocli {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

int cmd_convert(const std::string& in, const std::string& out, float gain);
int cmd_decode(const std::string& in, const std::string& out);
int cmd_mix(const std::string& in, const std::string& out);
int cmd_resample(const std::string& in, const std::string& out);
int cmd_encode(const std::string& in, const std::string& out, float gain);
int cmd_expand(const std::string& in, const std::string& out);

}  // namespace kavocli
