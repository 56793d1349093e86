#!/usr/bin/env bash
# Checks that the tests have seen each code and each log line that the description gives a method. Exit code 77 when
# not all tests have run. Usage: whole_run_test.sh WEBAPI_HOST TESTS NOTES
set -euo pipefail

tests=$("$2" --gtest_list_tests | awk '/^[^ ]/ { suite = $1 } /^  / { print "ran " suite $1 }' | sort)
described=$("$1" describe | jq -r '(.methods[] | select(.["x-log-lines"]) | .name + " " + (.["x-log-lines"][], (.errors[].code | tostring))),
  (.components.errors[] | select(.code < 0) | "server \(.code)")' | sort)
notes=$(sort -u "$3"/*)
comm -23 <(echo "$tests") <(echo "$notes") | grep . && echo "have not run" && exit 77
comm -23 <(echo "$described") <(echo "$notes") | grep . && echo "described, but not seen" && exit 1
echo "seen: all of $(wc -l <<<"$described")"
