"""What an order costs, in counts that do not depend on the machine's speed: instructions by callgrind, system calls by
strace, packets by the loopback interface of a network namespace of its own. Fails when one of them has grown beyond its
bound over the committed figure.

    cost.py [--write]      --write commits what was measured to figures.json"""

import json
import os
import re
import sys
import tempfile

from harness import Agent, Origin, callgrind, read, unshare, wait_for, write

FIGURES = os.path.join(os.path.dirname(__file__), "figures.json")
ORDERS = 1000
BASE = 100    # orders of the run that is taken off: start, end and the first turns
BOUND = 0.05  # packets: 16 or 17, as the agent or the source closes first


def run(root, origin, wrapper, orders):
    agent = Agent(root, level="norm", wrapper=wrapper).wait_ready()
    for i in range(orders):
        agent.order(origin.url("/a"), f"{i % 10}/{i:04}")
        agent.stored(f"{i % 10}/{i:04}")
    agent.ended(orders, 30)
    assert agent.proc.poll() is None, "the agent ended by itself"
    agent.proc.terminate()
    assert agent.proc.wait(60) == 0
    agent.kill()


def instructions(root, origin, orders):
    run(root, origin, callgrind(f"{root}/out"), orders)
    return int(re.search(r"(?m)^(?:summary|totals): (\d+)", read(f"{root}/out")).group(1))


def system_calls(root, origin, orders):
    out = f"{root}/out"
    run(root, origin, ["strace", "-D", "-qq", "-c", "-U", "calls,name", "-o", out], orders)
    wait_for(lambda: "total" in read(out, ""), "the table")
    calls = {name: int(n) for n, name in re.findall(r"(?m)^\s*(\d+) (\w+)$", read(out))}
    return calls["total"] - calls.get("rt_sigpending", 0)  # that one comes with time, and a traced order takes its time


def packets(root, origin, orders):
    def sent():
        return int(re.search(r"lo:(?:\s+\d+){9}\s+(\d+)", read("/proc/net/dev")).group(1))
    before = sent()
    run(root, origin, [], orders)
    return sent() - before


def measure():
    """The counts an order, from the difference of two runs."""
    figures = {}
    origin = Origin()
    origin.body("/a", b"x" * 4096)
    with tempfile.TemporaryDirectory(prefix="c", dir="/tmp") as root:
        for count in (instructions, system_calls, packets):
            total, base = (count(f"{root}/{count.__name__}{n}", origin, n) for n in (ORDERS, BASE))
            figures[count.__name__] = (total - base) / (ORDERS - BASE)
    origin.close()
    return figures


def main():
    if "KOV_OWN_NETWORK" not in os.environ:
        command = [*unshare("-n", "ip link set lo up"), sys.executable, *sys.argv]
        os.execvpe(command[0], command, {**os.environ, "KOV_OWN_NETWORK": "1"})
    figures = measure()
    if "--write" in sys.argv:
        write(FIGURES, json.dumps({name: round(value, 1) for name, value in figures.items()}, indent=1) + "\n")
    committed = json.loads(read(FIGURES))
    for name, value in figures.items():
        print(f"{name} an order: {value:.2f}, committed {committed[name]}, {value / committed[name] - 1:+.1%}, "
              f"bound {BOUND:+.0%}")
    return 1 if any(value / committed[name] - 1 > BOUND for name, value in figures.items()) else 0


if __name__ == "__main__":
    sys.exit(main())
