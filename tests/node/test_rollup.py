"""GET /rollup: cells out of samples and rollups, in both forms; who answers for a metric of another node."""
import http.server
import json
import statistics
import struct
import threading
import unittest
import urllib.parse
import uuid

from velmar_node import CHECK, Node, NodeTest, line, wait_for

NNT = "application/x-tolvanus-nnt"
HOUR = 3600
NO_ROLLUP = {"error": "no rollup data available or period is not a multiple of an available rollup"}


def path_of(name, start, end, span, check=CHECK, **more):
    query = {"start_ts": start, "end_ts": end, "rollup_span": span, **more}
    return "/rollup/%s/%s?%s" % (check, urllib.parse.quote(name, safe=""), urllib.parse.urlencode(query))


def image_cells(image):
    """(epoch, period, [(type, count, value bytes) or None]) of an NNT1 image."""
    version, period, epoch = struct.unpack_from("<4sIQ", image)
    assert version == b"NNT1" and (len(image) - 16) % 32 == 0, image[:16]
    cells = []
    for at in range(16, len(image), 32):
        record = image[at:at + 32]
        check = 0
        for byte in record[1:]:
            check ^= byte
        assert check == record[0], (at, record)
        cells.append((record[1] & 7, struct.unpack_from("<H", record, 2)[0], record[8:16]) if record[1] else None)
    return epoch, period, cells


class Rollup(NodeTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        # a sample each 10 s over 20 minutes of an hour that is over, but none in the third minute
        cls.base = cls.now // HOUR * HOUR - 2 * HOUR
        cls.times = [cls.base + t for t in range(0, 1200, 10) if not 120 <= t < 180]
        cls.value = {t: (t - cls.base) * 3 for t in cls.times}
        answer = cls.node.post_raw(
            [line("ru.count", t, cls.value[t], "L") for t in cls.times] +
            [line("ru.wave", t, (t * 7919) % 1000 / 7) for t in cls.times] +
            [line("ru.ms", "%d.%03d" % (cls.base, ms), ms, "i") for ms in range(0, 1000, 250)] +
            [line("ru.name, odd|ST[a:b]", cls.base, 1, "i")])
        assert answer.json()["errors"] == 0, answer

    def ask(self, name, start, end, span="60s", headers=None, **more):
        return self.node.request("GET", path_of(name, self.base + start, self.base + end, span, **more),
                                 headers=headers or {})

    def cells(self, *args, **more):
        answer = self.ask(*args, **more)
        self.assertEqual((answer.status, answer.headers["content-type"]), (200, "application/json"), answer)
        return answer.json()

    def expected(self, start, end, span, make):
        """make() of the values in each slot; null where there are none."""
        result = []
        for t in range(self.base + start, self.base + end, span):
            values = [self.value[s] for s in self.times if t <= s < t + span]
            result.append([t, make(values) if values else None])
        return result

    def test_cells(self):
        for span in (60, 120, 300):
            for engine in ("dispatch", "dispatch_coarsen", "recalc"):
                text, more = "%ds" % span, {"get_engine": engine}
                self.assertEqual(self.cells("ru.count", 0, 1200, text, type="count", **more),
                                 self.expected(0, 1200, span, len), engine)
                self.assertEqual(self.cells("ru.count", 0, 1200, text, **more),
                                 self.expected(0, 1200, span, statistics.mean), engine)

    def test_parts(self):
        """A rise of 3 a second; the deviation against Python's."""
        cell = self.cells("ru.count", 60, 120, type="all")[0][1]
        values = [self.value[t] for t in self.times if 60 <= t - self.base < 120]
        self.assertEqual((cell["count"], cell["value"], cell["derivative"], cell["counter"]),
                         (6, statistics.mean(values), 3, 3))
        self.assertAlmostEqual(cell["stddev"], statistics.pstdev(values), places=4)
        self.assertEqual([k for k, v in cell.items() if v is None],
                         ["derivative_stddev", "counter_stddev", "derivative2", "derivative2_stddev", "counter2",
                          "counter2_stddev"])
        for part in ("derive", "derivative", "counter"):
            self.assertEqual(self.cells("ru.count", 60, 120, type=part), [[self.base + 60, 3]])
        # the sample before the range gives the first cell its rate; where nothing comes before there is none
        self.assertEqual(self.cells("ru.ms", 0, 1, "1s", type="derivative"), [[self.base, 1000]])

    def test_fractions_of_seconds(self):
        answer = self.ask("ru.ms", 0, 1, "250ms")
        self.assertEqual(answer.text, "[[%d,0],[%d.250,250],[%d.500,500],[%d.750,750]]" % ((self.base,) * 4))
        answer = self.ask("ru.ms", 0, 1, "250ms", headers={"Accept": NNT})
        self.assertEqual((answer.status, answer.json()), (500, {"error": "failed to build .nnt file"}))

    def test_nothing(self):
        self.assertEqual(self.ask("ru.nothing", 0, 600).text, "[]")
        answer = self.ask("ru.nothing", 0, 600, headers={"Accept": NNT}, get_metadata="true")
        self.assertEqual((answer.status, answer.body), (200, b""))
        self.assertFalse([h for h in answer.headers if h.startswith("x-nnt-")])

    def test_names(self):
        self.assertEqual(self.cells("ru.name, odd|ST[a:b]", 0, 60), [[self.base, 1]])
        self.assertEqual(self.ask("bad|ST[a", 0, 60).json(), {"error": "cannot parse metric name"})
        self.assertEqual(self.node.get("/rollup/not-a-uuid/x?start=0&end=60&rollup_span=60s").status, 404)

    def test_image(self):
        answer = self.ask("ru.count", 0, 1200, headers={"Accept": "text/html;q=0.5, %s;q=0.4" % NNT})
        self.assertEqual((answer.status, answer.headers["content-type"]), (200, NNT))
        epoch, period, cells = image_cells(answer.body)
        self.assertEqual((epoch, period), (self.base, 60))
        # what counts is what JSON shows; a mean that is whole is stored as such
        json_cells = self.expected(0, 1200, 60, lambda v: (len(v), statistics.mean(v)))
        self.assertEqual(len(cells), len(json_cells))
        for cell, (_, values) in zip(cells, json_cells):
            self.assertEqual(cell and (cell[1], struct.unpack("<Q" if cell[0] == 5 else "<d", cell[2])[0]), values)

    def test_accept(self):
        for accept, status, content in (("text/plain", 500, "application/json"), ("*/*", 200, "application/json"),
                                        ("application/*;q=0.1", 200, "application/json"),
                                        ("application/json;q=0.2, %s" % NNT, 200, NNT),
                                        ("%s;q=0, text/html" % NNT, 500, "application/json")):
            answer = self.ask("ru.count", 0, 60, headers={"Accept": accept})
            self.assertEqual((answer.status, answer.headers["content-type"]), (status, content), accept)
        self.assertEqual(self.ask("ru.count", 0, 60, headers={"Accept": "text/plain"}).json(),
                         {"error": "cannot return requested data type"})

    def test_parameters(self):
        for query, words in (("start=100&end=200&rollup_span=60s", "start value not properly aligned."),
                             ("start=60&start_ts=60&end=120&rollup_span=60s",
                              'only one of "start" or "start_ts" should be provided.'),
                             ("start=60&end=60&rollup_span=60s", "end must be greater than start."),
                             ("start=0&end=60&rollup_span=60s&type=max", "could not parse type argument."),
                             ("start=0&end=60", "need rollup_span argument.")):
            answer = self.node.get("/rollup/%s/ru.count?%s" % (CHECK, query))
            self.assertEqual((answer.status, answer.reason, answer.json()), (500, "ERROR", {"error": words}), query)

    def test_size(self):
        """A million cells are answered, one more is too much, whatever is in them."""
        for engine in ("dispatch", "recalc"):
            answer = self.node.get("/rollup/%s/ru.count?start_ts=0&end_ts=1000001&rollup_span=1s&get_engine=%s"
                                   % (CHECK, engine))
            self.assertEqual((answer.status, answer.json()), (400, {"error": "too much data"}))
        answer = self.node.get("/rollup/%s/ru.count?start_ts=0&end_ts=1000000&rollup_span=1s&get_engine=recalc" % CHECK)
        self.assertEqual(answer.status, 200)
        self.assertEqual(answer.json(), [[t, None] for t in range(1000000)])
        answer = self.node.get("/rollup/%s/ru.count?start_ts=0&end_ts=18446744073709551&rollup_span=100000d" % CHECK)
        self.assertIn(answer.status, (200, 400, 500), answer)
        self.assertEqual(self.node.get("/state").status, 200)


class RolledUp(NodeTest):
    """Samples that a forced pass has rolled up."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.base = cls.now // 86400 * 86400 - 2 * 86400
        cls.times = [cls.base + HOUR + t for t in range(0, 2 * HOUR, 20)]
        answer = cls.node.post_raw([line("rd.wave", t, (t * 7919) % 1000 / 7) for t in cls.times] +
                                   [line("rd.count", t, t * 2, "L") for t in cls.times])
        assert answer.json()["errors"] == 0, answer
        answer = cls.node.get("/raw/rollup?starting_block_floor=%d" % cls.base)
        assert answer.status == 200, answer
        last = lambda name, span: cls.ask(name, span, get_engine="nnt", type="count").json()[-1:]
        wait_for(lambda: all(last(name, span) == [[cls.times[-1] // width * width, width // 20]]
                             for name in ("rd.wave", "rd.count") for span, width in (("60s", 60), ("300s", 300))),
                 "the rollup")

    @classmethod
    def ask(cls, name, span, start=0, end=3 * HOUR, **more):
        return cls.node.get(path_of(name, cls.base + start, cls.base + end, span, **more))

    def test_same_bytes_from_cells_and_samples(self):
        for name in ("rd.wave", "rd.count"):
            for span in ("60s", "300s"):
                for part in ("count", "average", "average_stddev", "derivative", "counter"):
                    stored = self.ask(name, span, type=part, get_engine="nnt")
                    self.assertEqual(stored.status, 200, stored)
                    made = dict(map(tuple, self.ask(name, span, type=part, get_engine="recalc").json()))
                    got = dict(map(tuple, stored.json()))
                    self.assertEqual({t: v for t, v in got.items() if v is not None},
                                     {t: v for t, v in made.items() if v is not None}, (name, span, part))

    def test_stored_after_restart(self):
        before = self.ask("rd.wave", "60s", type="all", get_engine="nnt").text
        self.assertEqual(self.node.stop(), 0)
        self.node.start()
        self.assertEqual(self.ask("rd.wave", "60s", type="all", get_engine="nnt").text, before)

    def test_spans(self):
        """One that rollups divide, one that none does, and one finer than all."""
        counts = [v for _, v in self.ask("rd.count", "120s", type="count", get_engine="nnt").json() if v]
        self.assertEqual(counts, [6] * 60)
        for span in ("90s", "20s"):
            answer = self.ask("rd.count", span, get_engine="nnt")
            self.assertEqual((answer.status, answer.reason, answer.json()), (400, "Bad Request", NO_ROLLUP), span)
        answer = self.ask("rd.count", "120s", get_engine="nnt", can_squash="false")
        self.assertEqual((answer.status, answer.json()), (400, NO_ROLLUP))
        self.assertEqual([v for _, v in self.ask("rd.count", "20s", type="count").json() if v], [1] * 360)

    def test_metadata(self):
        answer = self.ask("rd.count", "60s", get_metadata="true")
        first, last = self.times[0], self.times[-1] // 60 * 60
        self.assertEqual((answer.headers["x-nnt-original-epoch-ms"], answer.headers["x-nnt-original-apocalypse-ms"]),
                         (str(first * 1000), str(last * 1000)))
        self.assertFalse([h for h in self.ask("rd.count", "60s").headers if h.startswith("x-nnt-")])


class Owner(http.server.BaseHTTPRequestHandler):
    """The other node: answers what it is told to, and remembers what it was asked."""
    protocol_version = "HTTP/1.1"
    status, headers_out, body, missing = 200, {}, b"[]", 0  # missing: bytes announced and never sent
    asked = []

    def do_GET(self):
        type(self).asked.append((self.path, {k.lower(): v for k, v in self.headers.items()}))
        self.send_response(self.status)
        for name, value in self.headers_out.items():
            self.send_header(name, value)
        self.send_header("Content-Length", str(len(self.body) + self.missing))
        self.end_headers()
        self.wfile.write(self.body)
        self.close_connection = self.missing > 0

    def log_message(self, *args):
        pass


class TwoNodes(Node):
    def topology_xml(self, **_):
        node = '<node id="%s" address="127.0.0.1" port="%d" apiport="%d" weight="100"/>'
        return ('<nodes write_copies="1">' + node % (self.id, 1, 1) +
                node % (self.other_id, self.other_port, self.other_port) + "</nodes>\n")


class Proxied(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Owner)
        threading.Thread(target=cls.server.serve_forever, daemon=True).start()
        cls.addClassCleanup(cls.server.server_close)
        cls.addClassCleanup(cls.server.shutdown)
        TwoNodes.other_id, TwoNodes.other_port = str(uuid.uuid4()), cls.server.server_address[1]
        cls.node = TwoNodes()
        cls.addClassCleanup(cls.node.destroy)
        cls.node.start()
        owners = {}
        for i in range(200):
            name = "px %d" % i
            where = cls.node.get("/locate/json/%s/%s" % (CHECK, urllib.parse.quote(name))).json()["location"]
            owners.setdefault(where[0]["id"], name)
        cls.theirs, cls.mine = owners[TwoNodes.other_id], owners[cls.node.id]

    def setUp(self):
        Owner.status, Owner.headers_out, Owner.body, Owner.missing, Owner.asked = 200, {}, b"[]", 0, []

    def get(self, name=None, headers=None, **more):
        return self.node.request("GET", path_of(name or self.theirs, 600, 1200, "60s", **more), headers=headers or {})

    def test_an_answer_comes_back_as_it_is(self):
        Owner.body = b"NNT1" + bytes(range(256)) * 1000
        Owner.headers_out = {"Content-Type": NNT, "X-NNT-Original-Epoch": "60", "X-NNT-Original-Apocalypse-Ms": "70500"}
        answer = self.get(headers={"Accept": NNT + "; q=0.9"}, type="all", get_metadata="true")
        self.assertEqual((answer.status, answer.headers["content-type"], answer.body), (200, NNT, Owner.body))
        self.assertEqual((answer.headers["x-nnt-original-epoch-ms"], answer.headers["x-nnt-original-apocalypse-ms"]),
                         ("60000", "70500"))
        (path, headers), = Owner.asked
        self.assertEqual(path, path_of(self.theirs, 600, 1200, "60s", type="all", get_metadata="true"))
        self.assertEqual((headers["accept"], headers["x-velmar-proxied"]), (NNT + "; q=0.9", self.node.id))

    def test_an_error_comes_back_as_it_is(self):
        Owner.status, Owner.body = 400, json.dumps(NO_ROLLUP).encode()
        Owner.headers_out = {"Content-Type": "application/json"}
        answer = self.get()
        self.assertEqual((answer.status, answer.body), (400, Owner.body))
        Owner.status, Owner.body = 500, b""
        answer = self.get()
        self.assertEqual((answer.status, answer.json()), (500, {"error": "unknown error"}))

    def test_who_answers(self):
        self.assertEqual(self.get(self.mine).text, "[]")
        self.assertEqual(Owner.asked, [])
        for value, sent_on in (("1", False), ("on", False), ("0", True), ("OFF", True)):
            Owner.asked = []
            answer = self.get(headers={"X-Velmar-Proxied": value})
            self.assertEqual(bool(Owner.asked), sent_on, value)
            if not sent_on:
                self.assertEqual((answer.status, answer.json()), (500, {"error": "no acceptable system found"}))
        # what is wrong with a request is said here
        self.assertEqual(self.get(type="x").json(), {"error": "could not parse type argument."})
        self.assertEqual(len(Owner.asked), 1)

    def test_a_peer_that_hangs_up(self):
        Owner.missing = 1000
        for Owner.status in (200, 500):
            answer = self.get()
            self.assertEqual((answer.status, answer.json()), (500, {"error": "unknown error"}))


if __name__ == "__main__":
    unittest.main()
