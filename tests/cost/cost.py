"""What an order costs, in counts that do not depend on the machine's speed: instructions by callgrind, system calls by
strace, packets by the loopback interface of a network namespace of its own. Fails when one of them has grown beyond its
bound over the committed figure.

    cost.py [--write]      --write commits what was measured to figures.json"""

import ctypes
import fcntl
import json
import os
import re
import socket
import struct
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "../blackbox"))
from kov import ANSWERS, Agent, Origin, wait_for  # noqa: E402

FIGURES = os.path.join(os.path.dirname(__file__), "figures.json")
ORDERS = 1000
# Packets: 16 or 17, as the agent or the source closes first.
BOUNDS = {"instructions": 0.05, "system_calls": 0.05, "packets": 0.05}
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
        calls = {name: int(n) for n, name in re.findall(r"(?m)^\s*(\d+) (\w+)$", f.read())}
    return calls["total"] - calls.get("rt_sigpending", 0)  # that one comes with time, and a traced order takes its time


def own_network():
    """Leaves the machine's network for one that nobody else uses."""
    clone_newnet, get_flags, set_flags, iff_up = 0x40000000, 0x8913, 0x8914, 1
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.unshare(clone_newnet) != 0:
        raise OSError(ctypes.get_errno(), "a network namespace of its own")
    with socket.socket() as s:
        flags = struct.unpack("16xH14x", fcntl.ioctl(s, get_flags, struct.pack("16s16x", b"lo")))[0]
        fcntl.ioctl(s, set_flags, struct.pack("16sH14x", b"lo", flags | iff_up))


def packets(root, origin, orders):
    def sent():
        with open("/proc/thread-self/net/dev", encoding="ascii") as f:
            return int(re.search(r"lo:(?:\s+\d+){9}\s+(\d+)", f.read()).group(1))
    before = sent()
    run(f"{root}/p{orders}", origin, [], orders)
    return sent() - before


def main():
    own_network()
    with tempfile.TemporaryDirectory(prefix="c", dir="/tmp") as root:
        for n in (BASE, ORDERS):
            os.makedirs(f"{root}/c{n}")
            os.makedirs(f"{root}/s{n}")
            os.makedirs(f"{root}/p{n}")
        origin = Origin()
        origin.body("/a", b"x" * 4096)
        counts = {"instructions": instructions, "system_calls": system_calls, "packets": packets}
        figures = {name: (count(root, origin, ORDERS) - count(root, origin, BASE)) / (ORDERS - BASE)
                   for name, count in counts.items()}
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
        failed = failed or growth > BOUNDS[name]
        print(f"{name} an order: {value:.2f}, committed {committed[name]}, {growth:+.1%}, bound {BOUNDS[name]:+.0%}")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
