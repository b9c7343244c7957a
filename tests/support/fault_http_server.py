"""Scriptable HTTP/1.1 server for fault tests, with keep-alive.

usage: fault_http_server.py LOG ROOT SCRIPT
Serves files below ROOT. SCRIPT is a JSON file {path: [behaviour, ...]} read on every request;
each request of a scripted path takes the next behaviour not yet used, then the path is served
normally. Behaviours: ok, status:N, cut:N, short:N, stall:N, endless, corrupt, long:N, full.
A range "bytes=N-" is answered with 206 and the bytes from N on, which the behaviour then
applies to; "full" ignores it and sends the whole file with 200.
Paths are matched and served percent-decoded.
Logs "<client port> <method> <path> <behaviour>[ <range asked for>]" per request.
Prints "ready <port>" once listening on an ephemeral port of 127.0.0.1.
"""
import json
import os
import sys
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import unquote

LOG, ROOT, SCRIPT = sys.argv[1], sys.argv[2], sys.argv[3]
used = {}
lock = threading.Lock()


def next_behaviour(path):
    try:
        with open(SCRIPT) as f:
            script = json.load(f)
    except (OSError, ValueError):
        script = {}
    with lock:
        steps = script.get(path, [])
        n = used.get(path, 0)
        if n < len(steps):
            used[path] = n + 1
            return steps[n]
    return "ok"


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def log(self, behaviour):
        asked = self.headers.get("Range")
        line = f"{self.client_address[1]} {self.command} {self.path} {behaviour}"
        with lock, open(LOG, "a") as f:
            f.write(line + (f" {asked}\n" if asked else "\n"))

    def range_start(self):
        asked = self.headers.get("Range", "")
        if not asked.startswith("bytes=") or not asked.endswith("-"):
            return 0
        return int(asked[len("bytes="):-1])

    def body_of(self):
        local = os.path.normpath(os.path.join(ROOT, unquote(self.path).lstrip("/")))
        if not local.startswith(os.path.normpath(ROOT)) or not os.path.isfile(local):
            return None
        with open(local, "rb") as f:
            return f.read()

    def send_head(self, status, length):
        self.send_response(status)
        if status == 206:
            self.send_header("Content-Range", self.content_range)
        self.send_header("Content-Type", "application/octet-stream")
        if length is not None:
            self.send_header("Content-Length", str(length))
        self.end_headers()

    def do_HEAD(self):
        self.handle_request(head=True)

    def do_GET(self):
        self.handle_request(head=False)

    def handle_request(self, head):
        behaviour = next_behaviour(unquote(self.path))
        self.log(behaviour)
        kind, _, arg = behaviour.partition(":")
        body = self.body_of()
        if kind == "status":
            text = b"scripted status\n"
            self.send_head(int(arg), len(text))
            if not head:
                self.wfile.write(text)
            return
        if body is None:
            text = b"not found\n"
            self.send_head(404, len(text))
            if not head:
                self.wfile.write(text)
            return
        if head:
            self.send_head(200, len(body))
            return
        status, start = 200, (0 if kind == "full" else self.range_start())
        if start:
            if start >= len(body):
                self.send_head(416, 0)
                return
            status = 206
            self.content_range = f"bytes {start}-{len(body) - 1}/{len(body)}"
            body = body[start:]
        if kind in ("ok", "full"):
            self.send_head(status, len(body))
            self.wfile.write(body)
        elif kind == "corrupt":
            self.send_head(status, len(body))
            self.wfile.write(bytes(b ^ 0xFF for b in body))
        elif kind == "long":
            extra = b"x" * int(arg)
            self.send_head(status, len(body) + len(extra))
            self.wfile.write(body + extra)
        elif kind == "cut":
            self.send_head(status, len(body))
            self.wfile.write(body[: int(arg)])
            self.wfile.flush()
            self.close_connection = True
        elif kind == "short":
            # No length announced: only the closing connection ends the body.
            self.send_response(status)
            if status == 206:
                self.send_header("Content-Range", self.content_range)
            self.send_header("Content-Type", "application/octet-stream")
            self.send_header("Connection", "close")
            self.end_headers()
            self.wfile.write(body[: int(arg)])
            self.close_connection = True
        elif kind == "stall":
            self.send_head(status, len(body))
            self.wfile.write(body[: int(arg)])
            self.wfile.flush()
            self.stall()
        elif kind == "endless":
            self.send_response(200)
            self.send_header("Content-Type", "application/octet-stream")
            self.send_header("Connection", "close")
            self.end_headers()
            self.close_connection = True
            chunk = b"e" * 16384
            try:
                for _ in range(200000):
                    self.wfile.write(chunk)
            except OSError:
                pass
        else:
            raise ValueError(f"unknown behaviour {behaviour}")

    def stall(self):
        # Hold the connection open without sending, until the client gives up (bounded).
        self.connection.settimeout(1.0)
        deadline = time.monotonic() + 300
        while time.monotonic() < deadline:
            try:
                if not self.connection.recv(1024):
                    break
            except TimeoutError:
                continue
            except OSError:
                break
        self.close_connection = True


def main():
    server = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    server.daemon_threads = True
    print("ready", server.server_address[1], flush=True)
    server.serve_forever()


if __name__ == "__main__":
    main()
