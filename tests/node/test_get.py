"""Reads of raw samples and histograms, lists of metrics, and their errors."""
import base64
import unittest

from velmar_node import CHECK, NodeTest, line

DAY = 86400


def packed(bins):
    data = bytearray((1, len(bins)))
    for val, exp, count in bins:
        data += bytes((val & 255, exp & 255, count))
    return base64.b64encode(bytes(data)).decode()


class Get(NodeTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.base = cls.now - 100
        answer = cls.node.post_raw([line("get.range", cls.base + i, i) for i in range(10)] +
                                   [line("get.ms", "%d.%03d" % (cls.base, ms), ms) for ms in (0, 1, 999)] +
                                   [line("get.days", cls.now - d * DAY, d) for d in (0, 1, 5, 40, 400)] +
                                   ["H1\t%d\th`c_1`%s\tget.hist\t%s" % (cls.base + i, CHECK, packed([(10 + i, 0, i + 1)]))
                                    for i in range(3)] +
                                   ["H2\t%d\th`c_1`%s\tget.cumul\t%s" % (cls.base, CHECK, packed([(-5 - 10, 2, 1), (0, 0, 2), (50, 1, 3)]))])
        assert answer.json()["errors"] == 0, answer

    def test_range(self):
        """The start is in it, the end is not."""
        for start, end, expected in ((0, 10, range(0, 10)), (3, 7, range(3, 7)), (9, 10, [9]), (10, 20, []), (4, 4, [])):
            got = self.node.samples("get.range", self.base + start, self.base + end)
            self.assertEqual(got, [[(self.base + i) * 1000, i] for i in expected], (start, end))
        for start, end, expected in (("000", "001", [0]), ("001", "999", [1]), ("001", "1.000", [1, 999])):
            end = "%d.000" % (self.base + 1) if end == "1.000" else "%d.%s" % (self.base, end)
            got = self.node.samples("get.ms", "%d.%s" % (self.base, start), end)
            self.assertEqual(got, [[self.base * 1000 + i, i] for i in expected])

    def test_time_texts(self):
        answer = self.node.read("get.range", start="0", end="now")
        self.assertEqual(len(answer.json()), 10)
        self.assertEqual(answer.headers["content-type"], "application/json")
        path = "/raw/%s/get.range?start=%d&end=2100-01-01T00:00:00Z" % (CHECK, self.base)
        self.assertEqual(self.node.get(path).status, 200)

    def test_shards(self):
        """A read goes on over days that have no samples."""
        self.assertEqual(self.node.samples("get.days", 0), [[(self.now - d * DAY) * 1000, d] for d in (400, 40, 5, 1, 0)])
        self.assertEqual(self.node.samples("get.days", self.now - 100 * DAY, self.now - 2 * DAY),
                         [[(self.now - d * DAY) * 1000, d] for d in (40, 5)])

    def test_parameters(self):
        path = "/raw/%s/get.range?" % CHECK
        order = '"end" parameter must be less than or equal to "start"'
        for query, words in (("end=now", 'need "start" or "start_ts" argument.'),
                             ("start=0", 'need "end" or "end_ts" argument.'),
                             ("start=0&start_ts=0&end=now", 'only one of "start" or "start_ts" should be provided.'),
                             ("start=0&end=now&end_ts=1", 'only one of "end" or "end_ts" should be provided.'),
                             ("start=x&end=now", "could not parse start time."),
                             ("start_ts=1.5&end=now", "could not parse start time."),
                             ("start_ts=0&end=never", "could not parse end time."),
                             ("start_ts=0&end_ts=99999999999999999999", "could not parse end time."),
                             ("start_ts=2&end_ts=1", order),
                             ("start_ts=0&end_ts=1&stream_tags=a:b",
                              "stream_tags param is deprecated, please provide a fully canonical name")):
            answer = self.node.get(path + query)
            self.assertEqual((answer.status, answer.reason, answer.json()), (500, "ERROR", {"error": words}), query)

    def test_unknown(self):
        for route in ("raw", "histogram_raw"):
            answer = self.node.read("get.nothing", route=route)
            self.assertEqual((answer.status, answer.json()), (404, {"error": "get.nothing not in surrogate-db."}))
        self.assertEqual(self.node.read("get.range", check=CHECK.replace("c9b0", "c9b1")).status, 404)
        self.assertEqual(self.node.read("bad|ST[a", route="raw").json(), {"error": "invalid request"})
        self.assertEqual(self.node.get("/raw/not-a-uuid/x?start=0&end=now").status, 404)

    def test_wrong_kind(self):
        answer = self.node.read("get.hist")
        self.assertEqual((answer.status, answer.json()),
                         (500, {"error": "request made for numeric data, but the metric get.hist is not of numeric type."}))
        answer = self.node.read("get.range", route="histogram_raw")
        self.assertEqual((answer.status, answer.json()), (500, {
            "error": "request made for histogram data, but the metric get.range is not of histogram type."}))

    def test_histograms(self):
        self.assertEqual(self.node.samples("get.hist", route="histogram_raw"),
                         [[self.base + i, {"+%de-001" % (10 + i): i + 1}] for i in range(3)])
        self.assertEqual(self.node.samples("get.hist", self.base + 1, self.base + 2, route="histogram_raw"),
                         [[self.base + 1, {"+11e-001": 2}]])
        self.assertEqual(self.node.samples("get.cumul", route="histogram_raw"),
                         [[self.base, {"-15e+001": 1, "0": 2, "+50e+000": 3}]])

    def test_lists(self):
        numeric = self.node.get("/raw/list_metrics")
        self.assertTrue(numeric.text.startswith('{"metrics": [\n  "'), numeric.text[:80])
        self.assertEqual(sorted(numeric.json()["metrics"]), ["%s-get.%s" % (CHECK, n) for n in ("days", "ms", "range")])
        self.assertEqual(sorted(self.node.get("/histogram/list_metrics").json()["metrics"]),
                         ["%s-get.%s" % (CHECK, n) for n in ("cumul", "hist")])

    def test_head(self):
        answer = self.node.request("HEAD", "/raw/%s/get.range?start=0&end=now" % CHECK)
        self.assertEqual((answer.status, answer.body), (200, b""))

    def test_compressed(self):
        answer = self.node.request("GET", "/raw/%s/get.range?start=0&end=now" % CHECK, headers={"Accept-Encoding": "gzip"})
        self.assertEqual(answer.status, 200)
        if answer.headers.get("content-encoding") == "gzip":
            import gzip
            answer.body = gzip.decompress(answer.body)
        self.assertEqual(len(answer.json()), 10)


if __name__ == "__main__":
    unittest.main()
