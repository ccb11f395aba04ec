"""The log of a running agent: moved aside at start, rotated by size, by count and at the day's end, never as a pipe."""

import glob
import os
import re
import signal
import stat
import time
import unittest

from harness import ASAN, KovTest, read, wait_for, write

FAKETIME = glob.glob("/usr/lib/*/faketime/libfaketime.so.1")
LINE = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} \S+ \d+  \((ERR|WRN|NRM|INF)\)  \w+  .*")
SMALL = "max_size_mb = 1;"


class Rotation(KovTest):
    sent = 0

    def rotated(self, agent):
        return sorted(glob.glob(f"{agent.log_path}.*"))

    def fill(self, agent, count):
        """Long refused orders, about 1.5 KiB of log each; every one bears its own number."""
        for _ in range(count):
            agent.get(f"/src/ftp://h/{'f' * 150}-{self.sent:06}-/dst/{'g' * 200}", 400)
            self.sent += 1

    def fill_until(self, agent, condition):
        while not condition():
            self.fill(agent, 20)
            if self.sent % 600 == 0:
                time.sleep(1.0)  # rotations within one second share a name
            self.assertLess(self.sent, 6000)

    def test_under_load_no_line_is_lost_or_torn_and_so_many_files_are_kept(self):
        agent = self.start(log=SMALL + "max_files = 3;")
        self.fill_until(agent, lambda: len(self.rotated(agent)) == 3)
        names = self.rotated(agent)
        texts = [read(name) for name in (*names, agent.log_path)]
        lines = "".join(texts).splitlines()
        seen = [int(n) for line in lines if "non-HTTP or invalid src" in line for n in re.findall(r"-(\d{6})-", line)]
        self.assertEqual(seen, list(range(self.sent)))
        for text, name in zip(texts, names):
            self.assertTrue(1 << 20 <= len(text) < (1 << 20) + 8192)
            self.assertAlmostEqual(int(name.rsplit(".", 1)[1]), os.stat(name).st_mtime, delta=1.1)
        for name, text in zip(names, texts[1:]):
            self.assertRegex(text, rf"^.*\(NRM\).*\[kov\]: previous log rotated to \[{name}\] tm=\d+, idx=\d+\n")
        body = "\n".join(line for text in texts for line in text.split("STARTED", 1)[-1].splitlines()[1:])
        heads = [line for line in body.splitlines() if line and not LINE.fullmatch(line)]
        # What is not a record of its own is the rest of a request head that a record shows.
        self.assertEqual({re.sub(r"[^:]*$", "", line) for line in heads}, {"Host:"} if heads else set())
        self.assertLess(agent.fds(), 12)
        time.sleep(1.0)
        self.fill_until(agent, lambda: self.rotated(agent) != names)
        self.assertEqual(self.rotated(agent)[:-1], names[1:])

    def test_a_failing_rename_goes_on_in_the_same_file(self):
        agent = self.start(log=SMALL)
        now = int(time.time())
        for second in range(now - 1, now + 30):  # every name that the next rotation can take is another log's
            write(f"{agent.log_path}.{second}", "old\n")
        self.fill(agent, 900)
        self.assertEqual({read(name) for name in self.rotated(agent)}, {"old\n"})
        agent.logged("log_rotate: failed to rename [", " - rotation cancelled this time\n", "-000001-")
        self.assertEqual(agent.log().count("rotation cancelled"), 1)  # the next attempt needs another MiB
        self.assertIn(" - rotation is to be stopped\n", agent.stderr())

    def test_moved_aside_at_start(self):
        agent = self.start()
        agent.stop()
        old = agent.log()
        os.utime(agent.log_path, (1500000000, 1500000000))
        agent.restart()
        self.assertEqual(read(f"{agent.log_path}.1500000000"), old)
        self.assertEqual(agent.log().count("STARTING"), 1)
        agent.stop()
        os.utime(agent.log_path, (1500000000, 1500000000))
        agent.restart()
        self.assertEqual(read(f"{agent.log_path}.1500000000"), old)  # and nothing is lost
        self.assertEqual(agent.log().count("STARTING"), 2)

    def test_a_pipe_is_never_rotated(self):
        out = f"{self.root}/piped"
        agent = self.start(log=SMALL, options=("-l", f"|cat > {out}"))
        self.fill(agent, 1000)
        self.end(agent)
        self.assertGreater(os.stat(out).st_size, 1 << 20)
        self.assertEqual(read(out).count("non-HTTP"), 1000)
        self.assertEqual(glob.glob(f"{self.root}/piped.*") + self.rotated(agent), [])
        self.assertNotIn("rotat", read(out).split("Misc:")[1] + agent.stderr())

    def test_what_is_no_regular_file_is_never_renamed(self):
        self.fifo(f"{self.root}/fifo")
        os.symlink("/proc/self/fd/1", f"{self.root}/stdout")  # like /dev/stdout
        write(f"{self.root}/redirected", "old\n")
        for name in ("fifo", "stdout"):
            path = f"{self.root}/{name}"
            before = os.lstat(path)
            agent = self.start(log=SMALL, options=("-l", path),
                               wrapper=("sh", "-c", f'exec "$0" "$@" >>{self.root}/redirected'))
            self.fill(agent, 800)
            self.assertTrue(os.path.samestat(os.lstat(path), before), name)
            self.assertEqual(glob.glob(f"{path}.*"), [], name)
        self.assertGreater(os.stat(f"{self.root}/redirected").st_size, 1 << 20)

    def test_what_is_put_in_the_place_of_the_log_is_not_renamed(self):
        agent = self.start(log=SMALL)
        os.rename(agent.log_path, f"{self.root}/moved")
        os.mkfifo(agent.log_path)
        self.fill(agent, 800)
        self.assertTrue(stat.S_ISFIFO(os.lstat(agent.log_path).st_mode))
        self.assertEqual(self.rotated(agent), [])
        os.remove(agent.log_path)

    def test_a_command_that_does_not_read_holds_nothing_up(self):
        agent = self.start(options=("-l", "|sleep 30", "-L", "debug"))
        self.fill(agent, 200)
        agent.fetch(self.origin.body("/a", b"stored"), "a", b"stored")

    def test_a_command_keeps_what_its_starter_ignores(self):
        out = f"{self.root}/signals"

        def ignore():
            for signo in (signal.SIGHUP, signal.SIGUSR1, signal.SIGXFSZ, signal.SIGINT):
                signal.signal(signo, signal.SIG_IGN)
        self.start(options=("-l", f"|grep ^Sig /proc/self/status >{out}; cat >/dev/null"), preexec=ignore)
        wait_for(lambda: "SigCgt" in read(out, ""), "the command's signals")
        masks = {name: int(bits, 16) for name, bits in re.findall(r"(\w+):\s+(\w+)", read(out))}
        self.assertEqual(masks["SigBlk"], 0)
        self.assertEqual(masks["SigIgn"] & 0x7fffffff, 1 << signal.SIGHUP - 1 | 1 << signal.SIGUSR1 - 1)

    @unittest.skipIf(not FAKETIME or ASAN, "needs libfaketime, which does not go together with the address sanitizer")
    def test_at_the_end_of_the_day(self):
        clock = {"LD_PRELOAD": FAKETIME[0], "FAKETIME": "@2026-03-01 23:59:57", "TZ": "UTC"}
        agent = self.start(log="eod_rotate = true;", env=clock)
        agent.logged("rota:end-of-day = ON (1772409599)\n")
        agent.get("/", 204)
        self.assertEqual(self.rotated(agent), [])
        wait_for(lambda: agent.get("/", 204) and self.rotated(agent), "the rotation")
        day = read(self.rotated(agent)[0]).splitlines()
        self.assertRegex(day[-2], "^2026-03-01 23:59:5")
        self.assertRegex(day[-1], "^2026-03-02 00:00:0")  # the record that found the day over
        agent.get("/", 204)
        self.assertEqual(len(self.rotated(agent)), 1)  # once only
