#!/bin/sh
# Builds the Debian packages in build/program/packages: lumo, lumo-tools, and the debug symbols of both.
set -eu
cd "$(dirname "$0")/.."

scripts/install-deps.sh build web package
scripts/build.sh
rm -rf build/program/packages
(cd build/program && cpack >packages.log 2>&1) || {
    cat build/program/packages.log >&2
    exit 1
}
ls build/program/packages/*.*deb
