"""Instances, signals, the monitor, and that what was taken is there after every kind of end."""
import os
import signal
import time
import unittest

from velmar_node import CHECK, Node, line, run_velmard, wait_for


class Life(unittest.TestCase):
    def setUp(self):
        self.node = Node()
        self.addCleanup(self.node.destroy)
        self.now = int(time.time())

    def control(self, word):
        return run_velmard("-k", word, "-c", self.node.conf)[0]

    def test_instance(self):
        node = self.node.start()
        self.assertEqual(self.control("status"), 0)
        status, _, err = run_velmard("-D", "-D", "-c", node.conf, "-i", node.id)
        self.assertEqual(status, 1, err)
        self.assertEqual(node.get("/state").json()["identity"], node.id)
        self.assertEqual(self.control("stop"), 0)
        self.assertEqual(node.wait_end(), 0)
        self.assertEqual(self.control("status"), 1)

    def test_term_finishes_requests(self):
        """A request that is under way when the stop begins gets its answer, and its sample is there afterwards."""
        node = self.node.start()
        body = (line("last.words", self.now, 7) + "\n").encode()
        with node.socket() as s:
            s.sendall(b"POST /raw HTTP/1.1\r\nHost: a\r\nX-Velmar-Datapoints: 1\r\nContent-Length: %d\r\n\r\n" % len(body))
            s.sendall(body[:10])
            wait_for(lambda: node.stat("be.raw.gates.put_start") == 1, "the request to be in the handler")
            node.process.send_signal(signal.SIGTERM)
            wait_for(lambda: "shutting down" in node.log(), "the stop to begin")
            s.sendall(body[10:])
            answer = b""
            while b"}" not in answer:
                piece = s.recv(65536)
                self.assertTrue(piece, answer)
                answer += piece
        self.assertIn(b'"updated": 1', answer)
        self.assertEqual(node.wait_end(), 0)
        node.start()
        self.assertEqual(node.samples("last.words"), [[self.now * 1000, 7]])

    def test_hangup_finds_topologies(self):
        node = self.node.start()
        signature = node.install_topology(node.topology_xml(weight=99))
        path = "/topology/xml/" + signature
        self.assertEqual(node.get(path).status, 404)
        with open(os.path.join(node.topology_dir, "f" * 64), "w") as f:
            f.write("no XML at all")
        node.process.send_signal(signal.SIGHUP)
        wait_for(lambda: node.get(path).status == 200, "the new topology")
        self.assertIn("SIGHUP received, performing reload\n", node.log())
        self.assertIn("Not a valid XML file: ", node.log())
        self.assertEqual(node.get("/state").json()["current"], node.signature)

    def test_hangup_with_a_broken_configuration(self):
        node = self.node.start()
        node.write_conf("<velmar>")
        node.process.send_signal(signal.SIGHUP)
        self.assertEqual(node.wait_end(), 255)
        self.assertIn("Cannot load config: '%s'" % node.conf, node.log())

    def children(self):
        with open("/proc/%d/task/%d/children" % (self.node.process.pid, self.node.process.pid)) as f:
            return [int(pid) for pid in f.read().split()]

    def test_monitor(self):
        """The monitor brings a killed child back with all its data; a stop ends both."""
        node = self.node.start("-D")
        self.assertEqual(node.post_raw([line("survivor", self.now, 1.5)]).json()["updated"], 1)
        (child,) = self.children()
        os.kill(child, signal.SIGKILL)
        node.wait_ready(times=2)
        self.assertNotEqual(self.children(), [child])
        self.assertEqual(node.samples("survivor"), [[self.now * 1000, 1.5]])
        self.assertEqual(self.control("stop"), 0)
        self.assertEqual(node.wait_end(), 0)

    def test_ingestion_control_is_not_kept(self):
        node = self.node.start()
        self.assertEqual(node.get("/ingestion?control=all-off").status, 200)
        node.stop()
        node.start()
        self.assertEqual(node.get("/ingestion").json(), {"disabled": []})

    def write_some(self, round_number):
        lines = [line("keep.%d|ST[round:%d]" % (i, round_number), self.now - s, "%d.%d" % (i, s))
                 for i in range(20) for s in range(10)]
        lines.append("H1\t%d\thost`check`c_1`%s\tkeep.hist|ST[round:%d]\tAQIMAAcWAAU=" % (self.now, CHECK, round_number))
        answer = self.node.post_raw(lines)
        self.assertEqual(answer.json().get("updated"), len(lines), answer)

    def check_all(self, rounds):
        expected = {"keep.%d" % i: [[(self.now - s) * 1000, float("%d.%d" % (i, s))] for s in reversed(range(10))]
                    for i in range(20)}
        for r in range(rounds):
            for name, samples in expected.items():
                self.assertEqual(self.node.samples("%s|ST[round:%d]" % (name, r)), samples, (name, r))
            self.assertEqual(self.node.samples("keep.hist|ST[round:%d]" % r, route="histogram_raw"),
                             [[self.now, {"+12e-001": 7, "+22e-001": 5}]])

    def test_restarts_keep_everything(self):
        """Three ends: in order, by kill -9, by kill -9 during a start."""
        node = self.node.start()
        self.write_some(0)
        self.assertEqual(node.stop(), 0)
        node.start()
        self.check_all(1)
        self.write_some(1)
        node.kill()
        node.launch()
        wait_for(lambda: "Begin velmard initialization sequence" in node.log(), "the start to begin")
        node.kill()
        node.start()
        self.check_all(2)
        self.write_some(2)
        self.check_all(3)
        keys = node.get("/raw/list_metrics").json()["metrics"]
        self.assertEqual(sorted(keys), sorted("%s-keep.%d|ST[round:%d]" % (CHECK, i, r)
                                              for i in range(20) for r in range(3)))


if __name__ == "__main__":
    unittest.main()
