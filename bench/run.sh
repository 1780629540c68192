#!/bin/sh
# Builds the benchmarks, runs them one after another and prints their ratios as one table.
# usage: bench/run.sh [BUILD_DIR [BENCHMARK...]]
set -eu
src=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$src/build/bench}
[ $# -gt 0 ] && shift
[ $# -gt 0 ] || set -- rq feed turnover playlist stretch queue memory log event manifest sweep idle
cmake -G Ninja -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=Release -DLUMO_BENCH=ON -DLUMO_TESTS=OFF >/dev/null
cmake --build "$build" >/dev/null
out=$(mktemp)
trap 'rm -f "$out"' EXIT
for name; do
    echo "running ${name}_bench" >&2
    "$build/bench/${name}_bench" >>"$out"
done
printf '%-58s %8s %-7s %-6s %s\n' 'subject / floor' median aim '' figures
sed -n 's/^RATIO //p' "$out"
echo
sed -n 's/^NOTE  //p' "$out"
