#!/bin/sh
# Builds and tests everything twice, optimised and under AddressSanitizer and UndefinedBehaviorSanitizer.
# Installs what is missing first. Ends with the closing lines of ctest; the exit status is 0 when all passed.
set -eu
cd "$(dirname "$0")/.."

scripts/install-deps.sh build test
scripts/check-includes.sh

for preset in release sanitize; do
    echo "== $preset"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset"
    ctest --preset "$preset"
done
