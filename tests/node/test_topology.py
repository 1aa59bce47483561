"""/state, /topology, /toporing, /locate and the two uploads."""
import os
import re
import subprocess
import unittest
import xml.etree.ElementTree as xml

from velmar_node import CHECK, TOPOLOGY, WAIT_S, NodeTest

UNKNOWN = "0" * 64


def signature_of(text):
    return subprocess.run([TOPOLOGY, "signature", "-"], input=text, check=True, capture_output=True, text=True,
                          timeout=WAIT_S).stdout.strip()


class Topology(NodeTest):
    def test_state(self):
        answer = self.node.get("/state")
        self.assertEqual((answer.status, answer.headers["content-type"]), (200, "application/json"))
        state = answer.json()
        self.assertEqual((state["identity"], state["current"], state["next"]), (self.node.id, self.node.signature, "-"))
        self.assertEqual((state["application"], state["max_peer_lag"]), ("velmar", 0))
        self.assertGreater(state["rusage.maxrss"], 0)
        self.assertIn("raw:store", state["features"])
        order = [k for k in state if not k.startswith("rusage.")]
        self.assertEqual([k for k in order if k not in ("base_rollup", "rollups")],
                         ["identity", "current", "next", "max_peer_lag", "avg_peer_lag", "features", "version", "application"])

    def test_headers(self):
        """Every answer says which topologies are in force, also one that refuses."""
        for path in ("/state", "/nothing/here", "/raw/%s/x" % CHECK):
            headers = self.node.get(path).headers
            self.assertEqual((headers["x-topo-0"], headers["x-topo-1"]), (self.node.signature, "-"), path)

    def test_topology(self):
        node = {"id": self.node.id, "address": "127.0.0.1", "port": 1, "apiport": 1, "weight": 170, "n": 1, "write_copies": 1}
        answer = self.node.get("/topology/json/" + self.node.signature)
        self.assertEqual(answer.headers["content-type"], "application/json")
        (got,) = answer.json()
        self.assertEqual({k: got[k] for k in node}, node)
        answer = self.node.get("/topology/xml/" + self.node.signature)
        self.assertEqual(answer.headers["content-type"], "text/xml")
        root = xml.fromstring(answer.text)
        self.assertEqual((root.tag, root.get("write_copies"), root[0].get("id"), root[0].get("weight")),
                         ("nodes", "1", self.node.id, "170"))
        for path in ("/topology/xml/" + UNKNOWN, "/topology/yaml/" + self.node.signature, "/topology/xml/abc",
                     "/toporing/json/" + UNKNOWN):
            self.assertEqual(self.node.get(path).status, 404, path)

    def test_ring(self):
        """As many points as the weight says, in order, in both forms."""
        ring = self.node.get("/toporing/json/" + self.node.signature).json()
        self.assertEqual({point["id"] for point in ring}, {self.node.id})
        self.assertEqual(sorted(point["idx"] for point in ring), list(range(170)))
        places = [point["location"] for point in ring]
        self.assertEqual(places, sorted(places))
        text = self.node.get("/toporing/xml/" + self.node.signature).text
        self.assertEqual([int(i) for i in re.findall(r'<vnode id="[^"]+" idx="(\d+)"', text)],
                         [point["idx"] for point in ring])

    def test_locate(self):
        got = self.node.get("/locate/json/%s/cpu%%7CST%%5Bb:2,a:1%%5D" % CHECK).json()
        self.assertEqual(got["key"], CHECK + "-cpu|ST[a:1,b:2]")
        self.assertEqual([n["id"] for n in got["location"]], [self.node.id])
        root = xml.fromstring(self.node.get("/locate/xml/%s/cpu" % CHECK).text)
        self.assertEqual([n.get("id") for n in root], [self.node.id])
        self.assertEqual(self.node.get("/locate/json/%s/cpu%%7CST%%5Ba" % CHECK).status, 404)
        self.assertIn("could not parse metric-name |cpu|ST[a|", self.node.log())

    def upload(self, path, body):
        return self.node.request("POST", path, body.encode())

    def test_add(self):
        xml_text = self.node.topology_xml(weight=33)
        other = signature_of(xml_text)
        path = "/topology/" + other
        file = os.path.join(self.node.topology_dir, other)
        self.assertEqual(self.upload("/topology/" + UNKNOWN, xml_text).status, 500)
        self.assertFalse(os.path.exists(os.path.join(self.node.topology_dir, UNKNOWN)))
        answer = self.upload(path, "<nodes")
        self.assertEqual((answer.status, answer.json()), (500, {"error": "xml is invalid"}))
        answer = self.upload(path, xml_text)
        self.assertEqual((answer.status, answer.headers["content-type"]), (200, "text/xml"))
        self.assertEqual(self.node.get("/topology/json/" + other).json()[0]["weight"], 33)
        with open(file) as f:
            self.assertEqual(signature_of(f.read()), other)
        os.unlink(file)
        self.assertEqual(self.upload(path, "not looked at").status, 200)
        self.assertFalse(os.path.exists(file), "a known topology is written again")
        self.assertEqual(self.node.get("/state").json()["current"], self.node.signature)

    def test_update(self):
        """Addresses change, the signature does not; anything wrong changes nothing."""
        weighted = self.node.topology_xml(weight=44)
        signature = signature_of(weighted)
        self.assertEqual(self.upload("/topology/" + signature, weighted).status, 200)

        def update(topo, nodes):
            return self.upload("/topology/update", '<update topo="%s">%s</update>' % (topo, nodes))

        good = '<node id="%s" ip="127.0.0.9" port="4444" apiport="5555"/>' % self.node.id
        stranger = good.replace(self.node.id, CHECK)
        for topo, nodes, words in ((UNKNOWN, good, "hash does not exist"), (signature, "", "no nodes given"),
                                   (signature, good + stranger, "xml format incorrect"),
                                   (signature, good.replace('"4444"', '"x"'), "xml format incorrect"),
                                   (signature, good.replace("127.0.0.9", "no address"), "xml format incorrect")):
            answer = update(topo, nodes)
            self.assertEqual((answer.status, answer.json()), (500, {"error": words}))
        self.assertEqual(self.upload("/topology/update", "<update").json(), {"error": "xml is invalid"})
        (got,) = self.node.get("/topology/json/" + signature).json()
        self.assertEqual((got["address"], got["port"]), ("127.0.0.1", 1))
        self.assertEqual(update(signature, good).status, 200)
        (got,) = self.node.get("/topology/json/" + signature).json()
        self.assertEqual((got["address"], got["port"], got["apiport"]), ("127.0.0.9", 4444, 5555))
        with open(os.path.join(self.node.topology_dir, signature)) as f:
            saved = f.read()
        self.assertIn("127.0.0.9", saved)
        self.assertEqual(signature_of(saved), signature)

    def test_upload_limits(self):
        big = "<nodes>" + " " * (2 << 20) + "</nodes>"
        self.assertEqual(self.upload("/topology/" + UNKNOWN, big).status, 400)
        self.assertEqual(self.upload("/topology/short", big).status, 404)


if __name__ == "__main__":
    unittest.main()
