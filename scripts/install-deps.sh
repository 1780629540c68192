#!/bin/sh
# Installs the Debian packages that are missing:  install-deps.sh GROUP...
#   build    compile the daemon           test     unit and daemon tests
#   demo     real media                   web      the front end and its page's player
#   hls      a strict reader of playlists
#   browser  the page in a real browser   edge     nginx before the front end
#   status   checks of the metrics        package  make packages
#   chroot   try them in a fresh system   bench    benchmarks
#   lint     checks of the sources
# Root rights are asked for only when something is missing. What apt says is in build/apt.log, shown when it fails.
set -eu
cd "$(dirname "$0")/.."

packages_of() {
    case $1 in
    build) echo g++ cmake ninja-build pkg-config libconfig-dev zlib1g-dev ;;
    test) echo libgtest-dev python3 python3-pytest ffmpeg ;;
    demo) echo ffmpeg python3 socat ;;
    web) echo libmicrohttpd-dev ca-certificates npm openssl ;;
    hls) echo ca-certificates npm openssl ;;
    browser) echo chromium chromium-driver ;;
    edge) echo nginx-light ;;
    status) echo prometheus ;;
    package) echo dpkg-dev file ;;
    chroot) echo lintian debootstrap systemd-container ;;
    bench) echo libbenchmark-dev ;;
    lint) echo clang-format clang-tidy shellcheck man-db python3 ;;
    *)
        echo "install-deps.sh: unknown group: $1" >&2
        return 2
        ;;
    esac
}

is_installed() {
    case $1 in
    # Also there from other sources than Debian's package.
    npm) command -v npm >/dev/null ;;
    nginx-light) command -v nginx >/dev/null || [ -x /usr/sbin/nginx ] ;;
    *) [ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null)" = installed ] ;;
    esac
}

missing=
for group in "$@"; do
    packages=$(packages_of "$group")
    for package in $packages; do
        case " $missing " in *" $package "*) continue ;; esac
        is_installed "$package" || missing="$missing $package"
    done
done

# Unpacks a package of npm's into build/npm/package:  fetch_npm NAME VERSION SHA512
# Returns 1 when it cannot be had; ends the script when it is not what it should be.
fetch_npm() {
    rm -rf build/npm
    mkdir -p build/npm
    (cd build/npm && npm pack --silent "$1@$2" >npm.log 2>&1) || {
        cat build/npm/npm.log >&2
        echo "install-deps.sh: could not fetch $1 $2" >&2
        return 1
    }
    if [ "$(openssl dgst -sha512 -binary "build/npm/$1-$2.tgz" | base64 -w 0)" != "$3" ]; then
        echo "install-deps.sh: $1 $2 is not what it should be" >&2
        exit 1
    fi
    tar -xzf "build/npm/$1-$2.tgz" -C build/npm
}

# The page's player, with its licence, below build/; what npm has checked is not fetched again.
HLS_VERSION=1.7.4
HLS_SHA512=3GlxGdPvT2YHvQYOt+yOzT/DEior/qJVNIylHA77kgeoBTdQQqi70GwefNEUmHQeNGyjC8U62+bruqW/Tpm+tg==
install_player() {
    www=build/share/lumo/www
    [ "$(cat "$www/hls.version.txt" 2>/dev/null)" != "$HLS_VERSION" ] || return 0
    command -v npm >/dev/null || return 0 # then the browser's own player plays
    fetch_npm hls.js "$HLS_VERSION" "$HLS_SHA512" || return 0
    mkdir -p "$www"
    cp build/npm/package/dist/hls.light.min.js "$www/hls.light.min.js"
    cp build/npm/package/LICENSE "$www/hls.LICENSE.txt"
    echo "$HLS_VERSION" >"$www/hls.version.txt"
}

# A strict reader of playlists, for the tests.
PARSER_VERSION=0.16.1
PARSER_SHA512=6B2XobrddgXNl1pXw0dKXq0ovczjzra/pam7ifV0G/RXpt4bEbQcE6ndY+kGGlrNxB3zE42s7xmIypwG+sxh9A==
install_parser() {
    parser=build/hls-parser-$PARSER_VERSION
    if [ -e "$parser" ] || ! command -v npm >/dev/null; then
        return 0
    fi
    fetch_npm hls-parser "$PARSER_VERSION" "$PARSER_SHA512" || return 0
    mv build/npm/package "$parser"
}

finish() {
    case " $groups " in *" web "*) install_player ;; esac
    case " $groups " in *" hls "*) install_parser ;; esac
}

groups=$*
if [ -z "$missing" ]; then
    finish
    exit 0
fi

echo "installing:$missing"
if [ "$(id -u)" -eq 0 ]; then
    as_root=
elif command -v sudo >/dev/null; then
    as_root=sudo
else
    echo "install-deps.sh: needs root or sudo to install:$missing" >&2
    exit 1
fi

# shellcheck disable=SC2086 # a list of words
install_missing() {
    $as_root apt-get -q update &&
        $as_root env DEBIAN_FRONTEND=noninteractive apt-get -q -y --no-install-recommends install $missing
}

mkdir -p build
install_missing >build/apt.log 2>&1 || {
    cat build/apt.log >&2
    echo "install-deps.sh: could not install:$missing" >&2
    exit 1
}
finish
