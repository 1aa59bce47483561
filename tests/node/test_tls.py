"""A listener with TLS: the same requests as without, and clients that do not keep to the protocol."""
import http.client
import os
import random
import re
import shutil
import socket
import ssl
import subprocess
import tempfile
import unittest

from velmar_node import WAIT_S, NodeTest, line, wait_for


class Tls(NodeTest):
    directory = tempfile.mkdtemp(prefix="velmar-tls-")

    @staticmethod
    def edit(text):
        """Puts the listener ahead of the plain one, and lets stalled clients go soon."""
        certificate, key = (os.path.join(Tls.directory, name) for name in ("certificate", "key"))
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", key, "-out", certificate,
                        "-days", "2", "-subj", "/CN=node", "-addext", "subjectAltName=IP:127.0.0.1"],
                       check=True, capture_output=True, timeout=WAIT_S)
        listener = ('<listeners>\n<listener type="http_rest_api" address="127.0.0.1" port="0" ssl="on"><sslconfig>'
                    "<certificate_file>%s</certificate_file><key_file>%s</key_file></sslconfig></listener>\n"
                    % (certificate, key))
        return text.replace("<listeners>", listener).replace("<rest ", '<rest header_timeout="1s" body_timeout="1s" ')

    @classmethod
    def setUpClass(cls):
        cls.addClassCleanup(shutil.rmtree, cls.directory, True)
        super().setUpClass()
        cls.tls_port = int(re.search(r"listening on 127\.0\.0\.1:(\d+) ", cls.node.log()).group(1))
        cls.context = ssl.create_default_context(cafile=os.path.join(cls.directory, "certificate"))

    def connection(self):
        return http.client.HTTPSConnection("127.0.0.1", self.tls_port, timeout=WAIT_S, context=self.context)

    def socket(self):
        return socket.create_connection(("127.0.0.1", self.tls_port), timeout=WAIT_S)

    def tls_socket(self):
        return self.context.wrap_socket(self.socket(), server_hostname="127.0.0.1")

    def read_to_end(self, s):
        answer = b""
        try:
            while piece := s.recv(65536):
                answer += piece
        except (ConnectionResetError, BrokenPipeError, ssl.SSLError):
            pass
        return answer

    def tearDown(self):
        self.assertEqual(self.node.request("GET", "/state", connection=self.connection()).status, 200)

    def test_requests(self):
        """Many requests over one connection; bodies and answers of megabytes."""
        connection = self.connection()
        for i in range(20):
            answer = self.node.request("GET", "/state", connection=connection)
            self.assertEqual((answer.status, answer.json()["current"]), (200, self.node.signature))
        lines = [line("tls.%d" % (i % 4), self.now - i // 4, i) for i in range(60000)]
        self.taken(self.node.post_raw(lines, connection=connection), len(lines))
        for i in range(4):
            plain = self.node.read("tls.%d" % i)
            answer = self.node.request("GET", "/raw/c9b0e0f2-6a6e-4b53-9a62-3f6f3e6f1a11/tls.%d?start=0&end=now" % i,
                                       connection=connection)
            self.assertEqual((answer.status, answer.body), (200, plain.body))
        connection.close()

    def test_single_bytes_and_pipelines(self):
        with self.tls_socket() as s:
            for byte in b"GET /state HTTP/1.1\r\nHost: a\r\n\r\n":
                s.sendall(bytes([byte]))
            s.sendall(b"GET /state HTTP/1.1\r\nHost: a\r\n\r\n" * 50
                      + b"GET /state HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n")
            self.assertEqual(self.read_to_end(s).count(b"HTTP/1.1 200 OK\r\n"), 52)

    def test_a_slow_reader(self):
        """An answer larger than all buffers, read in small steps."""
        lines = [line("tls.slow", self.now - i, 1000000 + i) for i in range(100000)]
        self.taken(self.node.post_raw(lines), len(lines))
        s = socket.socket()
        s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        s.settimeout(WAIT_S)
        s.connect(("127.0.0.1", self.tls_port))
        with self.context.wrap_socket(s, server_hostname="127.0.0.1") as tls:
            tls.sendall(b"GET /raw/c9b0e0f2-6a6e-4b53-9a62-3f6f3e6f1a11/tls.slow?start=0&end=now HTTP/1.1\r\nHost: a\r\n"
                        b"Connection: close\r\n\r\n")
            answer = b""
            while piece := tls.recv(1000):
                answer += piece
        self.assertEqual(answer.count(b".000000]"), len(lines))

    def test_what_is_not_tls(self):
        """Plain requests and garbage are dropped without an answer in the clear."""
        dice = random.Random(5)
        for data in [b"GET /state HTTP/1.1\r\nHost: a\r\n\r\n", b"\x16\x03\x01\x00\x05hello", b"\x80\x2e\x01\x00\x02"] + [
                bytes(dice.randrange(256) for _ in range(dice.randint(1, 500))) for _ in range(50)]:
            with self.socket() as s:
                s.sendall(data)
                self.assertNotIn(b"HTTP/", self.read_to_end(s))

    def test_old_protocols(self):
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        context.load_verify_locations(os.path.join(self.directory, "certificate"))
        context.set_ciphers("ALL:@SECLEVEL=0")
        context.minimum_version = ssl.TLSVersion.MINIMUM_SUPPORTED
        context.maximum_version = ssl.TLSVersion.TLSv1_1
        with self.socket() as s, self.assertRaises((ssl.SSLError, ConnectionResetError)):
            context.wrap_socket(s, server_hostname="127.0.0.1")

    def test_stalled_handshakes(self):
        """Clients that never finish the handshake are closed, and delay nobody."""
        stalled = []
        for i in range(20):
            stalled.append(self.socket())
            stalled[-1].sendall((b"", b"\x16\x03\x01", b"\x16\x03\x01\x40\x00\x01")[i % 3])
        self.assertEqual(self.node.request("GET", "/state", connection=self.connection()).status, 200)
        for s in stalled:
            with s:
                self.assertNotIn(b"HTTP/", self.read_to_end(s))

    def test_cut_bodies(self):
        """A body whose connection breaks, orderly or not, is not acknowledged."""
        head = b"POST /raw HTTP/1.1\r\nHost: a\r\nX-Velmar-Datapoints: 9\r\nContent-Length: 100000\r\n\r\n"
        for orderly in (True, False):
            s = self.tls_socket()
            s.sendall(head + (line("tls.cut", self.now, 1) + "\n").encode() * 9)
            if orderly:
                s.settimeout(WAIT_S)
                try:
                    s.unwrap().close()
                except (OSError, ssl.SSLError):
                    pass
            s.close()
        wait_for(lambda: self.node.get("/capa").json()["requests_in_flight"] <= 1, "the requests to be gone")


class Stalled(NodeTest):
    """Time limits of clients that stop in the middle; one second here."""

    @staticmethod
    def edit(text):
        return text.replace("<rest ", '<rest header_timeout="1s" body_timeout="1s" idle_timeout="1s" ')

    def answer_to(self, data):
        with self.node.socket() as s:
            s.sendall(data)
            answer = b""
            while piece := s.recv(65536):
                answer += piece
            return answer

    def test_header(self):
        for part in (b"G", b"GET /state HTTP/1.1\r\n", b"GET /state HTTP/1.1\r\nHost: a\r\nX: y"):
            answer = self.answer_to(part)
            self.assertTrue(answer.startswith(b"HTTP/1.1 408 "), answer)
            self.assertIn(b"Connection: close", answer)

    def test_header_in_drops(self):
        """Bytes that keep coming do not buy more time."""
        with self.node.socket() as s:
            s.sendall(b"GET /state HTTP/1.1\r\nHost: a\r\nX: ")
            s.settimeout(0.05)
            answer = b""
            for _ in range(20 * WAIT_S):
                try:
                    s.sendall(b"y")
                    answer = s.recv(65536)
                    break
                except TimeoutError:
                    continue
            self.assertTrue(answer.startswith(b"HTTP/1.1 408 "), answer)

    def test_body(self):
        body = (line("stalled", self.now, 1) + "\n").encode()
        for head in (b"POST /raw HTTP/1.1\r\nHost: a\r\nX-Velmar-Datapoints: 9\r\nContent-Length: 100000\r\n\r\n" + body,
                     b"POST /raw HTTP/1.1\r\nHost: a\r\nX-Velmar-Datapoints: 9\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nM\t",
                     b"MERGE /merge/metric HTTP/1.1\r\nHost: a\r\nX-Target-Topology: " + self.node.signature.encode()
                     + b"\r\nContent-Length: 1000\r\n\r\n" + body):
            answer = self.answer_to(head)
            self.assertTrue(answer.startswith(b"HTTP/1.1 408 "), answer)
        wait_for(lambda: self.node.get("/capa").json()["requests_in_flight"] <= 1, "the requests to be gone")

    def test_idle(self):
        """A connection that has had its answer is closed quietly."""
        answer = self.answer_to(b"GET /state HTTP/1.1\r\nHost: a\r\n\r\n")
        self.assertEqual(answer.count(b"HTTP/1.1 "), 1)
        self.assertTrue(answer.startswith(b"HTTP/1.1 200 "), answer)


if __name__ == "__main__":
    unittest.main()
