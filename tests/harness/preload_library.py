"""The library that replaces functions of the C library and of SQLite; its sources are in preload/."""

import functools
import subprocess
import tempfile
from pathlib import Path

SOURCES = sorted(Path(__file__).with_name("preload").glob("*.cpp"))
FLAGS = ("-std=c++20", "-Wall", "-Wextra", "-Werror", "-O1", "-D_GNU_SOURCE", "-shared", "-fPIC", "-static-libgcc",
         "-static-libstdc++", "-Wl,-z,lazy")  # programs without SQLite load it, too


@functools.cache
def preload_library():
    """The bytes of the library."""
    with tempfile.TemporaryDirectory() as directory:
        library = Path(directory, "library.so")
        subprocess.run(["g++", *FLAGS, *SOURCES, "-ldl", "-o", library], check=True)
        return library.read_bytes()
