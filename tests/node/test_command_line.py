"""Flags, refusals and their exit statuses; the configuration dump; what a start refuses in the configuration."""
import os
import socket
import unittest

from velmar_node import Node, environment, run_velmard

ID = "8f2c1d3e-4b5a-4c6d-8e7f-901a2b3c4d5e"
REFUSED = 255


class CommandLine(unittest.TestCase):
    def refused(self, words, *args):
        status, out, err = run_velmard(*args)
        self.assertEqual((status, err), (REFUSED, words))

    def usage(self, status, *args):
        got, out, err = run_velmard(*args)
        self.assertEqual(got, status, args)
        self.assertTrue(out.startswith("Usage for "), out)
        self.assertTrue(err.startswith("Velmar version "), err)
        return out

    def test_usage(self):
        out = self.usage(1, "-h")
        sections = ["\nProcess control flags:", "\nMutually exclusive flags:",
                    "\nStandalone loader flags for use with -i", "\nStandalone maintenance flags for use with -i",
                    "\nOptional behavior flags:", "\nReconstitute parameters:", "\nThis usage message:"]
        places = [out.find(s) for s in sections]
        self.assertNotIn(-1, places)
        self.assertEqual(places, sorted(places))
        self.usage(2, "-k", "restart", "-i", ID)

    def test_values(self):
        self.refused("invalid uuid passed to -i\n", "-i", "none")
        self.refused("invalid uuid passed to -S\n", "-i", ID, "-B", "-S", "none")
        self.refused("cannot be both ephemeral and have a node id.\n", "-e", "-i", ID)
        self.refused("cannot be both ephemeral and have a node id.\n", "-i", ID, "-e")
        self.refused("Cannot merge text and histograms at the same time.\n", "-i", ID, "-m", "a", "-H", "b")
        self.refused("rollup to rebuild must be > 0\n", "-i", ID, "-n", "0")
        self.refused("incorrect number of shard parameters to -s\n", "-i", ID, "-B", "-s", "1")
        self.refused("incorrect number of shard parameters to -s\n", "-i", ID, "-B", "-s", "1,2,3,4")
        self.refused("invalid shard parameters passed to -s\n", "-i", ID, "-B", "-s", "60,x,2")

    def test_combinations(self):
        for args in ((), ("-x", "//a", "-i", ID), ("-x", "//a", "-d"), ("-e", "-r", "text/metrics"),
                     ("-i", ID, "-T", "0" * 64), ("-i", ID, "-B", "-j"), ("-i", ID, "-B", "-D"),
                     ("-i", ID, "-B", "-A", "raw", "-A", "raw")):
            self.usage(REFUSED, *args)

    def test_proxy_environment(self):
        for name in ("http_proxy", "HTTP_PROXY"):
            status, _, err = run_velmard("-h", env={**environment(), name: ""})
            self.assertEqual((status, err), (REFUSED, "Cannot boot with http_proxy or HTTP_PROXY environment "
                                                      "variables set.\nABORT.\n"))

    def test_no_configuration(self):
        for args in (("-D", "-D", "-i", ID), ("-x", "//listeners")):
            status, _, err = run_velmard(*args, "-c", "/nonexistent/velmar.conf")
            self.assertEqual(status, 2, args)
            self.assertIn("Cannot load config: '/nonexistent/velmar.conf'", err)


class WithConfiguration(unittest.TestCase):
    def node(self, edit=None):
        node = Node(edit)
        self.addCleanup(node.destroy)
        return node

    def ends(self, edit, words, status, *flags):
        """The start fails with this status and these words; a fatal end is an abort."""
        node = self.node(edit)
        node.launch("-D", "-D", *flags)
        self.assertEqual(node.wait_end(), status, node.log())
        for text in words:
            self.assertIn(text, node.log())

    def test_dump(self):
        node = self.node()
        status, out, _ = run_velmard("-x", "//listeners | //cache", "-c", node.conf)
        self.assertEqual(status, 0)
        self.assertTrue(out.startswith("0: <listeners"), out)
        self.assertIn("http_rest_api", out)
        self.assertIn("1: <cache", out)
        self.assertEqual(run_velmard("-x", "//nothing", "-c", node.conf)[:2], (2, ""))

    def test_not_running(self):
        node = self.node()
        self.assertEqual(run_velmard("-k", "status", "-c", node.conf)[0], 1)
        self.assertEqual(run_velmard("-k", "stop", "-c", node.conf)[0], 0)

    def test_standalone_refusals(self):
        node = self.node()
        for args, words in ((("-r", "metrics"), "repair: metrics not understood\n"),
                            (("-r", "texts"), "repair: texts not understood\n"),
                            (("-D", "-D", "-I", "5"), "ERROR: Import time limit can only be set while doing a "
                                                      "standalone merge\n")):
            status, _, err = run_velmard("-c", node.conf, "-i", node.id, *args)
            self.assertEqual(status, 2, (args, err))
            self.assertIn(words, err)

    def test_missing_stores(self):
        words = "[FATAL] velmar misconfigured - must contain surrogate_database, metric_name_database, and raw_database"
        for element in ("surrogate_database", "metric_name_database", "raw_database"):
            with self.subTest(element):
                self.ends(lambda text: text.replace("<" + element, "<no_" + element), [words], -6)

    def test_no_active_topology(self):
        self.ends(lambda text: text.replace('active="', 'active="0'), ["no active topology!"], 2)

    def test_durations(self):
        self.ends(lambda text: text.replace('min_delete_age="4w"', 'min_delete_age="1x"'),
                  ["[FATAL] ", "could not parse timeshard min_delete_age parameter."], -6)
        self.ends(lambda text: text.replace('min_delete_age="4w"', 'min_delete_age="1h"', 1),
                  ["[FATAL] ", "The min_delete_age setting for raw_database must be larger than the "
                   "rollup_after_quiescent_age (default 8hr)\n"], -6)
        self.ends(lambda text: text.replace("<raw_database", '<raw_database recordsize="2h"'),
                  ["Only recordsize of 3600s and stepsize of 1ms is currently released for raw numeric.\n"], -6)

    def test_validation_twins(self):
        both = '<validation metric_age_threshold="1d" metric_age_threshold_in_ms="1d"/></velmar>'
        self.ends(lambda text: text.replace("</velmar>", both),
                  ["[FATAL] cannot use both validation/@metric_age_threshold_in_ms and "
                   "validation/@metric_age_threshold. Please use validation/@metric_age_threshold\n"], -6)

    def test_port_taken(self):
        with socket.create_server(("127.0.0.1", 0)) as taken:
            port = taken.getsockname()[1]
            self.ends(lambda text: text.replace("${VELMAR_PORT:-8112}", str(port)),
                      ["[FATAL] cannot listen on 127.0.0.1:%d" % port], -6)

    def test_location_is_a_file(self):
        node = self.node()
        os.makedirs(os.path.join(node.directory, node.id))
        with open(os.path.join(node.directory, node.id, "raw"), "w"):
            pass
        node.launch("-D", "-D")
        self.assertEqual(node.wait_end(), -6, node.log())
        self.assertIn("Directory was not created: %s/%s/raw" % (node.directory, node.id), node.log())


if __name__ == "__main__":
    unittest.main()
