"""usage: fault_http_server.py LOG ROOT SCRIPT; see LoopbackServer::setFaults().

SCRIPT is JSON {path: [behaviour, ...]}, read on every request. Prints "ready <port>".
"""
import json
import os
import sys
import threading
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import unquote

LOG, ROOT, SCRIPT = sys.argv[1:4]
INVERTED = bytes(range(255, -1, -1))
used = {}
lock = threading.Lock()


def next_behaviour(path):
    try:
        with open(SCRIPT) as f:
            steps = json.load(f).get(path, [])
    except OSError:
        steps = []
    with lock:
        n = used.get(path, 0)
        if n < len(steps):
            used[path] = n + 1
            return steps[n]
    return "ok"


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def send_head(self, status, length=None):
        self.send_response(status)
        if status == 206:
            self.send_header("Content-Range", self.content_range)
        self.send_header("Content-Type", "application/octet-stream")
        if length is None:
            # Only the closing connection ends the body.
            self.send_header("Connection", "close")
            self.close_connection = True
        else:
            self.send_header("Content-Length", str(length))
        self.end_headers()

    def do_GET(self):
        path = unquote(self.path)
        behaviour = next_behaviour(path)
        asked = self.headers.get("Range", "")
        with lock, open(LOG, "a") as f:
            f.write(f"{self.client_address[1]} {self.command} {self.path} {behaviour}"
                    + (f" {asked}\n" if asked else "\n"))
        kind, _, arg = behaviour.partition(":")
        local = os.path.normpath(os.path.join(ROOT, path.lstrip("/")))
        status, body = 404, b"not found\n"
        if kind == "status":
            status, body, kind = int(arg), b"scripted status\n", "ok"
        elif local.startswith(os.path.normpath(ROOT)) and os.path.isfile(local):
            with open(local, "rb") as f:
                status, body = 200, f.read()
        if self.command == "HEAD":
            return self.send_head(status, len(body))
        start = asked[6:-1] if asked.startswith("bytes=") and asked.endswith("-") else ""
        if status == 200 and kind != "full" and start:
            start = int(start)
            if start >= len(body):
                return self.send_head(416, 0)
            status, body = 206, body[start:]
            self.content_range = f"bytes {start}-{start + len(body) - 1}/{start + len(body)}"
        n, length = int(arg or 0), len(body)
        if kind == "corrupt":
            body = body.translate(INVERTED)
        elif kind in ("cut", "short", "stall"):
            body, length = body[:n], (None if kind == "short" else length)
        elif kind == "endless":
            status, length, body = 200, None, b"e" * 16384
        elif kind not in ("ok", "full"):
            raise ValueError(f"unknown behaviour {behaviour}")
        self.send_head(status, length)
        try:
            for _ in range(200000 if kind == "endless" else 1):
                self.wfile.write(body)
        except OSError:
            return
        self.close_connection |= kind == "cut"
        if kind == "stall":
            # Silent until the client gives up, for five minutes at most.
            self.connection.settimeout(300)
            try:
                while self.connection.recv(1024):
                    pass
            except OSError:
                pass
            self.close_connection = True

    do_HEAD = do_GET


server = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
print("ready", server.server_address[1], flush=True)
server.serve_forever()
