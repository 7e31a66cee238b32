# Sourced by scripts/test and scripts/demo: one Xvfb display and one persistent
# wineserver for the whole run, in a throw-away prefix inside the build folder.
# Everything started here is stopped by the EXIT trap.

wine_session_start() {
  local build_dir=$1
  export WINEPREFIX=${WINEPREFIX:-$build_dir/wineprefix}
  export WINEARCH=win64
  export WINEDEBUG=${WINEDEBUG:--all}
  export WINEDLLOVERRIDES="mscoree,mshtml=;winemenubuilder.exe=d"
  # Wine takes its ANSI code page from the locale; scripts/wine-exec runs the
  # programs with zh_CN.UTF-8, whose code page (936, GBK) keeps Chinese text
  # and full-width characters of debug output intact through the ANSI path.
  export WISOCK_WINE_LOCALE=${WISOCK_WINE_LOCALE:-zh_CN.UTF-8}

  local fifo display
  fifo=$(mktemp -u)
  mkfifo "$fifo"
  Xvfb -displayfd 3 -nolisten tcp -ac -screen 0 1024x768x24 3>"$fifo" >/dev/null 2>&1 &
  WINE_SESSION_XVFB=$!
  read -r -t 20 display <"$fifo" || true
  rm -f "$fifo"
  if [ -z "$display" ]; then
    echo "wine-session: Xvfb did not start" >&2
    return 1
  fi
  export DISPLAY=:$display
  trap wine_session_stop EXIT

  mkdir -p "$WINEPREFIX"
  wineserver -p
  if [ ! -f "$WINEPREFIX/system.reg" ]; then
    "$(dirname "${BASH_SOURCE[0]}")/../wine-exec" wineboot -i >/dev/null 2>&1 || true
  fi
  # The first window of a session starts Wine's desktop process (explorer.exe),
  # which lives until the wineserver stops and keeps the stdio of the program
  # that started it. Start it here with /dev/null, so that it doesn't hold the
  # output pipe of a test program and make ctest wait for it.
  "$(dirname "${BASH_SOURCE[0]}")/../wine-exec" rundll32.exe user32.dll,GetDesktopWindow \
    </dev/null >/dev/null 2>&1 || true
  # Start Wine's services (services.exe, winedevice.exe, ...) here, away from
  # any test's output: otherwise the first program of the session starts them,
  # they inherit its stdout pipe, and ctest waits for that pipe to close until
  # the test's time-out, although the program itself has ended.
  "$(dirname "${BASH_SOURCE[0]}")/../wine-exec" wineboot >/dev/null 2>&1 || true
}

wine_session_stop() {
  wineserver -k >/dev/null 2>&1 || true
  wineserver -w >/dev/null 2>&1 || true
  if [ -n "${WINE_SESSION_XVFB:-}" ]; then
    kill "$WINE_SESSION_XVFB" >/dev/null 2>&1 || true
    wait "$WINE_SESSION_XVFB" 2>/dev/null || true
  fi
}

# Configures and builds the project in $1 (quiet unless something fails).
project_build() {
  local root=$1 build_dir=$2
  if [ ! -f "$build_dir/build.ninja" ]; then
    cmake -S "$root" -B "$build_dir" -G Ninja \
      -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-posix.cmake" >"$build_dir.configure.log" 2>&1 \
      || { cat "$build_dir.configure.log"; return 1; }
  fi
  cmake --build "$build_dir" -j "${BUILD_JOBS:-2}"
}

# Configures and builds the MSVC-ABI build in $2 with clang-cl and the msvc-kit
# (MSVC_KIT, MSVC_KIT_OUT), linking the sealkit.dll built by mingw ($3).
project_build_msvc() {
  local root=$1 build_dir=$2 sealkit_dll=$3
  if [ ! -f "$build_dir/build.ninja" ]; then
    cmake -S "$root" -B "$build_dir" -G Ninja \
      -DCMAKE_TOOLCHAIN_FILE="$root/cmake/clang-cl-msvc-kit.cmake" \
      -DMSVC_KIT="$MSVC_KIT" -DMSVC_KIT_OUT="$MSVC_KIT_OUT" \
      -DWISOCK_SEALKIT_DLL="$sealkit_dll" >"$build_dir.configure.log" 2>&1 \
      || { cat "$build_dir.configure.log"; return 1; }
  fi
  cmake --build "$build_dir" -j "${BUILD_JOBS:-2}"
}

