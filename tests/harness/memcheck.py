"""valgrind's memcheck in a private root."""

import functools
import re
import subprocess
from pathlib import Path

from .private_root import script

STATUS = 98  # never mistaken for a status of the tool
REPORT = "/.memcheck"
DIRECTORY = "/usr/libexec/valgrind/"
PROGRAM = DIRECTORY + "memcheck-amd64-linux"
FILES = [DIRECTORY + name for name in (
    "vgpreload_core-amd64-linux.so", "vgpreload_memcheck-amd64-linux.so", "default.supp")]
ARGUMENTS = ["valgrind", "--quiet", f"--error-exitcode={STATUS}", f"--log-file={REPORT}", "--leak-check=full",
             "--show-leak-kinds=definite", "--errors-for-leak-kinds=definite", "--trace-children=no",
             "--child-silent-after-fork=yes", "--vgdb=no", "--num-callers=30"]
ENVIRONMENT = {"VALGRIND_LAUNCHER": "/usr/bin/valgrind"}  # what else would find the program; it insists on the name


@functools.cache
def loader_symbols(program):
    """Where the debug symbols of the loader of `program` are: Debian strips it, and memcheck cannot do without them."""
    loader = next(library for library in script.shared_libraries(program) if "/ld-linux" in library)
    notes = subprocess.run(["readelf", "--notes", loader], capture_output=True, text=True, check=True).stdout
    number = re.search(r"Build ID: (\w\w)(\w+)", notes)
    return f"/usr/lib/debug/.build-id/{number[1]}/{number[2]}.debug"


@functools.cache
def without_proc():
    """The bytes of a memcheck for a root without /proc: it looks for that in its working directory.

    It has to know what is mapped and which file a descriptor belongs to, and asks nobody but /proc for it.
    """
    content = Path(PROGRAM).read_bytes()
    assert b"/proc/self/maps\0" in content
    return content.replace(b"/proc/self/", b"./././self/")
