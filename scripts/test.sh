#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test: the whole suite in the default
# build, then the tests labelled "asan" again under AddressSanitizer + UBSan.
# Then ThreadSanitizer on the control, push and casting-session suites, and each fuzz target
# for a few seconds (clang, scripts/fuzz.sh). The default run includes the cast soak.
# Set VELOCAST_SKIP_ASAN=1, VELOCAST_SKIP_TSAN=1 or VELOCAST_SKIP_FUZZ=1 to leave a step out.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
start=$(date +%s)
bash scripts/install-deps.sh

bash scripts/build.sh default

# Real services for the tests, torn down whatever happens.
RT=$(mktemp -d /tmp/velocast-svc.XXXXXX)
chmod 755 "$RT"
cleanup() { bash "$root/scripts/services.sh" stop "$RT" || true; rm -rf "$RT"; }
trap cleanup EXIT
VC_NETNS="velocast-svc-$$" bash scripts/services.sh start "$RT"
# shellcheck disable=SC1091
source "$RT/env"

status=0
ctest --preset default -j2 || status=1

if [ "${VELOCAST_SKIP_ASAN:-0}" != 1 ]; then
    # The sanitizer run covers the code with threads and buffers. Its executables are the
    # test targets named in tests/sanitize-targets.txt.
    mapfile -t targets < <(grep -vE '^\s*(#|$)' tests/sanitize-targets.txt)
    bash scripts/build.sh asan --target "${targets[@]}"
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        ctest --preset asan -L asan -j2 || status=1
fi
if [ "${VELOCAST_SKIP_TSAN:-0}" != 1 ]; then
    # ThreadSanitizer on the control, push and casting-session suites (tests/tsan.supp):
    # every test of the executables built here (the others show up only as placeholders in
    # this tree).
    bash scripts/build.sh tsan --target control_tests push_tests capture_session_tests
    # The preset's options (tests/tsan.supp, die_after_fork=0).
    ctest --preset tsan -L asan -E '_NOT_BUILT$' -j2 || status=1
fi

if [ "${VELOCAST_SKIP_FUZZ:-0}" != 1 ]; then
    # Each fuzz target for a short fixed time (about a minute in all); scripts/fuzz.sh SECONDS
    # runs them longer.
    bash scripts/fuzz.sh 12 || status=1
fi

# The Debian packages: built from the tree, then lintian (no errors), the desktop entry, the
# metainfo, icons, help page and version checked (scripts/package.sh). VELOCAST_SKIP_PACKAGE=1 skips.
if [ "${VELOCAST_SKIP_PACKAGE:-0}" != 1 ]; then
    bash scripts/package.sh --check || status=1
fi

echo "test.sh: finished in $(( $(date +%s) - start )) s, status $status"
exit $status
