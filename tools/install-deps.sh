#!/usr/bin/env bash
# Installs, with apt-get, the build tools, test libraries and reference programs that the build,
# the tests and the benchmarks use, when they are missing. Safe to run again.
set -euo pipefail
packages=(
  cmake g++ make binutils                 # build; nm checks the exported symbols
  bc                                      # arithmetic in the benchmark scripts
  time                                    # /usr/bin/time: peak memory in the benchmarks
  libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev                            # argument parsing of the kavo command
  lame twolame sox libsox-fmt-all espeak-ng mpg123 ffmpeg  # fixtures and reference decoders
  clang libclang-rt-14-dev                # libFuzzer
  time                                    # peak memory in the benchmarks
  g++-mingw-w64-x86-64 wine64             # the Windows DLL, cross-built and run under Wine
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ]; then
  sudo_cmd=()
  [ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq -o DPkg::Lock::Timeout=600 --no-install-recommends "${missing[@]}"
fi
