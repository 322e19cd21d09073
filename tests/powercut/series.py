"""A series of cuts of one command on one file system."""

import random
import sqlite3
import tarfile

from torture.report import Report

from .cases import CASES, PREPARE, problem, problem_of_findings, read_findings, read_state
from .guest import GuestError, output
from .machine import DUMP_MEGABYTES, RUN_SECONDS, make_disk, make_image

AFTER, DURING = "after status 0", "during the run"


def empty_report():
    return Report("Power cuts", ("file system", "command"), (AFTER, "lost", DURING, "damaged"))


class Series:
    """Images and machines for one command on one file system, with their files in `directory`.

    /dev/vda  a copy of the prepared image, for one cut
    /dev/vdb  receives the archives that the host reads
    """

    def __init__(self, booted, file_system, name, directory):
        self._booted, self._file_system, self._name, self._case = booted, file_system, name, CASES[name]
        self._base, self._disk, self._dump = (directory / file for file in ("base", "disk", "dump"))
        make_disk(self._dump, DUMP_MEGABYTES)
        make_image(self._disk, file_system)
        with self._guest() as guest:
            for line in (self._mount(), *PREPARE, "umount /var"):
                guest.run(line)
        self._disk.rename(self._base)

    def run(self, trials):
        """Cuts the power until there are `trials` cuts of each kind; returns the report."""
        report = empty_report()
        old, new, findings, seconds = self._run_undisturbed()
        missing = {AFTER: trials, DURING: trials}
        while kind := next((kind for kind, count in missing.items() if count > 0), None):
            self._copy_base()
            with self._guest() as guest:
                acknowledged = self._cut_power(guest, kind, seconds)
            with self._guest() as guest:
                trouble = self._look(guest, old, new, findings, acknowledged)
            self._judge(report, acknowledged, trouble)
            missing[AFTER if acknowledged else DURING] -= 1
        return report

    def _guest(self):
        return self._booted.machine([self._disk, self._dump])

    def _copy_base(self):
        output("/bin/cp", "--sparse=always", self._base, self._disk)

    def _mount(self):
        return f"mount -t {self._file_system} /dev/vda /var"

    def _state(self, guest):
        guest.run("tar -C /var -cf /dev/vdb lib qmail && sync")
        return read_state(self._dump)

    def _findings(self, guest):
        guest.run("{ arspinfo check >/findings || [ $? -eq 1 ]; } && tar -C / -cf /dev/vdb findings && sync")
        return read_findings(self._dump)

    def _begin(self, guest):
        guest.run(self._mount())
        guest.run(f"{self._case.before} && sync")

    def _run_undisturbed(self):
        """Returns the state before the command, the state and the findings after it, and the seconds that it takes."""
        self._copy_base()
        with self._guest() as guest:
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
            guest.run(self._mount())
            found = self._state(guest)
            if not acknowledged:
                guest.run(self._case.recover)
            left = self._findings(guest)
        except (GuestError, sqlite3.Error, tarfile.TarError) as error:
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
