"""FTP server for tests: serves ROOT read-only to anonymous and optionally to one user.

usage: ftp_server.py LOG ROOT [USER PASSWORD]
Prints "ready <port>" once listening on an ephemeral port of 127.0.0.1.
"""
import logging
import sys

from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import FTPHandler
from pyftpdlib.servers import FTPServer


def main():
    log_path, root = sys.argv[1], sys.argv[2]
    logging.basicConfig(filename=log_path, level=logging.DEBUG,
                        format="%(message)s")
    authorizer = DummyAuthorizer()
    authorizer.add_anonymous(root, perm="elr")
    if len(sys.argv) >= 5:
        authorizer.add_user(sys.argv[3], sys.argv[4], root, perm="elr")
    handler = FTPHandler
    handler.authorizer = authorizer
    handler.passive_ports = None
    handler.masquerade_address = None
    handler.permit_foreign_addresses = False
    server = FTPServer(("127.0.0.1", 0), handler)
    server.max_cons = 64
    print("ready", server.address[1], flush=True)
    server.serve_forever(timeout=0.5)


if __name__ == "__main__":
    main()
