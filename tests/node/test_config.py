"""`velmard --check` and the page of the configuration: what the code reads is in the table, and the table is the page."""
import os
import re
import socket
import tempfile
import unittest

from velmar_node import ROOT, Node, run_velmard

# What the code reads below an element that it has found before, or in a form that the pattern does not see.
READ_ELSEWHERE = {"krelev/config/concurrency", "krelev/config/loop_*", "krelev/config/jobq_*"}


def sources():
    for directory, _, names in os.walk(os.path.join(ROOT, "src")):
        for name in names:
            if name.endswith(".cpp") and name not in ("config_keys.cpp", "config_check.cpp"):
                with open(os.path.join(directory, name), errors="replace") as f:
                    yield os.path.join(directory, name), f.read()


def table():
    status, page, _ = run_velmard("--keys")
    assert status == 0
    keys = set()
    for place in re.findall(r"^\| `([^`]+)` \|", page, re.M):
        top, _, rest = place.partition("/")
        keys.update((t + "/" + rest if rest else t) for t in top.split("|"))
    return page, keys


class Keys(unittest.TestCase):
    def test_the_page_is_what_the_program_says(self):
        with open(os.path.join(ROOT, "docs", "CONFIG.md")) as f:
            self.assertEqual(f.read(), table()[0], "run build/velmard --keys >docs/CONFIG.md")

    def test_what_the_code_reads_is_on_the_page(self):
        _, keys = table()
        found = 0
        for path, text in sources():
            for whole in re.findall(r'"((?:/{0,2}[\w{}]+)(?:/{1,2}[\w{}]+)*/@\w+)"', text):
                steps = re.sub(r"^/*(?:velmar(?:/include)?/)?", "", whole)
                if steps.startswith(("pools/", "a/")):
                    continue  # read only to say that it is no longer looked at; an example
                found += 1
                self.assertTrue(any(k == steps or k.endswith("/" + steps) for k in keys), "%s reads %s" % (path, whole))
            if "krel_conf_get_" in text:
                for attribute in re.findall(r'"(@\w+)"', text):
                    found += 1
                    self.assertTrue(any(k.endswith("/" + attribute) or k == attribute for k in keys),
                                    "%s reads %s" % (path, attribute))
        self.assertGreater(found, 40)

    def test_what_is_on_the_page_is_read(self):
        _, keys = table()
        code = "\n".join(text for _, text in sources())
        for key in keys - READ_ELSEWHERE:
            name = key.split("/")[-1]
            self.assertTrue(re.search(r'"[^"\n]*\b%s"' % re.escape(name.lstrip("@")), code), key)


class Check(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.node = Node()  # never started
        cls.addClassCleanup(cls.node.destroy)

    def check(self, *changes):
        text = self.node.read_conf()
        for old, new in changes:
            self.assertIn(old, text)
            text = text.replace(old, new, 1)
        with tempfile.NamedTemporaryFile("w", suffix=".conf") as f:
            f.write(text)
            f.flush()
            status, out, err = run_velmard("--check", "-c", f.name)
            return status, out.replace(f.name, "FILE"), err

    def test_the_shipped_configuration_is_right(self):
        self.assertEqual(self.check(), (0, "FILE: ok\n", ""))

    def test_everything_wrong_at_once(self):
        status, out, _ = self.check(('<raw_database location="', '<raw_database min_delet_age="1 week" location="'),
                                    ("<cache ", "<cashe "), ('db_type="surrogate3"', 'db_type="surrogate4"'),
                                    ('active="', 'actif="'), ("<krelev><config>", "<krelev><config><jobq_x>1,1,1</jobq_x>"))
        self.assertEqual(status, 1, out)
        for words in (r"FILE:\d+: raw_database/@min_delet_age is not known; did you mean @min_delete_age\?",
                      r"FILE:\d+: cashe is not known; did you mean cache\?",
                      r'FILE:\d+: surrogate_database/@db_type is "surrogate4": write surrogate3',
                      r"FILE:\d+: topology/@actif is not known; did you mean @active\?",
                      r"FILE: topology/@active is missing: "):
            self.assertRegex(out, words)
        self.assertEqual(out.count("\n"), 5, out)

    def test_the_machine(self):
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))
            taken.listen()
            port = taken.getsockname()[1]
            status, out, _ = self.check(("${VELMAR_PORT:-8112}", str(port)), (self.node.directory + "/state", "/dev/null/state"))
        self.assertEqual(status, 1, out)
        self.assertRegex(out, r"FILE:\d+: listeners/listener: 127.0.0.1:%d: Address already in use" % port)
        self.assertRegex(out, r"FILE:\d+: localstate/@directory: /dev/null/state cannot be made: /dev/null is no directory")

    def test_no_file(self):
        status, _, err = run_velmard("--check", "-c", "/nonexistent/velmar.conf")
        self.assertEqual(status, 2)
        self.assertIn("No such file", err)


if __name__ == "__main__":
    unittest.main()
