#!/usr/bin/env python3
"""Drives real velmard processes over HTTP.

  tests/node/run.py [-v] [-k PATTERN] [MODULE...]    all tests, those whose name matches, those of modules

VELMAR_BUILD names another build directory than build/. Python's standard library only.
"""
import argparse
import os
import sys
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("-v", "--verbose", action="store_true")
    parser.add_argument("-k", dest="patterns", action="append", help="only tests whose full name holds this text")
    parser.add_argument("modules", nargs="*")
    args = parser.parse_args()
    loader = unittest.TestLoader()
    if args.patterns:
        loader.testNamePatterns = ["*%s*" % p for p in args.patterns]
    if args.modules:
        names = [os.path.basename(m)[:-3] if m.endswith(".py") else m for m in args.modules]
        suite = loader.loadTestsFromNames(names)
    else:
        suite = loader.discover(HERE, top_level_dir=HERE)
    if suite.countTestCases() == 0:
        print("no test matches", file=sys.stderr)
        return 2
    result = unittest.TextTestRunner(verbosity=2 if args.verbose else 1).run(suite)
    return 0 if result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
