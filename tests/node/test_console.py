"""The console page in a real browser without a screen: the node's state, the topology, a chart, and what it says
when there is nothing to draw."""
import os
import re
import shutil
import subprocess
import tempfile
import time
import unittest
import urllib.parse

from velmar_node import CHECK, WAIT_S, NodeTest, environment, line

BROWSER = shutil.which("chromium")


@unittest.skipUnless(BROWSER, "no chromium on this machine")
class Console(NodeTest):
    def page(self, width=1100, **query):
        """The document after its scripts have run for five seconds of the browser's own time."""
        with tempfile.TemporaryDirectory() as profile:
            done = subprocess.run(
                [BROWSER, "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run",
                 "--disable-background-networking", "--user-data-dir=" + profile, "--window-size=%d,900" % width,
                 "--virtual-time-budget=5000", "--dump-dom",
                 "http://127.0.0.1:%d/#%s" % (self.node.port, urllib.parse.urlencode(query))],
                capture_output=True, text=True, timeout=WAIT_S, env=environment())
        self.assertIn("</html>", done.stdout, done.stderr[-2000:])
        return done.stdout

    def text_of(self, page, element):
        return re.sub(r"<[^>]*>", "", re.search(r'id="%s"[^>]*>(.*?)</(?:p|span|tbody|figcaption)>' % element, page, re.S).group(1))

    def test_state_and_topology(self):
        page = self.page()
        self.assertEqual(self.text_of(page, "health"), "serving")
        self.assertIn(self.node.id, self.text_of(page, "identity"))
        self.assertEqual(self.text_of(page, "signature"), self.node.signature)
        self.assertRegex(self.text_of(page, "nodes"), self.node.id + r"127\.0\.0\.1:\d+170100\.0 %")
        for title in ("Samples a second", "Reads a second", "Requests under way", "Up for"):
            self.assertIn('data-title="%s"' % title, page)
        self.assertNotRegex(page, r'(?:src|href)="(?:https?:)?//', "nothing comes from elsewhere")

    def test_a_chart(self):
        now = int(time.time()) // 60 * 60
        lines = [line("console|ST[a:b]", now - 60 * i, i % 7 + 0.5) for i in range(1, 41) if i != 20]
        self.taken(self.node.post_raw(lines), len(lines))
        page = self.page(metric=CHECK + "-console|ST[a:b]", range=3600, type="average")
        self.assertEqual(self.text_of(page, "message"), "")
        self.assertRegex(self.text_of(page, "caption"), r"^39 of 6[01] slots have data$")
        curve = re.search(r'<path class="curve" d="(M[^"]+)"', page).group(1)
        self.assertEqual(curve.count("M"), 2, "one gap in the curve")
        self.assertEqual(curve.count("L") + curve.count("M"), 39)

    def test_nothing_to_draw(self):
        page = self.page(width=380, metric=CHECK + "-no.such.metric", range=3600, type="average")
        self.assertIn("No data of %s-no.such.metric in this range" % CHECK, self.text_of(page, "message"))
        self.assertRegex(page, r'<figure id="figure" hidden')
        page = self.page(metric="half a name", range=3600)
        self.assertIn("choose one from the list", self.text_of(page, "message"))

    def test_the_files(self):
        sizes = [len(self.node.get("/" + name).body) for name in ("", "console.css", "console.js", "chart.js")]
        self.assertLess(sum(sizes), 60000)
        self.assertEqual(self.node.get("/nothing.js").status, 404)
        self.assertEqual(self.node.get("/../velmar.conf").status, 404)


if __name__ == "__main__":
    unittest.main()
