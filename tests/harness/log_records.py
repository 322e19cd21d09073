"""The system log of a private root: the socket /dev/log and the records that arrive there."""

import os
import re
import socket
import threading
from dataclasses import dataclass

# <19>Jan  2 03:04:05 arspctl[4711]: text. A program chooses its own name, which may hold any bytes.
RECORD = re.compile(rb"<(\d+)>[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d (.*?)(?:\[(\d+)\])?: (.*)", re.DOTALL)
DRAIN, STOP = b"drain", b""  # datagrams that the catcher sends to itself; the C library writes no such records


@dataclass(frozen=True)
class Record:
    """One record: `priority` is severity plus facility in syslog's own numbers (19 is 16, mail, plus 3, error)."""

    priority: int
    ident: str
    pid: int | None
    text: str

    @property
    def severity(self):
        return self.priority & 7

    @property
    def facility(self):
        return self.priority & ~7


def parse_record(datagram):
    """Returns the record in `datagram`; bytes that are not UTF-8 become surrogates."""
    match = RECORD.fullmatch(datagram.rstrip(b"\0"))
    if match is None:
        raise ValueError(f"not a log record: {datagram!r}")
    priority, ident, pid, text = match.groups()
    return Record(int(priority), ident.decode(errors="surrogateescape"), int(pid) if pid else None,
                  text.decode(errors="surrogateescape"))


class LogCatcher:
    """Receives what is written to /dev/log below `directory` and passes each datagram to `sink`.

    A thread reads all the time: the socket queues only a few datagrams before writers have to wait.
    """

    def __init__(self, directory, sink):
        self._path = os.path.join(directory, "dev", "log")
        if os.path.lexists(self._path):
            os.unlink(self._path)
        self._parent = os.open(os.path.dirname(self._path), os.O_PATH | os.O_DIRECTORY)
        self._address = f"/proc/self/fd/{self._parent}/log"  # a socket address has no room for long paths
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(self._address)
        os.chmod(self._path, 0o666)
        self._lock = threading.Lock()
        self._drained = threading.Semaphore(0)
        self._thread = threading.Thread(target=self._read, args=(sink,), daemon=True)
        self._thread.start()

    def drain(self):
        """Returns when all records written before this call have been passed to the sink."""
        with self._lock:
            self._socket.sendto(DRAIN, self._address)
            self._drained.acquire()

    def stop(self):
        """Removes the socket after all records written before have been passed to the sink."""
        self._socket.sendto(STOP, self._address)
        self._thread.join()
        os.unlink(self._path)
        self._socket.close()
        os.close(self._parent)

    def _read(self, sink):
        while (datagram := self._socket.recv(1 << 20)) != STOP:
            if datagram == DRAIN:
                self._drained.release()
            else:
                sink(datagram)
