#!/usr/bin/env bash
# Installs what the build needs (Debian packages, only when missing), configures, builds and
# runs. Usage: ./build.sh run [ARGS...] | test | asan | win | wine-test [PROGRAM...] | fuzz [SECONDS] | bench
set -euo pipefail
cd "$(dirname "$0")"

need() {
  local missing=()
  for p in "$@"; do
    dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
  done
  if [ ${#missing[@]} -gt 0 ]; then
    echo "Installing: ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -eq 0 ] || sudo="sudo"
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
  fi
}

BASE=(cmake ninja-build g++ libgtest-dev libbenchmark-dev zlib1g-dev liblz4-dev)

build() {
  cmake --preset "$1" >/dev/null
  cmake --build --preset "$1"
}

cmd="${1:-}"
[ $# -gt 0 ] && shift
case "$cmd" in
  run)
    need "${BASE[@]}"
    build default
    exec ./build/default/install/Setup "$@"
    ;;
  test)
    # ImageMagick reads the bitmaps the suite writes, and writes some it reads.
    need "${BASE[@]}" imagemagick
    build default
    ctest --preset default -j"$(nproc)"
    ;;
  asan)
    need "${BASE[@]}"
    build asan
    ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --preset asan -j"$(nproc)"
    ;;
  win)
    need cmake ninja-build g++-mingw-w64-i686 g++-mingw-w64-x86-64
    build win32
    build win64
    file build/win32/install/Setup.exe build/win64/install/Setup.exe 2>/dev/null || ls -l build/win*/install/Setup.exe
    ;;
  wine-test)
    # The Windows test programs, cross-built and run under Wine in a fresh prefix.
    need cmake ninja-build googletest g++-mingw-w64-x86-64 wine64
    wine=$(command -v wine64 || true)
    [ -n "$wine" ] || wine=/usr/lib/wine/wine64
    [ -x "$wine" ] || { echo "wine64 not found" >&2; exit 1; }
    programs=(test_files test_base test_config)
    [ $# -gt 0 ] && programs=("$@")
    cmake --preset win64-tests -DCMAKE_CROSSCOMPILING_EMULATOR="$wine" >/dev/null
    cmake --build --preset win64-tests --target "${programs[@]}"
    prefix=$(mktemp -d "${TMPDIR:-/tmp}/setup-wine.XXXXXX")
    stop_wine() {
      WINEPREFIX="$prefix" "$(dirname "$wine")/wineserver" -k 2>/dev/null || true
      rm -rf "$prefix"
    }
    trap stop_wine EXIT
    export WINEPREFIX="$prefix" WINEDEBUG=-all
    "$wine" wineboot -i >/dev/null 2>&1 || true
    failed=0
    for p in "${programs[@]}"; do
      echo "== $p.exe under Wine"
      # A crash starts Wine's debugger, which prints a backtrace and ends: nothing waits on
      # input. The time limit guards against a program that never ends.
      if ! timeout 900 "$wine" "build/win64-tests/tests/$p.exe" --gtest_brief=1 </dev/null; then
        echo "$p.exe: FAILED"
        failed=1
      fi
    done
    exit $failed
    ;;
  fuzz)
    need cmake ninja-build clang libclang-rt-14-dev
    build fuzz
    secs="${1:-20}"
    shopt -s nullglob
    for f in build/fuzz/fuzz/fuzz_*; do
      [ -x "$f" ] || continue
      name=$(basename "$f")
      corpus="fuzz/corpus/$name"
      mkdir -p "build/fuzz/corpus/$name"
      echo "== $name ($secs s)"
      dirs=("build/fuzz/corpus/$name")
      [ -d "$corpus" ] && dirs+=("$corpus")
      "$f" -max_total_time="$secs" -print_final_stats=0 "${dirs[@]}" 2>&1 | tail -n 3
    done
    ;;
  bench)
    need "${BASE[@]}"
    build default
    for b in build/default/bench/bench_*; do
      [ -x "$b" ] && "$b"
    done
    ;;
  *)
    sed -n '2,4p' "$0"
    exit 2
    ;;
esac
