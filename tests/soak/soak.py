"""Long runs with Redis on. Status 0 when every file that was stored is its source's and registered, nothing else is.

    soak.py MINUTES [ORDERS A SECOND]

Orders over HTTP and as datagrams, a tenth of them failing in every way that a client, a source or a sender has: memory
and descriptors stay flat, an idle agent uses no CPU, no ERR line comes that was not provoked.

    soak.py mixed ROUNDS

Orders that meet: repetitions and HEADs of running orders, mirrors that race for one destination, stalls that are taken
over. Every third round is cut by SIGTERM, and ends within a second; every third by SIGKILL, after which whole files
have final names, and no others."""

import collections
import itertools
import os
import re
import signal
import sys
import threading
import time
import unittest
from concurrent.futures import ThreadPoolExecutor, wait
from random import Random

from harness import ANSWERS, MODES, KovTest, Nginx, age, read, request, reset, sized, wait_for

SIZES = (1, 900, 4096, 50_000, 300_000, 2 << 20)
ROUND = 60  # orders that meet
REFUSED = (ANSWERS[400], ANSWERS[403], ANSWERS[500])
# The ERR lines that the failing orders provoke.
PROVOKED = re.compile(
    r"non-HTTP or invalid src|parse_dw_get: URQ|malformed HTTP request|destination leaves|request failed|"
    r"message prefix|message length|missing URL part|id length|connection broken|ERROR\(111\)|error sending HTTP|"
    r"removing T\d+ due to error|expected HTTP 2xx|content length|parsed \d < 4|failed, rc=104|already there|rc=-?\d+$|"
    r"HTTP \[|failed to get HTTP method|expected \[HTTP|is to be removed|timed out|on_read: |on_error|"
    r"task already present|already exists|failed to parse URL|error\(\S+\) parsing|NOT SUPPORTED|invalid path size")


class Run(KovTest):
    """What was ordered, what has come of it, and what is wrong."""

    def setUp(self):
        super().setUp()
        self.rnd = Random(1)
        self.db = self.redis()
        self.bodies = {}  # destination -> those of its sources
        self.stored = set()
        self.faults = []

    def check(self, is_so, fault):
        if not is_so:
            self.faults.append(fault)

    def take_files(self, agent):
        """Compares and removes what has been stored."""
        for name in agent.files():
            if not name.endswith("-Kova"):
                self.check(agent.body(name) in self.bodies.pop(name, ()), f"{name}: no source's body")
                os.remove(agent.path(name))
                self.stored.add(name)

    def check_registrations(self, killed=False):
        registered = set(self.db.cli("keys", "*").split())
        if not killed:
            self.faults += [f"{name}: not registered" for name in self.stored - registered]
        self.faults += [f"{name}: registered without a file" for name in registered - self.stored]
        self.db.cli("flushdb")


class Soak(Run):
    def setUp(self):
        super().setUp()
        self.nginx = self.service(Nginx)
        self.sources = [self.rnd.randbytes(size) for size in SIZES * 8]
        for k, body in enumerate(self.sources):
            self.nginx.add(str(k), body)
        self.origin.faulty()
        self.agent = self.start(self.db.settings() + "max_mmap_mb = 1;", channel="127.0.0.1:{}", level="norm",
                                log="max_size_mb = 16; max_files = 100;")

    def order_well(self, n):
        k = self.rnd.randrange(len(self.sources))
        url = self.nginx.url(f"{n}/../{k}")  # a URL of its own: one that is being fetched is refused
        dst = f"s/{n % 97}/{n}"
        self.bodies[dst] = [self.sources[k]]
        if n % 3 == 0:
            self.agent.datagram(f"#!soak{n:08} http://any/src/{url}/dst/{dst} 0")
        else:
            self.check(self.agent.order(url, dst, expect=None) == ANSWERS[200], f"{dst}: not taken")

    def order_badly(self, n):
        agent, choice = self.agent, self.rnd.choice
        source = self.origin.url(choice(sorted(self.origin.paths)))
        order = f"http://any/src/{source}/dst"
        datagrams = ("short", "x" * 1401, "no prefix " * 5, f"#!ab {order}/x 5", f"#!dots {order}/../x 5")
        choice((*[lambda: agent.order(source, f"bad/{n}", expect=None)] * 4,
                lambda: agent.datagram(f"#!bad{n:08} {order}/bad/{n} 5"),
                lambda: agent.datagram(choice(datagrams)),
                lambda: agent.order(choice(("ftp://h/a", f"http://127.0.0.1:1/{n}")), f"bad/{n}", expect=None),
                lambda: agent.order(source, f"../../bad/{n}", 400),
                lambda: agent.send(self.rnd.randbytes(self.rnd.randrange(40, 900)) + b"\r\n\r\n"),
                lambda: self.leave(source, with_reset=n % 2)))()

    def leave(self, source, with_reset):
        with self.agent.connect(f"GET /src/{source}".encode()) as s:
            if with_reset:
                reset(s)

    def unprovoked(self):
        logs = (read(f"{self.agent.root}/{name}") for name in os.listdir(self.agent.root) if name.startswith("log"))
        return [line for log in logs for line in log.splitlines()
                if "(ERR)" in line and not PROVOKED.search(line.split("(ERR)", 1)[1])]

    def test(self):
        agent = self.agent
        minutes, per_second = NUMBERS if len(NUMBERS) > 1 else (*NUMBERS, 40)
        agent.idles(2.0, 0.03)
        start = report = time.monotonic()
        history = []
        n = 0
        while (now := time.monotonic()) < start + 60 * minutes:
            n += 1
            (self.order_badly if n % 10 == 0 else self.order_well)(n)
            if n % 50 == 0:
                self.take_files(agent)
            if now >= report:
                history.append(agent.rss_kib())
                print(f"{(now - start) / 60:5.1f} min: {n} orders, {history[-1]} KiB, {agent.fds()} descriptors, "
                      f"{agent.cpu_seconds():.1f} s CPU", flush=True)
                report += 60 if minutes >= 5 else 5
            time.sleep(max(0.0, start + n / per_second - time.monotonic()))
        wait_for(lambda: self.take_files(agent) or not self.bodies or time.monotonic() > now + 20, "the last files", 30)
        self.faults += [f"{dst}: lost" for dst in self.bodies]
        agent.at_base_line(15)
        self.faults += [f"{name}: left" for name in agent.files() + agent.held()]
        self.check_registrations()
        grown = agent.rss_kib() - history[max(1, len(history) // 10)]
        self.check(grown <= 512, f"{grown} KiB grown since the warm-up")
        self.faults += self.unprovoked()
        print(f"soak: {minutes} min, {n} orders, {len(self.stored)} files, {grown} KiB grown since the warm-up")
        self.assertEqual(self.faults[:20], [])


class Source:
    """One order's source: a body of its own, sent in two halves with a pause or a gate between them."""

    def __init__(self, mixed, dst, pause=0.0, gate=None):
        self.body = mixed.rnd.randbytes(mixed.rnd.choice((2, 900, 5000, 300_000)))
        self.pause = pause
        self.gate = gate
        self.is_delivered = False
        self.dst = dst
        self.answer = None
        self.url = mixed.origin.serve(f"/{next(mixed.numbers)}", self.serve)

    def serve(self, conn, _):
        half = len(self.body) // 2
        conn.sendall(sized(len(self.body)) + self.body[:half])
        time.sleep(self.pause)
        if self.gate:
            self.gate.wait(20)
        conn.sendall(self.body[half:])
        self.is_delivered = True


class Mixed(Run):
    def setUp(self):
        super().setUp()
        self.numbers = itertools.count()
        self.pool = ThreadPoolExecutor(16)
        self.addCleanup(self.pool.shutdown, cancel_futures=True)
        self.counts = collections.Counter()
        self.worst = (0.0, 0)

    @staticmethod
    def place(agent, source, method="GET"):
        """The answer, or none from an agent that has ended."""
        try:
            return agent.send(request(f"/src/{source.url}/dst/{source.dst}", method))
        except OSError:
            return b""

    def plain(self, agent, dst):
        source = Source(self, dst, pause=self.rnd.choice((0, 0, 0.05, 0.2)))
        kind = self.rnd.random()
        source.answer = self.place(agent, source)
        if kind < 0.3 and source.pause:
            self.repeat(agent, source, "HEAD" if kind < 0.1 else "GET")
        return [source]

    def repeat(self, agent, source, method="GET"):
        self.counts["repeated by " + method] += 1
        answer = self.place(agent, source, method)
        self.check(answer in (b"", *REFUSED), f"{method} of a running order: {answer[:40]}")

    def stall(self, agent, dst):
        """A source that has been silent for 35 s: its own order comes again, then perhaps another source takes over."""
        former = Source(self, dst, gate=threading.Event())
        former.answer = self.place(agent, former)
        sources = [former]
        try:
            age(agent.path(dst + "-Kova"), 35)
            self.repeat(agent, former)
            self.repeat(agent, former, "HEAD")
            if self.rnd.random() < 0.5:
                self.counts["takeovers"] += 1
                sources.append(Source(self, dst))
                sources[-1].answer = self.place(agent, sources[-1])
        except FileNotFoundError:  # the agent has been asked to quit
            pass
        former.gate.set()
        return sources

    def load(self, agent, n):
        jobs = []
        for i in range(ROUND):
            job, times = self.rnd.choices(((self.plain, 1), (self.plain, 2), (self.stall, 1)), (75, 15, 10))[0]
            self.counts["orders"] += 1
            self.counts["mirrors"] += times - 1
            jobs += [self.pool.submit(job, agent, f"{n % 7}/{n}-{i}") for _ in range(times)]
        return jobs

    def round(self, n, agent):
        jobs = self.load(agent, n)
        killed = n % 3 == 2
        if n % 3:
            time.sleep(self.rnd.uniform(0.02, 0.25))
        else:
            wait(jobs, 60)
            agent.at_base_line(30)
        running = agent.fds() - agent.base_fds
        status, seconds = agent.stop(signal.SIGKILL if killed else signal.SIGTERM)
        self.worst = max(self.worst, (seconds, running))
        sources = [source for job in jobs for source in job.result(60)]
        for s in sources if n % 3 == 0 else ():  # who got 200, and whose source delivered, has its file
            is_due = s.answer == ANSWERS[200] and s.is_delivered
            self.check(not is_due or os.path.exists(agent.path(s.dst)), f"{s.dst}: no file")
            self.check(s.answer in (ANSWERS[200], *REFUSED), f"{s.dst}: {s.answer[:40]}")
        self.check(status == -9 * killed and seconds <= 1.0, f"round {n}: status {status} after {seconds:.2f} s")
        for s in sources:
            self.bodies.setdefault(s.dst, []).append(s.body)
        self.stored.clear()
        self.take_files(agent)
        for name in agent.files():
            self.check(killed, f"{name}: left")
            os.remove(agent.path(name))
        self.check_registrations(killed)
        self.counts["stored"] += len(self.stored)
        self.bodies.clear()

    def test(self):
        rounds = int(NUMBERS[0])
        for n in range(rounds):
            if n % 20 == 0 or rounds < 20:
                agent = self.start(MODES[n // 3 % 2] + self.db.settings(), level="norm", must_run=False)
            else:
                agent.run()
            agent.wait_ready()
            self.round(n, agent)
        print(f"mixed: {rounds} rounds, {dict(self.counts)}; worst end {self.worst[0]:.3f} s with {self.worst[1]} "
              "descriptors in use")
        self.assertEqual(self.faults[:20], [])


if __name__ == "__main__":
    NUMBERS = [float(word) for word in sys.argv[1:] if word != "mixed"]
    unittest.main(argv=[sys.argv[0], "Mixed" if sys.argv[1] == "mixed" else "Soak"])
