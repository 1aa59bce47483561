#!/usr/bin/env python3
"""Kills a node with -9 at seeded moments under load, and reads every acknowledged sample back after each restart.

  tests/crash/crash_test.py [--rounds N] [--seed S] [--connections N]

Each round feeds text samples, numeric and histograms, over several connections until the node dies: steady metrics and
ever new ones, over several days, so that kills fall on the first sight of metrics and on the creation of
shards. Some rounds kill the next starts as well, some stop the node in order under load. A sample counts
as acknowledged once the answer to its request said so; whatever else is read back must be a sample that was sent.
With very many metrics a round reads those it touched and a random share of the others; the last reads all.
Exit status: 0 all was there; 1 not, and the data directory is kept.
"""
import argparse
import base64
import concurrent.futures
import http.client
import json
import os
import random
import sys
import threading
import time
import urllib.parse
import zlib

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "node"))
import velmar_node  # noqa: E402
from velmar_node import CHECK, Node, wait_for  # noqa: E402

DAYS = 3
STEADY = 15          # steady metrics of a connection
NEW_PER_REQUEST = 3  # metrics that a request brings in
NEW_REQUESTS = 40    # of a connection in a round; later requests repeat its metrics
READ_ALL_UP_TO = 4000
READERS = 16
START_MARKS = ("", "Booting Velmar Node", "Begin velmard initialization sequence", "listening on",
               "Finish velmard initialization sequence")


def value_of(name, when):
    """The value of a metric at a time; what is sent and what must come back are both made from it."""
    return zlib.crc32(b"%s %d" % (name.encode(), when)) * 977


class Metric:
    __slots__ = ("name", "acknowledged", "sent")

    def __init__(self, name):
        self.name, self.acknowledged, self.sent = name, set(), set()

    @property
    def is_histogram(self):
        return self.name.startswith("hist")

    def line(self, when):
        value = value_of(self.name, when)
        if self.is_histogram:
            data = bytes((1, 1, 10 + value % 90, 1, 1 + value % 100))
            return "H1\t%d\tcrash`c_1`%s\t%s\t%s\n" % (when, CHECK, self.name, base64.b64encode(data).decode())
        return "M\t%d\tcrash`c_1`%s\t%s\tL\t%d\n" % (when, CHECK, self.name, value)

    def expected(self, when):
        value = value_of(self.name, when)
        return {"+%de+000" % (10 + value % 90): 1 + value % 100} if self.is_histogram else value


class Feeder(threading.Thread):
    """One connection's requests, until the node is gone or it is told to stop."""

    def __init__(self, test, number, round_number):
        super().__init__(daemon=True)
        self.test, self.number, self.round = test, number, round_number
        self.connection = test.node.connection()
        self.new = []
        self.requests = self.samples = self.unacknowledged = 0
        self.wrong = None

    def next_batch(self):
        """[(metric, time)]: every time is used once, so no two samples of a metric share one."""
        test, n = self.test, self.test.next_request[self.number]
        test.next_request[self.number] += 1
        when = test.base + n * 7919 % (DAYS * 86400)
        if self.requests < NEW_REQUESTS:
            for i in range(NEW_PER_REQUEST):
                kind = "hist" if i == 0 and self.requests % 8 == 0 else "new"
                self.new.append(test.metric("%s.%d.%d.%d.%d|ST[conn:%d,round:%d]" % (
                    kind, self.round, self.number, self.requests, i, self.number, self.round)))
        recent = self.new[-20:] if self.requests < NEW_REQUESTS else test.dice_of[self.number].sample(self.new, 20)
        return [(m, when) for m in test.steady[self.number] + recent]

    def run(self):
        while not self.test.stopping.is_set():
            batch = self.next_batch()
            for metric, when in batch:
                metric.sent.add(when)
            body = "".join(metric.line(when) for metric, when in batch).encode()
            try:
                self.connection.request("POST", "/raw", body, {"X-Velmar-Datapoints": str(len(batch))})
                response = self.connection.getresponse()
                answer = response.read()
            except (OSError, http.client.HTTPException):
                break
            self.requests += 1
            if response.status == 503:  # the node was too slow for its own limit: nothing is promised
                self.unacknowledged += 1
                continue
            if response.status != 200 or json.loads(answer).get("updated") != len(batch):
                self.wrong = "%d samples sent, answer %d %r" % (len(batch), response.status, answer[:300])
                break
            for metric, when in batch:
                metric.acknowledged.add(when)
            self.samples += len(batch)
            self.test.count_request()
        self.connection.close()


class CrashTest:
    def __init__(self, args):
        self.args = args
        self.dice = random.Random(args.seed)
        self.node = Node()
        self.base = int(time.time()) - DAYS * 86400
        self.metrics = {}
        self.lock = threading.Lock()  # guards metrics and acknowledged_requests
        self.acknowledged_requests = 0
        self.enough = threading.Event()
        self.stopping = threading.Event()
        self.goal = 0
        self.next_request = [0] * args.connections
        self.dice_of = [random.Random(args.seed * 1000 + c) for c in range(args.connections)]
        self.steady = [[self.metric("%s.%d.%d" % ("hist_steady" if i == 0 else "steady", c, i)) for i in range(STEADY)]
                       for c in range(args.connections)]

    def metric(self, name):
        with self.lock:
            return self.metrics.setdefault(name, Metric(name))

    def count_request(self):
        with self.lock:
            self.acknowledged_requests += 1
            if self.acknowledged_requests >= self.goal:
                self.enough.set()

    # ---- one round

    def feed_and_kill(self, number):
        """Feeds until a seeded number of requests is acknowledged, then ends the node. Returns a description."""
        in_order = self.dice.random() < 0.15
        self.goal = self.dice.choice((0, 1, self.dice.randint(2, 30), self.dice.randint(30, 400)))
        self.acknowledged_requests = 0
        self.enough.clear()
        self.stopping.clear()
        if self.goal == 0:
            self.enough.set()
        feeders = [Feeder(self, c, number) for c in range(self.args.connections)]
        for feeder in feeders:
            feeder.start()
        self.enough.wait(velmar_node.WAIT_S)
        time.sleep(self.dice.random() * 0.01)  # where in the next requests the end falls
        if in_order:
            status = self.node.stop()
            if status != 0:
                raise AssertionError("the stop in order ended with %d" % status)
        else:
            self.node.kill()
        self.stopping.set()
        for feeder in feeders:
            feeder.join(velmar_node.WAIT_S)
            if feeder.wrong:
                raise AssertionError(feeder.wrong)
        if self.goal and not sum(f.samples for f in feeders):
            raise AssertionError("no request was acknowledged within %d s" % velmar_node.WAIT_S)
        late = sum(f.unacknowledged for f in feeders)
        return "%s after %d requests, %d samples%s" % ("stopped" if in_order else "killed",
                                                       self.acknowledged_requests, sum(f.samples for f in feeders),
                                                       ", %d refused as late" % late if late else "")

    def start(self):
        """Starts the node; a seeded number of starts is killed on the way. Returns how many."""
        kills = self.dice.choice((0, 0, 0, 1, 1, 2))
        for _ in range(kills):
            mark = self.dice.choice(START_MARKS)
            self.node.launch()
            wait_for(lambda: mark in self.node.log() or self.node.process.poll() is not None, "the start to get on")
            time.sleep(self.dice.random() * 0.05)
            if self.node.process.poll() is not None:
                raise AssertionError("velmard ended by itself:\n" + self.node.log()[-3000:])
            self.node.kill()
        self.node.start()
        return kills

    # ---- reading back

    def read_back(self, everything, touched):
        """Returns (metrics, samples) read; raises on the first difference."""
        metrics = [m for m in self.metrics.values() if m.acknowledged]
        if not everything and len(metrics) > READ_ALL_UP_TO:
            others = [m for m in metrics if m.name not in touched]
            metrics = [m for m in metrics if m.name in touched] + self.dice.sample(others, min(len(others), 2000))
        local = threading.local()

        def read(metric):
            if not hasattr(local, "connection"):
                local.connection = self.node.connection()
            path = "/%s/%s/%s?start_ts=%d&end_ts=%d" % ("histogram_raw" if metric.is_histogram else "raw", CHECK,
                                                        urllib.parse.quote(metric.name, safe=""), self.base,
                                                        self.base + DAYS * 86400)
            answer = self.node.request("GET", path, connection=local.connection)
            if answer.status != 200:
                raise AssertionError("%s: %r" % (metric.name, answer))
            scale = 1 if metric.is_histogram else 1000
            rows = answer.json()
            got = {row[0] // scale: row[1] for row in rows}
            if [row[0] for row in rows] != sorted({row[0] for row in rows}):
                raise AssertionError("%s: the samples are not in order, each time once" % metric.name)
            lost = metric.acknowledged - set(got)
            if lost:
                raise AssertionError("%s: %d of %d acknowledged samples are lost, the first at %d" % (
                    metric.name, len(lost), len(metric.acknowledged), min(lost)))
            for when, value in got.items():
                if when not in metric.sent or value != metric.expected(when):
                    raise AssertionError("%s at %d: read back as %r" % (metric.name, when, value))
            return len(metric.acknowledged)

        with concurrent.futures.ThreadPoolExecutor(READERS) as pool:
            samples = sum(pool.map(read, metrics))
        return len(metrics), samples

    def run(self):
        terminal = sys.stdout.isatty()
        self.node.start()
        for number in range(1, self.args.rounds + 1):
            if terminal:
                print("round %d of %d ..." % (number, self.args.rounds), end="\r", flush=True)
            before = set(self.metrics)
            told = self.feed_and_kill(number)
            touched = (set(self.metrics) - before) | {m.name for steady in self.steady for m in steady}
            kills = self.start()
            began = time.monotonic()
            metrics, samples = self.read_back(number == self.args.rounds, touched)
            print("round %d of %d: %s; %d start(s) killed; %d metrics, %d samples read back in %.1f s" % (
                number, self.args.rounds, told, kills, metrics, samples, time.monotonic() - began), flush=True)
        if self.node.stop() != 0:
            raise AssertionError("the last stop in order failed")
        self.node.start()
        return self.read_back(True, set())


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rounds", type=int, default=12)
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1 << 31))
    parser.add_argument("--connections", type=int, default=4)
    args = parser.parse_args()
    print("seed %d, %d rounds, %d connections" % (args.seed, args.rounds, args.connections), flush=True)
    began = time.monotonic()
    test = CrashTest(args)
    try:
        metrics, samples = test.run()
    except AssertionError as error:
        print("FAILED: %s\nrepeat with --rounds %d --seed %d --connections %d; the node's files are in %s" % (
            error, args.rounds, args.seed, args.connections, test.node.directory), flush=True)
        test.node.kill()
        return 1
    except KeyboardInterrupt:
        test.node.destroy()
        return 130
    test.node.destroy()
    print("ok: %d metrics, %d acknowledged samples, all there; %.0f s" % (metrics, samples, time.monotonic() - began))
    return 0


if __name__ == "__main__":
    sys.exit(main())
