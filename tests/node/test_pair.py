"""Two nodes that share their metrics: each metric has one owner."""
import time
import unittest
import urllib.parse
import uuid

from test_merge import merge, naming
from velmar_node import CHECK, Node, line


class Pair(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        ids = [str(uuid.uuid4()) for _ in range(2)]
        xml = '<nodes write_copies="1">%s</nodes>' % "".join(
            '<node id="%s" address="127.0.0.1" port="1" apiport="1" weight="170"/>' % i for i in ids)
        cls.nodes = []
        for i in ids:
            cls.nodes.append(Node(node_id=i, topology=xml))
            cls.addClassCleanup(cls.nodes[-1].destroy)
            cls.nodes[-1].start()
        cls.introduce()
        cls.now = int(time.time())

    @classmethod
    def introduce(cls):
        """Tells each node where the other one is."""
        where = "".join('<node id="%s" ip="127.0.0.1" port="%d" apiport="%d"/>' % (n.id, n.port, n.port)
                        for n in cls.nodes)
        for node in cls.nodes:
            answer = node.request("POST", "/topology/update",
                                  ('<update topo="%s">%s</update>' % (node.signature, where)).encode())
            assert answer.status == 200, answer

    def metric(self, prefix, owner):
        """A name that this one of the nodes owns; both say so."""
        for i in range(1000):
            name = prefix + str(i) if "{}" not in prefix else prefix.format(i)
            places = [n.get("/locate/json/%s/%s" % (CHECK, urllib.parse.quote(name, safe=""))).json()["location"]
                      for n in self.nodes]
            self.assertEqual([p["id"] for p in places[0]], [p["id"] for p in places[1]])
            if [p["id"] for p in places[0]] == [owner.id]:
                return name
        raise AssertionError("one node owns everything")

    def counts(self, answer):
        self.assertEqual(answer.status, 200, answer)
        return {k: answer.json()[k] for k in ("updated", "misdirected", "errors")}

    def same_answer(self, name, **more):
        owner, other = (n.read(name, **more) for n in self.nodes)
        self.assertEqual((other.status, other.body, other.headers["content-type"]),
                         (owner.status, owner.body, owner.headers["content-type"]))
        return owner

    def test_misdirected(self):
        """A sample at the wrong door is counted, not stored there, and counted as not sent on."""
        owner, other = self.nodes
        name = self.metric("astray", owner)
        unsent = other.stat("be.raw.unsent")
        self.assertEqual(self.counts(other.post_raw([line(name, self.now, 1)])),
                         {"updated": 0, "misdirected": 1, "errors": 0})
        self.assertEqual(other.stat("be.raw.unsent"), unsent + 1)
        self.assertIn("the topology has peers, and this build has no journals", other.log())
        self.assertEqual(other.get("/raw/list_metrics").json()["metrics"].count(CHECK + "-" + name), 0)
        for node in self.nodes:
            self.assertEqual(node.read(name).status, 404)
        self.assertEqual(self.counts(owner.post_raw([line(name, self.now, 2)])),
                         {"updated": 1, "misdirected": 0, "errors": 0})

    def test_reads_are_passed_on(self):
        """The node that does not own a metric answers with the owner's bytes."""
        owner, other = self.nodes
        name = self.metric("far.{}|ST[a:b%c,d:e/f&g?h#i+j]", owner)
        self.assertEqual(self.counts(owner.post_raw([line(name, self.now - i, i / 8) for i in range(5000)]))["updated"],
                         5000)
        self.assertEqual(len(self.same_answer(name).json()), 5000)
        part = self.same_answer(name, start=str(self.now - 10), end=str(self.now))
        self.assertEqual(len(part.json()), 10)
        self.assertEqual(self.same_answer(name, start="0", end="1").json(), [])
        hist = self.metric("far.hist", owner)
        owner.post_raw(["H1\t%d\thost`c_1`%s\t%s\tAQEMAAE=" % (self.now, CHECK, hist)])
        self.assertEqual(len(self.same_answer(hist, route="histogram_raw").json()), 1)
        self.assertEqual([n.read(self.metric("far.unknown", owner)).status for n in self.nodes], [404, 404])

    def test_passed_on_once(self):
        """A node that is asked by a node answers by itself."""
        owner, other = self.nodes
        name = self.metric("once", owner)
        owner.post_raw([line(name, self.now, 1)])
        path = "/raw/%s/%s?start_ts=0&end=now" % (CHECK, name)
        self.assertEqual(other.get(path).status, 200)
        self.assertEqual(other.get(path, **{"X-Velmar-Proxied": owner.id}).status, 404)

    def test_owner_gone(self):
        """A read whose owner is down is an error, soon; afterwards it is served again."""
        owner, other = self.nodes
        name = self.metric("gone", owner)
        owner.post_raw([line(name, self.now, 1)])
        owner.kill()
        self.assertEqual(other.read(name).status, 500)
        self.assertIsNone(other.process.poll())
        owner.start()
        self.introduce()
        self.assertEqual(self.same_answer(name).json(), [[self.now * 1000, 1]])

    def test_merge(self):
        """What does not belong to the receiver is an error and goes nowhere."""
        owner, other = self.nodes
        name = self.metric("merged", owner)
        unsent = [n.stat("be.raw.unsent") for n in self.nodes]
        lines = [line(name, self.now, 1), naming(name)]
        self.assertEqual(merge(other, lines).json(), {"errors": 2})
        self.assertEqual(owner.read(name).status, 404)
        self.assertEqual(merge(owner, lines).json(), {"errors": 0})
        self.assertEqual(self.same_answer(name).json(), [[self.now * 1000, 1]])
        self.assertEqual([n.stat("be.raw.unsent") for n in self.nodes], unsent)


if __name__ == "__main__":
    unittest.main()
