"""The shared libraries that the loader brings to every run."""

import re

from test_protections import output_of


def test_only_the_c_library_is_loaded_at_the_start(program):
    needed = re.findall(r"\(NEEDED\)\s+Shared library: \[(.*)\]", output_of("readelf", "-dW", program))

    assert "libc.so.6" in needed
    assert [name for name in needed if not re.fullmatch(r"libc\.so\.6|ld-linux.*", name)] == []
