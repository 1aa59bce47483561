"""POST /raw in the text form: what is taken, what is refused, and how the body arrives."""
import base64
import concurrent.futures
import gzip
import socket
import unittest

from velmar_node import CHECK, NodeTest, line, wait_for


class PutText(NodeTest):
    def test_every_type(self):
        """Limits of each letter, as they come back."""
        cases = [("i", "-2147483648", -2147483648), ("i", "2147483648", -2147483648), ("I", "4294967295", 4294967295),
                 ("I", "4294967296", 0), ("l", "-9223372036854775808", -9223372036854775808),
                 ("l", "9223372036854775807", 9223372036854775807), ("L", "18446744073709551615", 2**64 - 1),
                 ("n", "0.25", 0.25), ("n", "-1e-3", -0.001), ("n", "1e300", 1e300), ("n", "0x10", 16),
                 ("n", "[[null]]", None), ("L", "[[null]]", None)]
        answer = self.node.post_raw([line("type.%d" % i, self.now, text, letter)
                                     for i, (letter, text, _) in enumerate(cases)])
        self.taken(answer, len(cases))
        for i, (letter, text, value) in enumerate(cases):
            self.assertEqual(self.node.samples("type.%d" % i), [[self.now * 1000, value]], (letter, text))

    def test_times(self):
        times = {"t.s": (self.now, self.now * 1000), "t.ms": ("%d.5" % self.now, self.now * 1000 + 500),
                 "t.dot": ("%d." % self.now, self.now * 1000), "t.three": ("%d.057" % self.now, self.now * 1000 + 57)}
        self.taken(self.node.post_raw([line(name, sent, 1) for name, (sent, _) in times.items()]), len(times))
        for name, (_, stored) in times.items():
            self.assertEqual(self.node.samples(name), [[stored, 1]], name)
        far = self.now + 3651 * 86400, self.now - 3651 * 86400
        self.taken(self.node.post_raw([line("t.far", t, 1) for t in far]), 0, errors=2)

    def test_bad_lines_cost_only_themselves(self):
        good = [line("good.%d" % i, self.now, i) for i in range(3)]
        bad = [
            line("bad", self.now, "1", "x"),                       # no such letter
            line("bad", self.now, "1", "0"),                       # the guess
            line("bad", self.now, "99999999999999999999", "l"),    # beyond 64 bits
            line("bad", self.now, "-1", "L"),
            line("bad", self.now, "1.5", "i"),
            line("bad", self.now, ""),
            line("bad", self.now, "nan"),
            line("bad", self.now, "inf"),
            line("bad", self.now, "1 "),
            line("bad", self.now, "1") + "\r",                     # a line ends with a newline alone
            line("bad", "soon", "1"),
            line("bad|ST[a:b", self.now, "1"),
            line("bad|ST[:]", self.now, "1"),
            line("", self.now, "1"),
            line("bad", self.now, "1", check="c9b0e0f2-6a6e-4b53-9a62-3f6f3e6f1azz"),
            "M\t%d\tshort\tbad\tn\t1" % self.now,
            "M\t%d" % self.now,
            "S\t%d\ta\tb\tn\t1" % self.now,
            "Q\t1",
            "no tabs at all",
            "H1\t%d\thost`c_1`%s\tbad\tnot base64!" % (self.now, CHECK),
            "H1\t%d\thost`c_1`%s\tbad\tAQIWAAcMAAU=" % (self.now, CHECK),  # bins out of order
        ]
        lines = []
        for i, text in enumerate(bad):
            lines += [text, line("between.%d" % i, self.now, i)]
        answer = self.node.post_raw(lines + good)
        self.taken(answer, len(bad) + len(good), errors=len(bad))
        self.assertEqual(answer.json()["records"], 2 * len(bad) + len(good))
        for i in range(len(bad)):
            self.assertEqual(self.node.samples("between.%d" % i), [[self.now * 1000, i]])
        self.assertEqual(self.node.read("bad").status, 404)

    def test_header(self):
        words = {"error": "X-Velmar-Datapoints header must be present and positive"}
        body = (line("header", self.now, 1) + "\n").encode()
        for headers in ({}, {"X-Velmar-Datapoints": "0"}, {"X-Velmar-Datapoints": "-3"}, {"X-Velmar-Datapoints": "x"}):
            answer = self.node.request("POST", "/raw", body, headers)
            self.assertEqual((answer.status, answer.reason, answer.json()), (500, "ERROR", words))
        self.assertEqual(self.node.read("header").status, 404)
        self.taken(self.node.post_raw(b"", count=5), 0)
        self.assertEqual(self.node.request("GET", "/raw").status, 405)

    def test_lengths(self):
        """Names up to 4095 bytes; a line beyond the read buffer is one error, what follows it is taken."""
        longest, too_long = "n" * 4095, "n" * 4096
        self.taken(self.node.post_raw([line(longest, self.now, 1), line(too_long, self.now, 1)]), 1, errors=1)
        self.assertEqual(self.node.samples(longest), [[self.now * 1000, 1]])
        huge = line("h" * (3 << 20), self.now, 1)
        answer = self.node.post_raw([line("before", self.now, 1), huge, line("after", self.now, 2)])
        self.taken(answer, 2, errors=1)
        self.assertEqual(self.node.samples("after"), [[self.now * 1000, 2]])

    def test_large_body(self):
        """Several chunks, parsed in parallel: no line is lost or cut, and the last needs no newline."""
        count = 60000
        body = "\n".join(line("large.%d|ST[of:many]" % (i % 600), self.now - i // 600, i) for i in range(count))
        self.assertGreater(len(body), 4 << 20)
        self.taken(self.node.post_raw(body, count=count), count)
        for metric in (0, 1, 299, 599):
            expected = [[(self.now - i // 600) * 1000, i] for i in range(metric, count, 600)]
            self.assertEqual(self.node.samples("large.%d|ST[of:many]" % metric), expected[::-1])

    def test_chunked_and_gzip(self):
        lines = [line("coded.%d" % i, self.now, i) for i in range(500)]
        body = "".join(text + "\n" for text in lines).encode()
        pieces = [body[i:i + 777] for i in range(0, len(body), 777)]
        headers = {"X-Velmar-Datapoints": "500", "Transfer-Encoding": "chunked"}
        connection = self.node.connection()
        connection.request("POST", "/raw", iter(pieces), headers, encode_chunked=True)
        response = connection.getresponse()
        self.assertEqual((response.status, b'"updated": 500' in response.read()), (200, True))
        connection.close()
        self.assertEqual(self.node.samples("coded.499"), [[self.now * 1000, 499]])
        again = gzip.compress(body.replace(b"coded", b"zipped"))
        self.taken(self.node.post_raw(again, count=500, Content_Encoding="gzip"), 500)
        self.assertEqual(self.node.samples("zipped.499"), [[self.now * 1000, 499]])
        broken = self.node.post_raw(again[:len(again) // 2], count=500, Content_Encoding="gzip")
        self.assertEqual(broken.status, 400)

    def test_small_pieces(self):
        """A line cut by the end of a read is joined with what follows, wherever the cut is."""
        body = "".join(line("piece.%d" % i, self.now, i) + "\n" for i in range(30)).encode()
        with self.node.socket() as s:
            s.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            s.sendall(b"POST /raw HTTP/1.1\r\nHost: a\r\nX-Velmar-Datapoints: 30\r\nContent-Length: %d\r\n"
                      b"Expect: 100-continue\r\nConnection: close\r\n\r\n" % len(body))
            self.assertIn(b"HTTP/1.1 100 ", s.recv(65536))
            for i in range(len(body)):
                s.sendall(body[i:i + 1])
            answer = b""
            while piece := s.recv(65536):
                answer += piece
        self.assertIn(b'"updated": 30', answer)
        self.assertEqual(self.node.samples("piece.29"), [[self.now * 1000, 29]])

    def test_many_clients(self):
        """200 connections at once, several requests on each; all is acknowledged and all is there."""
        def client(number):
            connection = self.node.connection()
            for r in range(5):
                answer = self.node.post_raw([line("client.%d" % number, self.now - s, s + 100 * r + number)
                                             for s in range(10 * r, 10 * r + 10)], connection=connection)
                if answer.json().get("updated") != 10:
                    return answer
            connection.close()
            expected = [[(self.now - s) * 1000, s + 100 * (s // 10) + number] for s in reversed(range(50))]
            got = self.node.samples("client.%d" % number)
            return None if got == expected else (number, got)

        with concurrent.futures.ThreadPoolExecutor(200) as pool:
            self.assertEqual([r for r in pool.map(client, range(200)) if r], [])

    def test_pipelined(self):
        """Requests sent at once on one connection are answered in their order."""
        requests = b""
        for i in range(20):
            body = (line("pipe", self.now - i, i) + "\n").encode() * (i + 1)
            requests += (b"POST /raw HTTP/1.1\r\nHost: a\r\nX-Velmar-Datapoints: 1\r\nContent-Length: %d\r\n%s\r\n"
                         % (len(body), b"Connection: close\r\n" if i == 19 else b"") + body)
        with self.node.socket() as s:
            s.sendall(requests)
            answer = b""
            while piece := s.recv(65536):
                answer += piece
        places = [answer.find(b'"records": %d,' % (i + 1)) for i in range(20)]
        self.assertNotIn(-1, places)
        self.assertEqual(places, sorted(places))
        self.assertEqual(len(self.node.samples("pipe")), 20)

    def test_same_time_twice(self):
        """Of two samples of one time the greater in absolute value stays, whichever came first."""
        for values in ((5, -9), (-9, 5)):
            name = "twice.%d" % values[0]
            for value in values:
                self.taken(self.node.post_raw([line(name, self.now, value, "i")]), 1)
            self.assertEqual(self.node.samples(name), [[self.now * 1000, -9]], values)

    def test_names_are_canonical(self):
        """Tags in any order and any encoding name one metric."""
        encoded = 'b"%s"' % base64.b64encode(b"z").decode()
        self.taken(self.node.post_raw([line("canon|ST[b:z,a:1]", self.now - 2, 1), line("canon|ST[a:1,b:z]", self.now - 1, 2),
                                       line("canon|ST[a:1,b:%s]" % encoded, self.now, 3)]), 3)
        expected = [[(self.now - 2 + i) * 1000, i + 1] for i in range(3)]
        self.assertEqual(self.node.samples("canon|ST[a:1,b:z]"), expected)
        self.assertEqual(self.node.samples("canon|ST[b:z,a:1]"), expected)
        keys = [k for k in self.node.get("/raw/list_metrics").json()["metrics"] if "canon" in k]
        self.assertEqual(keys, ["%s-canon|ST[a:1,b:z]" % CHECK])

    def test_switched_off(self):
        self.addCleanup(self.node.get, "/ingestion?control=all-on")
        self.assertEqual(self.node.get("/ingestion?control=raw-off").json(), {"disabled": ["raw"]})
        answer = self.node.post_raw([line("off", self.now, 1)])
        self.assertEqual((answer.status, answer.json()), (200, {"stats": "raw ingestion is currently disabled"}))
        self.assertEqual(self.node.get("/ingestion").json(), {"disabled": ["raw"]})
        wrong = self.node.get("/ingestion?control=raw")
        self.assertIn("Invalid ingestion path control specified: raw", wrong.text)
        self.assertEqual(self.node.get("/ingestion").json(), {"disabled": ["raw"]})
        self.assertEqual(sorted(self.node.get("/ingestion?control=all-off").json()["disabled"]),
                         ["graphite", "opentsdb", "raw"])
        self.assertEqual(self.node.get("/ingestion?control=all-on").json(), {"disabled": []})
        self.assertEqual(self.node.read("off").status, 404)
        self.taken(self.node.post_raw([line("off", self.now, 1)]), 1)


if __name__ == "__main__":
    unittest.main()
