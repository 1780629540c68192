#!/bin/sh
# Installs the Debian packages that are missing:  install-deps.sh GROUP...
# Groups: build (compile), test (unit and daemon tests), demo (real media), bench (benchmarks), lint (checks
# of the sources). Root rights are asked for only when something is missing.
set -eu

packages_of() {
    case $1 in
    build) echo g++ cmake ninja-build pkg-config libconfig-dev zlib1g-dev ;;
    test) echo libgtest-dev python3 python3-pytest ffmpeg ;;
    demo) echo ffmpeg python3 socat ;;
    bench) echo libbenchmark-dev ;;
    lint) echo clang-format clang-tidy shellcheck man-db ;;
    *)
        echo "install-deps.sh: unknown group: $1 (build, test, demo, bench, lint)" >&2
        return 2
        ;;
    esac
}

is_installed() {
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

missing=
for group in "$@"; do
    packages=$(packages_of "$group")
    for package in $packages; do
        case " $missing " in *" $package "*) continue ;; esac
        is_installed "$package" || missing="$missing $package"
    done
done
[ -n "$missing" ] || exit 0

echo "installing:$missing"
if [ "$(id -u)" -eq 0 ]; then
    as_root=
elif command -v sudo >/dev/null; then
    as_root=sudo
else
    echo "install-deps.sh: needs root or sudo to install:$missing" >&2
    exit 1
fi
$as_root apt-get -q update
# shellcheck disable=SC2086 # a list of words
$as_root env DEBIAN_FRONTEND=noninteractive apt-get -q -y --no-install-recommends install $missing
