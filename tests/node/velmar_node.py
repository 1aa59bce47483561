"""A real node on a free port with a directory of its own, and what the tests ask it."""
import http.client
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import unittest
import urllib.parse
import uuid

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = os.environ.get("VELMAR_BUILD", os.path.join(ROOT, "build"))
VELMARD = os.path.join(BUILD, "velmard")
TOPOLOGY = os.path.join(BUILD, "velmar-topology")
WAIT_S = 60  # bound of every wait; reached only when something is broken
CHECK = "c9b0e0f2-6a6e-4b53-9a62-3f6f3e6f1a11"
GRAPHITE_CHECK = "5f0d3b1e-7c44-4a1b-9d3f-2b8e6a1c2003"  # of the listener in etc/velmar.conf


def environment():
    env = {k: v for k, v in os.environ.items() if k.lower() != "http_proxy"}
    env["VELMAR_PORT"] = env["VELMAR_GRAPHITE_PORT"] = "0"
    return env


def wait_for(condition, what, seconds=WAIT_S):
    """Returns the first true value of condition()."""
    end = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError("waited %d s in vain for %s" % (seconds, what))
        time.sleep(0.01)


def run_velmard(*args, env=None):
    """Runs velmard to its end: (exit status, stdout, stderr)."""
    done = subprocess.run([VELMARD, *args], capture_output=True, text=True, timeout=WAIT_S, env=env or environment(),
                          stdin=subprocess.DEVNULL)
    return done.returncode, done.stdout, done.stderr


class Answer:
    def __init__(self, response, body):
        self.status, self.reason, self.body = response.status, response.reason, body
        self.headers = {k.lower(): v for k, v in response.getheaders()}

    @property
    def text(self):
        return self.body.decode()

    def json(self):
        return json.loads(self.body)

    def __repr__(self):
        return "%d %s %r" % (self.status, self.reason, self.body[:500])


class Node:
    """One node. `edit` changes the text of its configuration before the first start; a node of a cluster is given
    its id and the topology."""

    def __init__(self, edit=None, node_id=None, topology=None):
        self.directory = tempfile.mkdtemp(prefix="velmar-node-")
        self.conf = os.path.join(self.directory, "velmar.conf")
        self.log_path = os.path.join(self.directory, "log")
        self.topology_dir = os.path.join(self.directory, "topology")
        self.id = node_id or str(uuid.uuid4())
        os.mkdir(self.topology_dir)
        self.signature = self.install_topology(topology or self.topology_xml())
        with open(os.path.join(ROOT, "etc", "velmar.conf")) as f:
            text = f.read()
        for mark, value in (("@DATA@", self.directory), ("@SIGNATURE@", self.signature),
                            ("@WEB@", os.path.join(ROOT, "web"))):
            text = text.replace(mark, value)
        self.write_conf(edit(text) if edit else text)
        self.process = self.port = self.graphite_port = None
        self.log_from = 0

    # ---- files

    def write_conf(self, text):
        with open(self.conf, "w") as f:
            f.write(text)

    def read_conf(self):
        with open(self.conf) as f:
            return f.read()

    def topology_xml(self, weight=170, port=1):
        return ('<nodes write_copies="1">\n  <node id="%s" address="127.0.0.1" port="%d" apiport="%d" weight="%d"/>\n'
                "</nodes>\n" % (self.id, port, port, weight))

    def install_topology(self, xml):
        path = os.path.join(self.directory, "new-topology.xml")
        with open(path, "w") as f:
            f.write(xml)
        return subprocess.run([TOPOLOGY, "install", path, self.topology_dir], check=True, capture_output=True,
                              text=True, timeout=WAIT_S).stdout.strip()

    def log(self):
        """What the process now running has logged."""
        with open(self.log_path, errors="replace") as f:
            f.seek(self.log_from)
            return f.read()

    # ---- process

    def launch(self, *flags):
        """Starts the process and does not wait for it."""
        self.log_from = os.path.getsize(self.log_path) if os.path.exists(self.log_path) else 0
        with open(self.log_path, "ab") as log:
            self.process = subprocess.Popen([VELMARD, *(flags or ("-D", "-D")), "-c", self.conf, "-i", self.id],
                                            stdin=subprocess.DEVNULL, stdout=log, stderr=log, env=environment(),
                                            cwd=self.directory)
        return self

    def start(self, *flags):
        self.launch(*flags)
        self.wait_ready()
        return self

    def wait_ready(self, times=1):
        """Waits until the node has started for the `times`th time in this run of the process."""

        def ready():
            if self.process.poll() is not None:
                raise AssertionError("velmard ended with %d:\n%s" % (self.process.returncode, self.log()[-3000:]))
            log = self.log()
            ports = re.findall(r"listening on 127\.0\.0\.1:(\d+) \(http_rest_api\)", log)
            return len(ports) >= times and log.count("Finish velmard initialization sequence") >= times and ports[-1]

        self.port = int(wait_for(ready, "the start of " + self.directory))
        graphite = re.findall(r"listening on 127\.0\.0\.1:(\d+) \(graphite\)", self.log())
        self.graphite_port = int(graphite[-1]) if graphite else None

    def wait_end(self):
        try:
            return self.process.wait(timeout=WAIT_S)
        except subprocess.TimeoutExpired:
            raise AssertionError("velmard has not ended:\n" + self.log()[-3000:]) from None

    def stop(self):
        """An orderly stop; returns the exit status."""
        self.process.send_signal(signal.SIGTERM)
        return self.wait_end()

    def kill(self):
        if self.process and self.process.poll() is None:
            self.process.kill()
            self.wait_end()

    def destroy(self):
        self.kill()
        shutil.rmtree(self.directory, ignore_errors=True)

    # ---- HTTP

    def connection(self):
        return http.client.HTTPConnection("127.0.0.1", self.port, timeout=WAIT_S)

    def socket(self):
        return socket.create_connection(("127.0.0.1", self.port), timeout=WAIT_S)

    def graphite(self):
        """A connection that takes lines."""
        return socket.create_connection(("127.0.0.1", self.graphite_port), timeout=WAIT_S)

    def request(self, method, path, body=None, headers=None, connection=None):
        used = connection or self.connection()
        try:
            used.request(method, path, body=body, headers=headers or {})
            response = used.getresponse()
            return Answer(response, response.read())
        finally:
            if not connection:
                used.close()

    def get(self, path, **headers):
        return self.request("GET", path, headers=headers)

    def post_raw(self, body, count=None, content_type=None, connection=None, **headers):
        """POST /raw; `body` is text, bytes or a list of lines."""
        if isinstance(body, list):
            count = count or len(body)
            body = "".join(line + "\n" for line in body)
        if isinstance(body, str):
            body = body.encode()
        headers = {k.replace("_", "-"): v for k, v in headers.items()}
        headers["X-Velmar-Datapoints"] = str(count or max(1, body.count(b"\n")))
        if content_type:
            headers["Content-Type"] = content_type
        return self.request("POST", "/raw", body, headers, connection)

    def read(self, name, start="0", end="now", route="raw", check=CHECK, **more):
        """The answer to a read; start and end in seconds, or "now"."""
        query = {("start_ts" if start != "now" else "start"): start, ("end_ts" if end != "now" else "end"): end, **more}
        return self.get("/%s/%s/%s?%s" % (route, check, urllib.parse.quote(name, safe=""),
                                          urllib.parse.urlencode(query)))

    def samples(self, name, start="0", end="99999999999", **more):
        """[[time in ms, value], ...]; fails when the read does."""
        answer = self.read(name, start, end, **more)
        if answer.status != 200:
            raise AssertionError("%s: %r" % (name, answer))
        return answer.json()


    def stat(self, path):
        """The value of a statistic named with dots; None when it is not there."""
        at = self.get("/stats.json").json()
        for part in path.split("."):
            at = at.get(part, {})
        return at.get("_value")


def line(name, when, value, letter="n", check=CHECK, account=1):
    return "M\t%s\thost`check`c_%d`%s\t%s\t%s\t%s" % (when, account, check, name, letter, value)


class NodeTest(unittest.TestCase):
    """Tests that share one node. They use names of metrics of their own."""

    edit = None

    @classmethod
    def setUpClass(cls):
        cls.node = Node(edit=cls.edit)
        cls.addClassCleanup(cls.node.destroy)
        cls.node.start()
        cls.now = int(time.time())

    def taken(self, answer, updated, errors=0):
        """The answer to a POST /raw says this, and accounts for every record."""
        self.assertEqual(answer.status, 200, answer)
        got = answer.json()
        self.assertEqual({k: got.get(k) for k in ("updated", "misdirected", "discarded", "errors")},
                         {"updated": updated, "misdirected": 0, "discarded": 0, "errors": errors}, answer)
