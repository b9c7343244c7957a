"""usage: ftp_server.py LOG ROOT [USER PASSWORD] [--no-rest] [--unconfirmed-once] [--silent-quit];
prints "ready <port>".

--no-rest refuses REST, as servers that cannot resume do. --unconfirmed-once never sends the
reply to the first download it completes, as a control connection that died on the way would.
--silent-quit never answers QUIT, as a control connection that died while idle would not."""
import logging
import sys

from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import DTPHandler, FTPHandler
from pyftpdlib.servers import FTPServer

OPTIONS = ("--no-rest", "--unconfirmed-once", "--silent-quit")


class UnconfirmedOnce(DTPHandler):
    withheld = False

    def close(self):
        if not UnconfirmedOnce.withheld and self.cmd == "RETR" and self.transfer_finished:
            UnconfirmedOnce.withheld = True
            self._resp = None
        super().close()


args = [a for a in sys.argv[1:] if a not in OPTIONS]
logging.basicConfig(filename=args[0], level=logging.DEBUG, format="%(message)s")
FTPHandler.authorizer = DummyAuthorizer()
FTPHandler.authorizer.add_anonymous(args[1], perm="elr")
if len(args) >= 4:
    FTPHandler.authorizer.add_user(args[2], args[3], args[1], perm="elr")
if "--no-rest" in sys.argv:
    FTPHandler.ftp_REST = lambda self, line: self.respond("502 Command not implemented.")
if "--unconfirmed-once" in sys.argv:
    FTPHandler.dtp_handler = UnconfirmedOnce
if "--silent-quit" in sys.argv:
    FTPHandler.ftp_QUIT = lambda self, line: None
server = FTPServer(("127.0.0.1", 0), FTPHandler)
print("ready", server.address[1], flush=True)
server.serve_forever(timeout=0.5)
