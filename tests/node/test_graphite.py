"""Lines of Graphite's plaintext form, over TCP as nc and collectd send them, and as bodies of requests."""
import concurrent.futures
import gzip
import os
import random
import re
import resource
import shutil
import socket
import subprocess
import tempfile
import time
import unittest
import urllib.parse

from velmar_node import CHECK, GRAPHITE_CHECK, Node, NodeTest, WAIT_S, line, wait_for

COLLECTD = shutil.which("collectd") or shutil.which("collectd", path="/usr/sbin:/usr/local/sbin")


def resident_bytes(pid):
    with open("/proc/%d/status" % pid) as f:
        return int(re.search(r"VmRSS:\s+(\d+) kB", f.read()).group(1)) * 1024


class Base(NodeTest):
    def samples(self, name):
        """[[time in ms, value], ...]; nothing for a metric that is not there."""
        answer = self.node.read(name, "0", "99999999999", check=GRAPHITE_CHECK)
        self.assertIn(answer.status, (200, 404), answer)
        return answer.json() if answer.status == 200 else []

    def wait_samples(self, name, expected):
        try:
            wait_for(lambda: self.samples(name) == expected, "the samples of " + name)
        except AssertionError:
            self.assertEqual(self.samples(name), expected, name)

    def wait_log(self, words):
        """The log, once it holds the words: it is written by a thread of its own."""
        wait_for(lambda: words in self.node.log(), "the log to say: " + words)
        return self.node.log()

    def stat(self, name):
        return self.node.stat("be.graphite." + name)

    def send(self, text):
        with self.node.graphite() as s:
            s.sendall(text if isinstance(text, bytes) else text.encode())


class Tcp(Base):
    def test_values(self):
        cases = [("1", 1), ("-1", -1), ("1.5", 1.5), ("18446744073709551615", 2**64 - 1), ("1e3", 1000),
                 ("18446744073709551616", 2.0**64), ("-9223372036854775808", -2**63)]
        self.send("".join("value.%d %s %d\n" % (i, text, self.now) for i, (text, _) in enumerate(cases)))
        for i, (_, value) in enumerate(cases):
            self.wait_samples("value.%d" % i, [[self.now * 1000, value]])

    def test_separators_line_ends_and_times(self):
        self.send("form.tab\t1\t%d\nform.mixed\t1 %d\nform.crlf 1 %d\r\nform.fraction 1 %d.25\nform.ms 1 %d500\n"
                  % ((self.now,) * 5))
        for name, ms in (("tab", 0), ("mixed", 0), ("crlf", 0), ("fraction", 250), ("ms", 500)):
            self.wait_samples("form." + name, [[self.now * 1000 + ms, 1]])

    def test_tags(self):
        """Tags become stream tags in any order; the name as sent of a known metric finds it again."""
        sent = ("tagged;b=2;a=1", "tagged;a=1;junk;b=2", "tagged|ST[a:1,b:2]")
        for i, name in enumerate(sent * 3):
            self.send("%s %d %d\n" % (name, i, self.now - 10 + i))
            self.wait_samples("tagged|ST[a:1,b:2]", [[(self.now - 10 + j) * 1000, j] for j in range(i + 1)])
        keys = [k for k in self.node.get("/raw/list_metrics").json()["metrics"] if "-tagged" in k]
        self.assertEqual(keys, [GRAPHITE_CHECK + "-tagged|ST[a:1,b:2]"])

    def test_the_same_bytes_in_the_raw_form_are_another_metric(self):
        name = "both;a=1"
        for i in range(2):
            self.taken(self.node.post_raw([line(name, self.now - i, 10 + i, check=GRAPHITE_CHECK)]), 1)
            self.send("%s %d %d\n" % (name, i, self.now - i))
            self.wait_samples("both|ST[a:1]", [[(self.now - j) * 1000, j] for j in range(i, -1, -1)])
        self.assertEqual(self.samples(name), [[(self.now - j) * 1000, 10 + j] for j in (1, 0)])

    def test_bad_lines_cost_only_themselves(self):
        bad = {"lone": "can't find the first space or tab in: lone",
               "two 1": "can't find the second space or tab in: two 1",
               "n" * 4096 + " 1 %d" % self.now: "metric name too long: nnn",
               "old 1 100": "weird or really old timestamp: old 1 100",
               "word 1 soon": "weird or really old timestamp: word 1 soon",
               "far 1 9999999999": "weird or really futuristic timestamp: far 1 9999999999",
               "none x %d" % self.now: "no digits in value: none x",
               "nan nan %d" % self.now: "no digits in value: nan nan",
               "huge 1e999 %d" % self.now: "strtod cannot parse value: huge 1e999"}
        before = {k: self.stat(k) for k in ("records", "errors", "discarded")}
        self.send("".join("%s\nbetween.%d %d %d\n" % (text, i, i, self.now) for i, text in enumerate(bad))
                  + "tag;=x 1 %d\nbetween.last 1 %d\n" % (self.now, self.now))
        for i in range(len(bad)):
            self.wait_samples("between.%d" % i, [[self.now * 1000, i]])
        self.wait_samples("between.last", [[self.now * 1000, 1]])
        log = self.wait_log("listener: Failed to ingest 7 records\n")
        for words in bad.values():
            self.assertIn("[error/graphite] ", next(l for l in log.splitlines() if words in l))
            self.assertIn("Invalid graphite record, " + words, log)
        self.assertIn('Invalid graphite record: cannot parse metric name "tag;=x"', log)
        counted = {k: self.stat(k) - before[k] for k in before}
        self.assertEqual(counted, {"records": 20, "errors": 7, "discarded": 3})

    def test_partial_lines(self):
        """Byte by byte, two connections in turn."""
        texts = ["".join("partial.%d;of=two %d %d\n" % (c, i, self.now - i) for i in range(20)).encode() for c in (0, 1)]
        with self.node.graphite() as a, self.node.graphite() as b:
            for s in (a, b):
                s.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            for at in range(max(map(len, texts))):
                for s, text in ((a, texts[0]), (b, texts[1])):
                    s.sendall(text[at:at + 1])
            for c in (0, 1):
                self.wait_samples("partial.%d|ST[of:two]" % c,
                                  [[(self.now - i) * 1000, i] for i in reversed(range(20))])

    def test_a_line_without_its_end_is_lost(self):
        self.send("ended 1 %d\nunended 1 %d" % (self.now, self.now))
        self.wait_samples("ended", [[self.now * 1000, 1]])
        wait_for(lambda: self.stat("connections") == 0, "the connection to end")
        self.assertEqual(self.samples("unended"), [])

    def test_garbage(self):
        """Random bytes, lines beyond the buffer, a flood of newlines: the node goes on, and memory is bounded."""
        noise = random.Random(1)
        with self.node.graphite() as s:
            s.sendall(b"oversized.before 1 %d\n" % self.now + b"x" * (2 << 20) + b"\noversized.after 1 %d\n" % self.now)
            for name in ("before", "after"):
                self.wait_samples("oversized." + name, [[self.now * 1000, 1]])
            s.sendall(noise.randbytes(1 << 20) + b"\n" * 200000 + b"garbage.after 1 %d\n" % self.now)
            self.wait_samples("garbage.after", [[self.now * 1000, 1]])
        self.wait_log("a line of more than ")
        before = resident_bytes(self.node.process.pid)
        sockets = [self.node.graphite() for _ in range(200)]
        for s in sockets:
            s.sendall(b"y" * 400000)
        for s in sockets:
            s.sendall(b" 1 %d\nflooded 1 %d\n" % (self.now, self.now))
        self.wait_samples("flooded", [[self.now * 1000, 1]])
        self.assertLess(resident_bytes(self.node.process.pid) - before, 60 << 20)
        for s in sockets:
            s.close()

    def test_a_thousand_connections(self):
        """All open at once, each with the beginning of a line before any of them goes on."""
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
        self.addCleanup(resource.setrlimit, resource.RLIMIT_NOFILE, (soft, hard))
        sockets = [self.node.graphite() for _ in range(1000)]
        for i, s in enumerate(sockets):
            s.sendall(b"many.%d;a=b 1 %d\nmany.%d;a=b 2 " % (i, self.now - 1, i))
        wait_for(lambda: self.stat("connections") == 1000, "a thousand connections")
        for s in sockets:
            s.sendall(b"%d\n" % self.now)
        for i in range(1000):
            self.wait_samples("many.%d|ST[a:b]" % i, [[(self.now - 1) * 1000, 1], [self.now * 1000, 2]])
        for s in sockets:
            s.close()
        wait_for(lambda: self.stat("connections") == 0, "their end")

    def test_many_lines(self):
        """More than one read, on four connections: no line is lost, cut or swapped."""
        def client(c):
            self.send("".join("large.%d.%d;of=many %d %d\n" % (c, i % 500, i, self.now - i // 500)
                              for i in range(40000)))

        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            list(pool.map(client, range(4)))
        for c in range(4):
            for metric in (0, 1, 250, 499):
                expected = [[(self.now - i // 500) * 1000, i] for i in range(metric, 40000, 500)]
                self.wait_samples("large.%d.%d|ST[of:many]" % (c, metric), expected[::-1])

    @unittest.skipUnless(shutil.which("nc"), "nc is not installed")
    def test_nc(self):
        subprocess.run(["nc", "-q0", "127.0.0.1", str(self.node.graphite_port)], check=True, timeout=WAIT_S,
                       input=b"from.nc;shell=sh 0.25 %d\n" % self.now)
        self.wait_samples("from.nc|ST[shell:sh]", [[self.now * 1000, 0.25]])

    @unittest.skipUnless(COLLECTD, "collectd is not installed")
    def test_collectd(self):
        """collectd with the configuration of docs/GRAPHITE.md, faster."""
        with open(os.path.join(os.path.dirname(__file__), "..", "..", "docs", "GRAPHITE.md")) as f:
            conf = re.search(r"```\n(LoadPlugin write_graphite.*?)```", f.read(), re.S).group(1)
        self.assertIn('Port "2003"', conf)
        directory = tempfile.mkdtemp(prefix="velmar-collectd-")
        self.addCleanup(shutil.rmtree, directory)
        path = os.path.join(directory, "collectd.conf")
        with open(path, "w") as f:
            f.write('Hostname "testhost"\nFQDNLookup false\nInterval 0.1\nBaseDir "%s"\nPIDFile "%s/pid"\n'
                    "LoadPlugin load\nLoadPlugin cpu\n" % (directory, directory)
                    + conf.replace('"2003"', '"%d"' % self.node.graphite_port))
        collectd = subprocess.Popen([COLLECTD, "-f", "-C", path], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

        def stop():
            collectd.terminate()
            collectd.wait(WAIT_S)

        def metrics():
            return {k[37:] for k in self.node.get("/raw/list_metrics").json()["metrics"] if "collectd." in k}

        self.addCleanup(stop)
        names = wait_for(lambda: {n for n in metrics() if ".cpu" in n} and {n for n in metrics() if ".load" in n}
                         and metrics(), "metrics of collectd")
        self.assertTrue(all(n.startswith("collectd.testhost.") for n in names), names)
        some = sorted(names)[0]
        wait_for(lambda: len(self.samples(some)) >= 2, "two samples of " + some)
        self.assertTrue(all(abs(ms / 1000 - self.now) < 3600 for ms, _ in self.samples(some)))


class Http(Base):
    def post(self, text, path="/graphite/1/" + GRAPHITE_CHECK, **headers):
        return self.node.request("POST", path, text if isinstance(text, bytes) else text.encode(),
                                 {k.replace("_", "-"): v for k, v in headers.items()})

    def test_counts(self):
        answer = self.post("http.a 1 %d\nbad\nhttp.b 2.5 %d\nold 1 100\nhttp.c 3 %d" % ((self.now,) * 3))
        self.assertEqual((answer.status, answer.headers["content-type"], answer.text),
                         (200, "application/json",
                          '{ "records": 5, "updated": 3, "misdirected": 0, "discarded": 1, "errors": 1 }'))
        self.assertEqual([self.samples("http." + n) for n in "abc"], [[[self.now * 1000, v]] for v in (1, 2.5, 3)])
        self.taken(self.post(b""), 0)

    def test_paths(self):
        body = "path.a;x=y 1 %d\n" % self.now
        upper = GRAPHITE_CHECK.upper()
        for path in ("1/" + upper, "1/%s/anything" % upper, "1/%s/anything/" % upper, "0001/%s/A1" % upper):
            self.taken(self.post(body, "/graphite/" + path), 1)
        self.assertEqual(self.samples("path.a|ST[x:y]"), [[self.now * 1000, 1]])
        for path in ("x/" + CHECK, "-1/" + CHECK, CHECK, "1/" + CHECK[1:], "1/%s/" % CHECK, "1/%s/no-dash" % CHECK,
                     "1/%s/a/b" % CHECK):
            self.assertEqual(self.post(body, "/graphite/" + path).status, 404, path)
        self.assertEqual(self.post(body, "/graphite/99999999999/" + CHECK).status, 400)
        self.assertEqual(self.node.get("/graphite/1/" + CHECK).status, 405)
        self.taken(self.post(body, "/graphite/7/" + CHECK), 1)
        self.assertEqual(self.node.samples("path.a|ST[x:y]"), [[self.now * 1000, 1]])

    def test_bodies(self):
        """Several chunks, parts of lines, gzip, a line beyond the buffer, and a body that cannot be read."""
        count = 40000
        body = "".join("body.%d;of=many %d %d\n" % (i % 400, i, self.now - i // 400) for i in range(count)).encode()
        self.taken(self.post(body), count)
        self.taken(self.post(gzip.compress(body.replace(b"body", b"gzip")), Content_Encoding="gzip"), count)
        for name in ("body", "gzip"):
            self.assertEqual(self.samples("%s.399|ST[of:many]" % name),
                             [[(self.now - i // 400) * 1000, i] for i in range(399, count, 400)][::-1])
        answer = self.post(b"long.a 1 %d\n" % self.now + b"x" * 600000 + b" 1 %d\nlong.b 1 %d" % (self.now, self.now))
        self.taken(answer, 2, errors=1)
        self.assertEqual(answer.json()["records"], 3)
        broken = self.post(gzip.compress(body)[:5000], Content_Encoding="gzip")
        self.assertEqual((broken.status, broken.reason, broken.text),
                         (400, "READ ERROR", '{ "error": "unable to read POST data" }'))
        self.wait_log("READ error on POST data!!\n")


class Life(Base):
    """Ends of the process; each test has a node of its own."""

    @classmethod
    def setUpClass(cls):
        cls.now = int(time.time())

    def setUp(self):
        self.node = Node()
        self.addCleanup(self.node.destroy)

    def test_kill(self):
        """What could be read before a kill -9 can be read after it, and its metrics are known or met again."""
        self.node.start()
        for start in (0, 100):
            text = "".join("killed.%d;a=b %d %d\n" % (i % 50, i, self.now - i) for i in range(start, start + 100))
            with self.node.graphite() as s:
                s.sendall(text.encode())
                for metric in range(50):
                    expected = [[(self.now - i) * 1000, i] for i in range(metric, start + 100, 50)][::-1]
                    self.wait_samples("killed.%d|ST[a:b]" % metric, expected)
                self.node.kill()
            self.node.start()
            for metric in range(50):
                expected = [[(self.now - i) * 1000, i] for i in range(metric, start + 100, 50)][::-1]
                self.assertEqual(self.samples("killed.%d|ST[a:b]" % metric), expected)

    def test_an_orderly_stop_takes_what_was_sent(self):
        self.node.start()
        sockets = [self.node.graphite() for _ in range(20)]
        for i, s in enumerate(sockets):
            s.sendall(b"".join(b"stopped.%d %d %d\n" % (i, j, self.now - j) for j in range(500)) + b"part 1")
        wait_for(lambda: self.stat("connections") == 20, "the connections")
        self.assertEqual(self.node.stop(), 0)
        for s in sockets:
            s.close()
        self.node.start()
        for i in range(20):
            self.assertEqual(self.samples("stopped.%d" % i), [[(self.now - j) * 1000, j] for j in reversed(range(500))])

    def test_a_listener_without_its_check(self):
        for config, words in ((r"\1", "its configuration has no check_uuid"),
                              (r"<check_uuid>nonsense</check_uuid>\1", 'its check_uuid "nonsense" is none')):
            node = Node(edit=lambda text: re.sub(r"<check_uuid>.*</check_uuid>\s*(<account_id>)", config, text))
            self.addCleanup(node.destroy)
            node.start()
            self.assertRegex(node.log(), r"\[error/graphite\].* graphite listener 127\.0\.0\.1:0: " + re.escape(words))
            with node.graphite() as s:
                s.sendall(b"lost 1 %d\n" % self.now)
                try:
                    self.assertEqual(s.recv(1), b"")
                except ConnectionResetError:
                    pass
            self.assertEqual(node.get("/raw/list_metrics").json()["metrics"], [])
            node.kill()

    def test_configurations(self):
        """A buffer that is too small ends the start; a pickle listener is not opened; two have their own checks."""
        small = Node(edit=lambda text: text.replace("<account_id>1<", "<buffer_size>511999</buffer_size><account_id>1<"))
        self.addCleanup(small.destroy)
        small.launch("-D", "-D")
        self.assertNotEqual(small.wait_end(), 0)
        self.assertIn("buffer_size must lie between 512000 and ", small.log())

        def edit(text):
            other = ('<listener type="graphite" address="127.0.0.1" port="0"><config><check_uuid>%s</check_uuid>'
                     "<account_id>9</account_id></config></listener>" % CHECK)
            pickle = '<listener type="graphite_pickle" address="127.0.0.1" port="0"><config/></listener>'
            return text.replace("</listeners>", other + pickle + "</listeners>")

        node = Node(edit=edit)
        self.addCleanup(node.destroy)
        node.start()
        self.assertNotIn("(graphite_pickle)", node.log())
        with node.graphite() as s:  # the last one
            s.sendall(b"second 1 %d\n" % self.now)
            wait_for(lambda: node.read("second").status == 200 and node.samples("second") == [[self.now * 1000, 1]],
                     "the sample")


if __name__ == "__main__":
    unittest.main()
