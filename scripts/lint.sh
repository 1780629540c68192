#!/bin/sh
# Checks the style of the sources, the scripts and the manual pages.
set -eu
cd "$(dirname "$0")/.."

export PYTHONDONTWRITEBYTECODE=1

scripts/install-deps.sh build test web lint
scripts/check-includes.sh
find app common lib tools \( -name '*.cc' -o -name '*.h' \) -exec clang-format --dry-run --Werror {} +
grep -rlE '^#!/bin/(ba)?sh' scripts bench packaging .ci | xargs shellcheck
find scripts bench tests -name '*.py' -exec python3 -c '
import ast, sys
for path in sys.argv[1:]:
    ast.parse(open(path, encoding="utf-8").read(), path)' {} +
find tools -name '*.js' -print0 | xargs -0 -r -n 1 node --check
for page in man/*; do
    warnings=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
    [ -z "$warnings" ] || { echo "$page: $warnings"; exit 1; }
done
cmake --preset program >/dev/null
find app common lib tools -name '*.cc' -exec clang-tidy -p build/program --quiet {} + 2>/dev/null
