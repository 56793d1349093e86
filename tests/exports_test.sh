#!/usr/bin/env bash
# What the module's file gives to the process that loads it, and what it asks of it, is what the record of its interface
# says, which differs between architectures in other lines only. Usage: exports_test.sh MODULE
set -euo pipefail
export LC_ALL=C
module=$1
record=$(dirname "$0")/../abi/amd64.txt
failed=0

recorded() { sed -n "s/^$1 //p" "$record"; }
symbols() { nm --dynamic --demangle --format=posix "$1" "$module"; }
exported() { symbols --defined-only | sed -E 's/ [A-Za-z] [0-9a-f]+ [0-9a-f]+$//'; }

# The C and C++ run-time and libcrypto version their symbols; jsoncpp's are those of its namespace.
of_platform() { grep -vE '@|^(vtable for )?Json::|^_'; }
asked() { symbols --undefined-only | sed -n 's/ U *$//p'; }

# A search path, or a relocation of the code, would show up as a line that is not recorded.
linked() {
  readelf --dynamic --wide "$module" | sed -nE 's/.*\((NEEDED|SONAME|RPATH|RUNPATH|TEXTREL)\)[^[]*(\[(.*)\])?/\1 \3/p'
}

compare() {
  diff --unified --label "recorded $1" --label "found in the module" <(sort <<<"$2") <(sort <<<"$3") || failed=1
}

compare exports "$(recorded exports)" "$(exported)"
compare 'platform symbols' "$(recorded imports | of_platform)" "$(asked | of_platform)"
compare links "$(grep -E '^(NEEDED|SONAME) ' "$record")" "$(linked)"
exit $failed
