#!/usr/bin/env bash
# Builds the module alone against the headers of another device, whose library differs in all that the module
# does not rely on. Usage: device_headers_test.sh SOURCE_FOLDER [TOOLCHAIN_FILE]
set -euo pipefail
source=$1
toolchain=${2-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/device"
cp -r "$source/platform" "$work/device"

# Fails when the edit no longer meets anything.
edit() {
  local header=$work/device/platform/$1
  sed --regexp-extended --in-place=.before "$2" "$header"
  ! cmp --silent "$header" "$header.before" || { echo "nothing in $1 fits $2" && exit 1; }
}

edit webapi.h 's/^( +)APICall\* call_;/\1long reserved_[4] = {};\n&/'
edit webapi.h 's/^struct APICall;/&\ninline long Warned(double value) { return (long)value; }/'
edit webapi.h 's/void (SetSuccess|SetError)\(/int \1(/'
edit relay.h 's/^enum /enum class /; s/ = RELAYD_OK;/ = RELAYD_RET::RELAYD_OK;/'
edit relay.h 's/virtual ~Config\(\) = default;/&\n  virtual void Reset();/'
edit relay.h 's/^  std::string server_id;/  long reserved = 0;\n&/'
edit relay.h 's/bool (WriteServerId|WriteControlServerHost|DumpDataForAliasReq|GenerateApiKey|SetStatus)\(/void \1(/'
edit relay.h 's/const std::string& detail, bool store/const std::string\& detail, int store/'
edit system.h 's/^int VLIBServiceReload/void VLIBServiceReload/'

configure() {
  cmake -S "$source" -B "$work/build" -G Ninja -DCMAKE_BUILD_TYPE=Debug ${toolchain:+-DCMAKE_TOOLCHAIN_FILE="$toolchain"} \
    -DTUNNELBRIDGE_DESK=OFF -DTUNNELBRIDGE_PLATFORM_DIR="$work/device" -DCMAKE_COMPILE_WARNING_AS_ERROR=ON
}

configure
cmake --build "$work/build"
nm --dynamic --demangle "$work/build/bin/VEXA.Core.TunnelBridge.so" | grep 'AliasStatus::SetStatus(.*, int)$'

rm "$work/device/platform/account.h"
if configure 2>"$work/words" || ! grep --quiet 'There is no platform/account.h' "$work/words"; then
  echo "a missing header is not named: $(cat "$work/words")"
  exit 1
fi
