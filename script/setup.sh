# Sourced by the scripts beside it: answers --help, moves to the top of the repository, and defines what they share.
set -euo pipefail

desk_packages=(libjsoncpp-dev libssl-dev libcurl4-openssl-dev libmicrohttpd-dev libcli11-dev nlohmann-json3-dev)
library_packages=("${desk_packages[@]}" libgtest-dev)
tools=(g++ cmake ninja-build pkg-config)
build_packages=("${tools[@]}" jq python3 "${library_packages[@]}")

say() { printf '%s: %s\n' "$(basename "$0")" "$*" >&2; }

# What --help prints: the comment that the script begins with.
help() { printf '%s\n' "$own_comment"; }

# Ends the script for a mistake of its caller's, which the words name.
usage() {
  say "${*:-the arguments are wrong: ${given:-there are none}}"
  help >&2
  exit 2
}

# Installs those of the named Debian packages that are missing.
need_packages() {
  local missing=() package as_root=()
  for package in "$@"; do
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  if [ "$(id -u)" -ne 0 ]; then as_root=(sudo); fi
  say "installing ${missing[*]}"
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq </dev/null >&2
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
    "${missing[@]}" </dev/null >&2
}

# Configures and builds a preset.
build() {
  say "building preset '$1'"
  cmake --preset "$1" >&2
  cmake --build --preset "$1" >&2
}

given=$*
own_comment=$(sed -n '2,${/^#/!q;s/^# \{0,1\}//p}' "$0")
for argument in "$@"; do
  case $argument in -h | --help) help && exit ;; esac
done
CDPATH='' cd "$(dirname "${BASH_SOURCE[0]}")/.."
