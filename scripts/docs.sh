#!/bin/bash
# Builds the API reference from the public headers into build-docs/docs/html.
# Fails on any doxygen warning, an undocumented public declaration included.
#   scripts/docs.sh [build-dir]   (default: build-docs)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

dir=${1:-build-docs}
cmake -S . -B "$dir" -DQEL_UTIL_BUILD_DOCS=ON -DBUILD_TESTING=OFF \
  -DQEL_UTIL_BUILD_EXAMPLES=OFF -DQEL_UTIL_BUILD_TOOLS=OFF >/dev/null
cmake --build "$dir" --target docs
echo "API reference: $dir/docs/html/index.html"
