#!/bin/sh
# Prints how many lines of tests there are for the lines of code; blank ones do not count:  test-share.sh [LIMIT]
# Fails when the share is above LIMIT, in per cent.
set -eu
cd "$(dirname "$0")/.."

lines_of() {
    find "$@" -type f -exec cat {} + | grep -c '[^[:space:]]'
}

tests=$(lines_of tests ! -path '*/__pycache__/*')
code=$(lines_of app common lib tools \( -name '*.cc' -o -name '*.h' \))
share=$((tests * 1000 / code))
echo "tests: $tests lines for $code of code, $((share / 10)).$((share % 10)) %${1:+ (at most $1 %)}"
[ "$share" -le $((${1:-1000} * 10)) ]
