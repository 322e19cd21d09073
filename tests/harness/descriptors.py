"""Which of a run's system calls are on an open file, for those who want to change the result of one of them."""

import os


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


def on_files(calls):
    """[(call, path), ...]: the tool's calls in their order, each with the path of the file that it is on.

    `calls` has "openat" in it, and "fcntl" where descriptors are duplicated. A descriptor stands for the path that it
    was opened by, and a name below a descriptor for both paths joined. Other processes than the tool have their own
    descriptors and are left out.
    """
    tool, opened, found = calls[0].pid, {}, []
    for call in calls:
        if call.pid == tool:
            directory = opened.get(call.args_text.partition(",")[0], "")
            path = os.path.normpath(os.path.join(directory, *call.strings[:1]))
            found.append((call, path))
            if call.error is None and (call.name == "openat" or "F_DUPFD" in call.args_text):
                opened[str(call.value)] = path
    return found
