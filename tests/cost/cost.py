"""What an order costs, in counts that do not depend on the machine's speed: instructions by callgrind, system calls by strace.
Fails when one of them has grown by more than 5 % over the committed figure.

    cost.py [--write]      --write commits what was measured to figures.json"""

import json
import os
import re
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "../blackbox"))
from kov import ANSWERS, Agent, Origin, wait_for  # noqa: E402

FIGURES = os.path.join(os.path.dirname(__file__), "figures.json")
ORDERS = 1000
BASE = 100  # orders of the run that is taken off: start, end and the first turns


def run(root, origin, wrapper, orders):
    agent = Agent(root, "max_mmap_mb = 8;", options=("-L", "norm"), wrapper=wrapper)
    wait_for(agent.is_listening, "the listener", 60)
    for i in range(orders):
        assert agent.order(origin.url("/a"), f"{i % 10}/{i:04}") == ANSWERS[200]
        agent.wait_file(f"{i % 10}/{i:04}")
    agent.wait_log("TASK-END", orders, 30)
    status = agent.proc.poll()
    assert status is None, status
    agent.proc.terminate()
    assert agent.proc.wait(60) == 0
    agent.kill()


def instructions(root, origin, orders):
    out = f"{root}/callgrind"
    run(f"{root}/c{orders}", origin, ["valgrind", "-q", "--tool=callgrind", f"--callgrind-out-file={out}"], orders)
    with open(out, encoding="utf-8", errors="replace") as f:
        return int(re.search(r"(?m)^(?:summary|totals): (\d+)", f.read()).group(1))


def system_calls(root, origin, orders):
    out = f"{root}/strace"
    run(f"{root}/s{orders}", origin, ["strace", "-D", "-qq", "-c", "-U", "calls,name", "-o", out], orders)
    wait_for(lambda: os.path.exists(out) and "total" in open(out, encoding="ascii").read(), "the table")
    with open(out, encoding="ascii") as f:
        return int(re.search(r"(\d+) total", f.read()).group(1))


def main():
    with tempfile.TemporaryDirectory(prefix="c", dir="/tmp") as root:
        for n in (BASE, ORDERS):
            os.makedirs(f"{root}/c{n}")
            os.makedirs(f"{root}/s{n}")
        origin = Origin()
        origin.body("/a", b"x" * 4096)
        figures = {name: (count(root, origin, ORDERS) - count(root, origin, BASE)) / (ORDERS - BASE)
                   for name, count in (("instructions", instructions), ("system_calls", system_calls))}
        origin.close()
    if "--write" in sys.argv:
        with open(FIGURES, "w", encoding="ascii") as f:
            json.dump({name: round(value, 1) for name, value in figures.items()}, f, indent=1)
            f.write("\n")
    with open(FIGURES, encoding="ascii") as f:
        committed = json.load(f)
    failed = False
    for name, value in figures.items():
        growth = value / committed[name] - 1
        failed = failed or growth > 0.05
        print(f"{name} an order: {value:.1f}, committed {committed[name]}, {growth:+.1%}")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
