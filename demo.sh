#!/usr/bin/env bash
# Builds Vekt and runs the daemon in a demo root under build/demo, in a private network
# namespace where it can be made. The wrapper tools there print the rules they would apply
# to build/demo/rules.log instead of touching the machine. Ctrl-C stops the daemon cleanly.
set -euo pipefail
cd "$(dirname "$0")"

if ! command -v cmake >/dev/null || ! command -v ninja >/dev/null; then
    if [ "$(id -u)" -eq 0 ]; then
        apt-get update -qq && apt-get install -y -qq cmake ninja-build g++ >/dev/null
    fi
fi
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEKT_BUILD_TESTS=OFF >/dev/null
cmake --build build --target vekt

root=$PWD/build/demo
rm -rf "$root"
mkdir -p "$root"/{dev/socket,proc/sla,vendor/etc/sla,system/bin,properties}
cp etc/vekt.conf "$root/vendor/etc/sla/vekt.conf"
echo 1 > "$root/properties/vendor.sla.enabled"
for tool in iptables ip; do
    cat > "$root/system/bin/$tool-wrapper-1.0" <<SCRIPT
#!/bin/sh
echo "$tool \$*" >> "$root/rules.log"
SCRIPT
    chmod +x "$root/system/bin/$tool-wrapper-1.0"
done
: > "$root/rules.log"

netns=()
if [ "$(id -u)" -eq 0 ] && unshare --net true 2>/dev/null; then
    netns=(unshare --net)
elif unshare --user --map-root-user --net true 2>/dev/null; then
    netns=(unshare --user --map-root-user --net)
else
    echo "(no private network namespace available: running in this one)"
fi

echo "== demo root: $root"
echo "== rules the daemon would apply: $root/rules.log"
echo "== stop with Ctrl-C"
tail -n +1 -f "$root/rules.log" | sed 's/^/RULE /' &
tailer=$!
"${netns[@]}" build/bin/vekt --root "$root" 2> >(tee "$root/vekt.log" >&2) &
daemon=$!

stop() {
    trap - INT TERM
    echo
    echo "== stopping: vendor.sla.enabled = 2"
    echo 2 > "$root/properties/vendor.sla.enabled"
    # After its shutdown the daemon idles on purpose (as on a device); end it once it says so.
    for _ in $(seq 100); do
        grep -q "Vekt exiting" "$root/vekt.log" 2>/dev/null && break
        sleep 0.1
    done
    kill "$daemon" 2>/dev/null || true
    wait "$daemon" 2>/dev/null || true
    kill "$tailer" 2>/dev/null || true
    echo "== stopped"
    exit 0
}
trap stop INT TERM
wait "$daemon"
