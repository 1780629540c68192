#!/bin/sh
# Builds the packages, has lintian look at them, and installs, runs and removes them in a fresh Debian 12, which is
# then booted to try the units where systemd-nspawn can do that. The bare system is made once, in build/chroot. Needs
# root; without it only the packages are looked at.
set -eu
cd "$(dirname "$0")/.."

scripts/install-deps.sh chroot
scripts/package.sh
packages=$PWD/build/program/packages
lintian --allow-root --fail-on error,warning --suppress-tags initial-upload-closes-no-bugs "$packages"/*.*deb

if [ "$(id -u)" -ne 0 ]; then
    echo "test-package.sh: SKIPPED: a change of root needs root; the packages are built, but not tried"
    exit 0
fi

export packages
export chroot="$PWD/build/chroot"
export base="$chroot/base.tar"
export root="$chroot/root"
mkdir -p "$chroot/archives"
if [ ! -e "$base" ]; then
    # shellcheck disable=SC2016 # apt fills it in
    mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Codename: bookworm' 'Origin: Debian' | head -n 1)
    echo "making a bare Debian 12 in $base"
    rm -rf "$root"
    debootstrap --variant=minbase --include=ca-certificates,iproute2 bookworm "$root" "$mirror" \
        >"$chroot/debootstrap.log" 2>&1 || {
        cat "$chroot/debootstrap.log" >&2
        exit 1
    }
    tar -C "$root" -cf "$base.part" .
    mv "$base.part" "$base"
fi
rm -rf "$root"
mkdir "$root"

# shellcheck disable=SC2016 # for the shell inside
# Mounts, the system, which lies in memory, and the processes of the trial go with it.
timeout --signal KILL 600 unshare --mount --pid --fork --kill-child --mount-proc sh -eu -c '
    mount -t tmpfs -o size=2G tmpfs "$root"
    tar -C "$root" -xpf "$base"
    mkdir "$root/packages"
    cp "$packages"/*.deb packaging/container/* packaging/chroot-test "$root/packages"
    echo force-unsafe-io >"$root/etc/dpkg/dpkg.cfg.d/no-sync"
    echo "Binary::apt::APT::Keep-Downloaded-Packages \"true\";" >"$root/etc/apt/apt.conf.d/keep-downloads"
    mount -t proc proc "$root/proc"
    mount --bind "$chroot/archives" "$root/var/cache/apt/archives"
    chroot "$root" /packages/chroot-test

    echo "-- boot, try the units"
    chroot "$root" /packages/chroot-test prepare
    umount "$root/var/cache/apt/archives" "$root/proc"
    mount -t tmpfs tmpfs /run
    timeout 120 systemd-nspawn --quiet --boot --directory="$root" --register=no --keep-unit --private-network \
        --console=pipe </dev/null >"$chroot/boot.log" 2>&1 || true
    if [ ! -e "$root/packages/booted" ]; then
        echo "test-package.sh: SKIPPED: systemd does not boot here, the units are not tried: $(tail -n 1 "$chroot/boot.log")"
        exit 0
    fi
    cat "$root/packages/units.log"
    [ -e "$root/packages/passed" ]'
