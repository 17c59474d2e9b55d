#!/usr/bin/env bash
# Renders the windows to docs/*.png (offscreen; no display needed) for the README.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
bash scripts/build.sh default --target ui_screenshots
QT_QPA_PLATFORM=offscreen ./build/docs/screenshots/ui_screenshots docs
