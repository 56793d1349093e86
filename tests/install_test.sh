#!/usr/bin/env bash
# Installs both components below a staging folder. Usage: install_test.sh BUILD_FOLDER CONFIGURATION
set -euo pipefail
build=$1
configuration=$2
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
module=opt/device/lib/tunnelbridge/VEXA.Core.TunnelBridge.so
host=opt/device/bin/webapi-host

install_component() { DESTDIR=$stage cmake --install "$build" --prefix /opt/device --component "$1"; }

expect_files() {
  diff --unified --label expected --label installed <(printf '%s\n' "$@") <(cd "$stage" && find . -type f -printf '%m %P\n' | sort)
}

install_component module
expect_files "644 $module"
if [ "$configuration" = Release ] && readelf --sections --wide "$stage/$module" | grep -E '\.(symtab|debug)'; then
  echo "the module was installed with the sections above, not stripped"
  exit 1
fi

install_component desk
expect_files "644 $module" "755 $host"
"$stage/$host" list
