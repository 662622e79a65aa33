#!/usr/bin/env bash
# Builds Vekt twice (g++ plain, clang with AddressSanitizer + UndefinedBehaviorSanitizer)
# and runs the whole suite in both. Installs what is missing when run as root.
set -euo pipefail
cd "$(dirname "$0")"

packages=(cmake ninja-build g++ clang libgtest-dev libgmock-dev libbenchmark-dev
          iproute2 iptables socat)
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    if [ "$(id -u)" -eq 0 ]; then
        echo "== installing: ${missing[*]}"
        apt-get update -qq
        DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
    else
        echo "== missing packages (run as root to install): ${missing[*]}" >&2
    fi
fi

jobs=$(nproc)
build() {  # build DIR CXX EXTRA...
    local dir=$1 cxx=$2; shift 2
    echo "== configuring $dir ($cxx $*)"
    CXX=$cxx cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
    cmake --build "$dir" -j "$jobs"
}

build build g++
build build-asan clang++ -DVEKT_SANITIZE=ON -DVEKT_BUILD_BENCH=OFF

echo "== tests (g++)"
ctest --test-dir build --output-on-failure -j "$jobs"
echo "== tests (clang, ASan + UBSan)"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
    ctest --test-dir build-asan --output-on-failure -j "$jobs"
