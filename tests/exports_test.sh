#!/usr/bin/env bash
# What the module's file gives to the process that loads it, and what it asks of it. Usage: exports_test.sh MODULE
set -euo pipefail
export LC_ALL=C
module=$1
lists=$(dirname "$0")
failed=0

# Lists one kind of dynamic symbols as "NAME TYPE …", the same on all architectures.
symbols() {
  local string='std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >'
  nm --dynamic --demangle --format=posix "$@" "$module" | sed "s/$string/std::string/g; s/\[abi:cxx11\]//g"
}

exported() { symbols --defined-only | sed -E 's/ [A-Za-z] [0-9a-f]+ [0-9a-f]+$//' | sort; }

# The entry, the methods that it leads to, and what other code of the device may call.
expected_exports() {
  echo GetAPITable
  sed -n 's/^VEXA.* | \(.*\)/\1(VEXA::APIRequest*, VEXA::APIResponse*)/p' "$lists/data/methods.txt"
  echo 'GetRegisterSite(VEXA::Relay::RelaydConf&, VEXA::Relay::RELAYD_RET&)'
  echo 'RegisterServerId(VEXA::Relay::RelaydConf&, VEXA::Relay::RELAYD_RET&)'
  echo 'SendRegisterServerId(VEXA::Relay::RelaydConf&, Json::Value&)'
}

# The C and C++ run-time and libcrypto version their symbols; jsoncpp's are those of its namespace.
asked_of_platform() { symbols --undefined-only | sed -n 's/ U *$//p' | grep -vE '@|^(vtable for )?Json::' | sort; }

# A search path, or a relocation of the code, would show up as a line that is not expected.
linked() { readelf --dynamic --wide "$module" | sed -nE 's/.*\((NEEDED|SONAME|RPATH|RUNPATH|TEXTREL)\)/\1/p' | sort; }

expected_links() {
  printf 'NEEDED Shared library: [%s]\n' libc.so.6 libcrypto.so.3 libgcc_s.so.1 libjsoncpp.so.25 libstdc++.so.6
  echo 'SONAME Library soname: [VEXA.Core.TunnelBridge.so]'
}

compare() {
  diff --unified --label "expected $1" --label "found in the module" "$2" "$3" || failed=1
}

compare exports <(expected_exports | sort) <(exported)
compare 'platform symbols' "$lists/platform_symbols.txt" <(asked_of_platform)
compare links <(expected_links) <(linked | tr -s ' ')
exit $failed
