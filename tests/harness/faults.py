"""System calls on one file, told by its descriptors: strace itself tells them only where there is a /proc."""


def places_on(calls, path):
    """Where in `calls`, openat and close among them, are those of the tool on the file `path`."""
    tool, open_files, places = calls[0].pid, {}, []
    for place, call in enumerate(calls):
        if call.pid != tool:
            continue
        first = call.args_text.split(",")[0]
        if path in (open_files.get(first), *call.strings):
            places.append(place)
        if call.name == "openat" and call.error is None:
            open_files[str(call.value)] = call.strings[0]
        elif call.name == "close":
            open_files.pop(first, None)
    return places


def fault_at(calls, place, error):
    """What to inject for the call at `place` to fail in the next run that makes the same calls."""
    same = [call for call in calls[:place + 1] if (call.pid, call.name) == (calls[place].pid, calls[place].name)]
    return f"{calls[place].name}:error={error}:when={len(same)}"


def first_call_fails(twin, args, name, path, error):
    """What to inject for the first call `name` on the file `path` to fail in a run of the tool with `args`. A run in
    `twin`, which is spent then, finds out which one that is: it is a root just like the one that the fault is for."""
    _, calls = twin.trace(*args, calls=f"openat,close,{name}")
    place = next(place for place in places_on(calls, path) if calls[place].name == name)
    return fault_at(calls, place, error)
