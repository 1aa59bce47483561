"""What the README tells a newcomer to type, typed: only the ports are another."""
import os
import re
import shutil
import signal
import subprocess
import unittest

from velmar_node import ROOT, WAIT_S, NodeTest, environment, wait_for

COLLECTD = shutil.which("collectd") or shutil.which("collectd", path="/usr/sbin:/usr/local/sbin")


class Readme(NodeTest):
    def section(self, title):
        with open(os.path.join(ROOT, "README.md")) as f:
            text = re.search(r"^## %s\n(.*?)(?=^## )" % title, f.read(), re.S | re.M).group(1)
        code = "".join(line[4:] if line.startswith("    ") else "\n" for line in text.splitlines(keepends=True)
                       if line.startswith("    ") or line == "\n")
        return [part for part in re.split(r"\n\n+", code.strip()) if part]

    def here(self, command):
        """The command for this test's node."""
        for old, new in (("127.0.0.1:8112", "127.0.0.1:%d" % self.node.port),
                         ("127.0.0.1 2003", "127.0.0.1 %d" % self.node.graphite_port)):
            command = command.replace(old, new)
        if "collectd" in command:
            path = os.path.join(self.node.directory, "collectd.conf")
            with open(os.path.join(ROOT, "etc", "collectd.conf")) as f:
                conf = f.read()
            self.assertIn('Port "2003"', conf)
            with open(path, "w") as f:
                f.write(conf.replace('Port "2003"', 'Port "%d"' % self.node.graphite_port).replace("Interval 10", "Interval 0.2"))
            command = command.replace("etc/collectd.conf", path)
        return command

    def run_it(self, command):
        return subprocess.Popen(["bash", "-e", "-o", "pipefail", "-c", command], cwd=ROOT, text=True,
                                start_new_session=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, env={**environment(), "PATH": os.environ["PATH"] + ":/usr/sbin"})

    def end(self, process):
        os.killpg(process.pid, signal.SIGTERM)
        process.communicate(timeout=WAIT_S)

    @unittest.skipUnless(COLLECTD, "collectd is not installed")
    def test_use(self):
        parts = self.section("Use")
        self.assertGreaterEqual(len(parts), 6)
        outputs = []
        for part in parts:
            with self.subTest(part):
                process = self.run_it(self.here(part))
                if part.rstrip().endswith("&"):
                    self.addCleanup(self.end, process)
                    names = wait_for(lambda: re.findall(r"collectd\.[\w.-]+", self.node.get("/raw/list_metrics").text),
                                     "metrics of collectd")
                    self.assertTrue(names)
                    continue
                out, err = process.communicate(timeout=WAIT_S)
                self.assertEqual(process.returncode, 0, err)
                self.assertNotIn('"error"', out)
                outputs.append(out)
        everything = "\n".join(outputs)
        for words in (r'"identity":"%s"' % self.node.id, r'"updated": 1', r"\[\[\d+,0\.250000\]\n\]", r"\[\[\d+,21\.500000\]\n\]",
                      r"\[\d+,21\.5\]", r'"rollup_submitted"', r"# TYPE uptime", r'"uptime"'):
            self.assertRegex(everything, words)


if __name__ == "__main__":
    unittest.main()
