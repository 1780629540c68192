#!/bin/sh
# Tests everything, or the groups named:  test.sh [GROUP...]
#   sources   layering, and the share of tests
#   release   everything built and tested, optimised
#   sanitize  the same under AddressSanitizer and UndefinedBehaviorSanitizer
#   package   the Debian packages in a fresh system; needs root
# Installs what is missing first. The exit status is 0 when all passed.
set -eu
cd "$(dirname "$0")/.."
export PYTHONDONTWRITEBYTECODE=1

group_sources() {
    scripts/check-includes.sh
    scripts/test-share.sh 33
}

in_preset() {
    cmake --preset "$1" >/dev/null
    cmake --build --preset "$1"
    ctest --preset "$1"
}

group_release() { in_preset release; }
group_sanitize() { in_preset sanitize; }
group_package() { scripts/test-package.sh; }

known='sources release sanitize package'
# shellcheck disable=SC2086 # a list of words
[ $# -gt 0 ] || set -- $known
for group; do
    case " $known " in *" $group "*) continue ;; esac
    echo "test.sh: unknown group: $group ($known)" >&2
    exit 2
done

scripts/install-deps.sh build test web hls edge browser status
for group; do
    echo "== $group"
    "group_$group"
done
