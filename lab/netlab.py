"""The lab's network: a phone namespace with the daemon and its applications, one peer
namespace per link (an access point or a cellular gateway) and a server namespace.

    phone ── wlan0 ──────── ap   ── server   (10.1.1.0/24, then 10.2.1.0/24)
          ── rmnet_data0 ── cell ── server   (10.1.2.0/24, then 10.2.2.0/24)
          ── wlan1 ──────── ap2  ── server   (10.1.3.0/24, then 10.2.3.0/24), when asked for

The server holds SERVER (10.9.0.1) on its loopback and routes each phone subnet back over
its own peer, so a connection answers over the link it left on. Each peer shapes both of
its directions with a token bucket (on "ph", its end toward the phone, and "sv", toward the
server) and can pass the phone's packets through a link_stage
(delay, blackhole) on a netfilter queue. In the phone, the main table reaches SERVER over
every link (Wi-Fi first, by metric), each link's own table holds a default route over that
link alone, and the reverse-path filter is loose.

Everything lives in namespaces named "vl<pid>-..." that the lab makes and removes; nothing
here touches the host's own namespace.
"""
import os
import sys
import re
import shutil
import signal
import subprocess
import time

SERVER = "10.9.0.1"
LINKS = {  # phone-side name: peer namespace, subnet number, routing table, kind
    "wlan0": ("ap", 1, 1001, "wifi"),
    "rmnet_data0": ("cell", 2, 1002, "cellular"),
    "wlan1": ("ap2", 3, 1003, "wifi"),
}
LAB_DIR = os.path.dirname(os.path.abspath(__file__))


def phone_address(link):
    return "10.1.%d.2" % LINKS[link][1]


def sh(*argv, check=True, capture=True):
    result = subprocess.run([str(a) for a in argv], text=True, check=False,
                            stdout=subprocess.PIPE if capture else None,
                            stderr=subprocess.STDOUT if capture else None)
    if check and result.returncode != 0:
        raise RuntimeError("%s failed (%d): %s" % (" ".join(map(str, argv)), result.returncode,
                                                   result.stdout))
    return result.stdout or ""


def wait_for(predicate, seconds, step=0.05):
    deadline = time.time() + seconds
    while time.time() < deadline:
        if predicate():
            return True
        time.sleep(step)
    return predicate()


class Lab:
    def __init__(self, build_dir, work_dir, links=("wlan0", "rmnet_data0")):
        self.bin = os.path.join(build_dir, "bin")
        self.work = work_dir
        self.root = os.path.join(work_dir, "root")
        self.links = list(links)
        self.prefix = "vl%d-" % os.getpid()
        self.processes = []  # (name, Popen), ended in reverse order
        self.stages = {}
        self.daemon = None
        self.slasim = None
        self.namespaces = []

    # ---- namespaces and links ----

    def ns(self, name):
        return self.prefix + name

    def run(self, ns, *argv, check=True):
        return sh("ip", "netns", "exec", self.ns(ns), *argv, check=check)

    def spawn(self, name, ns, argv, uid=None, output=None, stdin=subprocess.DEVNULL):
        """Starts argv inside ns (as uid when given); its output goes to work/NAME.log."""
        command = ["ip", "netns", "exec", self.ns(ns)]
        if uid is not None:
            command += ["setpriv", "--reuid=%d" % uid, "--regid=%d" % uid, "--clear-groups"]
        log = output or open(os.path.join(self.work, name + ".log"), "a")
        process = subprocess.Popen(command + [str(a) for a in argv], stdin=stdin, stdout=log,
                                   stderr=subprocess.STDOUT if output is None else None,
                                   text=True, start_new_session=True)
        self.processes.append((name, process))
        return process

    def up(self):
        os.makedirs(self.work, exist_ok=True)
        for name in ["phone", "server"] + [LINKS[link][0] for link in self.links]:
            sh("ip", "netns", "add", self.ns(name))
            self.namespaces.append(name)
            self.run(name, "ip", "link", "set", "lo", "up")
            self.run(name, "sysctl", "-qw", "net.ipv4.conf.all.rp_filter=2",
                     "net.ipv4.conf.default.rp_filter=2", "net.ipv4.ip_forward=1")
        self.run("server", "ip", "addr", "add", SERVER + "/32", "dev", "lo")
        # Gaming points the probes at the built-in RTT server, 127.0.0.1 in a host build; the
        # phone sends them on to the lab's RTT server over the probe's own link.
        self.run("phone", "sysctl", "-qw", "net.ipv4.conf.all.route_localnet=1")
        self.run("phone", "iptables", "-w", "-t", "nat", "-A", "OUTPUT", "-d", "127.0.0.1",
                 "-p", "tcp", "--dport", "443", "!", "-o", "lo", "-j", "DNAT",
                 "--to-destination", SERVER)
        for metric, link in enumerate(self.links, start=1):
            self._add_link(link, metric * 10)
        self.spawn("server", "server", [sys.executable, os.path.join(LAB_DIR, "apps.py"), "serve",
                                         SERVER], stdin=subprocess.PIPE)
        self.spawn("server-mptcp", "server", ["mptcpize", "run", sys.executable,
                                               os.path.join(LAB_DIR, "apps.py"), "serve",
                                               SERVER, "--download-port", "8081",
                                               "--services", "download"],
                   stdin=subprocess.PIPE)
        wait_for(lambda: ":0050 " in self.run("server", "cat", "/proc/net/tcp"), 5)

    def _add_link(self, link, metric):
        peer, n, table, _ = LINKS[link]
        phone, server = self.ns("phone"), self.ns("server")
        sh("ip", "link", "add", link, "netns", phone, "type", "veth", "peer", "name", "ph",
           "netns", self.ns(peer))
        sh("ip", "link", "add", "sv", "netns", self.ns(peer), "type", "veth", "peer", "name",
           "l%d" % n, "netns", server)
        for ns, dev, address in (("phone", link, "10.1.%d.2/24" % n),
                                 (peer, "ph", "10.1.%d.1/24" % n),
                                 (peer, "sv", "10.2.%d.1/24" % n),
                                 ("server", "l%d" % n, "10.2.%d.2/24" % n)):
            self.run(ns, "ip", "addr", "add", address, "dev", dev)
            self.run(ns, "ip", "link", "set", dev, "up")
            self.run(ns, "sysctl", "-qw", "net.ipv4.conf.%s.rp_filter=2" % dev)
        gateway = "10.1.%d.1" % n
        self.run("phone", "ip", "route", "add", "default", "via", gateway, "dev", link,
                 "metric", metric)
        self.run("phone", "ip", "route", "add", "default", "via", gateway, "dev", link,
                 "table", table)
        self.run(peer, "ip", "route", "add", SERVER, "via", "10.2.%d.2" % n)
        self.run("server", "ip", "route", "add", "10.1.%d.0/24" % n, "via", "10.2.%d.1" % n)
        self.shape(link, 1000)

    def shape(self, link, mbit):
        """Token buckets on both of the peer's ends: what the link carries each way."""
        peer = LINKS[link][0]
        for dev in ("ph", "sv"):
            self.run(peer, "tc", "qdisc", "replace", "dev", dev, "root", "tbf", "rate",
                     "%gmbit" % mbit, "burst", "%dkb" % max(16, mbit * 4), "latency", "200ms")

    def set_carrier(self, link, up):
        """Takes the peer's end of the link down (the phone sees no carrier) or up again."""
        self.run(LINKS[link][0], "ip", "link", "set", "ph", "up" if up else "down")

    def start_stage(self, link, delay_ms):
        """Passes every packet that the phone sends over link through a link_stage."""
        peer, n, _, _ = LINKS[link]
        self.stages[link] = self.spawn("stage-" + link, peer,
                                       [os.path.join(self.bin, "link_stage"), n, delay_ms],
                                       stdin=subprocess.PIPE)
        time.sleep(0.3)
        self.run(peer, "iptables", "-t", "mangle", "-A", "FORWARD", "-i", "ph", "-j",
                 "NFQUEUE", "--queue-num", n)

    def stage(self, link, command):
        self.stages[link].stdin.write(command + "\n")
        self.stages[link].stdin.flush()

    def counters(self):
        """Bytes received and sent so far by each of the phone's links."""
        text = self.run("phone", "cat", "/proc/net/dev")
        result = {}
        for line in text.splitlines():
            name, _, fields = line.partition(":")
            if name.strip() in self.links:
                values = fields.split()
                result[name.strip()] = (int(values[0]), int(values[8]))
        return result

    # ---- the daemon ----

    def write_root(self, settings):
        shutil.rmtree(self.root, ignore_errors=True)
        for folder in ("dev/socket", "proc/sla", "vendor/etc/sla", "system/bin", "properties"):
            os.makedirs(os.path.join(self.root, folder))
        conf = open(os.path.join(os.path.dirname(LAB_DIR), "etc", "vekt.conf")).read()
        for key, value in settings.items():
            conf, found = re.subn(r"(?m)^%s = .*$" % key, "%s = %s" % (key, value), conf)
            if not found:  # a key the device's file leaves unset
                conf += "%s = %s\n" % (key, value)
        self.write(os.path.join(self.root, "vendor/etc/sla/vekt.conf"), conf)
        self.set_property(1)
        self.rule_log = os.path.join(self.work, "rules.log")
        open(self.rule_log, "w").close()
        # The wrappers run the real tools in the daemon's namespace and log each command
        # with its time and status; the ip wrapper maps the daemon's table names (named after
        # the interfaces) to numbers, since a fresh namespace knows no such names.
        log = ('status=$?\necho "$(date +%%s.%%N) $status %s $line" >> %s\nexit $status\n')
        tables = "".join("        %s) arg=%d ;;\n" % (name, info[2]) for name, info in LINKS.items())
        self.write_tool("iptables", '#!/bin/sh\nline="$*"\niptables "$@"\n' +
                        log % ("iptables", self.rule_log))
        self.write_tool("ip", '#!/bin/sh\nline="$*"\nprev=\nfor arg do\n    shift\n'
                        '    if [ "$prev" = table ]; then\n        case "$arg" in\n' + tables +
                        '        esac\n    fi\n    set -- "$@" "$arg"\n    prev=$arg\ndone\n'
                        'ip "$@"\n' + log % ("ip", self.rule_log))

    def write(self, path, text):
        with open(path, "w") as out:
            out.write(text)

    def write_tool(self, name, text):
        path = os.path.join(self.root, "system/bin/%s-wrapper-1.0" % name)
        self.write(path, text)
        os.chmod(path, 0o755)

    def set_property(self, value):
        self.write(os.path.join(self.root, "properties/vendor.sla.enabled"), "%d\n" % value)

    def start_daemon(self, settings=None, fresh_root=True):
        """slasim on the phone's real counters, then the daemon; returns once its socket is up."""
        socket_path = os.path.join(self.root, "dev/socket/vekt")
        if fresh_root:
            if self.slasim is not None:
                self.end(self.slasim)
            self.write_root(settings or {})
            started = self.read("slasim.log").count("slasim: ready")
            self.slasim = self.spawn("slasim", "phone", [os.path.join(self.bin, "slasim"),
                                                         "--root", self.root] + self.links)
            wait_for(lambda: self.read("slasim.log").count("slasim: ready") > started, 5)
        elif os.path.exists(socket_path):
            os.unlink(socket_path)  # a killed daemon's: the new one makes its own
        self.daemon = self.spawn("vekt", "phone", [os.path.join(self.bin, "vekt"), "--root",
                                                    self.root])
        if not wait_for(lambda: os.path.exists(socket_path), 10):
            raise RuntimeError("the daemon made no control socket:\n" + self.read("vekt.log"))

    def vektctl(self, command, text=None):
        argv = [os.path.join(self.bin, "vektctl"), "--root", self.root, command]
        sh(*(argv + ([text] if text is not None else [])))

    def kill_daemon(self):
        """Ends the daemon at once, as a crash would: nothing is cleaned up."""
        self.daemon.send_signal(signal.SIGKILL)
        self.daemon.wait()

    def stop_daemon(self):
        """Stops the daemon as the platform does (property 2 while a client is connected),
        waits for its clean-up, then ends the idle process."""
        stay = subprocess.Popen([os.path.join(self.bin, "vektctl"), "--root", self.root,
                                 "--stay", "interface-mode", "1"], stdout=subprocess.DEVNULL)
        mark = self.read("vekt.log").count("Vekt exiting")
        self.set_property(2)
        cleaned = wait_for(lambda: self.read("vekt.log").count("Vekt exiting") > mark, 15)
        self.kill_daemon()
        stay.wait(5)
        return cleaned

    def read(self, name):
        try:
            with open(os.path.join(self.work, name), errors="replace") as log:
                return log.read()
        except FileNotFoundError:
            return ""

    def rule_commands(self, since=0.0):
        """(time, status, command) of each command the daemon ran after since."""
        commands = []
        for line in self.read("rules.log").splitlines():
            when, status, command = line.split(" ", 2)
            if float(when) >= since:
                commands.append((float(when), int(status), command))
        return commands

    def iptables_save(self):
        return self.run("phone", "iptables-save")

    def ip_rules(self):
        return self.run("phone", "ip", "rule", "show")

    def daemon_footprint(self):
        """Resident kB, open descriptors and threads of the running daemon."""
        pid = self.daemon.pid
        status = open("/proc/%d/status" % pid).read()
        rss = int(re.search(r"VmRSS:\s+(\d+)", status).group(1))
        threads = int(re.search(r"Threads:\s+(\d+)", status).group(1))
        fds = sorted(os.readlink("/proc/%d/fd/%s" % (pid, fd)) for fd in os.listdir("/proc/%d/fd" % pid))
        return {"rss_kb": rss, "fds": len(fds), "threads": threads, "open": fds}

    # ---- clean-up ----

    @staticmethod
    def end(process):
        if process.poll() is None:
            if process.stdin:
                try:
                    process.stdin.close()
                except OSError:
                    pass
            process.terminate()
            try:
                process.wait(5)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()

    def down(self):
        for _, process in reversed(self.processes):
            self.end(process)
        self.processes.clear()
        for name in reversed(self.namespaces):
            sh("ip", "netns", "del", self.ns(name), check=False)
        self.namespaces.clear()

    def __enter__(self):
        try:
            self.up()
        except BaseException:
            self.down()
            raise
        return self

    def __exit__(self, *exc):
        self.down()
