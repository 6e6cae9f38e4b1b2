#!/usr/bin/env python3
"""Attacks on the agent by those it must not trust: local users, the database's user, peers.

Run in a machine of the sandbox: sandbox/machine run --in-memory python3 tests/e2e/attacks_test.py BUILD
BUILD is the build directory; its package is installed. With more words, only the tests whose names
contain one of them run. The attacks are in attacks/*.py; each module is one way in. Every test ends
with the protected cluster unharmed and the next backup working: world.assert_recovered().
"""
import importlib
import pathlib
import sys
import unittest

sys.dont_write_bytecode = True
from attacks import attacker  # noqa: E402

MODULES = sorted(path.stem for path in pathlib.Path(__file__).parent.joinpath("attacks").glob("*.py")
                 if path.stem not in ("__init__", "attacker"))


def load_tests(loader, _tests, _pattern):
    return unittest.TestSuite(loader.loadTestsFromModule(importlib.import_module("attacks." + name))
                              for name in MODULES)


if __name__ == "__main__":
    attacker.start(sys.argv.pop(1))
    words = [word for name in sys.argv[1:] for word in ("-k", name)]
    unittest.main(argv=sys.argv[:1] + words, verbosity=2)
