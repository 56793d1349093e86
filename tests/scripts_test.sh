#!/usr/bin/env bash
# Every script answers --help and a wrong argument before it needs any tool of a build, and script/server knows the
# options of the program that it starts. Usage: scripts_test.sh SOURCE_FOLDER HOST_PROGRAM
set -euo pipefail
source=$1
host=$2
tools=$(mktemp -d)
trap 'rm -rf "$tools"' EXIT
ln -s "$(command -v bash)" "$(command -v sed)" "$(command -v basename)" "$(command -v dirname)" "$(command -v readlink)" \
  "$tools"

# Runs a script where there is no cmake, apt-get or dpkg-query, and wants this exit code and words on this descriptor.
expect() {
  local expected=$1 words=$2 code=0
  shift 2
  PATH=$tools "$@" >"$tools/words1" 2>"$tools/words2" || code=$?
  if [ "$code" -ne "$expected" ] || [ ! -s "$tools/words$words" ]; then
    echo "'$*' ends with exit code $code, not $expected, and says:"
    cat "$tools"/words?
    exit 1
  fi
}

for script in "$source"/script/* "$source/.ci/run"; do
  [ -x "$script" ] || continue
  expect 0 1 "$script" --help
  expect 2 2 "$script" --no-such-argument
done
for wrong in --port --port=08 --trace= --root=twice --fault=nonsense --allow-origin=desk --module=/nowhere.so; do
  expect 2 2 "$source/script/server" --root folder "$wrong"
done
expect 2 2 "$source/script/bench" --profile 'no such row'
expect 2 2 "$source/script/fuzz" ""
expect 2 2 "$source/script/test" ""

options() { grep -oE '^ +(-[a-z],)?--[a-z-]+' | grep -oE -- '--[a-z-]+' | grep -vx -- --help | sort; }
diff --unified --label script/server --label "webapi-host serve" \
  <("$source/script/server" --help | options) <("$host" serve --help | options)
