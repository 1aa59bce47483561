"""MERGE /merge/metric: samples and names that a peer hands over."""
import gzip
import unittest

from velmar_node import CHECK, NodeTest, line, wait_for


def naming(name, category=1, check=CHECK, account=1):
    return "M\t%s\t%s\tcheck\t%s\t%s" % (account, check, name, category)


def merge(node, lines, topology=None, headers=None, **more):
    body = "".join(text + "\n" for text in lines).encode() if isinstance(lines, list) else lines
    return node.request("MERGE", "/merge/metric", body,
                        {"X-Target-Topology": topology or node.signature, **(headers or {})}, **more)


class Merge(NodeTest):
    def merged(self, answer, errors=0):
        self.assertEqual((answer.status, answer.reason, answer.headers["content-type"], answer.text),
                         (200, "VELMAR", "application/json", '{ "errors": %d }' % errors))

    def listed(self, route="raw"):
        return [key.split("-", 5)[5] for key in self.node.get("/%s/list_metrics" % route).json()["metrics"]]

    def test_samples(self):
        """Every form of sample that a put takes; other nodes' journals are not asked."""
        self.merged(merge(self.node, [line("m.n", self.now, 1.5), line("m.L", self.now, 2**64 - 1, "L"),
                                      line("m.n", self.now + 1, "[[null]]"),
                                      "H1\t%d\thost`c_1`%s\tm.hist\tAQEMAAE=" % (self.now, CHECK)]))
        self.assertEqual(self.node.samples("m.n"), [[self.now * 1000, 1.5], [self.now * 1000 + 1000, None]])
        self.assertEqual(self.node.samples("m.L"), [[self.now * 1000, 2**64 - 1]])
        self.assertEqual(len(self.node.samples("m.hist", route="histogram_raw")), 1)
        self.merged(merge(self.node, [line("m.n", self.now, 1.5)]))
        self.assertEqual(len(self.node.samples("m.n")), 2)
        self.merged(merge(self.node, b""))

    def test_names(self):
        """A name makes a metric known; what is known of it stays."""
        self.merged(merge(self.node, [naming("n.plain"), naming("n.tags|ST[b:2,a:1]"), naming("n.hist", 2),
                                      naming("n.hist", 1), naming("n.untold", 0)]))
        self.assertLessEqual({"n.plain", "n.tags|ST[a:1,b:2]", "n.hist", "n.untold"}, set(self.listed()))
        self.assertIn("n.hist", self.listed("histogram"))
        self.assertEqual(self.node.samples("n.plain"), [])
        self.taken(self.node.post_raw([line("n.kept", self.now, 1)]), 1)
        self.merged(merge(self.node, [naming("n.kept", 2), naming("n.kept", 0), naming("n.kept", 2)]))
        self.assertEqual(self.node.samples("n.kept"), [[self.now * 1000, 1]])
        self.taken(self.node.post_raw([line("n.plain", self.now, 2)]), 1)
        self.assertEqual(self.node.samples("n.plain"), [[self.now * 1000, 2]])

    def test_bad_lines(self):
        bad = ["no tabs", "Q\t1", "M\t1", naming("b|ST[a"), naming("b", 8), naming("b", "x"), naming("b", account=-1),
               naming("", 1), line("b", self.now, "x"), line("b", "soon", 1), "x" * 1100000]
        self.merged(merge(self.node, bad + [line("b.good", self.now, 7), naming("b.named"), ""]), len(bad))
        self.assertEqual(self.node.samples("b.good"), [[self.now * 1000, 7]])
        self.assertIn("b.named", self.listed())

    def test_topology(self):
        """Who means another cluster changes nothing."""
        for headers in ({"X-Target-Topology": "0" * 64}, {"X-Target-Topology": ""}, {"X-Target-Topology": "-"}, {}):
            answer = self.node.request("MERGE", "/merge/metric", (line("t.other", self.now, 1) + "\n").encode(), headers)
            self.assertEqual((answer.status, answer.json()), (500, {"error": "target topology mismatch"}))
        self.merged(merge(self.node, [], topology=self.node.signature.upper()))
        self.assertEqual(self.node.read("t.other").status, 404)
        self.assertEqual(self.node.request("PUT", "/merge/metric", b"").status, 405)

    def test_bodies(self):
        """In pieces, packed, large, and without the last newline."""
        lines = [line("body.%d" % (i % 50), self.now - i // 50, i) for i in range(20000)]
        body = "\n".join(lines).encode()
        pieces = (body[i:i + 4099] for i in range(0, len(body), 4099))
        self.merged(merge(self.node, pieces))
        self.assertEqual(sum(len(self.node.samples("body.%d" % i)) for i in range(50)), len(lines))
        self.merged(merge(self.node, gzip.compress(body.replace(b"body.", b"packed.")),
                          headers={"Content-Encoding": "gzip"}))
        self.assertEqual(len(self.node.samples("packed.7")), 400)

    def test_many_names(self):
        self.merged(merge(self.node, [naming("many.%d" % i) for i in range(20000)]))
        self.assertEqual(sum(name.startswith("many.") for name in self.listed()), 20000)

    def test_cut_body(self):
        """A body that ends early is not acknowledged."""
        body = (line("cut", self.now, 1) + "\n").encode() * 1000
        with self.node.socket() as s:
            s.sendall(b"MERGE /merge/metric HTTP/1.1\r\nHost: a\r\nX-Target-Topology: %s\r\nContent-Length: %d\r\n\r\n"
                      % (self.node.signature.encode(), len(body)) + body[:-1])
            s.shutdown(1)
            answer = b""
            try:
                while piece := s.recv(65536):
                    answer += piece
            except ConnectionResetError:
                pass
        self.assertNotIn(b"200", answer.split(b"\r\n")[0])
        wait_for(lambda: self.node.get("/capa").json()["requests_in_flight"] <= 1, "the request to be gone")

    def test_endless_line(self):
        """64 MB without a newline are one error and no memory."""
        def resident_kb():
            with open("/proc/%d/status" % self.node.process.pid) as f:
                return int(next(text for text in f if text.startswith("VmRSS:")).split()[1])

        self.node.get("/state")
        before = resident_kb()
        piece = b"x" * 65536
        self.merged(merge(self.node, (piece for _ in range(1024))), 1)
        self.assertLess(resident_kb() - before, 64 * 1024)

    def test_survives_a_restart(self):
        self.merged(merge(self.node, [line("kept.sample", self.now, 3), naming("kept.name")]))
        self.assertEqual(self.node.stop(), 0)
        self.node.start()
        self.assertEqual(self.node.samples("kept.sample"), [[self.now * 1000, 3]])
        self.assertIn("kept.name", self.listed())


if __name__ == "__main__":
    unittest.main()
