#!/usr/bin/env bash
# Builds Vekt four times and runs the whole suite in each: g++ plain (then the network lab's
# smoke subset); g++ for AArch64, under qemu-aarch64-static; clang with AddressSanitizer +
# UndefinedBehaviorSanitizer; clang with ThreadSanitizer. Then builds the libFuzzer targets
# and runs each for VEKT_FUZZ_SECONDS (default 20) seconds. Installs what is missing when run
# as root, and prints the time each stage took.
set -euo pipefail
cd "$(dirname "$0")"

packages=(cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev
          libbenchmark-dev iproute2 iptables socat pkg-config libnetfilter-queue-dev)
# The AArch64 stage's toolchain, emulator and GoogleTest sources; without them it skips.
cross_packages=(g++-aarch64-linux-gnu qemu-user-static googletest)

missing_packages() {  # prints those of the named packages that are not installed
    for p in "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || echo "$p"
    done
}
install_packages() {  # install_packages NAME...: installs the missing ones when root
    local missing
    missing=$(missing_packages "$@")
    [ -z "$missing" ] && return 0
    if [ "$(id -u)" -ne 0 ]; then
        echo "== missing packages (run as root to install):" $missing >&2
        return 1
    fi
    echo "== installing:" $missing
    [ -n "${apt_updated:-}" ] || { apt-get update -qq && apt_updated=1; }
    # shellcheck disable=SC2086
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $missing >/dev/null
}
install_packages "${packages[@]}" || true

jobs=$(nproc)
stage_start=-1
stage() {  # stage NAME: prints the previous stage's time, then this stage's name
    local now=$SECONDS
    if [ "$stage_start" -ge 0 ]; then echo "== took $((now - stage_start)) s"; fi
    stage_start=$now
    [ -n "${1:-}" ] && echo "== $1"
    return 0
}
build() {  # build DIR CXX EXTRA...
    local dir=$1 cxx=$2; shift 2
    CXX=$cxx cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
    cmake --build "$dir" -j "$jobs"
}
stage "build (g++)"
build build g++
stage "tests (g++)"
ctest --test-dir build --output-on-failure -j "$jobs"

stage "lab smoke (root and network namespaces; skips without them)"
lab/run --smoke --results build/lab-smoke

# The handset's CPU: cross-built statically and run under qemu-aarch64-static (no binfmt
# registration; the tests start their programs through the emulator themselves).
stage "build (AArch64 cross, static)"
if install_packages "${cross_packages[@]}"; then
    build build-aarch64 aarch64-linux-gnu-g++ -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
    stage "tests (AArch64 under qemu-aarch64-static)"
    timeout 1800 ctest --test-dir build-aarch64 --output-on-failure -j "$jobs" --timeout 300
else
    echo "== skipped: needs the packages" $(missing_packages "${cross_packages[@]}")
fi

stage "build (clang, ASan + UBSan)"
build build-asan clang++ -DVEKT_SANITIZE=ON -DVEKT_BUILD_BENCH=OFF
stage "tests (clang, ASan + UBSan)"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
    ctest --test-dir build-asan --output-on-failure -j "$jobs"

stage "build (clang, ThreadSanitizer)"
build build-tsan clang++ -DVEKT_TSAN=ON -DVEKT_BUILD_BENCH=OFF
stage "tests (clang, ThreadSanitizer)"
TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/tests/tsan.supp" \
    ctest --test-dir build-tsan --output-on-failure -j "$jobs"
stage "build (clang, libFuzzer + ASan + UBSan)"
CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEKT_FUZZ=ON \
    -DVEKT_SANITIZE=ON -DVEKT_BUILD_BENCH=OFF >/dev/null
cmake --build build-fuzz -j "$jobs" --target fuzzers
stage "fuzz (${VEKT_FUZZ_SECONDS:-20} s per target)"
ASAN_OPTIONS=quarantine_size_mb=8 fuzz/run_fuzzers.sh "${VEKT_FUZZ_SECONDS:-20}" build-fuzz
stage ""
echo "== all stages passed in $SECONDS s"
