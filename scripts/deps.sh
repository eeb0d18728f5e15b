#!/usr/bin/env bash
# Makes sure the packages the build needs are present: installs the missing
# ones when run as root with apt-get, otherwise names them and fails.
# Usage: scripts/deps.sh [extra Debian packages...]
set -euo pipefail
need=(cmake g++ make libgtest-dev pkg-config python3 "$@")
missing=()
for p in "${need[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null; then
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq >/dev/null
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
else
  echo "missing packages: ${missing[*]}" >&2
  echo "install them with: sudo apt-get install ${missing[*]}" >&2
  exit 1
fi
