"""Runs of the tool that load the library of preload/ before all others."""

from .preload_library import preload_library
from .private_root import shared_libraries
from .sandbox import DEFAULT_ENVIRONMENT, needs_native_program, program_under_test

INSIDE = "/.preload.so"


def environment(sandbox, **variables):
    """The environment of runs in `sandbox` that load the library; its sources describe the `variables`."""
    needs_native_program("it cannot load a native library")
    sandbox.path(INSIDE).write_bytes(preload_library())
    # AddressSanitizer insists on being the first library.
    sanitizer = [path for path in shared_libraries(str(program_under_test())) if "/libasan." in path]
    return {**DEFAULT_ENVIRONMENT, "LD_PRELOAD": ":".join([*sanitizer, INSIDE]), **variables}
