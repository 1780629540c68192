#!/bin/sh
# Checks the style of the sources, the scripts and the manual pages.
set -eu
cd "$(dirname "$0")/.."

scripts/install-deps.sh build test lint
scripts/check-includes.sh
clang-format --dry-run --Werror app/*.[ch]* common/*.[ch]* lib/*.[ch]* tools/*.cc
shellcheck scripts/*.sh .ci/run
for page in man/*; do
    warnings=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
    [ -z "$warnings" ] || { echo "$page: $warnings"; exit 1; }
done
cmake --preset program >/dev/null
clang-tidy -p build/program --quiet app/*.cc common/*.cc lib/*.cc tools/*.cc 2>/dev/null
