#!/usr/bin/env bash
# Runs the studio's browser test: installs playwright-core beside it (never a browser of its own)
# when it is missing, then drives Debian's Chromium. Arguments go to studio_test.mjs; relative
# paths in them are taken from the caller's folder.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
export PLAYWRIGHT_SKIP_BROWSER_DOWNLOAD=1
if [ ! -d "$here/node_modules/playwright-core" ]; then
  (cd "$here" && npm install --no-audit --no-fund --silent)
fi
exec node "$here/studio_test.mjs" "$@"
