"""Rollups of raw shards: forced over HTTP, read back as cells and as histograms, going on after a kill."""
import base64
import time
import unittest
import urllib.parse

from velmar_node import CHECK, Node, NodeTest, line, wait_for

DAY = 86400


def serialized(*bins):
    """A histogram of (val, exp, count), base64."""
    data = bytearray([1, len(bins)])
    for val, exp, count in bins:
        data += bytes([val & 255, exp & 255, count])
    return base64.b64encode(bytes(data)).decode()


def histogram_line(name, when, *bins, cumulative=False):
    return "%s\t%d\thost`check`c_1`%s\t%s\t%s" % ("H2" if cumulative else "H1", when, CHECK, name, serialized(*bins))


def rollup(node, when, route="raw"):
    return node.get("/%s/rollup?starting_block_floor=%d" % (route, when))


def completed(node):
    return node.log().count("rollup completed\n")


def roll_up(test, node, when, route="raw"):
    """Forces the rollup of the shard and waits for its end."""
    before = node.log().count("timeshard completed op")
    answer = rollup(node, when, route)
    test.assertEqual((answer.status, answer.json()), (200, {"status": "rollup_submitted"}), answer)
    wait_for(lambda: node.log().count("timeshard completed op") > before, "the rollup")


class RawRollup(NodeTest):
    def setUp(self):
        self.day = (self.now // DAY - 2) * DAY  # a shard that nothing else writes to

    def cells(self, name, start, end, period, **more):
        answer = self.node.get("/rollup/%s/%s?start_ts=%d&end_ts=%d&rollup_span=%ds&%s" %
                               (CHECK, urllib.parse.quote(name, safe=""), start, end, period,
                                urllib.parse.urlencode(more)))
        self.assertEqual(answer.status, 200, answer)
        return answer.json()

    def test_numbers_become_cells(self):
        day = self.day
        lines = [line("cells", day + 10 * i, 2 * i, "L") for i in range(60)]
        self.taken(self.node.post_raw(lines), 60)
        roll_up(self, self.node, day + 5)
        self.assertEqual(self.cells("cells", day, day + 600, 60, type="average"),
                         [[day + 60 * m, 12 * m + 5] for m in range(10)])
        self.assertEqual(self.cells("cells", day, day + 600, 300, type="count"), [[day, 30], [day + 300, 30]])
        hour = self.cells("cells", day, day + 3600, 3600, type="counter")
        self.assertAlmostEqual(hour[0][1], 0.2, places=6)

    def test_a_rate_spans_two_shards(self):
        day = self.day
        self.taken(self.node.post_raw([line("edge", day + DAY - 10, 100, "L"), line("edge", day + DAY, 200, "L")]), 2)
        roll_up(self, self.node, day)
        roll_up(self, self.node, day + DAY)
        cells = self.cells("edge", day + DAY, day + DAY + 60, 60, type="counter")
        self.assertAlmostEqual(cells[0][1], 10.0)
        # the sample that was carried over is no sample of the second shard
        self.assertEqual(len(self.node.samples("edge", day, day + 2 * DAY)), 2)
        self.assertEqual(len(self.node.samples("edge", day + DAY, day + 2 * DAY)), 1)

    def test_histograms_merge_and_are_filled(self):
        day = self.day
        self.taken(self.node.post_raw([
            histogram_line("h", day + 1, (10, 0, 1)), histogram_line("h", day + 59, (10, 0, 2), (25, 1, 4)),
            histogram_line("h", day + 200, (10, 0, 8))]), 3)
        roll_up(self, self.node, day, "histogram_raw")
        self.assertEqual(self.node.samples("h", day, day + 300, route="histogram/60"),
                         [[day, 60, {"+10e-001": 3, "+25e+000": 4}], [day + 60, 60, {}], [day + 120, 60, {}],
                          [day + 180, 60, {"+10e-001": 8}]])
        self.assertEqual(self.node.samples("h", day, day + 300, route="histogram/300"),
                         [[day, 300, {"+10e-001": 11, "+25e+000": 4}]])
        # a repeat takes the place of what was there
        self.taken(self.node.post_raw([histogram_line("h", day + 2, (10, 0, 1))]), 1)
        roll_up(self, self.node, day, "histogram_raw")
        self.assertEqual(self.node.samples("h", day, day + 60, route="histogram/60"),
                         [[day, 60, {"+10e-001": 4, "+25e+000": 4}]])

    def test_cumulative_histograms_are_differenced_across_shards(self):
        day = self.day
        self.taken(self.node.post_raw([
            histogram_line("c", day + DAY - 30, (10, 0, 5), cumulative=True),
            histogram_line("c", day + DAY + 30, (10, 0, 12), cumulative=True)]), 2)
        roll_up(self, self.node, day, "histogram_raw")
        roll_up(self, self.node, day + DAY, "histogram_raw")
        self.assertEqual(self.node.samples("c", day + DAY, day + DAY + 60, route="histogram/60"),
                         [[day + DAY, 60, {"+10e-001": 7}]])

    def test_answers(self):
        def error(path):
            answer = self.node.get(path)
            return answer.status, answer.json()["error"]

        self.assertEqual(error("/raw/rollup"), (400, "starting_block field required"))
        self.assertEqual(error("/raw/rollup?starting_block_floor=x"), (400, "invalid request"))
        self.assertEqual(error("/raw/rollup?starting_block_floor=1000000000"), (404, "no matching shard found"))
        self.assertEqual(error("/histogram_raw/rollup?starting_block_floor=18446744073709551615"),
                         (404, "no matching shard found"))
        name = urllib.parse.quote("h", safe="")
        self.assertEqual(error("/histogram/61/%s/%s?start_ts=0&end_ts=1" % (CHECK, name)), (500, "invalid period"))
        self.assertEqual(error("/histogram/0/%s/%s?start_ts=0&end_ts=1" % (CHECK, name)), (500, "invalid period"))
        self.assertEqual(self.node.get("/histogram/list_metrics").status, 200)
        self.assertEqual(self.node.get("/raw/list_metrics").status, 200)


class RollupAcrossLives(unittest.TestCase):
    def setUp(self):
        self.node = Node(edit=self.edit)
        self.addCleanup(self.node.destroy)

    @staticmethod
    def edit(text):
        return text.replace('rollup_after_quiescent_age="8hr"',
                            'rollup_after_quiescent_age="1s" startup_rollup_delay="1s"')

    def test_a_shard_of_the_past_is_rolled_up_by_itself(self):
        self.node.start()
        day = (int(time.time()) // DAY - 2) * DAY
        self.node.post_raw([line("alone", day + 7, 5)])
        wait_for(lambda: completed(self.node), "the rollup")

    def test_goes_on_after_a_kill(self):
        self.node.start()
        day = (int(time.time()) // DAY - 2) * DAY
        names = ["m%d" % i for i in range(2000)]
        for name in range(0, len(names), 500):
            self.node.post_raw([line(n, day + 60 * k, k, "L") for n in names[name:name + 500] for k in range(20)])
        wait_for(lambda: "timeshard rolling up DB" in self.node.log(), "the rollup's start")
        self.node.kill()
        self.node.start()
        wait_for(lambda: completed(self.node), "the rollup's end")
        for name in names[::97]:
            answer = self.node.get("/rollup/%s/%s?start_ts=%d&end_ts=%d&rollup_span=1200s&type=count" %
                                   (CHECK, name, day, day + 1200))
            self.assertEqual(answer.json(), [[day, 20]], answer)

    def test_a_stop_waits_for_no_rollup(self):
        self.node.start()
        day = (int(time.time()) // DAY - 2) * DAY
        self.node.post_raw([line("m%d" % i, day + i, i, "L") for i in range(20000)])
        wait_for(lambda: "timeshard rolling up DB" in self.node.log(), "the rollup's start")
        self.assertEqual(self.node.stop(), 0)
        self.node.start()
        wait_for(lambda: completed(self.node), "the rollup's end")


if __name__ == "__main__":
    unittest.main()
