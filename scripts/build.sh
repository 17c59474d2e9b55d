#!/usr/bin/env bash
# Configures and builds one preset (default, asan or tsan); extra arguments go to the build
# (e.g. --target control_tests).
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
preset=${1:-default}
shift || true
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" "$@"
