"""Whose file is it: repeated orders, mirrors for one destination, stalls, takeovers, what stands in a task's way."""

import os
import shutil
import threading
import time

from harness import ANSWERS, KovTest, age, request, reset, sized, wait_for, write

HEAD4 = sized(4)
GONE = b"HTTP/1.1 404 Not Found\r\n\r\n"


class Ownership(KovTest):
    def start_stalled(self, agent, path, dst, is_old=True):
        """A download of "abcd" that has got two bytes, the last of them long ago."""
        url, gate = self.origin.gated(path, HEAD4 + b"ab", b"cd")
        agent.order(url, dst)
        if is_old:
            age(agent.path(dst + "-Kova"), 35)
        return url, gate

    def answers_later(self, agent, url, dst):
        """Places an order whose answer is compared by the function that is returned."""
        before = agent.log().count("TASK-START")
        client = agent.ask(url, dst)
        agent.logged("TASK-START", count=before + 1)

        def answer(expect):
            with client:
                self.assertEqual(client.recv(4096), ANSWERS[expect])
        return answer

    def test_an_order_that_starts_nothing_removes_nothing_that_lives(self):
        for agent in self.in_both_modes(f'max_tasks = 1; local_url_prefix = "{self.origin.url("/own")}";'):
            url, gate = self.start_stalled(agent, "/a", "d/x")
            agent.order(url, "d/x", 500)
            agent.order(url, "d//x", 500)  # the same file by another name
            agent.send(request(f"/src/{url}z/dst/d/x", "HEAD"), 0)
            agent.order(self.origin.url("/own/x"), "d/x")
            agent.order(self.origin.url("/other"), "d/x", 500)
            agent.logged("mk_dw_task: limit on tasks exceeded [1]")
            agent.completes(gate, "d/x", b"abcd")
            agent.ended()
            agent.fetch(self.origin.body("/next", b"next"), "next", b"next")

    def test_a_mapped_file_shows_when_its_last_byte_came(self):
        agent = self.start()
        url, gate, gate_end = self.origin.gated("/a", HEAD4 + b"a", b"b", b"cd")
        agent.order(url, "x")
        time.sleep(1.1)  # its time is set once a second
        age(agent.path("x-Kova"), 35)
        gate.set()
        wait_for(lambda: time.time() - os.stat(agent.path("x-Kova")).st_mtime < 10, "the file's time")
        agent.completes(gate_end, "x", b"abcd")

    def test_the_end_of_a_mirror_leaves_the_file_of_the_other(self):
        for answer, head in ((404, GONE), (500, HEAD4 + b"wxyz"), (500, b"")):
            for agent in self.in_both_modes():
                first, gate_head, gate_body = self.origin.gated("/first", b"", HEAD4 + b"ab", b"cd")
                second, gate_second = self.origin.gated("/second", b"", head)
                of_first = self.answers_later(agent, first, "x")
                of_second = self.answers_later(agent, second, "x")
                gate_head.set()
                of_first(200)
                gate_second.set()
                of_second(answer)
                agent.ended()
                agent.not_logged("removing unfinished")
                agent.completes(gate_body, "x", b"abcd")

    def test_a_leftover_in_the_way_goes(self):
        agent = self.start()
        for make in (write, lambda path: os.symlink("/nonexistent", path)):
            url, gate = self.origin.gated("/a", b"", HEAD4 + b"abcd")
            answer = self.answers_later(agent, url, "x")
            make(agent.path("x-Kova"))
            gate.set()
            answer(500)
            agent.holds()
        agent.order(f"http://127.0.0.1:{agent.port + 1}/refused", "y", 400)
        self.assertEqual(agent.log().count("free_dw: removing unfinished"), 2)  # where nothing is, nothing is said

    def test_what_ends_in_the_same_round_is_out_of_the_way(self):
        agent = self.start()
        url, gate = self.origin.gated("/own", b"", HEAD4 + b"wxyz")
        answer = self.answers_later(agent, url, "x")
        broken, gate_end = self.origin.gated("/broken", HEAD4 + b"ab", b"")
        agent.order(broken, "x")
        with agent.frozen():
            for event in (gate_end, gate):
                event.set()
                time.sleep(0.2)
        answer(200)
        agent.stored("x", b"wxyz")
        agent.logged(f"[{broken}]->[{agent.path('x-Kova')}]", count=2)  # in the line of its end, too

    def test_a_takeover(self):
        db = self.redis()
        for n, agent in enumerate(self.in_both_modes(db.settings())):
            dst = f"x{n}"
            former, gate = self.start_stalled(agent, "/former", dst)
            inode = os.stat(agent.path(f"{dst}-Kova")).st_ino
            for answer, head in ((404, GONE), (500, sized(2 ** 63 - 1))):
                agent.order(self.origin.raw("/no", head), dst, answer)
            self.assertEqual(os.stat(agent.path(f"{dst}-Kova")).st_ino, inode)
            agent.not_logged("taken over")  # nothing came that could take its place
            url, gate_own = self.origin.gated("/own", HEAD4 + b"wx", b"yz")
            agent.order(url, dst)
            self.assertRegex(agent.log(), rf"\(WRN\)  T0004  .*\[{former}\].* taken over from \[{url}\]\n")
            gate.set()
            agent.logged("removing T0001 due to error")
            agent.ended(3)
            self.assertEqual((agent.files(), db.urls(dst)), ([f"{dst}-Kova"], {}))
            agent.completes(gate_own, dst, b"wxyz")
            wait_for(lambda k=dst: db.urls(k) != {}, "the registration")

    def test_a_stall_that_ends_in_time_is_not_taken_over(self):
        agent = self.start("max_mmap_mb = 0;")
        _, gate = self.start_stalled(agent, "/former", "x")
        url, gate_head = self.origin.gated("/own", b"", HEAD4 + b"wxyz")
        answer = self.answers_later(agent, url, "x")
        age(agent.path("x-Kova"), 5)
        gate_head.set()
        answer(500)
        agent.completes(gate, "x", b"abcd")

    def test_a_file_that_was_cut_or_replaced_is_not_published(self):
        def replace(path):
            os.unlink(path)
            write(path, "not its own")
        for change, left in ((lambda path: os.truncate(path, 8), ()), (replace, ("x-Kova",))):
            for agent in self.in_both_modes():
                _, gate = self.start_stalled(agent, "/a", "x", False)
                change(agent.path("x-Kova"))
                gate.set()
                agent.logged("complete_download: rename(", "TASK-END")
                agent.holds(*left)
                for name in left:
                    os.unlink(agent.path(name))

    def test_directories_that_are_removed_under_a_download_are_made_again(self):
        agent = self.start()
        _, gate = self.start_stalled(agent, "/a", "x/a", False)
        shutil.rmtree(agent.data)
        gate.set()
        agent.logged("complete_download: rename(", "TASK-END")
        agent.fetch(self.origin.body("/b", b"b"), "x/b", b"b")

    def test_a_mapped_order_that_does_not_fit_gives_its_blocks_back(self):
        agent = self.start(trace="fallocate,ftruncate", inject=["fallocate:error=ENOSPC"])
        agent.order(self.origin.body("/a", b"x" * 5000), "x", 500)
        self.assertRegex(agent.trace(), r"ftruncate\((\d+), 5000\).*\n.*ENOSPC.*\nftruncate\(\1, 0\)")

    def test_a_whole_body_completes_even_when_its_source_resets(self):
        for agent in self.in_both_modes():
            gate = threading.Event()
            agent.order(self.origin.raw("/a", HEAD4 + b"abcd", lambda conn, g=gate: (g.wait(30), reset(conn))), "x")
            agent.completes(gate, "x", b"abcd")
