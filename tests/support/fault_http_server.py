"""usage: fault_http_server.py LOG ROOT; see LoopbackServer::setFaults().

Takes JSON lines {path: [behaviour, ...]} on standard input, answering each with "ok" once in
force. Prints "ready <port>" first.
"""
import gzip
import json
import os
import sys
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import unquote

LOG, ROOT = sys.argv[1:3]
script = {}
lock = threading.Lock()


def take_script():
    for line in sys.stdin:
        with lock:
            script.update(json.loads(line))
        print("ok", flush=True)


def next_behaviour(path):
    with lock:
        steps = script.get(path)
        return steps.pop(0) if steps else "ok"


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def send_head(self, status, length=None, content_range=None, location=None, encoding=None):
        self.send_response(status)
        if location:
            self.send_header("Location", location)
        if content_range:
            self.send_header("Content-Range", content_range)
        if encoding:
            self.send_header("Content-Encoding", encoding)
        self.send_header("Content-Type", "application/octet-stream")
        # Without a length only the closing connection ends the body.
        self.send_header(*(("Connection", "close") if length is None
                           else ("Content-Length", str(length))))
        self.close_connection |= length is None
        self.end_headers()

    def do_GET(self):
        path = unquote(self.path)
        behaviour = next_behaviour(path)
        asked = self.headers.get("Range", "")
        accepts_gzip = "gzip" in self.headers.get("Accept-Encoding", "")
        with lock, open(LOG, "a") as f:
            f.write(" ".join(filter(None, [str(self.client_address[1]), self.command, self.path,
                                           behaviour, "+gzip" * accepts_gzip, asked])) + "\n")
        kind, _, arg = behaviour.partition(":")
        local = os.path.normpath(os.path.join(ROOT, path.lstrip("/")))
        status, body = 404, b"not found\n"
        if kind == "status":
            status, body, kind = int(arg), b"scripted status\n", "ok"
        elif kind == "redirect":
            return self.send_head(301, 0, location=arg)
        elif local.startswith(os.path.normpath(ROOT)) and os.path.isfile(local):
            with open(local, "rb") as f:
                status, body = 200, f.read()
        if self.command == "HEAD":
            return self.send_head(status, len(body))
        start = int(asked[6:-1] or 0) if asked.startswith("bytes=") and asked.endswith("-") else 0
        content_range = None
        n = int(arg) if arg.isdigit() else 0
        if status == 200 and kind != "full" and start:
            if start >= len(body):
                return self.send_head(416, 0)
            # A misplaced range answers from byte N instead.
            start = n if kind == "misrange" else start
            content_range = f"bytes {start}-{len(body) - 1}/{len(body)}"
            status, body = 206, body[start:]
        encoding = None
        if kind == "gzip":
            # Compressed on the way where the client accepts it; "gzip:endless", 80 MiB of it.
            body = b"e" * (80 << 20) if arg == "endless" else body
            if accepts_gzip:
                body, encoding = gzip.compress(body, 1), "gzip"
        length = len(body)
        if kind == "corrupt":
            body = body.translate(bytes(range(255, -1, -1)))
        elif kind in ("cut", "short", "stall"):
            body, length = body[:n], (None if kind == "short" else length)
        elif kind == "trickle":
            pass
        elif kind == "delay":
            time.sleep(n / 1000)
        elif kind == "endless":
            status, length, body, content_range = 200, None, b"e" * 16384, None
        elif kind not in ("ok", "full", "misrange", "gzip"):
            raise ValueError(f"unknown behaviour {behaviour}")
        self.send_head(status, length, content_range, encoding=encoding)
        try:
            if kind == "trickle":
                # Ten parts spread over N milliseconds, whatever the size, the first at once.
                part = -(-len(body) // 10)
                for start in range(0, len(body), part):
                    self.wfile.write(body[start:start + part])
                    self.wfile.flush()
                    time.sleep(n / 10000)
            for _ in range(200000 if kind == "endless" else 0 if kind == "trickle" else 1):
                self.wfile.write(body)
            if kind == "stall":
                # Silent until the client gives up, for five minutes at most.
                self.connection.settimeout(300)
                self.rfile.read()
        except OSError:
            pass
        self.close_connection |= kind in ("cut", "stall")

    do_HEAD = do_GET


server = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
print("ready", server.server_address[1], flush=True)
threading.Thread(target=take_script, daemon=True).start()
server.serve_forever()
