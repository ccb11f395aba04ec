"""Makes every system call and every allocation on the agent's roads fail, one at a time, and asks after each what holds for
all of them: the agent lives or has ended with a status, nothing but whole bodies has a final name, nothing is left behind,
and the next good order works.

    torture.py [--sample N] [SCENARIO ...]      KOV and FAILALLOC name the program and the preloaded library"""

import argparse
import collections
import itertools
import os
import random
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "../blackbox"))
from kov import ANSWERS, Agent, Origin, free_port, wait_for  # noqa: E402
from services import Redis  # noqa: E402

# What the kernel can answer; calls that cannot fail, or only by a fault of the program's own, are left out.
ERRORS = {
    "accept4": "EMFILE ENFILE ECONNABORTED EINTR EPERM", "access": "EACCES EIO", "bind": "EADDRINUSE EACCES",
    "chdir": "EACCES", "close": "EIO EINTR", "connect": "ECONNREFUSED ENETUNREACH EINTR EADDRNOTAVAIL",
    "epoll_create": "EMFILE ENOMEM", "epoll_ctl": "ENOMEM ENOSPC", "epoll_pwait": "EINTR", "fallocate": "ENOSPC EOPNOTSUPP EINTR",
    "fcntl": "EMFILE EINVAL", "pipe2": "EMFILE",
    "splice": "EINVAL EIO ENOSYS EAGAIN EINTR ENOSPC ECONNRESET", "inotify_init1": "EMFILE", "recvmsg": "ENOBUFS EINTR", "fstat": "EIO",
    "ftruncate": "EIO ENOSPC", "getcwd": "ENOENT", "getsockname": "ENOBUFS",
    "getsockopt": "ENOBUFS", "ioctl": "ENODEV", "listen": "EADDRINUSE", "lseek": "EINVAL", "mkdir": "EACCES ENOSPC",
    "mmap": "ENOMEM", "msync": "EIO", "munmap": "ENOMEM", "newfstatat": "EIO EACCES", "openat": "EMFILE ENOSPC EACCES EINTR",
    "poll": "EINTR ENOMEM", "prctl": "EINVAL", "prlimit64": "EPERM", "read": "EIO EINTR ECONNRESET",
    "recvfrom": "ECONNRESET EAGAIN EINTR ENOMEM", "rename": "EIO EACCES", "rt_sigaction": "EINVAL",
    "sched_setaffinity": "EINVAL", "sendto": "EPIPE EAGAIN EINTR ENOBUFS", "setsockopt": "ENOPROTOOPT ENOBUFS",
    "shutdown": "ENOTCONN", "socket": "EMFILE ENOBUFS", "unlink": "EACCES EIO", "write": "EIO ENOSPC EINTR EAGAIN",
}
SMALL = b"s" * 3000            # mapped
LARGE = bytes(range(256)) * 8192  # 2 MiB: written
PATIENCE = 5.0


class Broken(Exception):
    """A promise that did not hold."""


class Scenario:
    """One road: what the agent is started with, and what is done to it. Subclasses drive their orders in run()."""

    settings = "max_mmap_mb = 1;"
    log = ""
    level = "norm"

    def __init__(self, root, origin, db):
        self.root = root
        self.origin = origin
        self.db = db
        self.locks = f"{root}/locks"
        self.udp_port = free_port()
        self.call = ""  # the one that fails

    def start(self, wrapper, env=None):
        shutil.rmtree(self.root, ignore_errors=True)
        os.makedirs(self.locks)
        extra = self.settings
        if self.db:
            extra += self.db.settings()
            extra += f'udp_input = {{ url = "127.0.0.1:{self.udp_port}"; lock_dir = "{self.locks}"; }};'
        agent = Agent(self.root, extra, log=self.log, options=("-L", self.level, "-p", f"{self.root}/pid"), env=env,
                      wrapper=wrapper)
        deadline = time.monotonic() + PATIENCE
        while not agent.is_listening() and agent.proc.poll() is None:
            if time.monotonic() > deadline:
                agent.kill()
                raise Broken("neither started nor ended")
            time.sleep(0.002)
        return agent

    def ask(self, agent, target):
        """The answer, empty if the connection was closed without one."""
        # A call that fails by strace is not made: what failed to close stays open, and its client waits for the end.
        patience = 0.3 if self.call == "close" else PATIENCE
        data = b""
        try:
            with socket.create_connection(("127.0.0.1", agent.port), timeout=patience) as s:
                s.sendall(f"GET {target} HTTP/1.1\r\nHost: agent.example.net\r\n\r\n".encode())
                while chunk := s.recv(4096):
                    data += chunk
                return data
        except TimeoutError:
            if self.call != "close":
                raise Broken(f"no answer to {target[:60]}") from None
            return data
        except OSError:
            return b""

    def order(self, agent, name, dst):
        return self.ask(agent, f"/src/{self.origin.url('/' + name)}/dst/{dst}")

    def good_order(self, agent):
        """Works at once, or after the one failure that may have been left for it."""
        for n in range(3):
            if agent.proc.poll() is not None:
                return
            if self.order(agent, "small", f"good{n}") == ANSWERS[200] and self.comes(agent, f"good{n}"):
                return
        raise Broken("the next good order does not work")

    def comes(self, agent, dst):
        deadline = time.monotonic() + 1.0
        while time.monotonic() < deadline and agent.proc.poll() is None:
            if os.path.exists(agent.path(dst)):
                return True
            time.sleep(0.002)
        return False

    def settle(self, agent):
        """Until nothing is in progress."""
        text = ""
        for _ in range(400):
            text = agent.log()
            if text.count("TASK-START") <= text.count("TASK-END") or agent.proc.poll() is not None:
                break
            time.sleep(0.005)


class Http(Scenario):
    """Start, a mapped and a written order into new directories, a refused one, a ping, the end."""

    def run(self, agent):
        self.order(agent, "small", "dir/mapped")
        self.order(agent, "large", "dir/written")
        self.ask(agent, "/src/ftp://h/a/dst/b")
        self.ask(agent, "/")


class Datagram(Scenario):
    """An order as a datagram under a lock, registered in Redis; a local one; one for a source that is not there."""

    def run(self, agent):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
            for lid, source in (("job1", self.origin.url("/small")), ("job2", "http://me.example/x"),
                                ("job3", "http://127.0.0.1:1/none")):
                s.sendto(f"#!{lid} http://h/src/{source}/dst/{lid} 600".encode(), ("127.0.0.1", self.udp_port))
                time.sleep(0.02)


class Rotation(Scenario):
    """A log that is rotated."""

    log = "max_size_mb = 1;"
    level = "debug"

    def run(self, agent):
        for _ in range(200):
            self.ask(agent, "/src/ftp://h/" + "f" * 200 + "/dst/" + "d" * 200)
            if agent.proc.poll() is not None or any(name.startswith("log.") for name in os.listdir(self.root)):
                break


SCENARIOS = {"http": Http, "datagram": Datagram, "rotation": Rotation}


def check(scenario, agent, base_fds, call):
    """The invariants, after the scenario and the good order."""
    for name in agent.files():
        with open(agent.path(name), "rb") as f:
            body = f.read()
        if name.endswith("-Kova"):
            # Left under its unfinished name where it could not be removed, or, as documented, could not be renamed.
            kept = call == "unlink" or "complete_download: rename(" in agent.log()
            if not kept and agent.proc.poll() is None:
                raise Broken(f"unfinished file {name}")
        elif body not in (SMALL, LARGE):
            raise Broken(f"wrong body under the final name {name}")
    if agent.proc.poll() is None:
        kept = [n for n in os.listdir(scenario.locks) if n != "job2.lock"]  # a local order leaves its lock to lapse
        if kept and call not in ("unlink", "close"):
            raise Broken(f"locks {kept}")
        limit = base_fds + (call == "close")  # what failed to close is still open
        deadline = time.monotonic() + 2.0
        while agent.fds() > limit:
            if time.monotonic() > deadline:
                raise Broken(f"{agent.fds()} descriptors, {base_fds} at base line")
            time.sleep(0.01)
        before = agent.cpu_seconds()
        time.sleep(0.05)
        if agent.cpu_seconds() - before > 0.04:
            raise Broken("spins")


def end(agent, call):
    """Quits the agent if it lives; the outcome in a word."""
    lived = agent.proc.poll() is None
    if lived:
        agent.proc.send_signal(signal.SIGTERM)
    try:
        status = agent.proc.wait(PATIENCE)
    except subprocess.TimeoutExpired:
        raise Broken("does not quit") from None
    if status < 0 and not (status == -signal.SIGABRT and "(PNC)" in agent.log() + agent.stderr()):
        raise Broken(f"ended by signal {-status}")
    if status < 0:
        # The event loop's own containers are the one thing that it cannot do without; an unreadable digest is an empty one;
        # a mapping that cannot be given back has been corrupted.
        panic = "".join(re.findall(r"\(PNC\)(?s:.*)", agent.log() + agent.stderr()))
        if not re.search("add_sha1|xvlst_reset: munmap FAILED", panic) and (call or not re.search(r"rqs_\w+|reserve", panic)):
            raise Broken(f"aborted: {panic[:200]}")
        return "aborted"
    return "lived" if lived else "ended"


RUNS = itertools.count()


def one(scenario, wrapper, base_fds, call, env=None):
    scenario.call = call
    if "KOV_PROFILES" in os.environ:  # a coverage build: counters of its own for each run, since their writing may fail, too
        env = {**(env or {}), "GCOV_PREFIX": f"{os.environ['KOV_PROFILES']}/{next(RUNS)}"}
    agent = scenario.start(wrapper, env)
    try:
        if agent.proc.poll() is None:
            scenario.run(agent)
            scenario.settle(agent)
            scenario.good_order(agent)
            scenario.settle(agent)
        check(scenario, agent, base_fds, call)
        return end(agent, call)
    finally:
        agent.kill()


def road(scenario):
    """A run in which nothing fails: how often each call is made before the program's own code and in all, and base_fds."""
    trace = f"{scenario.root}.trace"
    agent = scenario.start(["strace", "-D", "-qq", "-o", trace])
    base_fds = agent.fds()
    scenario.run(agent)
    scenario.settle(agent)
    scenario.good_order(agent)
    check(scenario, agent, base_fds, "")
    if end(agent, "") != "lived":
        raise Broken("ends by itself though nothing fails")
    agent.kill()
    wait_for(lambda: "exit_group(" in open(trace, encoding="utf-8", errors="replace").read()[-200:], "the trace")
    before, total, in_main = collections.Counter(), collections.Counter(), False
    with open(trace, encoding="utf-8", errors="replace") as f:
        for line in f:
            call = line.split("(", 1)[0]
            in_main = in_main or line.startswith("fcntl(0, F_GETFD)")  # the first thing that main does
            total[call] += 1
            before[call] += not in_main
    os.remove(trace)
    return before, total, base_fds


def points(scenario):
    """Every point of failure on the scenario's road: a name, the call, the command in front, the environment."""
    before, total, base_fds = road(scenario)
    found = []
    for call, errors in ERRORS.items():
        numbers = range(before[call] + 1, total[call] + 2)
        if len(numbers) > 100:  # the same turn of the loop, over and over
            numbers = [*numbers[:10], *numbers[-30:]]
        for n in numbers:
            for error in errors.split():
                found.append((f"{call} {n} {error}", call, ["strace", "-D", "-qq", "-o", "/dev/null", "-e", f"trace={call}",
                                                            "-e", f"inject={call}:error={error}:when={n}"], {}))
    unknown = sorted(call for call in set(total) - set(ERRORS) if call.isidentifier())
    if "FAILALLOC" in os.environ:
        counter = f"{scenario.root}.count"
        one(scenario, [], base_fds, "", {"LD_PRELOAD": os.environ["FAILALLOC"], "KOV_ALLOC_COUNT": counter})
        with open(counter, encoding="ascii") as f:
            count = int(f.read())
        found += [(f"allocation {n}", "", [], {"LD_PRELOAD": os.environ["FAILALLOC"], "KOV_FAIL_ALLOC": str(n)})
                  for n in range(1, count + 1)]
    return found, base_fds, unknown


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--sample", type=int, default=0, help="so many points of each scenario, spread by chance")
    parser.add_argument("--only", default="", help="only points whose name matches")
    parser.add_argument("scenarios", nargs="*", default=list(SCENARIOS))
    args = parser.parse_args()

    root = tempfile.mkdtemp(prefix="t", dir="/tmp")
    os.chmod(root, 0o755)
    origin = Origin()
    origin.body("/small", SMALL)
    origin.body("/large", LARGE)
    db = Redis(f"{root}/redis")
    violations = []
    try:
        for name in args.scenarios:
            scenario = SCENARIOS[name](f"{root}/{name}", origin, db if name == "datagram" else None)
            found, base_fds, unknown = points(scenario)
            found = [p for p in found if re.search(args.only, p[0])]
            chosen = random.Random(args.sample).sample(found, min(args.sample, len(found))) if args.sample else found
            outcomes = collections.Counter()
            for point, call, wrapper, env in chosen:
                try:
                    outcomes[one(scenario, wrapper, base_fds, call, env)] += 1
                except Broken as e:
                    outcomes["broken"] += 1
                    violations.append(f"{name}: {point}: {e}")
                    print(violations[-1], flush=True)
            print(f"{name}: {len(chosen)} of {len(found)} points, {outcomes['lived']} lived, {outcomes['ended']} ended with a "
                  f"status, {outcomes['aborted']} aborted as stated, {outcomes['broken']} broken promises; calls that cannot fail: {' '.join(unknown)}", flush=True)
    finally:
        db.stop()
        origin.close()
        shutil.rmtree(root, ignore_errors=True)
    return 1 if violations else 0


if __name__ == "__main__":
    sys.exit(main())
