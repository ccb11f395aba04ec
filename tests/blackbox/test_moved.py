"""Written bodies that move inside the kernel, through one pipe: also where the kernel refuses, at whichever step."""

import os
import re
import unittest

from kov import ANSWERS, HEAD, KovTest, wait_for

SIZE = (3 << 20) + 17


class Moved(KovTest):
    def traced(self, *injections, calls="splice"):
        """An agent that writes, under a tracer; the file of its calls."""
        trace = f"{self.root}/trace{self.roots}"
        wrapper = ["strace", "-D", "-qq", "-o", trace, "-e", f"trace={calls}"]
        for injection in injections:
            wrapper += ["-e", f"inject={injection}"]
        agent = self.start("max_mmap_mb = 0;", wrapper=wrapper, env={"ASAN_OPTIONS": "detect_leaks=0"})
        return agent, trace

    def check_bodies(self, agent):
        for n, size in enumerate((SIZE, 200_000, 131_071)):
            data = os.urandom(size)
            self.assertEqual(agent.order(self.origin.body(f"/{n}", data, pieces=[HEAD, 1]), f"b{n}"), ANSWERS[200])
            self.assertTrue(agent.stored(f"b{n}") == data, size)
        agent.wait_log("TASK-END", 3)

    @staticmethod
    def lines(trace):
        with open(trace, encoding="ascii", errors="replace") as f:
            return f.read().splitlines()

    def place(self, lines, call, text):
        """The number of the first of the calls whose line holds text."""
        ours = [line for line in lines if line.startswith(call + "(")]
        return next(n for n, line in enumerate(ours, 1) if text in line)

    def test_long_bodies_move_and_short_rests_do_not(self):
        agent, trace = self.traced()
        self.check_bodies(agent)
        filled = emptied = 0
        for line in self.lines(trace):
            n = int(line.rsplit("= ", 1)[1].split()[0])
            if "NONBLOCK" in line:
                filled += n
            else:
                emptied += n
        self.assertEqual(filled, emptied)
        self.assertGreater(filled, SIZE - 131_072)

    def test_refusals_fall_back_to_the_buffer(self):
        for injection in ("error=ENOSYS", "error=EINVAL:when=1", "error=EINVAL:when=2", "error=EIO:when=2",
                          "error=EAGAIN:when=3", "error=EPERM:when=4", "error=EINTR:when=3", "error=ENOSPC:when=2"):
            with self.subTest(injection):
                agent, trace = self.traced("splice:" + injection)
                self.check_bodies(agent)
                self.assertRegex("\n".join(self.lines(trace)), "INJECTED")

    def test_without_a_pipe(self):
        agent, trace = self.traced(calls="fcntl")
        wait_for(lambda: any("F_SETPIPE_SZ" in line for line in self.lines(trace)), "the pipe")
        nth = self.place(self.lines(trace), "fcntl", "F_SETPIPE_SZ")
        base = agent.base_fds
        for injection, text in ((f"fcntl:retval=65536:when={nth}", "is not granted (65536)"),
                                (f"fcntl:error=EPERM:when={nth}", "is not granted (-1)"),
                                ("pipe2:error=EMFILE", "ERROR(24)")):
            agent, trace = self.traced(injection, calls="fcntl,pipe2,splice")
            self.assertEqual(agent.base_fds, base - 2)
            self.assertRegex(agent.log(), rf"\(WRN\) .*open_body_pipe: .*{re.escape(text)}.*: bodies go through the buffer\n")
            self.check_bodies(agent)
            self.assertEqual([line for line in self.lines(trace) if line.startswith("splice(")], [])

    def test_what_stays_in_the_pipe_is_gone_before_the_next_body(self):
        refused = "splice:error=EIO:when=2"
        agent, trace = self.traced(refused, calls="splice,read")
        self.check_bodies(agent)
        lines = self.lines(trace)
        behind = lines[next(n for n, line in enumerate(lines) if "INJECTED" in line):]
        nth = 1 + sum(line.startswith("read(") for line in lines) - sum(line.startswith("read(") for line in behind)
        agent, trace = self.traced(refused, f"read:error=EIO:when={nth}", calls="splice,read")
        self.assertEqual(agent.order(self.origin.body("/big", b"x" * SIZE, pieces=[HEAD, 1]), "big"), ANSWERS[200])
        agent.wait_log("TASK-END")
        self.assertRegex(agent.log(), r"\(ERR\)  T0001  read_fragment: under-write to fd\d+: \d+/-1\n")
        wait_for(lambda: agent.files() == [], "the file to go")
        data = os.urandom(SIZE)
        self.assertEqual(agent.order(self.origin.body("/next", data, pieces=[HEAD, 1]), "next"), ANSWERS[200])
        self.assertTrue(agent.stored("next") == data)
        self.assertTrue(self.lines(trace)[-1].startswith(("splice(", "read(")))

    def test_a_disk_that_fills_up_under_a_moved_body(self):
        agent = self.start("max_mmap_mb = 0;", tmpfs_kib=1024)
        self.assertEqual(agent.order(self.origin.body("/big", b"x" * SIZE, pieces=[HEAD, 1]), "big"), ANSWERS[200])
        agent.wait_log("TASK-END")
        counts = re.search(r"read_fragment: under-write to fd\d+: (\d+)/(-?\d+)\n", agent.log())
        self.assertLess(int(counts[2]), int(counts[1]))
        data = os.urandom(300_000)
        self.assertEqual(agent.order(self.origin.body("/next", data, pieces=[HEAD, 1]), "next"), ANSWERS[200])
        self.assertTrue(agent.stored("next") == data)


if __name__ == "__main__":
    unittest.main()
