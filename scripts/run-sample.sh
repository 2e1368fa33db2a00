#!/usr/bin/env bash
# The main job on a fresh machine: build the tarnwick command and compose the
# bundled sample message, printing the result.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARNWICK_TESTS=OFF >/dev/null
cmake --build build/release -j "$(nproc 2>/dev/null || echo 2)" >/dev/null
out=build/sample-message.eml
rm -f "$out"
build/release/tools/tarnwick compose --from "Bob <bob@example.org>" --to "Ann <ann@example.org>" \
  --subject "Hello from tarnwick" --text samples/hello.txt -o "$out"
echo "wrote $out:"
cat "$out"
