#!/usr/bin/env bash
# Installs what is missing, builds, and starts Velocast.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
bash scripts/install-deps.sh
bash scripts/build.sh default
exec ./build/src/app/velocast "$@"
