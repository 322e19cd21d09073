"""How a run ended, in a form that a test compares with one expression."""

from .mailboxes import error_texts


def outcome(result):
    """(exit status, text of each record) of a run that printed nothing on standard output and logged errors only."""
    assert result.stdout == b"", result
    return result.status, *error_texts(result)


def not_moved(text, source="/tmp/source", name="report.pdf"):
    """The outcome of an --add-attach that reports `text` for the copy of `source` to the attachment `name`."""
    return 1, f"Unable to move attachment {source} to /var/qmail/mailnames/example.org/user/@attachments/{name}: {text}"


def owner_and_mode(sandbox, path):
    """(kind, mode, user, group) of the entry `path` inside, as in sandbox.tree()."""
    return sandbox.tree(path)["."][:4]
