"""FTP server for tests: serves ROOT read-only to anonymous and optionally to one user.

usage: ftp_server.py [--no-rest] LOG ROOT [USER PASSWORD]
With --no-rest it refuses REST, as servers that cannot resume a transfer do.
Prints "ready <port>" once listening on an ephemeral port of 127.0.0.1.
"""
import logging
import sys

from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import FTPHandler
from pyftpdlib.servers import FTPServer


class NoRestHandler(FTPHandler):
    def ftp_REST(self, line):
        self.respond("502 Command not implemented.")


def main():
    args = sys.argv[1:]
    resumes = args[0] != "--no-rest"
    if not resumes:
        args = args[1:]
    log_path, root = args[0], args[1]
    logging.basicConfig(filename=log_path, level=logging.DEBUG,
                        format="%(message)s")
    authorizer = DummyAuthorizer()
    authorizer.add_anonymous(root, perm="elr")
    if len(args) >= 4:
        authorizer.add_user(args[2], args[3], root, perm="elr")
    handler = FTPHandler if resumes else NoRestHandler
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
