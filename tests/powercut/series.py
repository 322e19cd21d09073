"""A series of cuts of one command on one file system."""

import os
import random
import sqlite3
import tarfile

from torture.report import Report

from .cases import CASES, PREPARE, problem, problem_of_findings, read_findings, read_state
from .guest import GuestError, output
from .machine import RUN_SECONDS, Machine, make_image

AFTER, DURING = "after status 0", "during the run"


def empty_report():
    return Report("Power cuts", ("file system", "command"), (AFTER, "lost", DURING, "damaged"))


class Series:
    """Images and boots for one command on one file system, with their files in `directory`.

    /dev/vda  a fresh copy of the prepared image, for the command
    /dev/vdb  receives the archives that the host reads
    /dev/vdc  the image of the last cut: each boot checks one cut and makes the next
    """

    def __init__(self, machine, file_system, name, directory):
        self._machine, self._file_system, self._name, self._case = machine, file_system, name, CASES[name]
        self._base, self._fresh, self._dump, self._cut = (directory / file for file in ("base", "fresh", "dump", "cut"))
        with open(self._dump, "wb") as dump:
            dump.truncate(32 << 20)
        make_image(self._base, file_system)
        with Machine(*self._machine, [self._base, self._dump]) as guest:
            for line in (self._mount("vda"), *PREPARE, "umount /var"):
                guest.run(line)

    def run(self, trials):
        """Cuts the power `trials` times for each kind of moment; returns the report."""
        report = empty_report()
        old, new, findings, seconds = self._run_undisturbed()
        acknowledged = None
        for kind in [*[AFTER] * trials, *[DURING] * trials, None]:
            os.replace(self._fresh, self._cut)
            self._copy_base()
            with Machine(*self._machine, [self._fresh, self._dump, self._cut]) as guest:
                if acknowledged is not None:
                    self._judge(report, acknowledged, self._look(guest, old, new, findings, acknowledged))
                if kind is not None:
                    acknowledged = self._cut_power(guest, kind, seconds)
        return report

    def _copy_base(self):
        output("/bin/cp", "--sparse=always", self._base, self._fresh)

    def _mount(self, disk):
        return f"mount -t {self._file_system} /dev/{disk} /var"

    def _state(self, guest):
        guest.run("tar -C /var -cf /dev/vdb lib qmail && sync")
        return read_state(self._dump)

    def _findings(self, guest):
        guest.run("{ arspinfo check >/findings || [ $? -eq 1 ]; } && tar -C / -cf /dev/vdb findings && sync")
        return read_findings(self._dump)

    def _begin(self, guest):
        guest.run(self._mount("vda"))
        guest.run(f"{self._case.before} && sync")

    def _run_undisturbed(self):
        """Returns the state before the command, the state and the findings after it, and the seconds that it takes."""
        self._copy_base()
        with Machine(*self._machine, [self._fresh, self._dump]) as guest:
            self._begin(guest)
            old = self._state(guest)
            seconds = guest.run(self._case.command)
            new, findings = self._state(guest), self._findings(guest)
        if old == new:
            raise GuestError(f"{self._name} changes nothing")
        return old, new, findings, seconds

    def _cut_power(self, guest, kind, seconds):
        """Cuts the power after or during the command; returns whether the command was acknowledged before."""
        self._begin(guest)
        guest.send(self._case.command)
        status = guest.status(RUN_SECONDS if kind == AFTER else random.uniform(0, seconds))
        acknowledged = guest.cut()
        if not acknowledged and (kind == AFTER or status is not None):
            raise GuestError(f"{self._name} fails with status {status}")
        return acknowledged

    def _look(self, guest, old, new, findings, acknowledged):
        """The first fault after the last cut; None when there is none."""
        try:
            guest.run(self._mount("vdc"))
            found = self._state(guest)
            if not acknowledged:
                guest.run(self._case.recover)
            left = self._findings(guest)
            guest.run("umount /var")
        except (GuestError, sqlite3.Error, tarfile.TarError) as error:
            guest.restart()
            return str(error)
        return problem(self._case, old, new, found, acknowledged) or (
            problem_of_findings(self._case, findings, left, acknowledged))

    def _judge(self, report, acknowledged, trouble):
        row = (self._file_system, self._name)
        moment, loss = (AFTER, "lost") if acknowledged else (DURING, "damaged")
        report.count(row, moment)
        if trouble is not None:
            report.count(row, loss)
            report.problem(", ".join((*row, moment)), trouble)
