import os
import sys

import pytest

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(__file__))

from harness import LUMO, RING, Daemon  # noqa: E402

def pytest_configure(config):
    for name, path in (("LUMO_BIN", LUMO), ("LUMO_RING_BIN", RING)):
        if not os.access(path, os.X_OK):
            raise pytest.UsageError(f"{name} must name the program to test, not [{path}]")

@pytest.fixture
def make():
    """Makes daemons that are not started yet; at the end each must stop cleanly."""
    made = []

    def one(**settings):
        made.append(Daemon(**settings))
        return made[-1]

    yield one
    failures = []
    for daemon in made:
        try:
            daemon.close()
        except AssertionError as failure:
            failures.append(str(failure))
    assert not failures, "\n".join(failures)

@pytest.fixture
def lumo(make):
    """Makes a running daemon."""
    return lambda **settings: make(**settings).start()
