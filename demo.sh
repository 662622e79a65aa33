#!/usr/bin/env bash
# Builds Vekt and runs the whole path of one command in a demo root under build/demo:
#   slasim      stands in for the kernel statistics module (wlan0 at 1200, rmnet_data0 at
#               800, in units of 1024 bit/s),
#   vekt        the daemon, in a private network namespace where one can be made,
#   vektctl     sends the first interface list, as the platform service would, and then
#               shows what the daemon made of it (`vektctl status`).
# The wrapper tools in the demo root print the rules they would apply (lines "RULE ...")
# instead of touching this machine. Ctrl-C stops everything cleanly.
set -euo pipefail
cd "$(dirname "$0")"

if ! command -v cmake >/dev/null || ! command -v ninja >/dev/null; then
    if [ "$(id -u)" -eq 0 ]; then
        apt-get update -qq && apt-get install -y -qq cmake ninja-build g++ >/dev/null
    fi
fi
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build --target vekt vektctl slasim

root=$PWD/build/demo
rm -rf "$root"
mkdir -p "$root"/{dev/socket,proc/sla,vendor/etc/sla,system/bin,properties}
cp etc/host/vekt.conf "$root/vendor/etc/sla/vekt.conf"
echo 1 > "$root/properties/vendor.sla.enabled"
for tool in iptables ip; do
    cat > "$root/system/bin/$tool-wrapper-1.0" <<SCRIPT
#!/bin/sh
echo "RULE $tool \$*" >> "$root/rules.log"
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
    # The daemon destroys sockets at its stop; outside a namespace of its own it would
    # destroy this machine's.
    echo "demo: needs a private network namespace (run as root, or enable user namespaces)" >&2
    exit 1
fi

vektctl=(build/bin/vektctl --root "$root")
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
}
trap cleanup EXIT

# Each helper runs in a session of its own, so that Ctrl-C reaches only this script, which
# then stops the daemon the way the platform does and ends the helpers itself.
setsid build/bin/slasim --root "$root" wlan0=1200 rmnet_data0=800 > "$root/slasim.log" 2>&1 &
pids+=($!)
: > "$root/vekt.log"
setsid tail -q -n +1 -F "$root/vekt.log" "$root/rules.log" 2>/dev/null &
pids+=($!)
setsid "${netns[@]}" build/bin/vekt --root "$root" 2> "$root/vekt.log" &
daemon=$!
pids+=($daemon)

"${vektctl[@]}" interfaces wlan0,rmnet_data0
sleep 2  # a couple of main-loop passes: rates measured, ratio rules written
echo "== vektctl status"
"${vektctl[@]}" status
cat <<EOF

== demo root: $root
== the daemon registered wlan0 and rmnet_data0, mapped their statistics and spreads new
   connections 75/25 (see the RULE lines and "Updated Ratio"). From another terminal try:
     build/bin/vektctl --root $root status --watch 1
     build/bin/vektctl --root $root sla-uids 10123,10234
     build/bin/vektctl --root $root wifi-gateway 192.168.1.1
     build/bin/vektctl --help
== Ctrl-C stops the daemon cleanly.

EOF

stop() {
    trap - INT TERM
    echo
    echo "== stopping: vendor.sla.enabled = 2"
    # The daemon stops only while a client is connected, as the platform service always is;
    # this one sends a change that changes nothing and stays until the daemon hangs up.
    setsid "${vektctl[@]}" --stay interface-mode 1 &
    pids+=($!)
    sleep 0.2
    echo 2 > "$root/properties/vendor.sla.enabled"
    # After its cleanup the daemon idles on purpose (as on a device); end it once it says so.
    for _ in $(seq 100); do
        grep -q "Vekt exiting" "$root/vekt.log" 2>/dev/null && break
        sleep 0.1
    done
    sleep 0.3
    echo "== stopped; commands slasim received:"
    sed 's/^/   /' "$root/slasim.log"
    exit 0
}
trap stop INT TERM
wait "$daemon"
