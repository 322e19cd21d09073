"""The mail delivery side of the database: tests/outside/mail_side.py as a process, and requests to it."""

import json
import subprocess
import sys

from .private_root import REPOSITORY

PROGRAM = REPOSITORY / "tests" / "outside" / "mail_side.py"


class MailSide:
    """The process, which is connected to the database in `sandbox`."""

    def __init__(self, sandbox):
        self._process = subprocess.Popen([sys.executable, PROGRAM, sandbox.directory, *map(str, sandbox.popuser)],
                                         stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        assert self.ask("sql", "SELECT 1") == [[1]]  # connected: from here on a test may replace the file

    def begin(self, *request):
        """Sends a request without waiting for its result."""
        print(json.dumps(request), file=self._process.stdin, flush=True)

    def result(self):
        return json.loads(self._process.stdout.readline())

    def ask(self, *request):
        self.begin(*request)
        return self.result()

    def leave(self):
        """Ends the process, which must not have failed."""
        self._process.stdin.close()
        status = self._process.wait()
        self._process.stdout.close()
        assert status == 0
