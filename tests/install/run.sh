#!/usr/bin/env bash
# Usage: run.sh <build dir> <source dir> <toolchain file>
set -euo pipefail
build=$1
src=$2
toolchain=$3
work=$build/install-check
rm -rf "$work"
mkdir -p "$work"

cmake --install "$build" --prefix "$work/prefix" >"$work/install.log"
cmake -S "$src/tests/install/app" -B "$work/app" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DWISOCK_DEMO_SOURCES="$src/examples/demo" \
  -DCMAKE_PREFIX_PATH="$work/prefix" >"$work/configure.log" 2>&1 || { cat "$work/configure.log"; exit 1; }
cmake --build "$work/app" >"$work/build.log" 2>&1 || { cat "$work/build.log"; exit 1; }
cp "$work/prefix/bin/"*.dll "$work/app/"
source "$src/scripts/lib/demo-pki.sh"
demo_pki_export "$work/demo-pki"
"$src/scripts/wine-exec" "$work/app/outside_demo.exe" | tail -5
