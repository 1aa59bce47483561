"""/capa, /stats.json in its forms, /metrics."""
import re
import unittest

from velmar_node import NodeTest, line


def leaves(tree, path=()):
    if "_type" in tree:
        yield path, tree["_type"], tree["_value"]
    for key, child in tree.items():
        if isinstance(child, dict) and key not in ("_type", "_value"):
            yield from leaves(child, path + (key,))


class Figures(NodeTest):
    def test_capa(self):
        capa = self.node.get("/capa").json()
        self.assertEqual(capa["version"], self.node.get("/state").json()["version"])
        self.assertIn("velmar:raw:store", capa["features"])
        self.assertEqual(capa["loops"]["default"]["concurrency"], 2)
        queue = capa["jobqs"]["velmar_raw_put_parse"]
        self.assertEqual((queue["concurrency"], queue["max"]), (32, 128))
        self.assertEqual(capa["jobqs"]["raw_writer"]["concurrency"], 1)
        self.taken(self.node.post_raw([line("capa", self.now, 1)]), 1)
        after = self.node.get("/capa").json()["jobqs"]["velmar_raw_put_parse"]
        self.assertEqual(after["total"], queue["total"] + 1)
        self.assertEqual((after["backlog"], after["in_flight"]), (0, 0))

    def test_stats(self):
        """Three forms of the same figures; the stages of a put add up."""
        gates = ("put_start", "put_parse", "put_surrogate_write", "put_data_write", "put_done")
        before = {g: self.node.stat("be.raw.gates." + g) for g in gates}
        self.taken(self.node.post_raw([line("stats", self.now, 1)]), 1)
        after = {g: self.node.stat("be.raw.gates." + g) for g in gates}
        self.assertEqual({g: after[g] - before[g] for g in gates}, {g: 1 for g in gates})
        typed = self.node.get("/stats.json").json()
        self.assertEqual(typed["application"], {"_type": "s", "_value": "velmar"})
        self.assertEqual(typed["identity"]["_value"], self.node.id)
        self.assertLessEqual({kind for _, kind, _ in leaves(typed)}, set("iIlLnsh"))
        simple = self.node.get("/stats.json?format=simple").json()
        self.assertEqual(simple["application"], "velmar")
        self.assertEqual(simple["be"]["raw"]["gates"]["put_start"], after["put_start"])
        tagged = self.node.get("/stats.json?format=tagged").json()
        (key,) = [k for k in tagged if k.startswith("be`raw`gates`put_start|ST[")]
        self.assertIn("velmar-node-id:" + self.node.id, key)
        self.assertEqual(tagged[key]["_value"], after["put_start"])

    def test_metrics(self):
        """Every line is a comment or a sample of the Prometheus text form, and the figures are the same."""
        self.taken(self.node.post_raw([line("prometheus", self.now, 1)]), 1)
        answer = self.node.get("/metrics")
        self.assertTrue(answer.headers["content-type"].startswith("text/plain; version=0.0.4"))
        self.assertTrue(answer.text.endswith("\n"))
        sample = re.compile(r'^[a-zA-Z_:][a-zA-Z0-9_:]*(\{([a-zA-Z_][a-zA-Z0-9_]*="(\\.|[^"\\])*",?)*\})? (\S+)$')
        values = {}
        for text in answer.text.splitlines():
            if not text.startswith("#"):
                match = sample.match(text)
                self.assertTrue(match, text)
                values[text.split("{")[0].split(" ")[0]] = float(match.group(4))
        (name,) = [n for n in values if "put_start" in n]
        self.assertEqual(values[name], self.node.stat("be.raw.gates.put_start"))

    def test_unknown_paths(self):
        self.assertEqual(self.node.get("/no/such/path").status, 404)
        answer = self.node.request("POST", "/stats.json", b"")
        self.assertEqual(answer.status, 405)
        self.assertIn("GET", answer.headers["allow"])


if __name__ == "__main__":
    unittest.main()
