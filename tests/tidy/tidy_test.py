"""The tidy checks catch what they are for: each rule is given a small tree with one fault in it."""
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

TIDY = Path(__file__).resolve().parents[2] / "tools/tidy"
ROOMS = """velmar_library(platform/krel/base)
velmar_library(util velmar_platform_krel_base)
velmar_library(db/raw velmar_util)
"""


class TidyTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()
        self.root = Path(self.dir.name)
        subprocess.run(["git", "init", "-q", str(self.root)], check=True)
        self.write("src/CMakeLists.txt", ROOMS)
        self.write("src/platform/krel/base/log.h", "int log();\n")
        self.write("src/util/a.h", '#include "platform/krel/base/log.h"\n')
        self.write("src/db/raw/b.h", '#include "util/a.h"\n#include "platform/krel/base/log.h"\n')

    def tearDown(self):
        self.dir.cleanup()

    def write(self, path, text):
        (self.root / path).parent.mkdir(parents=True, exist_ok=True)
        (self.root / path).write_text(text)

    def tidy(self, *args):
        run = subprocess.run([sys.executable, str(TIDY), "--root", str(self.root), *args], capture_output=True,
                             text=True)
        return run.returncode, run.stdout

    def assert_fault(self, rule, part):
        code, out = self.tidy(rule)
        self.assertEqual(code, 1, out)
        self.assertIn(part, out)

    def test_clean_tree(self):
        code, out = self.tidy("layers", "length", "wording")
        self.assertEqual(code, 0, out)

    def test_include_upwards(self):
        self.write("src/util/c.cpp", '#include "db/raw/b.h"\n')
        self.assert_fault("layers", "src/util/c.cpp:1: room util may not include from db/raw")

    def test_include_of_a_missing_file(self):
        self.write("src/util/c.cpp", '#include "util/none.h"\n')
        self.assert_fault("layers", '"util/none.h", which is not below src/')

    def test_link_upwards(self):
        self.write("src/CMakeLists.txt", ROOMS.replace("velmar_library(util ", "velmar_library(util velmar_db_raw "))
        self.assert_fault("layers", "util links db/raw, which lies above it")

    def test_file_outside_every_room(self):
        self.write("src/lost/x.cpp", "int x;\n")
        self.assert_fault("layers", "its folder is no room")

    def test_format(self):
        self.write(".clang-format", "BasedOnStyle: Google\n")
        self.write("src/util/c.cpp", "int   f( ) { return 1 ; }\n")
        self.assert_fault("format", "src/util/c.cpp: not formatted")

    def test_long_function_and_the_ratchet(self):
        def body(n):
            return "namespace a {\nint f(int x) {\n" + "  x++;\n" * n + "  return x;\n}\n}\n"
        self.write("src/util/c.cpp", body(67))
        self.assertEqual(self.tidy("length")[0], 0)
        self.write("src/util/c.cpp", body(80))
        self.assert_fault("length", "src/util/c.cpp:f: 83 lines, allowed 70")
        self.write("tools/tidy.baseline", '{"files": {}, "functions": {"src/util/c.cpp:f": 90}}')
        self.assertEqual(self.tidy("length", "--update")[0], 0)
        self.assertEqual(self.tidy("length")[0], 0)
        self.write("src/util/c.cpp", body(81))
        self.assert_fault("length", "allowed 83")

    def test_braces_in_strings_and_lambdas_do_not_confuse_the_count(self):
        self.write("src/util/c.cpp", 'int f() { return g("{{{", [] { return 1; }); }\n' + "int x;\n" * 100)
        self.assertEqual(self.tidy("length")[0], 0)

    def test_long_file(self):
        self.write("src/util/c.cpp", "int x;\n" * 601)
        self.assert_fault("length", "src/util/c.cpp: 601 lines, allowed 600")

    def test_wording(self):
        for bad in ("as Part " + "4.2 says", "the speci" + "fication", "// TO" + "DO later", "see /wo" + "rk/x"):
            self.write("src/util/c.cpp", f"// {bad}\n")
            self.assert_fault("wording", "src/util/c.cpp:1")


if __name__ == "__main__":
    unittest.main()
