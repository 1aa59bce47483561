"""docs/API.md: its examples run as they stand there, and every route of the code is on it."""
import os
import re
import subprocess

from velmar_node import ROOT, WAIT_S, NodeTest, environment

PAGE = os.path.join(ROOT, "docs", "API.md")


class ApiPage(NodeTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        with open(PAGE) as f:
            cls.page = f.read()

    def test_examples(self):
        examples = []
        for block in re.findall(r"^```\n(\$ .*?)^```", self.page, re.S | re.M):
            for command, answer in re.findall(r"^\$ (.*)\n((?:(?!\$ ).*\n)*)", block, re.M):
                examples.append((command, answer.rstrip("\n")))
        self.assertGreater(len(examples), 15)
        env = {**environment(), "NODE": "http://127.0.0.1:%d" % self.node.port}
        for command, answer in examples:
            with self.subTest(command):
                done = subprocess.run(["bash", "-c", command], capture_output=True, text=True, timeout=WAIT_S, env=env)
                self.assertEqual(done.returncode, 0, done.stderr)
                pattern = ".*".join(re.escape(part) for part in answer.split("..."))
                open_end = "" if answer.endswith(("...", "{...}")) else r"\s*$"
                self.assertTrue(re.match(pattern + open_end, done.stdout, re.S), "%s\n%s" % (command, done.stdout[:2000]))

    def test_every_route_is_there(self):
        routes = set()
        for directory, _, names in os.walk(os.path.join(ROOT, "src")):
            for name in names:
                if not name.endswith(".cpp"):
                    continue
                with open(os.path.join(directory, name)) as f:
                    text = f.read()
                for method, base, word in re.findall(
                        r'(?:rest_register|add_rule)\(\s*"([A-Z]+)",\s*"([^"]*)",\s*(?:"\^?\(?([a-z_.]*))?', text):
                    routes.add((method, base + (word if base == "/" else "")))
        self.assertGreater(len(routes), 12)
        for method, path in routes:
            if path == "/":
                continue  # the console's files
            self.assertIn(path.rstrip("."), self.page, "%s %s" % (method, path))


if __name__ == "__main__":
    import unittest

    unittest.main()
