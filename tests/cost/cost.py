"""What an order costs, in counts that do not depend on the machine's speed: instructions by callgrind, system calls by
strace, packets by the loopback interface, on which nobody else may send meanwhile. Fails when one of them has grown
beyond its bound over the committed figure."""

import json
import os
import re

from harness import KovTest, read, wait_for

with open(f"{os.path.dirname(__file__)}/figures.json", encoding="ascii") as f:
    FIGURES = json.load(f)
ORDERS = 1000
BASE = 100    # orders of the run that is taken off: start, end and the first turns
BOUND = 1.05  # packets: 16 or 17, as the agent or the source closes first


class Cost(KovTest):
    def order(self, wrapper, orders):
        agent = self.start(level="norm", wrapper=wrapper)
        url = self.origin.body("/a", b"x" * 4096)
        for i in range(orders):
            agent.order(url, f"{i % 10}/{i:04}")
            agent.stored(f"{i % 10}/{i:04}")
        agent.ended(orders, 30)
        self.end(agent)

    def check(self, name, count):
        """Compares the cost of one order, from the difference of two runs."""
        cost = (count(ORDERS) - count(BASE)) / (ORDERS - BASE)
        print(f"{name} an order: {cost:.2f}, committed {FIGURES[name]}, {cost / FIGURES[name] - 1:+.1%}", flush=True)
        self.assertLess(cost / FIGURES[name], BOUND)

    def test_instructions(self):
        def count(orders):
            self.order(["valgrind", "-q", "--tool=callgrind", f"--callgrind-out-file={self.root}/out"], orders)
            return int(re.search(r"(?m)^(?:summary|totals): (\d+)", read(f"{self.root}/out")).group(1))
        self.check("instructions", count)

    def test_system_calls(self):
        def count(orders):
            out = f"{self.root}/{orders}"
            self.order(["strace", "-D", "-qq", "-c", "-U", "calls,name", "-o", out], orders)
            wait_for(lambda: "total" in read(out, ""), "the table")
            calls = {name: int(n) for n, name in re.findall(r"(?m)^\s*(\d+) (\w+)$", read(out))}
            return calls["total"] - calls.get("rt_sigpending", 0)  # that comes with time, and a traced order takes it
        self.check("system_calls", count)

    def test_packets(self):
        def sent():
            return int(re.search(r"lo:(?:\s+\d+){9}\s+(\d+)", read("/proc/net/dev")).group(1))

        def count(orders):
            before = sent()
            self.order((), orders)
            return sent() - before
        self.check("packets", count)
