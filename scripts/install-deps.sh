#!/bin/sh
# Installs the Debian packages that are missing:  install-deps.sh GROUP...
#   build    compile the daemon           test     unit and daemon tests
#   demo     real media                   web      the front end and its page's player
#   browser  the page in a real browser   edge     nginx before the front end
#   status   checks of the metrics        package  make packages and try them
#   bench    benchmarks                   lint     checks of the sources
# Root rights are asked for only when something is missing. What apt says is in build/apt.log, shown when it fails.
set -eu
cd "$(dirname "$0")/.."

packages_of() {
    case $1 in
    build) echo g++ cmake ninja-build pkg-config libconfig-dev zlib1g-dev ;;
    test) echo libgtest-dev python3 python3-pytest ffmpeg ;;
    demo) echo ffmpeg python3 socat ;;
    web) echo libmicrohttpd-dev ca-certificates npm openssl ;;
    browser) echo chromium chromium-driver ;;
    edge) echo nginx-light ;;
    status) echo prometheus ;;
    package) echo dpkg-dev file lintian debootstrap ;;
    bench) echo libbenchmark-dev wrk ;;
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

# The page's player, with its licence, below build/; what npm has checked is not fetched again.
HLS_VERSION=1.7.4
HLS_SHA512=3GlxGdPvT2YHvQYOt+yOzT/DEior/qJVNIylHA77kgeoBTdQQqi70GwefNEUmHQeNGyjC8U62+bruqW/Tpm+tg==
install_player() {
    www=build/share/lumo/www
    [ "$(cat "$www/hls.version.txt" 2>/dev/null)" != "$HLS_VERSION" ] || return 0
    command -v npm >/dev/null || return 0 # then the browser's own player plays
    rm -rf build/npm
    mkdir -p build/npm "$www"
    (cd build/npm && npm pack --silent "hls.js@$HLS_VERSION" >npm.log 2>&1) || {
        cat build/npm/npm.log >&2
        echo "install-deps.sh: could not fetch hls.js $HLS_VERSION; the page plays where the browser can" >&2
        return 0
    }
    archive=build/npm/hls.js-$HLS_VERSION.tgz
    if [ "$(openssl dgst -sha512 -binary "$archive" | base64 -w 0)" != "$HLS_SHA512" ]; then
        echo "install-deps.sh: hls.js $HLS_VERSION is not what it should be" >&2
        return 1
    fi
    tar -xzf "$archive" -C build/npm
    cp build/npm/package/dist/hls.light.min.js "$www/hls.light.min.js"
    cp build/npm/package/LICENSE "$www/hls.LICENSE.txt"
    echo "$HLS_VERSION" >"$www/hls.version.txt"
}

finish() {
    case " $groups " in *" web "*) install_player ;; esac
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
