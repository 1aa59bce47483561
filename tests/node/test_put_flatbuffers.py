"""POST /raw in the two FlatBuffers forms."""
import random
import unittest
import uuid

import flatbuffer
from velmar_node import CHECK, NodeTest

RELAY = "application/x-tolvanus-metric-list-flatbuffer"
DORN = "application/x-dorn-metric-list-flatbuffer"
CHECK_BYTES = uuid.UUID(CHECK).bytes

NUMBERS = [("int", -2147483648), ("uint", 4294967295), ("long", -2**63), ("ulong", 2**64 - 1), ("double", 0.25),
           ("null", None)]
BINS = [(-12, 3, 4), (0, 0, 9), (10, -1, 1), (99, 2, 2**40)]
BINS_TEXT = {"-12e+002": 4, "0": 9, "+10e-002": 1, "+99e+001": 2**40}


class PutFlatbuffers(NodeTest):
    def post(self, body, count, content_type):
        return self.node.post_raw(body, count=count, content_type=content_type)

    def test_relay(self):
        metrics = [{"name": "relay.%s" % kind, "uuid": CHECK, "ts": self.now * 1000 + 7, "kind": kind, "value": value}
                   for kind, value in NUMBERS]
        metrics.append({"name": "relay.tags", "tags": ["b:2", "a:1"], "uuid": CHECK, "ts": self.now * 1000,
                        "kind": "int", "value": 5})
        for cumulative in (0, 1):
            metrics.append({"name": "relay.hist.%d" % cumulative, "uuid": CHECK, "ts": self.now * 1000,
                            "kind": "histogram", "value": {"bins": BINS, "cumulative": cumulative}})
        self.taken(self.post(flatbuffer.relay(metrics), len(metrics), RELAY + "; charset=x"), len(metrics))
        for kind, value in NUMBERS:
            self.assertEqual(self.node.samples("relay." + kind), [[self.now * 1000 + 7, value]])
        self.assertEqual(self.node.samples("relay.tags|ST[a:1,b:2]"), [[self.now * 1000, 5]])
        for cumulative in (0, 1):
            self.assertEqual(self.node.samples("relay.hist.%d" % cumulative, route="histogram_raw"),
                             [[self.now, BINS_TEXT]])

    def test_dorn(self):
        numbers = [{"name": "dorn.%s" % kind, "uuid": CHECK_BYTES,
                    "samples": [((self.now + i) * 1000, kind, value) for i in range(3)]} for kind, value in NUMBERS]
        hist = {"name": "dorn.hist", "tags": ["a:1"], "uuid": CHECK_BYTES,
                "samples": [(self.now * 1000, "histogram", {"bins": BINS})]}
        self.taken(self.post(flatbuffer.dorn(numbers + [hist]), 19, DORN), 19)
        for kind, value in NUMBERS:
            self.assertEqual(self.node.samples("dorn." + kind), [[(self.now + i) * 1000, value] for i in range(3)])
        self.assertEqual(self.node.samples("dorn.hist|ST[a:1]", route="histogram_raw"), [[self.now, BINS_TEXT]])

    def test_bad_records_cost_only_themselves(self):
        def metric(name="fb.good", **changes):
            return {"name": name, "uuid": CHECK, "ts": self.now * 1000, "kind": "int", "value": 1, **changes}

        bad = [metric(uuid="c9b0e0f2"), metric("x" * 4097), metric("bad|ST[a"), metric(ts=1), metric(kind="string", value="x"),
               metric(kind="double", value=float("nan")), metric(kind="double", value=float("inf"))]
        metrics = []
        for i, m in enumerate(bad):
            metrics += [m, metric("fb.good.%d" % i)]
        self.taken(self.post(flatbuffer.relay(metrics), len(metrics), RELAY), len(bad), errors=len(bad))
        for i in range(len(bad)):
            self.assertEqual(self.node.samples("fb.good.%d" % i), [[self.now * 1000, 1]])

    def test_no_metrics(self):
        self.taken(self.post(flatbuffer.relay([]), 1, RELAY), 0)
        self.taken(self.post(flatbuffer.dorn([]), 1, DORN), 0)

    def test_broken(self):
        """A buffer that is not whole is refused as a whole; flipped bytes never harm the node."""
        good = flatbuffer.relay([{"name": "fb.broken.%d" % i, "uuid": CHECK, "ts": self.now * 1000, "kind": "int",
                                  "value": i} for i in range(20)])
        for body, content_type in ((b"", RELAY), (good[:40], RELAY), (good, DORN), (good[:-600], RELAY),
                                   (b"\xff" * 4096, RELAY), (b"\0" * 4096, DORN)):
            answer = self.post(body, 20, content_type)
            self.assertEqual((answer.status, answer.reason), (400, "ERROR"), content_type)
            self.assertTrue(answer.text.startswith("failed to parse flatbuffer data: "), answer)
        self.assertEqual(self.node.read("fb.broken.0").status, 404)
        dice = random.Random(7)
        for _ in range(200):
            body = bytearray(good)
            for _ in range(dice.randint(1, 8)):
                body[dice.randrange(len(body))] = dice.randrange(256)
            self.assertIn(self.post(bytes(body), 20, RELAY).status, (200, 400))
        self.taken(self.post(good, 20, RELAY), 20)
        self.assertIsNone(self.node.process.poll())

    def test_large(self):
        """More samples than a batch of the node's holds."""
        metrics = [{"name": "fb.large.%d" % m, "uuid": CHECK_BYTES,
                    "samples": [((self.now - s) * 1000, "long", m * 1000 + s) for s in range(500)]} for m in range(50)]
        self.taken(self.post(flatbuffer.dorn(metrics), 25000, DORN), 25000)
        for m in (0, 49):
            self.assertEqual(self.node.samples("fb.large.%d" % m),
                             [[(self.now - s) * 1000, m * 1000 + s] for s in reversed(range(500))])


if __name__ == "__main__":
    unittest.main()
