"""usage: udp_version_server.py LOG REPLY_HEX|-|+REPLY_HEX; prints "ready <port>".

Answers every datagram with the reply, or never with "-", or with "+" from another port of
this host (as a forged reply would come), and logs it as hex."""
import socket
import sys

log_path, answer = sys.argv[1], sys.argv[2]
reply = None if answer == "-" else bytes.fromhex(answer.lstrip("+"))
sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
sock.bind(("127.0.0.1", 0))
sender = sock
if answer.startswith("+"):
    sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sender.bind(("127.0.0.1", 0))
print("ready", sock.getsockname()[1], flush=True)
while True:
    data, peer = sock.recvfrom(4096)
    with open(log_path, "a") as log:
        log.write(data.hex() + "\n")
    if reply is not None:
        sender.sendto(reply, peer)
