#!/usr/bin/env bash
# Builds the Debian packages (velocast and velocast-receiver) from the source tree into
# build-deb/. With --check, also checks them: lintian without errors, the desktop entry, the
# AppStream metainfo, the icons, the help page, and the version the program reports.
# --check-only checks the packages already in build-deb/.
#
# The version comes from the project() line of CMakeLists.txt, the build dependencies from
# scripts/packages.txt; the runtime dependencies of the binaries are found by dpkg-shlibdeps.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
check=0 build=1
case "${1:-}" in
--check) check=1 ;;
--check-only) check=1 build=0 ;;
esac

version=$(sed -nE 's/^project\(Velocast VERSION ([0-9][0-9.]*).*/\1/p' CMakeLists.txt)
[ -n "$version" ] || { echo "package: no version in CMakeLists.txt" >&2; exit 1; }
out="$root/build-deb"
stage="$out/velocast-$version"
if [ "$build" = 1 ]; then
    mkdir -p "$stage"

    # A copy of the tracked and new files (modification times kept, so the build directory
    # inside the stage, kept between runs, rebuilds only what changed).
    find "$stage" -mindepth 1 -maxdepth 1 ! -name 'obj-*' -exec rm -rf {} +
    git ls-files -z --cached --others --exclude-standard |
        tar --null -T - --ignore-failed-read -cf - 2>/dev/null | tar -xf - -C "$stage"

    # Build dependencies: every -dev package in the one list, except the test-only ones.
    dev=$(grep -vE '^\s*(#|$)' scripts/packages.txt | awk '{print $1}' |
        grep -E -- '-dev$' | grep -vE '^(libgtest-dev|libgmock-dev|libbenchmark-dev|libfuzzer.*)$' | paste -sd, | sed 's/,/, /g')
    sed -i "s/@DEV_PACKAGES@/$dev/" "$stage/debian/control"
    maintainer=$(sed -n 's/^Maintainer: //p' debian/control)
    # The changelog entry carries the date of the last commit, so rebuilding the same tree gives
    # the same package.
    when=$(git log -1 --format=%cD 2>/dev/null || date -R)
    cat > "$stage/debian/changelog" <<EOF
velocast ($version) unstable; urgency=medium

  * Velocast $version, built from the source tree.

 -- $maintainer  $when
EOF

    rm -f "$out"/*.deb "$out"/*.ddeb "$out"/*.changes "$out"/*.buildinfo
    (cd "$stage" && DEB_BUILD_OPTIONS="parallel=${VELOCAST_JOBS:-2}" dpkg-buildpackage -b -us -uc -nc >"$out/build.log" 2>&1) || {
        tail -n 40 "$out/build.log" >&2
        echo "package: dpkg-buildpackage failed (full log: $out/build.log)" >&2
        exit 1
    }
    ls -1 "$out"/*.deb
fi
[ "$check" = 1 ] || exit 0

# ---- checks ----
fail() { echo "package check: $*" >&2; exit 1; }
deb="$out/velocast_${version}_$(dpkg --print-architecture).deb"
rdeb="$out/velocast-receiver_${version}_$(dpkg --print-architecture).deb"
[ -f "$deb" ] && [ -f "$rdeb" ] || fail "expected $deb and $rdeb"

lintian --fail-on error --suppress-tags initial-upload-closes-no-bugs "$deb" "$rdeb" || fail "lintian reported errors"

x=$(mktemp -d /tmp/velocast-deb.XXXXXX)
trap 'rm -rf "$x"' EXIT
dpkg-deb -x "$deb" "$x/velocast"
dpkg-deb -x "$rdeb" "$x/receiver"
desktop-file-validate "$x/velocast/usr/share/applications/velocast.desktop" || fail "desktop entry"
appstreamcli validate --no-net "$x"/velocast/usr/share/metainfo/*.metainfo.xml || fail "metainfo"
grep -q '^Icon=velocast$' "$x/velocast/usr/share/applications/velocast.desktop" || fail "desktop entry names another icon"

# Icons: a PNG of the stated size at every hicolor size, and the scalable one.
for size in 16 22 24 32 48 64 128 256 512; do
    png="$x/velocast/usr/share/icons/hicolor/${size}x${size}/apps/velocast.png"
    [ -f "$png" ] || fail "missing $png"
    dims=$(od -An -tu1 -j16 -N8 "$png" | awk '{print $1*16777216+$2*65536+$3*256+$4 "x" $5*16777216+$6*65536+$7*256+$8}')
    [ "$dims" = "${size}x${size}" ] || fail "$png is $dims"
done
grep -q '<svg' "$x/velocast/usr/share/icons/hicolor/scalable/apps/velocast.svg" || fail "scalable icon"

# The help page the wizard copies: shipped, and the address the program has built in.
help=/usr/share/doc/velocast/help.html
[ -s "$x/velocast$help" ] || fail "help page not in the package"
# grep reads to the end: with pipefail, a grep -q that stops early would fail the pipe.
strings -e l "$x/velocast/usr/bin/velocast" | grep -xF "$help" >/dev/null || fail "the program does not point at $help"

# One version everywhere: the package, the program's --version, the metainfo's release.
[ "$(dpkg-deb -f "$deb" Version)" = "$version" ] || fail "package version"
got=$("$x/velocast/usr/bin/velocast" --version)
[ "$got" = "Velocast $version" ] || fail "velocast --version says '$got', expected 'Velocast $version'"
grep -q "<release version=\"$version\"" "$x"/velocast/usr/share/metainfo/*.metainfo.xml ||
    fail "the metainfo has no release $version"

# Runtime dependencies found from the binaries, plus the plugins and the font named by hand.
depends=$(dpkg-deb -f "$deb" Depends)
for p in libqt6widgets6 libgstreamer1.0-0 gstreamer1.0-plugins-ugly fonts-wqy-microhei qt6-qpa-plugins; do
    [[ ",$depends," == *"$p"* ]] || fail "velocast does not depend on $p ($depends)"
done
echo "package check: $(basename "$deb") and $(basename "$rdeb") pass"
