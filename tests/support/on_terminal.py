"""usage: on_terminal.py PROGRAM [ARGUMENT...]

Runs the program with a new pseudo-terminal as its terminal, copies everything it writes there to
standard output and exits with its status."""
import os
import pty
import sys

pid, terminal = pty.fork()
if pid == 0:
    os.execv(sys.argv[1], sys.argv[1:])
while True:
    try:
        data = os.read(terminal, 65536)
    except OSError:  # the program has ended and closed its side
        break
    if not data:
        break
    sys.stdout.buffer.write(data)
sys.exit(os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]))
