"""The mathematical functions of SQL, which a trigger in the database may call: no matter when libm is loaded."""

import platform

import pytest
from harness.mailboxes import run_sql

SET_RESP = ("--set-resp", "--mailname", "a@example.org", "--real-owner", "a@example.org")
LIBRARY = f"{platform.machine()}-linux-gnu/libm.so.6"


def with_trigger(sandbox, expression):
    """Makes the subject of each new row the value of `expression`."""
    sandbox.init_db()
    run_sql(sandbox, "CREATE TRIGGER calculation AFTER INSERT ON autoresponder BEGIN "
                     f"UPDATE autoresponder SET subject = {expression} WHERE mn = new.mn; END")
    return sandbox


def subjects(sandbox):
    return [subject for subject, in sandbox.rows("SELECT subject FROM autoresponder")]


@pytest.mark.parametrize("expression, value", [
    ("acos(0.25)", "1.318116"),
    ("acosh(1.25)", "0.693147"),
    ("asin(0.25)", "0.252680"),
    ("asinh(0.25)", "0.247466"),
    ("atan(0.25)", "0.244979"),
    ("atan2(3, -4)", "2.498092"),
    ("atanh(0.25)", "0.255413"),
    ("cos(0.25)", "0.968912"),
    ("cosh(0.25)", "1.031413"),
    ("exp(0.25)", "1.284025"),
    ("ln(0.25)", "-1.386294"),
    ("mod(7.5, 2)", "1.500000"),
    ("pow(2.5, 3)", "15.625000"),
    ("sin(0.25)", "0.247404"),
    ("sinh(0.25)", "0.252612"),
    ("sqrt(0.25)", "0.500000"),
    ("tan(0.25)", "0.255342"),
    ("tanh(0.25)", "0.244919"),
    ("trunc(-2.5)", "-2.000000"),
])
def test_a_trigger_calculates(sandbox, expression, value):
    with_trigger(sandbox, f"printf('%.6f', {expression})")

    result = sandbox.run(*SET_RESP)

    assert (result.status, result.stdout, result.stderr, result.records) == (0, b"", b"", [])
    assert subjects(sandbox) == [value]


def test_one_statement_calls_many_functions_many_times(sandbox):
    with_trigger(sandbox, "(WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 1000) "
                          "SELECT printf('%.3f', sum(pow(sin(i), 2) + pow(cos(i), 2))) FROM n)")

    assert sandbox.run(*SET_RESP).status == 0
    assert subjects(sandbox) == ["1000.000"]


def test_a_calculation_that_finds_no_descriptor_for_libm_stores_nothing(sandbox, needs_tracing):
    with_trigger(sandbox, "sqrt(4)")

    result, _ = sandbox.trace(*SET_RESP, calls="openat", inject=["openat:error=EMFILE"],
                              paths=["/lib/" + LIBRARY, "/usr/lib/" + LIBRARY])

    # Where all libraries are shared, the loader already fails, and says so on standard error.
    assert (result.status, result.stdout) in ((1, b"Error: std::bad_alloc\n"), (127, b""))
    assert subjects(sandbox) == []
