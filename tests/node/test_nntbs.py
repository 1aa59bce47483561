"""The store of numeric rollups in a node: configuration, a period made anew, damaged files."""
import os
import shutil
import time
import unittest
import urllib.parse

from velmar_node import CHECK, Node, line, run_velmard, wait_for

DAY = 86400


class Nntbs(unittest.TestCase):
    def setUp(self):
        self.day = (int(time.time()) // DAY - 3) * DAY

    def node(self, edit=None):
        node = Node(edit=edit)
        self.addCleanup(node.destroy)
        return node

    def directory(self, node):
        return os.path.join(node.directory, node.id, "nntbs")

    def shards(self, node, period):
        return sorted(n for n in os.listdir(self.directory(node)) if n.startswith("%d_" % period))

    def filled(self):
        """A node whose rollups hold a day of a metric."""
        node = self.node().start()
        lines = [line("m", self.day + 60 * i, i, "L") for i in range(0, 1440, 7)]
        self.assertEqual(node.post_raw(lines).json()["updated"], len(lines))
        node.get("/raw/rollup?starting_block_floor=%d" % self.day)
        wait_for(lambda: "timeshard completed op" in node.log(), "the rollup")
        return node

    def cells(self, node, period, kind="average", engine="dispatch"):
        query = urllib.parse.urlencode({"start_ts": self.day, "end_ts": self.day + DAY, "rollup_span": "%ds" % period,
                                        "type": kind, "get_engine": engine})
        answer = node.get("/rollup/%s/m?%s" % (CHECK, query))
        self.assertEqual(answer.status, 200, answer)
        return answer.json()

    def test_state_names_the_periods(self):
        node = self.node().start()
        state = node.get("/state")
        self.assertEqual((state.json()["base_rollup"], state.json()["rollups"]), (60, [60, 300, 3600, 86400]))
        self.assertLess(state.text.index('"next"'), state.text.index('"base_rollup"'))
        self.assertLess(state.text.index('"rollups"'), state.text.index('"rusage.utime"'))

    def test_a_configuration_without_periods(self):
        def without(text):
            start, end = text.index("<nntbs"), text.index("</nntbs>") + len("</nntbs>")
            return text[:start] + text[end:]

        node = self.node(without).launch()
        self.assertNotEqual(node.wait_end(), 0)
        self.assertIn("[FATAL] nntbs has no path specified\n", node.log())
        self.assertIn('<shard period="300" size="1w"/>', node.log())  # what to write

    def test_a_period_made_anew(self):
        node = self.filled()
        before = self.cells(node, 3600), self.cells(node, 3600, "count")
        self.assertEqual(len(before[0]), 24)
        self.assertEqual(node.stop(), 0)
        for shard in self.shards(node, 3600):
            shutil.rmtree(os.path.join(self.directory(node), shard))
        arguments = ("-c", node.conf, "-i", node.id)
        status, _, err = run_velmard("-n", "3600", *arguments)
        self.assertEqual(status, 0, err)
        for text in ("Rebuild Rollup Started!\n", "building nntbs rollup: 3600\n",
                     "NNTBS - beginning sweep reroll (300 -> 3600)\n", "successfully generated rollup: 3600\n"):
            self.assertIn(text, err)
        self.assertEqual(len(self.shards(node, 3600)), 1)
        status, _, err = run_velmard("-n", "60", *arguments)
        self.assertEqual(status, 1)
        self.assertIn("nntbs_generate_rollup: cannot generate 60 - lower than any existing rollup\n", err)
        self.assertIn("failed to generate rollup: 60\n", err)
        shutil.rmtree(os.path.join(node.directory, node.id, "raw"))  # the cells alone must answer
        node.start()
        self.assertEqual((self.cells(node, 3600), self.cells(node, 3600, "count")), before)

    def test_damaged_files(self):
        """One file is cut short, one has lost a page: the node starts, says so, and serves the rest."""
        node = self.filled()
        good = self.cells(node, 3600)
        counts = {period: self.cells(node, period, "count", "nnt") for period in (60, 300)}
        self.assertEqual(node.stop(), 0)
        shard = self.shards(node, 300)[0]
        with open(os.path.join(self.directory(node), shard, "data.mdb"), "r+b") as f:
            f.truncate(9000)
        for name in self.shards(node, 60):
            with open(os.path.join(self.directory(node), name, "data.mdb"), "r+b") as f:
                size = os.fstat(f.fileno()).st_size
                for page in range(2, size // 4096):  # every page that holds structure
                    f.seek(page * 4096 + 10)
                    if f.read(1) in (b"\x01", b"\x02"):
                        f.seek(page * 4096)
                        f.write(bytes(4096))
        node.start()
        self.assertIn("%s/%s is damaged and stays offline" % (self.directory(node), shard), node.log())
        self.assertEqual(self.cells(node, 3600), good)
        for period in (60, 300):
            self.cells(node, period)
        self.assertEqual(node.post_raw([line("m", self.day + 1, 1, "L")]).json()["updated"], 1)
        node.get("/raw/rollup?starting_block_floor=%d" % self.day)
        wait_for(lambda: "timeshard completed op" in node.log(), "the rollup")
        # what was dropped does not count as rolled up; with the damaged directories gone it comes back
        self.assertIn("rollup was aborted", node.log())
        self.assertEqual(node.log().count("a rollup shard there is offline"), 2, node.log())
        self.assertEqual(node.stop(), 0)
        for name in self.shards(node, 60) + [shard]:
            shutil.rmtree(os.path.join(self.directory(node), name))
        node.start()
        node.get("/raw/rollup?starting_block_floor=%d" % self.day)
        wait_for(lambda: "timeshard completed op" in node.log(), "the rollup")
        self.assertNotIn("rollup was aborted", node.log())
        for period, before in counts.items():
            self.assertEqual(self.cells(node, period, "count", "nnt"), [[before[0][0], 2]] + before[1:])


if __name__ == "__main__":
    unittest.main()
