"""Orders that meet: repetitions and HEADs of running orders, mirrors that race for one destination, stalls that are taken over,
and an end and a new start in between, with Redis on.

    mixed.py ROUNDS

Each round is a load on a fresh start. Every other one runs to its end, the others are cut by SIGTERM. Afterwards: a client that got
200 and whose source delivered has its file, every file is one source's whole body, every file is registered, nothing is
registered without a file, and no end took longer than a second."""

import os
import random
import sys
import tempfile
import threading
import time
from concurrent.futures import ThreadPoolExecutor

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "../blackbox"))
from kov import ANSWERS, Agent, Origin, read_all, wait_for  # noqa: E402
from services import Redis  # noqa: E402

ORDERS = 60
REFUSED = (ANSWERS[400], ANSWERS[403], ANSWERS[500])


class Source:
    """One order's source: a body of its own, sent in two halves with a pause or a gate between them."""

    def __init__(self, mixed, dst, pause=0.0, gate=None):
        self.body = mixed.rnd.randbytes(mixed.rnd.choice((2, 900, 5000, 300_000)))
        self.pause = pause
        self.gate = gate
        self.delivered = False
        self.dst = dst
        self.answer = None
        self.path = f"/{next(mixed.numbers)}"
        mixed.origin.paths[self.path] = self.serve
        self.url = mixed.origin.url(self.path)

    def serve(self, conn, _):
        half = len(self.body) // 2
        conn.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % len(self.body) + self.body[:half])
        time.sleep(self.pause)
        if self.gate:
            self.gate.wait(20)
        conn.sendall(self.body[half:])
        self.delivered = True


class Mixed:
    def __init__(self, root):
        self.root = root
        self.rnd = random.Random(1)
        self.numbers = iter(range(1 << 30))
        self.origin = Origin()
        self.db = Redis(f"{root}/db")
        self.pool = ThreadPoolExecutor(16)
        self.pairs = ThreadPoolExecutor(32)  # the two clients of each race
        self.faults = []
        self.counts = {"orders": 0, "repeated": 0, "heads": 0, "mirrors": 0, "takeovers": 0, "stored": 0}
        self.worst = (0.0, 0)

    def place(self, agent, source, method="GET"):
        """The answer, or none from an agent that has ended."""
        try:
            with agent.connect() as s:
                s.sendall(f"{method} /src/{source.url}/dst/{source.dst} HTTP/1.1\r\nHost: h\r\n\r\n".encode())
                return read_all(s)
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
        self.counts["heads" if method == "HEAD" else "repeated"] += 1
        answer = self.place(agent, source, method)
        if answer and answer not in REFUSED:
            self.faults.append(f"{method} of a running order: {answer[:40]}")

    def mirrors(self, agent, dst):
        self.counts["mirrors"] += 1
        sources = [Source(self, dst, pause=self.rnd.choice((0, 0.02, 0.1))) for _ in range(2)]
        answers = [self.pairs.submit(self.place, agent, s) for s in sources]
        for source, answer in zip(sources, answers):
            source.answer = answer.result()
        return sources

    def stall(self, agent, dst):
        """A source that has been silent for 35 s: its own order comes again, then perhaps another source takes over."""
        former = Source(self, dst, gate=threading.Event())
        former.answer = self.place(agent, former)
        sources = [former]
        try:
            os.utime(agent.path(dst + "-Kova"), (time.time() - 35,) * 2)
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
        for i in range(ORDERS):
            kind = self.rnd.random()
            job = self.mirrors if kind < 0.15 else self.stall if kind < 0.25 else self.plain
            self.counts["orders"] += 1
            jobs.append(self.pool.submit(job, agent, f"{n % 7}/{n}-{i}"))
        return jobs

    def round(self, n, agent):
        jobs = self.load(agent, n)
        is_cut = n % 2 == 1
        if is_cut:
            time.sleep(self.rnd.uniform(0.02, 0.25))
            running = len(os.listdir(f"/proc/{agent.pid}/fd")) - agent.base_fds
        else:
            sources = [source for job in jobs for source in job.result(60)]
            wait_for(lambda: agent.fds() <= agent.base_fds, "descriptors at base line", 30)
            self.judge(agent, sources)
        status, seconds = agent.stop()
        if is_cut:
            self.worst = max(self.worst, (seconds, running))
            sources = [source for job in jobs for source in job.result(60)]
        if status != 0 or seconds > 1.0:
            self.faults.append(f"round {n}: status {status} after {seconds:.2f} s")
        self.judge_files(agent, sources)

    def judge(self, agent, sources):
        """Who got 200, and whose source delivered, has its file."""
        for source in sources:
            if source.answer == ANSWERS[200] and source.delivered and not os.path.exists(agent.path(source.dst)):
                self.faults.append(f"{source.dst}: no file")
            if source.answer != ANSWERS[200] and source.answer not in REFUSED:
                self.faults.append(f"{source.dst}: {source.answer[:40]}")

    def judge_files(self, agent, sources):
        bodies = {}
        for source in sources:
            bodies.setdefault(source.dst, []).append(source.body)
        stored = agent.files()
        for name in stored:
            with open(agent.path(name), "rb") as f:
                if f.read() not in bodies.get(name, []):
                    self.faults.append(f"{name}: no source's body")
            os.remove(agent.path(name))
        registered = self.db.cli("keys", "*").split()
        self.faults += [f"{name}: not registered" for name in set(stored) - set(registered)]
        self.faults += [f"{name}: registered without a file" for name in set(registered) - set(stored)]
        self.db.cli("flushdb")
        self.counts["stored"] += len(stored)

    def run(self, rounds):
        agent = None
        for n in range(rounds):
            if n % 20 == 0 or rounds < 20:
                mode = ("", "max_mmap_mb = 0;")[n // 2 % 2]
                agent = Agent(f"{self.root}/{n}", mode + self.db.settings(), options=("-L", "norm"))
            else:
                agent.run()
            agent.wait_ready()
            self.round(n, agent)
        print(f"mixed: {rounds} rounds, {self.counts}; worst end {self.worst[0]:.3f} s with {self.worst[1]} descriptors in use; "
              f"{len(self.faults)} faults")
        print("\n".join(self.faults[:10]))
        return not self.faults

    def stop(self):
        self.pool.shutdown(cancel_futures=True)
        self.pairs.shutdown(cancel_futures=True)
        self.db.stop()
        self.origin.close()


def main():
    with tempfile.TemporaryDirectory(prefix="m", dir="/tmp") as root:
        os.makedirs(f"{root}/db")
        for n in range(int(sys.argv[1])):
            os.makedirs(f"{root}/{n}")
        mixed = Mixed(root)
        try:
            return 0 if mixed.run(int(sys.argv[1])) else 1
        finally:
            mixed.stop()


if __name__ == "__main__":
    sys.exit(main())
