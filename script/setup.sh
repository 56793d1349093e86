# Sourced by the scripts beside it: moves to the top of the repository and defines `need_packages`.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

library_packages=(libjsoncpp-dev libssl-dev libcurl4-openssl-dev libcpp-httplib-dev libcli11-dev libgtest-dev)
build_packages=(g++ cmake ninja-build pkg-config "${library_packages[@]}")

say() { printf '%s: %s\n' "$(basename "$0")" "$*" >&2; }

# Ends the script for a mistake of its caller's. The words say how it is used.
usage() {
  say "usage: script/$(basename "$0") $*"
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
