"""C++ of the tests that the tool loads before all libraries, to put something else in the place of their functions."""

from .private_root import shared_libraries
from .sandbox import DEFAULT_ENVIRONMENT, program_under_test
from .shared_library import compiled

INSIDE = "/.preload.so"


def environment(sandbox, code, **more):
    """The environment of runs in `sandbox` that load the code, with further variables."""
    sandbox.path(INSIDE).write_bytes(compiled(code, "-static-libgcc"))
    # AddressSanitizer insists on being the first of all.
    sanitizer = [library for library in shared_libraries(str(program_under_test())) if "/libasan." in library]
    return {**DEFAULT_ENVIRONMENT, "LD_PRELOAD": ":".join([*sanitizer, INSIDE]), **more}
