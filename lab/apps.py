#!/usr/bin/python3
"""The lab's applications, each a subcommand run inside a namespace by the lab:

  serve ADDRESS       the server side: downloads on port 8080, the RTT server on 443
                      (each 58-byte text answered with 60 bytes), the game server on 80
                      (echoes, and first tells each player the address it came from)
  download ...        parallel downloads, each a series of fresh connections; prints JSON
  game ...            a game-like player that holds one connection and reconnects at once
                      when it breaks; prints one JSON line per event

Times are wall-clock seconds, as in the daemon's log and the wrapper tools' log, so the lab
can line all of them up.
"""
import argparse
import json
import socket
import socketserver
import sys
import threading
import time

# The game talks on a web port: the daemon's socket monitor passes web ports over, so the
# probes stay with the lab's RTT server instead of following the game's own server.
DOWNLOAD_PORT, RTT_PORT, GAME_PORT = 8080, 443, 80
PROBE_TEXT, PROBE_ANSWER = 58, 60


def now():
    return time.time()


def emit(record):
    print(json.dumps(record), flush=True)


def recv_exactly(conn, size):
    data = b""
    while len(data) < size:
        part = conn.recv(size - len(data))
        if not part:
            return None
        data += part
    return data


class DownloadHandler(socketserver.BaseRequestHandler):
    """Reads "BYTES\\n" and sends that many bytes, then closes."""

    def handle(self):
        line = self.request.makefile("rb").readline(32)
        try:
            remaining = int(line)
        except ValueError:
            return
        block = b"x" * 65536
        try:
            while remaining > 0:
                sent = self.request.send(block[:min(remaining, len(block))])
                remaining -= sent
        except OSError:
            pass  # the client gave up at its deadline


class RttHandler(socketserver.BaseRequestHandler):
    """Answers each probe text and reports how long each probe's connection lasted."""

    def handle(self):
        began = now()
        try:
            while recv_exactly(self.request, PROBE_TEXT) is not None:
                self.request.sendall(b"y" * PROBE_ANSWER)
        except OSError:
            pass
        emit({"probe": self.client_address[0], "t": began, "ms": round((now() - began) * 1000)})


class GameHandler(socketserver.BaseRequestHandler):
    def handle(self):
        try:
            self.request.sendall(("%s\n" % self.client_address[0]).encode())
            while True:
                data = self.request.recv(256)
                if not data:
                    return
                self.request.sendall(data)
        except OSError:
            pass


class Server(socketserver.ThreadingTCPServer):
    daemon_threads = True
    allow_reuse_address = True


def serve(args):
    handlers = {"download": (args.download_port, DownloadHandler), "rtt": (RTT_PORT, RttHandler),
                "game": (GAME_PORT, GameHandler)}
    servers = [Server((args.address, handlers[name][0]), handlers[name][1])
               for name in args.services.split(",")]
    for server in servers:
        threading.Thread(target=server.serve_forever, daemon=True).start()
    emit({"ready": now()})
    sys.stdin.read()  # the lab closes our input to end us


def bound_socket(device):
    conn = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    if device:
        conn.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, device.encode())
    return conn


def download(args):
    deadline = now() + args.seconds
    totals = {"bytes": 0, "connections": 0, "failures": 0}
    lock = threading.Lock()

    def one_stream():
        while now() < deadline:
            received, failed = 0, False
            try:
                with bound_socket(args.device) as conn:
                    conn.settimeout(max(0.1, deadline - now()))
                    conn.connect((args.server, args.port))
                    conn.sendall(b"%d\n" % args.chunk)
                    while received < args.chunk and now() < deadline:
                        conn.settimeout(max(0.05, deadline - now()))
                        data = conn.recv(65536)
                        if not data:
                            failed = received < args.chunk
                            break
                        received += len(data)
            except socket.timeout:
                pass  # the deadline came in the middle of a chunk
            except OSError:
                failed = True
            with lock:
                totals["bytes"] += received
                totals["connections"] += 1
                totals["failures"] += failed
            if failed:
                time.sleep(0.05)

    started = now()
    threads = [threading.Thread(target=one_stream) for _ in range(args.streams)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    totals["seconds"] = now() - started
    totals["mbit_s"] = totals["bytes"] * 8 / 1e6 / totals["seconds"]
    emit(totals)


def game(args):
    """Sends a small update every 20 ms and reads the echo; a broken connection is reported
    ("down", with the error) and replaced at once ("up", with the address the server saw)."""
    deadline = now() + args.seconds
    conn = None
    while now() < deadline:
        if conn is None:
            try:
                conn = socket.create_connection((args.server, GAME_PORT), timeout=1)
                seen = conn.makefile("rb").readline(64).decode().strip()
                emit({"event": "up", "t": now(), "source": seen})
            except OSError:
                if conn is not None:
                    conn.close()
                conn = None
                time.sleep(0.01)
                continue
        try:
            conn.sendall(b"tick")
            if not conn.recv(256):
                raise ConnectionResetError("closed by the server")
            time.sleep(0.02)
        except OSError as error:
            emit({"event": "down", "t": now(), "error": str(error)})
            conn.close()
            conn = None
    if conn is not None:
        conn.close()


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    commands = parser.add_subparsers(dest="command", required=True)
    p = commands.add_parser("serve")
    p.add_argument("address")
    p.add_argument("--download-port", type=int, default=DOWNLOAD_PORT)
    p.add_argument("--services", default="download,rtt,game")
    p.set_defaults(run=serve)
    p = commands.add_parser("download")
    p.add_argument("--server", required=True)
    p.add_argument("--port", type=int, default=DOWNLOAD_PORT)
    p.add_argument("--streams", type=int, default=16)
    p.add_argument("--seconds", type=float, default=20)
    p.add_argument("--chunk", type=int, default=256 * 1024)
    p.add_argument("--device", help="bind every connection to this link")
    p.set_defaults(run=download)
    p = commands.add_parser("game")
    p.add_argument("--server", required=True)
    p.add_argument("--seconds", type=float, default=60)
    p.set_defaults(run=game)
    args = parser.parse_args()
    args.run(args)


if __name__ == "__main__":
    main()
