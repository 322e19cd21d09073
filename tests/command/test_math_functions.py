"""SQL's mathematical functions, which a trigger in the database may call, whenever libm is loaded."""

import platform

import pytest
from harness import DONE
from harness.mailboxes import SET_RESP, run_sql

LIBRARY = f"{platform.machine()}-linux-gnu/libm.so.6"


def run_with_trigger(run, sandbox, expression, **options):
    """Runs --set-resp where a trigger stores `expression` as the subject; returns the Result and the subjects."""
    sandbox.init_db()
    run_sql(sandbox, "CREATE TRIGGER calculation AFTER INSERT ON autoresponder BEGIN "
                     f"UPDATE autoresponder SET subject = {expression} WHERE mn = new.mn; END")
    return run(*SET_RESP, **options), sandbox.rows("SELECT subject FROM autoresponder")


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
    ("(WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 1000) "
     "SELECT sum(pow(sin(i), 2) + pow(cos(i), 2)) FROM n)", "1000.000000"),
])
def test_trigger_calculates(sandbox, expression, value):
    assert run_with_trigger(sandbox.run, sandbox, f"printf('%.6f', {expression})") == (DONE, [(value,)])


def test_calculation_without_a_descriptor_for_libm_stores_nothing(sandbox, needs_tracing):
    (result, _), subjects = run_with_trigger(
        sandbox.trace, sandbox, "sqrt(4)", calls="openat", inject=["openat:error=EMFILE"],
        paths=["/lib/" + LIBRARY, "/usr/lib/" + LIBRARY])

    # With shared libraries the loader itself fails, with a message on standard error.
    assert (result.status, result.stdout) in ((1, b"Error: std::bad_alloc\n"), (127, b""))
    assert subjects == []
