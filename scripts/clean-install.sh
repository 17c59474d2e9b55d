#!/usr/bin/env bash
# Installs the built packages on a fresh Debian 12 and starts the program there: a minimal
# system made with debootstrap from Debian's archive (kept in CHROOT between runs), then
# `apt install ./velocast_*.deb ./velocast-receiver_*.deb` inside it, then velocast under Xvfb.
# Needs root and access to the Debian archive; run scripts/package.sh first.
# Usage: bash scripts/clean-install.sh [CHROOT]   (default /var/tmp/velocast-bookworm)
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
chroot_dir=${1:-/var/tmp/velocast-bookworm}
# The archive this machine's apt already uses, unless one is given.
machine_mirror() {
    local uri
    uri=$(grep -hE '^URIs:' /etc/apt/sources.list.d/*.sources 2>/dev/null | awk '{print $2}' | grep -v security | head -n 1)
    [ -n "$uri" ] || uri=$(grep -hE '^deb ' /etc/apt/sources.list 2>/dev/null | awk '{print $2}' | grep -v security | head -n 1)
    echo "$uri"
}
mirror=${VELOCAST_DEBIAN_MIRROR:-$(machine_mirror)}
[ -n "$mirror" ] || { echo "clean-install: no Debian archive in this machine's apt sources; set VELOCAST_DEBIAN_MIRROR" >&2; exit 1; }
[ "$(id -u)" -eq 0 ] || { echo "clean-install: needs root" >&2; exit 1; }
ls "$root"/build-deb/velocast_*.deb "$root"/build-deb/velocast-receiver_*.deb >/dev/null ||
    { echo "clean-install: no packages in build-deb/ (run scripts/package.sh)" >&2; exit 1; }

if [ ! -x "$chroot_dir/usr/bin/apt-get" ]; then
    debootstrap --variant=minbase bookworm "$chroot_dir" "$mirror"
fi
cleanup() {
    if [ -n "${xvfb_pid:-}" ]; then kill "$xvfb_pid" 2>/dev/null || true; fi
    for m in proc dev/pts dev; do umount "$chroot_dir/$m" 2>/dev/null || umount -l "$chroot_dir/$m" 2>/dev/null || true; done
}
trap cleanup EXIT
mount -t proc proc "$chroot_dir/proc"
mount --bind /dev "$chroot_dir/dev"
mount --bind /dev/pts "$chroot_dir/dev/pts"
cp /etc/resolv.conf "$chroot_dir/etc/resolv.conf"
mkdir -p "$chroot_dir/root/debs"
rm -f "$chroot_dir"/root/debs/*.deb
cp "$root"/build-deb/velocast_*.deb "$root"/build-deb/velocast-receiver_*.deb "$chroot_dir/root/debs/"

in_chroot() { chroot "$chroot_dir" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 "$@"; }
in_chroot apt-get update -qq
# The packages and what they depend on or recommend, from the archive; Xvfb and x11-utils
# only to start the program and look at its window here.
in_chroot sh -c 'DEBIAN_FRONTEND=noninteractive apt-get install -y -q \
    /root/debs/velocast_*.deb /root/debs/velocast-receiver_*.deb xvfb x11-utils'

in_chroot velocast --version
in_chroot test -s /usr/share/doc/velocast/help.html
in_chroot test -s /usr/share/icons/hicolor/48x48/apps/velocast.png
in_chroot test -s /usr/share/applications/velocast.desktop

# Start it under Xvfb and wait (without a deadline on the program's part: up to 30 tries)
# for its main window.
in_chroot sh -c 'Xvfb :47 -nolisten tcp >/tmp/xvfb.log 2>&1 & echo $! > /tmp/xvfb.pid'
xvfb_pid=$(cat "$chroot_dir/tmp/xvfb.pid")
in_chroot sh -c 'mkdir -p /tmp/rt && chmod 700 /tmp/rt &&
    DISPLAY=:47 XDG_RUNTIME_DIR=/tmp/rt velocast >/tmp/velocast.log 2>&1 & echo $! > /tmp/velocast.pid'
found=0
for _ in $(seq 30); do
    if in_chroot env DISPLAY=:47 xwininfo -root -tree 2>/dev/null | grep -q '"Velocast'; then found=1; break; fi
    sleep 1
done
in_chroot env DISPLAY=:47 xwininfo -root -tree | grep '"Velocast' || true
in_chroot sh -c 'kill $(cat /tmp/velocast.pid)' || true
if [ "$found" != 1 ]; then
    echo "clean-install: no Velocast window appeared; its log:" >&2
    cat "$chroot_dir/tmp/velocast.log" >&2
    exit 1
fi
echo "clean-install: installed and started on a fresh Debian 12 in $chroot_dir"
