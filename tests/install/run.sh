#!/usr/bin/env bash
# Usage: run.sh <build dir> <source dir>
set -euo pipefail
build=$1
src=$2
work=$build/install-check
rm -rf "$work"
mkdir -p "$work"

cmake --install "$build" --prefix "$work/prefix" >"$work/install.log"
cmake -S "$src/tests/install/app" -B "$work/app" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$src/cmake/mingw-w64-posix.cmake" \
  -DCMAKE_PREFIX_PATH="$work/prefix" >"$work/configure.log" 2>&1 || { cat "$work/configure.log"; exit 1; }
cmake --build "$work/app" >"$work/build.log" 2>&1 || { cat "$work/build.log"; exit 1; }
cp "$work/prefix/bin/"*.dll "$work/app/"
"$src/scripts/wine-exec" "$work/app/outside_app.exe"
