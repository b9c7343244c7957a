"""usage: udp_version_server.py LOG REPLY_HEX|-; prints "ready <port>".

Answers every datagram with the reply, or never with "-", and logs it as hex."""
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
