"""Makes every system call and every allocation on the agent's roads fail, one at a time, and asks after each what holds
for all of them: the agent lives or has ended with a status, nothing but whole bodies has a final name, nothing is left
behind, and the next good order works. Each road is also walked under memcheck: no leak, no stray descriptor, no invalid
access.

    torture.py [--sample N] [SCENARIO ...]      KOV and FAILALLOC name the program and the preloaded library"""

import argparse
import collections
import contextlib
import itertools
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time
import unittest

from harness import ANSWERS, Agent, KovTest, read, read_all, request, strace, wait_for

# What the kernel can answer; calls that cannot fail, or only by a fault of the program's own, are left out.
ERRORS = {
    "accept4": "EMFILE ENFILE ECONNABORTED EINTR EPERM", "access": "EACCES EIO", "bind": "EADDRINUSE EACCES",
    "chdir": "EACCES", "close": "EIO EINTR", "connect": "ECONNREFUSED ENETUNREACH EINTR EADDRNOTAVAIL",
    "epoll_create": "EMFILE ENOMEM", "epoll_ctl": "ENOMEM ENOSPC", "epoll_pwait": "EINTR",
    "fallocate": "ENOSPC EOPNOTSUPP EINTR", "fcntl": "EMFILE EINVAL", "pipe2": "EMFILE",
    "splice": "EINVAL EIO ENOSYS EAGAIN EINTR ENOSPC ECONNRESET", "inotify_init1": "EMFILE", "recvmsg": "ENOBUFS EINTR",
    "fstat": "EIO", "ftruncate": "EIO ENOSPC", "getcwd": "ENOENT", "getsockname": "ENOBUFS",
    "getsockopt": "ENOBUFS", "ioctl": "ENODEV", "listen": "EADDRINUSE", "lseek": "EINVAL", "mkdir": "EACCES ENOSPC",
    "mmap": "ENOMEM", "msync": "EIO", "munmap": "ENOMEM", "newfstatat": "EIO EACCES",
    "openat": "EMFILE ENOSPC EACCES EINTR", "poll": "EINTR ENOMEM", "prctl": "EINVAL", "prlimit64": "EPERM",
    "read": "EIO EINTR ECONNRESET", "recvfrom": "ECONNRESET EAGAIN EINTR ENOMEM", "rename": "EIO EACCES",
    "renameat2": "EEXIST EINVAL EIO", "rt_sigaction": "EINVAL", "sched_setaffinity": "EINVAL",
    "sendto": "EPIPE EAGAIN EINTR ENOBUFS", "setsockopt": "ENOPROTOOPT ENOBUFS", "shutdown": "ENOTCONN",
    "socket": "EMFILE ENOBUFS", "unlink": "EACCES EIO", "write": "EIO ENOSPC EINTR EAGAIN",
}
SMALL = b"s" * 3000               # mapped
LARGE = bytes(range(256)) * 8192  # 2 MiB: written
RUNS = itertools.count()


Point = collections.namedtuple("Point", "name call wrapper env", defaults=("", (), {}))


class Scenario(KovTest):
    """One road: what the agent is started with, and what is done to it. Subclasses drive their orders in drive()."""

    log = ""
    level = "norm"
    needs_db = False

    def setUp(self):
        super().setUp()
        self.origin.body("/small", SMALL)
        self.origin.body("/large", LARGE)
        self.origin.cut("/stalled", self.origin.stall)
        self.db = self.redis() if self.needs_db else None
        self.place = f"{self.root}/agent"
        self.base_fds = 0

    def launch(self, point):
        """Starts the agent with what is in front of it at this point."""
        self.call = point.call
        self.patience = 30.0 if point.name == "memcheck" else 5.0
        env = dict(point.env)
        if "KOV_PROFILES" in os.environ:  # a coverage build: each run's own counters, since their writing may fail, too
            env["GCOV_PREFIX"] = f"{os.environ['KOV_PROFILES']}/{next(RUNS)}"
        shutil.rmtree(self.place, ignore_errors=True)
        return Agent(self.place, "max_mmap_mb = 1;" + (self.db.settings() if self.db else ""), log=self.log, env=env,
                     channel="127.0.0.1:{}" if self.db else "", level=self.level, options=("-p", f"{self.place}/pid"),
                     wrapper=point.wrapper)

    def ask(self, agent, target):
        """The answer, empty if the connection was closed without one."""
        # A call that fails by strace is not made: what failed to close stays open, and its client waits for the end.
        patience = 0.3 if self.call == "close" else self.patience
        try:
            with agent.connect(request(target)) as s:
                s.settimeout(patience)
                return read_all(s) if self.call != "close" else s.recv(4096)
        except TimeoutError:
            if self.call != "close":
                self.fail(f"no answer to {target[:60]}")
        except OSError:
            pass
        return b""

    def order(self, agent, name, dst):
        return self.ask(agent, f"/src/{self.origin.url('/' + name)}/dst/{dst}")

    def good_order(self, agent):
        """Works at once, or after the one failure that may have been left for it."""
        for n in range(3):
            is_begun = self.order(agent, "small", f"good{n}") == ANSWERS[200]
            is_stored = is_begun and self.comes(agent, lambda name=f"good{n}": name in agent.files())
            if is_stored or agent.proc.poll() is not None:
                return
        self.fail("the next good order does not work")

    @staticmethod
    def comes(agent, condition):
        """Whether it does within two seconds, or before the agent ends."""
        with contextlib.suppress(AssertionError):
            wait_for(lambda: condition() or agent.proc.poll() is not None, "it", 2.0)
        return condition()

    def settle(self, agent):
        """Until nothing is in progress."""
        self.comes(agent, lambda: (text := agent.log()).count("TASK-START") <= text.count("TASK-END"))

    def walk(self, point):
        """The whole road; the outcome in a word."""
        agent = self.launch(point)
        try:
            wait_for(lambda: agent.is_listening() or agent.proc.poll() is not None, "its start or end", self.patience)
            if point.name in ("road", "memcheck"):
                self.base_fds = agent.fds()
            for step in (self.drive, self.settle, self.good_order, self.settle) if agent.proc.poll() is None else ():
                step(agent)
            self.check(agent, self.base_fds + (self.call == "close"))  # what failed to close is still open
            return self.quit(agent)
        finally:
            agent.kill()

    def check(self, agent, limit):
        """The invariants, after the road and the good order."""
        lives = agent.proc.poll() is None
        for name in agent.files():
            if name.endswith("-Kova"):
                # Left under that name where it could not be removed, or, as documented, could not be renamed.
                if lives and self.call != "unlink" and "complete_download: rename(" not in agent.log():
                    self.fail(f"unfinished file {name}")
            else:
                self.assertTrue(agent.body(name) in (SMALL, LARGE), f"wrong body under the final name {name}")
        if not lives:
            return
        kept = set(agent.held()) - {"job2.lock"}  # a local order leaves its lock to lapse
        if kept and self.call not in ("unlink", "close"):
            self.fail(f"locks {kept}")
        wait_for(lambda: agent.fds() <= limit, f"at most {limit} descriptors", 2.0)
        agent.idles(0.05, 0.04)

    def quit(self, agent):
        """Quits the agent, which has one more download, if it lives; the outcome in a word."""
        lived = agent.proc.poll() is None
        if lived:
            self.order(agent, "stalled", "cut-by-the-end")
            agent.proc.send_signal(signal.SIGTERM)
        status = agent.proc.wait(self.patience)
        if status < 0:
            self.assertEqual(status, -signal.SIGABRT)
            # The event loop's own containers are the one thing that it cannot do without; an unreadable digest is an
            # empty one; a mapping that cannot be given back has been corrupted.
            panic = "".join(re.findall(r"\(PNC\)(?s:.*)", agent.log() + agent.stderr()))
            expected = r"add_sha1|xvlst_reset: munmap FAILED" + ("" if self.call else r"|rqs_\w+|reserve")
            self.assertRegex(panic, expected)
            return "aborted"
        return "lived" if lived else "ended"

    def points(self):
        """Every point of failure on this road, and the calls that cannot fail."""
        trace, report = f"{self.root}/trace", f"{self.root}/memcheck"
        self.assertEqual(self.walk(Point("road", wrapper=["strace", "-D", "-qq", "-o", trace])), "lived")
        wait_for(lambda: "exit_group(" in read(trace)[-200:], "the trace")
        calls = [line.split("(", 1)[0] for line in read(trace).splitlines()]
        main = next(n for n, line in enumerate(read(trace).splitlines()) if line.startswith("fcntl(0, F_GETFD)"))
        before, total = collections.Counter(calls[:main]), collections.Counter(calls)
        found = []
        for call, errors in ERRORS.items():
            numbers = range(before[call] + 1, total[call] + 2)
            if len(numbers) > 100:  # the same turn of the loop, over and over
                numbers = [*numbers[:10], *numbers[-30:]]
            found += [Point(f"{call} {n} {error}", call, strace("/dev/null", call, f"{call}:error={error}:when={n}"))
                      for n in numbers for error in errors.split()]
        preload = {"LD_PRELOAD": os.environ["FAILALLOC"]}
        self.walk(Point("count", env=preload))
        count = int(re.search(r"allocations: (\d+)", read(f"{self.place}/stderr"))[1])
        found += [Point(f"allocation {n}", env={**preload, "KOV_FAIL_ALLOC": str(n)}) for n in range(1, count + 1)]
        leaks = ["--leak-check=full", "--show-leak-kinds=definite,indirect,possible", "--track-fds=yes"]
        found.append(Point("memcheck", wrapper=["valgrind", *leaks, "--error-exitcode=99", f"--log-file={report}"]))
        return found, sorted(call for call in set(total) - set(ERRORS) if call.isidentifier())

    def one(self, point):
        outcome = self.walk(point)
        if point.name == "memcheck":
            text = read(f"{self.root}/memcheck")
            if "ERROR SUMMARY: 0 errors" not in text or text.count("Open ") > text.count("<inherited from parent>"):
                self.fail(text[-2000:])
        return outcome

    def test(self):
        name = type(self).__name__.lower()
        found, unknown = self.points()
        found = [p for p in found if re.search(ARGS.only, p.name)]
        size = min(ARGS.sample or len(found), len(found) - 1)
        chosen = random.Random(ARGS.sample).sample(found[:-1], size) + found[-1:]
        outcomes = collections.Counter()
        for point in chosen:
            try:
                outcomes[self.one(point)] += 1
            except (AssertionError, subprocess.TimeoutExpired) as e:
                outcomes["broken"] += 1
                print(f"{name}: {point.name}: {e}", flush=True)
        print(f"{name}: {len(chosen)} of {len(found)} points, {outcomes['lived']} lived, {outcomes['ended']} ended "
              f"with a status, {outcomes['aborted']} aborted as stated, {outcomes['broken']} broken promises; calls "
              f"that cannot fail: {' '.join(unknown)}", flush=True)
        self.assertEqual(outcomes["broken"], 0)


class Http(Scenario):
    """Start, a mapped and a written order into new directories, one that breaks, a refused one, a ping, the end."""

    def drive(self, agent):
        self.order(agent, "small", "dir/mapped")
        self.order(agent, "large", "dir/written")
        self.order(agent, "broken", "broken")
        self.ask(agent, "/src/ftp://h/a/dst/b")
        self.ask(agent, "/")


class Datagram(Scenario):
    """An order as a datagram under a lock, registered in Redis; a local one; one for a source that is not there."""

    needs_db = True

    def drive(self, agent):
        for lid, source in (("job1", self.origin.url("/small")), ("job2", "http://me.example/x"),
                            ("job3", "http://127.0.0.1:1/none")):
            agent.datagram(f"#!{lid} http://h/src/{source}/dst/{lid} 600")
            time.sleep(0.02)


class Rotation(Scenario):
    """A log that is rotated."""

    log = "max_size_mb = 1;"
    level = "debug"

    def drive(self, agent):
        for _ in range(200):
            self.ask(agent, "/src/ftp://h/" + "f" * 200 + "/dst/" + "d" * 200)
            if agent.proc.poll() is not None or any(name.startswith("log.") for name in os.listdir(self.place)):
                break


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--sample", type=int, default=0, help="so many points of each scenario by chance, and memcheck")
    parser.add_argument("--only", default="", help="only points whose name matches")
    parser.add_argument("scenarios", nargs="*", default=["http", "datagram", "rotation"])
    ARGS = parser.parse_args()
    unittest.main(argv=[sys.argv[0], *(name.capitalize() for name in ARGS.scenarios)])
