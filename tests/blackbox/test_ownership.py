"""Whose file is it: repeated orders, mirrors for one destination, stalls, takeovers, and what stands in a task's way."""

import os
import threading
import time
import unittest

from kov import ANSWERS, KovTest, wait_for
from services import Redis

HEAD4 = b"HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\n"
GONE = b"HTTP/1.1 404 Not Found\r\n\r\n"
MODES = ("", "max_mmap_mb = 0;")


class Ownership(KovTest):
    def gated(self, path, first, *pieces):
        """A source that sends first, and each further piece when its gate opens. Its URL and the gates."""
        gates = [threading.Event() for _ in pieces]

        def then(conn):
            for gate, piece in zip(gates, pieces):
                gate.wait(30)
                conn.sendall(piece)
        return (self.origin.raw(path, first, then), *gates)

    def start_stalled(self, agent, path, dst):
        """A download of "abcd" that has got two bytes, the last of them long ago."""
        url, gate = self.gated(path, HEAD4 + b"ab", b"cd")
        self.assertEqual(agent.order(url, dst), ANSWERS[200])
        self.age(agent, dst)
        return url, gate

    @staticmethod
    def age(agent, dst, seconds=35):
        os.utime(agent.path(dst + "-Kova"), (time.time() - seconds,) * 2)

    def answers_later(self, agent, url, dst):
        """Places an order whose answer is collected by the function that is returned."""
        client = agent.connect()
        before = agent.log().count("TASK-START")
        client.sendall(f"GET /src/{url}/dst/{dst} HTTP/1.1\r\nHost: h\r\n\r\n".encode())
        agent.wait_log("TASK-START", before + 1)

        def answer():
            with client:
                return client.recv(4096)
        return answer

    def test_an_order_that_starts_nothing_removes_nothing_that_lives(self):
        for settings in MODES:
            agent = self.start(settings + f'max_tasks = 1; local_url_prefix = "{self.origin.url("/own")}";')
            url, gate = self.start_stalled(agent, "/a", "d/x")
            self.assertEqual(agent.order(url, "d/x"), ANSWERS[500])
            self.assertEqual(agent.order(url, "d//x"), ANSWERS[500])  # the same file by another name
            self.assertEqual(agent.send(f"HEAD /src/{url}z/dst/d/x HTTP/1.1\r\nHost: h\r\n\r\n".encode()), b"")
            self.assertEqual(agent.order(self.origin.url("/own/x"), "d/x"), ANSWERS[200])
            self.assertEqual(agent.order(self.origin.url("/other"), "d/x"), ANSWERS[500])
            self.assertIn("limit on tasks exceeded [1]", agent.log())
            gate.set()
            self.assertEqual(agent.stored("d/x"), b"abcd")

    def test_a_mapped_file_shows_when_its_last_byte_came(self):
        agent = self.start()
        url, gate, gate_end = self.gated("/a", HEAD4 + b"a", b"b", b"cd")
        self.assertEqual(agent.order(url, "x"), ANSWERS[200])
        time.sleep(1.1)  # its time is set once a second
        self.age(agent, "x")
        gate.set()
        wait_for(lambda: time.time() - os.stat(agent.path("x-Kova")).st_mtime < 10, "the file's time")
        gate_end.set()
        self.assertEqual(agent.stored("x"), b"abcd")

    def test_the_end_of_a_mirror_leaves_the_file_of_the_other(self):
        for settings in MODES:
            for answer, head in ((404, GONE), (500, HEAD4 + b"wxyz"), (500, b"")):
                agent = self.start(settings)
                first, gate_head, gate_body = self.gated("/first", b"", HEAD4 + b"ab", b"cd")
                second, gate_second = self.gated("/second", b"", head)
                of_first = self.answers_later(agent, first, "x")
                of_second = self.answers_later(agent, second, "x")
                gate_head.set()
                self.assertEqual(of_first(), ANSWERS[200])
                gate_second.set()
                self.assertEqual(of_second(), ANSWERS[answer])
                agent.wait_log("TASK-END")
                self.assertNotIn("removing unfinished", agent.log())
                gate_body.set()
                self.assertEqual(agent.stored("x"), b"abcd")

    def test_a_leftover_in_the_way_goes(self):
        agent = self.start()
        for make in (lambda path: os.close(os.open(path, os.O_CREAT)), lambda path: os.symlink("/nonexistent", path)):
            url, gate = self.gated("/a", b"", HEAD4 + b"abcd")
            answer = self.answers_later(agent, url, "x")
            make(agent.path("x-Kova"))
            gate.set()
            self.assertEqual(answer(), ANSWERS[500])
            wait_for(lambda: agent.files() == [], "the leftover to go")
        self.assertEqual(agent.log().count("free_dw: removing unfinished"), 2)
        self.assertEqual(agent.order(f"http://127.0.0.1:{agent.port + 1}/refused", "y"), ANSWERS[400])
        self.assertEqual(agent.log().count("removing unfinished"), 2)  # where nothing is, nothing is said

    def test_a_takeover(self):
        db = Redis(self.new_root())
        self.addCleanup(db.stop)
        for n, settings in enumerate(MODES):
            agent = self.start(settings + db.settings())
            former, gate = self.start_stalled(agent, "/former", f"x{n}")
            inode = os.stat(agent.path(f"x{n}-Kova")).st_ino
            for answer, head in ((404, GONE), (500, HEAD4.replace(b"4", b"9223372036854775807"))):
                self.assertEqual(agent.order(self.origin.raw("/no", head), f"x{n}"), ANSWERS[answer])
            self.assertEqual(os.stat(agent.path(f"x{n}-Kova")).st_ino, inode)
            self.assertNotIn("taken over", agent.log())  # nothing came that could take its place
            url, gate_own = self.gated("/own", HEAD4 + b"wx", b"yz")
            self.assertEqual(agent.order(url, f"x{n}"), ANSWERS[200])
            self.assertRegex(agent.log(), rf"\(WRN\)  T0004  .*\[{former}\].* taken over from \[{url}\]\n")
            gate.set()
            agent.wait_log("removing T0001 due to error")
            agent.wait_log("TASK-END", 3)
            self.assertEqual(agent.files(), [f"x{n}-Kova"])
            self.assertEqual(db.urls(f"x{n}"), {})
            gate_own.set()
            self.assertEqual(agent.stored(f"x{n}"), b"wxyz")
            wait_for(lambda k=f"x{n}": db.urls(k) != {}, "the registration")

    def test_a_stall_that_ends_in_time_is_not_taken_over(self):
        agent = self.start("max_mmap_mb = 0;")
        _, gate = self.start_stalled(agent, "/former", "x")
        url, gate_head = self.gated("/own", b"", HEAD4 + b"wxyz")
        answer = self.answers_later(agent, url, "x")
        self.age(agent, "x", 5)
        gate_head.set()
        self.assertEqual(answer(), ANSWERS[500])
        gate.set()
        self.assertEqual(agent.stored("x"), b"abcd")

    def test_a_file_that_was_cut_is_not_published(self):
        for settings in MODES:
            agent = self.start(settings)
            url, gate = self.gated("/a", HEAD4 + b"ab", b"cd")
            self.assertEqual(agent.order(url, "x"), ANSWERS[200])
            os.truncate(agent.path("x-Kova"), 8)
            gate.set()
            agent.wait_log("complete_download: rename(")
            agent.wait_log("TASK-END")
            wait_for(lambda a=agent: a.files() == [], "the file to go")

    def test_a_mapped_order_that_does_not_fit_gives_its_blocks_back(self):
        trace = f"{self.root}/trace"
        agent = self.start(env={"ASAN_OPTIONS": "detect_leaks=0"},  # leaks cannot be looked for under a tracer
                           wrapper=["strace", "-D", "-qq", "-o", trace, "-e", "trace=fallocate,ftruncate", "-e",
                                    "inject=fallocate:error=ENOSPC"])
        self.assertEqual(agent.order(self.origin.body("/a", b"x" * 5000), "x"), ANSWERS[500])
        with open(trace, encoding="ascii") as f:
            calls = f.read()
        self.assertRegex(calls, r"ftruncate\((\d+), 5000\).*\n.*ENOSPC.*\nftruncate\(\1, 0\)")

    def test_a_whole_body_completes_even_when_its_source_resets(self):
        for settings in MODES:
            agent = self.start(settings)
            gate = threading.Event()
            url = self.origin.raw("/a", HEAD4 + b"abcd", lambda conn, gate=gate: (gate.wait(30), self.origin.reset(conn)))
            self.assertEqual(agent.order(url, "x"), ANSWERS[200])
            gate.set()
            self.assertEqual(agent.stored("x"), b"abcd")


if __name__ == "__main__":
    unittest.main()
