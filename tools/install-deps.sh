#!/usr/bin/env bash
# Installs, with apt-get (through sudo when not root), the packages listed in tools/deps.txt
# that are missing. Quick when everything is there: one dpkg-query call, no apt.
set -euo pipefail
cd "$(dirname "$0")"
mapfile -t packages < <(awk '!/^#/ && NF && $1 != "base" { print $1 }' deps.txt)
installed=$(dpkg-query -W -f='${Package} ${Status}\n' "${packages[@]}" 2>/dev/null |
            awk '/install ok installed/ { print $1 }' || true)
missing=()
for p in "${packages[@]}"; do
  grep -qxF "$p" <<<"$installed" || missing+=("$p")
done
[ "${#missing[@]}" -eq 0 ] && exit 0
echo "install-deps: installing ${missing[*]}" >&2
sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq \
  -o DPkg::Lock::Timeout=600 --no-install-recommends "${missing[@]}"
