#!/bin/sh
# Shows lumo at work on real media:  demo.sh [--keep]
# Installs what is missing, builds the program and plays the scenes of demo.py in a temporary directory.
# --keep leaves everything running until interrupted and tells the page's address.
set -eu
cd "$(dirname "$0")/.."

case ${1-} in
'' | --keep) ;;
*)
    echo "usage: demo.sh [--keep]" >&2
    exit 2
    ;;
esac
scripts/install-deps.sh build demo web
scripts/build.sh
exec python3 -B scripts/demo.py "$@" build/program/lumo
