"""UDP stand-in for the update server: answers every datagram with a fixed reply.

usage: udp_version_server.py LOG REPLY_HEX|-
Logs each datagram received as hex, one per line. With "-" it never answers.
Prints "ready <port>" once bound to an ephemeral port on 127.0.0.1.
"""
import socket
import sys

log_path, reply = sys.argv[1], None if sys.argv[2] == "-" else bytes.fromhex(sys.argv[2])
sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
sock.bind(("127.0.0.1", 0))
print("ready", sock.getsockname()[1], flush=True)
while True:
    data, peer = sock.recvfrom(4096)
    with open(log_path, "a") as log:
        log.write(data.hex() + "\n")
    if reply is not None:
        sock.sendto(reply, peer)
