"""Which of a run's system calls are on an open file, for those who want to change the result of one of them."""

from .tracing import on_files

__all__ = ["number_of_call", "on_files"]


def number_of_call(calls, name, path, nth=1):
    """The number that inject= counts for the `nth` call of `name` on a descriptor of `path`.

    `calls` is the trace of a run like the one that is to be changed, with calls="openat," and that name. Unlike
    strace's own choice by paths= this works in a root without /proc as well.
    """
    descriptors, count = set(), 0
    for call in calls:
        if call.name == "openat" and call.error is None:
            (descriptors.add if call.strings[0] == path else descriptors.discard)(str(call.value))
        elif call.name == name:
            count += 1
            nth -= call.args_text.partition(",")[0] in descriptors
            if nth == 0:
                return count
    raise AssertionError(f"no such {name} on {path}")
