"""Imported Whisper files, read through GET /rollup."""
import os
import shutil
import struct
import tempfile
import unittest
import urllib.parse

from velmar_node import CHECK, NodeTest, line


class Whisper(NodeTest):
    directory = tempfile.mkdtemp(prefix="velmar-whisper-")

    @staticmethod
    def edit(text):
        section = '<graphite><whisper directory="%s" check_uuid="%s" account_id="1"/></graphite>\n</velmar>'
        return text.replace("</velmar>", section % (Whisper.directory, CHECK))

    @classmethod
    def setUpClass(cls):
        cls.addClassCleanup(shutil.rmtree, cls.directory, True)
        super().setUpClass()
        cls.start = cls.now // 3600 * 3600 - 7200

    def put(self, name, values, step=60, aggregation=1):
        """A file of one archive that begins at self.start."""
        path = os.path.join(self.directory, name.replace(".", "/") + ".wsp")
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as f:
            f.write(struct.pack(">IIfI", aggregation, step * len(values), 0.5, 1))
            f.write(struct.pack(">III", 28, step, len(values)))
            for i, value in enumerate(values):
                f.write(struct.pack(">Id", self.start + i * step, value))

    def cells(self, name, count, span=60, **more):
        query = {"start": self.start, "end": self.start + count * span, "rollup_span": "%ds" % span, **more}
        answer = self.node.get("/rollup/%s/%s?%s" % (CHECK, urllib.parse.quote(name), urllib.parse.urlencode(query)))
        self.assertEqual(answer.status, 200, answer)
        got = answer.json()
        self.assertEqual([t for t, _ in got], [self.start + i * span for i in range(len(got))])
        return [value for _, value in got]

    def test_cells(self):
        """The file's values; raw samples go on where it ends."""
        self.put("servers.web.load", [i + 0.5 for i in range(20)])
        self.assertEqual(self.cells("servers.web.load", 20), [i + 0.5 for i in range(20)])
        self.assertEqual(self.cells("servers.web.load", 2, span=600), [5, 15])
        self.taken(self.node.post_raw([line("servers.web.load", self.start + i * 60, 100 + i) for i in range(15, 30)]),
                   15)
        self.assertEqual(self.cells("servers.web.load", 30),
                         [i + 0.5 for i in range(20)] + [100 + i for i in range(20, 30)])

    def test_bad_files(self):
        """They cost a line in the log and none of the answer."""
        self.put("bad.sum", [1.0] * 5, aggregation=2)
        with open(os.path.join(self.directory, "bad", "short.wsp"), "wb") as f:
            f.write(b"\0\0\0\1")
        for name in ("bad.sum", "bad.short"):
            self.taken(self.node.post_raw([line(name, self.start + 1, 7)]), 1)
            self.assertEqual(self.cells(name, 1), [7])
        self.assertIn("has unsupported aggregation 2", self.node.log())
        self.assertIn("failed metadata read", self.node.log())


if __name__ == "__main__":
    unittest.main()
