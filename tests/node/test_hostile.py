"""Clients that send garbage, stall, lie about lengths or go away: they are refused, and nobody else notices."""
import random
import socket
import unittest

from velmar_node import NodeTest, line, wait_for

RESIDENT_LIMIT_KB = 700 * 1024


class Hostile(NodeTest):
    def tearDown(self):
        """Whatever happened, the node still takes and gives samples, and holds no more memory than it may."""
        self.assertIsNone(self.node.process.poll(), self.node.log()[-2000:])
        name = "alive." + self.id().rsplit(".", 1)[-1]
        self.taken(self.node.post_raw([line(name, self.now, 1)]), 1)
        self.assertEqual(self.node.samples(name), [[self.now * 1000, 1]])
        self.assertLess(self.resident_kb(), RESIDENT_LIMIT_KB)

    def resident_kb(self):
        with open("/proc/%d/status" % self.node.process.pid) as f:
            return int(next(text for text in f if text.startswith("VmRSS:")).split()[1])

    def exchange(self, data):
        """Sends, then reads until the node closes."""
        with self.node.socket() as s:
            try:
                s.sendall(data)
                answer = b""
                while piece := s.recv(65536):
                    answer += piece
            except (ConnectionResetError, BrokenPipeError):
                pass
            return answer

    def test_garbage(self):
        dice = random.Random(3)
        for data in (b"\0" * 100 + b"\r\n\r\n", b"GET\r\n\r\n", b"GET / HTTP/9.9\r\n\r\n", b"\x16\x03\x01\x02\0\x01\0\r\n\r\n",
                     b"POST /raw HTTP/1.1\r\nHost: a\r\nContent-Length: x\r\n\r\n",
                     b"POST /raw HTTP/1.1\r\nHost: a\r\nContent-Length: -5\r\n\r\n",
                     b"POST /raw HTTP/1.1\r\nHost: a\r\nContent-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n"):
            self.assertTrue(self.exchange(data).startswith(b"HTTP/1.1 400 "), data)
        for _ in range(100):
            self.exchange(bytes(dice.randrange(256) for _ in range(dice.randint(1, 2000))) + b"\r\n\r\n")

    def test_endless_header(self):
        """A header block of a gigabyte is refused after 64 KiB."""
        with self.node.socket() as s:
            s.sendall(b"GET /state HTTP/1.1\r\nHost: a\r\n")
            sent = 0
            try:
                while sent < 1 << 30:
                    sent += s.send(b"X-Filler: " + b"a" * 8000 + b"\r\n")
            except OSError:
                pass
            self.assertLess(sent, 16 << 20)
        answer = self.exchange(b"GET /state HTTP/1.1\r\nHost: a\r\nX: " + b"a" * 70000)
        self.assertTrue(answer == b"" or answer.startswith(b"HTTP/1.1 431 "), answer[:100])

    def test_promised_gigabyte(self):
        """Clients that announce a gigabyte and send a line cost no memory, and their going away no harm."""
        before = self.resident_kb()
        clients = []
        for _ in range(50):
            s = self.node.socket()
            s.sendall(b"POST /raw HTTP/1.1\r\nHost: a\r\nX-Velmar-Datapoints: 1\r\nContent-Length: 1073741824\r\n\r\n"
                      + (line("promised", self.now, 1) + "\n").encode() * 3)
            clients.append(s)
        wait_for(lambda: self.node.get("/capa").json()["requests_in_flight"] >= 50, "the requests to be under way")
        self.assertLess(self.resident_kb() - before, 100 * 1024)
        for s in clients:
            s.close()
        wait_for(lambda: self.node.get("/capa").json()["requests_in_flight"] <= 1, "the requests to be gone")

    def test_stalled(self):
        """Half-sent requests of many clients delay nobody."""
        stalled = []
        for i in range(100):
            s = self.node.socket()
            s.sendall((b"G", b"GET /state HTTP/1.1\r\nHo", b"POST /raw HTTP/1.1\r\nHost: a\r\nX-Velmar-Datapoints: 9\r\n"
                       b"Transfer-Encoding: chunked\r\n\r\n5\r\nM\t1")[i % 3])
            stalled.append(s)
        for i in range(50):
            self.taken(self.node.post_raw([line("unstalled", self.now - i, i)]), 1)
        self.assertEqual(len(self.node.samples("unstalled")), 50)
        for s in stalled:
            s.close()

    def test_cut_bodies(self):
        """A body that ends early is not acknowledged; the node drops the connection and goes on."""
        body = (line("cut", self.now, 1) + "\n").encode() * 1000
        for cut in (0, 1, len(body) // 2, len(body) - 1):
            with self.node.socket() as s:
                s.sendall(b"POST /raw HTTP/1.1\r\nHost: a\r\nX-Velmar-Datapoints: 1000\r\nContent-Length: %d\r\n\r\n"
                          % len(body) + body[:cut])
                s.shutdown(socket.SHUT_WR)
                answer = b""
                try:
                    while piece := s.recv(65536):
                        answer += piece
                except ConnectionResetError:
                    pass
                self.assertNotIn(b'"updated"', answer, cut)

    def test_readers_that_leave(self):
        """Clients that ask for much and read nothing, then go."""
        for part in range(10):
            self.node.post_raw([line("wide", self.now - part * 10000 - s, s) for s in range(10000)])
        path = "/raw/c9b0e0f2-6a6e-4b53-9a62-3f6f3e6f1a11/wide?start=0&end=now"
        readers = []
        for _ in range(30):
            s = socket.socket()
            s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            s.connect(("127.0.0.1", self.node.port))
            s.sendall(b"GET %s HTTP/1.1\r\nHost: a\r\n\r\n" % path.encode())
            readers.append(s)
        wait_for(lambda: self.node.get("/capa").json()["requests_in_flight"] >= 8, "the reads to be under way")
        self.assertLess(self.resident_kb(), RESIDENT_LIMIT_KB)
        for s in readers:
            s.close()
        wait_for(lambda: self.node.get("/capa").json()["requests_in_flight"] <= 1, "the reads to end")
        self.assertEqual(len(self.node.samples("wide")), 100000)

    def test_zip_bomb(self):
        import gzip
        bomb = gzip.compress(b"\n" * (256 << 20), 9)
        answer = self.node.post_raw(bomb, count=1, Content_Encoding="gzip")
        self.assertIn(answer.status, (200, 400, 413), answer)
        self.assertLess(self.resident_kb(), RESIDENT_LIMIT_KB)


if __name__ == "__main__":
    unittest.main()
