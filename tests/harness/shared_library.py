"""Shared libraries that the tests compile for themselves."""

import functools
import subprocess
import tempfile
from pathlib import Path

FLAGS = ("-std=c++20", "-Wall", "-Wextra", "-Werror", "-O1", "-D_GNU_SOURCE", "-shared", "-fPIC")


@functools.cache
def compiled(code, *options):
    """The bytes of a shared library of that C++."""
    with tempfile.TemporaryDirectory() as directory:
        library = Path(directory, "library.so")
        subprocess.run(["g++", *FLAGS, *options, "-x", "c++", "-", "-o", library], input=code.encode(), check=True)
        return library.read_bytes()
