#!/bin/sh
# Builds the program, optimised, in build/program. Installs what is missing first.
set -eu
cd "$(dirname "$0")/.."

scripts/install-deps.sh build
cmake --preset program >/dev/null
cmake --build --preset program
