"""An order from the GET to the stored file: bodies of all shapes, answers, log lines."""

import os
import re
import time
import unittest

from kov import ANSWERS, HEAD, KovTest, sha, wait_for

MIB = 1 << 20


class Bodies(KovTest):
    def check_body(self, agent, name, size, **shape):
        data = os.urandom(size)
        url = self.origin.body(f"/{name}", data, **shape)
        self.assertEqual(agent.order(url, f"out/{name}"), ANSWERS[200])
        self.assertEqual(sha(agent.stored(f"out/{name}")), sha(data), name)

    def check_shapes(self, agent):
        self.check_body(agent, "one", 1)
        self.check_body(agent, "with-head", 700)
        self.check_body(agent, "no-tail", 5000, pieces=[HEAD, 1], pause=0.05)
        self.check_body(agent, "pieces", 50000, pieces=[HEAD] + [1000] * 20, pause=0.002)
        self.check_body(agent, "drops", 9, pieces=[HEAD] + [1] * 9, pause=0.02)
        self.check_body(agent, "odd", 3 * MIB + 17)

    def test_mapped(self):
        self.check_shapes(self.start())

    def test_written(self):
        self.check_shapes(self.start("max_mmap_mb = 0; max_tasks = 0;"))  # as many tasks as there are descriptors

    def test_an_order_in_absolute_form(self):
        agent = self.start()
        url = self.origin.body("/a", b"absolute")
        self.assertEqual(agent.send(f"GET http://agent.example/src/{url}/dst/a HTTP/1.0\r\nConnection: Close\r\n\r\n".encode()), ANSWERS[200])
        self.assertEqual(agent.stored("a"), b"absolute")

    def test_the_border_between_mapping_and_writing(self):
        agent = self.start("max_mmap_mb = 1;", options=("-L", "debug"))
        for size, mode in ((MIB - 1, "mmap"), (MIB, "mmap"), (MIB + 1, "file")):
            self.check_body(agent, f"b{size}", size)
            agent.wait_log(f"mk_dest_file: created {mode} for [{agent.path(f'out/b{size}')}-Kova]")

    def test_what_is_beyond_the_length_is_ignored(self):
        for settings in ("", "max_mmap_mb = 0;"):
            agent = self.start(settings)
            url = self.origin.raw("/more", b"HTTP/1.0 200 OK\nContent-Length: 5\n\n12345678")
            self.assertEqual(agent.order(url, "more"), ANSWERS[200])
            self.assertEqual(agent.stored("more"), b"12345")


class Answers(KovTest):
    def test_answer_comes_with_the_head_and_the_name_with_the_last_byte(self):
        agent = self.start()
        url = self.origin.raw("/slow", b"HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nab",
                              lambda conn: (self.origin.stall(), conn.sendall(b"cd")))
        self.assertEqual(agent.order(url, "x/slow.ts"), ANSWERS[200])
        self.assertEqual(agent.files(), ["x/slow.ts-Kova"])
        self.assertEqual(os.path.getsize(agent.path("x/slow.ts-Kova")), 4)
        self.assertEqual(agent.order(url, "other"), ANSWERS[500])  # the source is being fetched
        self.assertIn("task already present", agent.log())
        self.assertEqual(agent.order(self.origin.url("/else"), "x/slow.ts"), ANSWERS[400])  # fresh unfinished file
        self.origin.released.set()
        self.assertEqual(agent.stored("x/slow.ts"), b"abcd")

    def test_status_of_the_source_is_passed_on(self):
        agent = self.start()
        for code, answer in ((404, 404), (403, 403), (418, 500), (500, 500), (100, 500), (103, 500), (1000, 500), (4294967496, 500)):
            url = self.origin.raw(f"/s{code}", b"HTTP/1.1 %d Word\r\nContent-Length: 3\r\n\r\nxyz" % code)
            self.assertEqual(agent.order(url, f"s{code}"), ANSWERS[answer], code)
        for code in (201, 299):
            url = self.origin.raw(f"/s{code}", b"HTTP/1.1 %d Word\r\ncontent-length:3\r\n\r\nxyz" % code)
            self.assertEqual(agent.order(url, f"s{code}"), ANSWERS[200], code)
            agent.wait_file(f"s{code}")
        self.assertEqual(agent.files(), ["s201", "s299"])

    def test_existing_destination_is_forbidden_and_stays(self):
        agent = self.start()
        with open(agent.path("there"), "w", encoding="ascii") as f:
            f.write("old")
        url = self.origin.body("/new", b"new")
        self.assertEqual(agent.order(url, "there"), ANSWERS[403])
        self.assertEqual(agent.stored("there"), b"old")
        self.assertIn(f"check_dest_path: destination [{agent.path('there')}] is BUSY (already there)", agent.log())

    def test_stale_unfinished_file_is_taken_over(self):
        agent = self.start()
        for age, answer in ((29, 400), (32, 200)):
            with open(agent.path("f-Kova"), "w", encoding="ascii") as f:
                f.write("left behind")
            when = time.time() - age
            os.utime(agent.path("f-Kova"), (when, when))
            self.assertEqual(agent.order(self.origin.body("/f", b"fresh"), "f"), ANSWERS[answer])
        self.assertEqual(agent.stored("f"), b"fresh")

    def test_replaced_unfinished_file_is_not_published(self):
        agent = self.start()
        url = self.origin.raw("/r", b"HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nab",
                              lambda conn: (self.origin.stall(), conn.sendall(b"cd")))
        self.assertEqual(agent.order(url, "r"), ANSWERS[200])
        os.unlink(agent.path("r-Kova"))
        with open(agent.path("r-Kova"), "w", encoding="ascii") as f:
            f.write("not its own")
        self.origin.released.set()
        agent.wait_log("complete_download: rename(")
        agent.wait_log("TASK-END")
        self.assertEqual(agent.files(), ["r-Kova"])
        os.unlink(agent.path("r-Kova"))

    def test_log_lines_and_request_of_an_order(self):
        agent = self.start()
        url = self.origin.body("/a/b.ts", b"x" * 100)
        self.assertEqual(agent.get(f"/any/prefix/SRC/{url}/Dst/?expiry=600&x=1"), ANSWERS[200])
        self.assertEqual(agent.stored("a/b.ts"), b"x" * 100)
        agent.wait_log("TASK-END")
        lines = [re.sub(r"\(0x[0-9a-f]+", "(P", line.split("(NRM)  ")[1])
                 for line in agent.log().splitlines() if "(NRM)" in line and "b.ts" in line]
        final = agent.path("a/b.ts")
        self.assertEqual(lines, [
            f"u1  TASK-START [DOW] (P/idx=0) [{url}]->[{final}-Kova] length=0, expiry=600 lid=[]",
            f"T0001  downloaded: 100 bytes, [{url}] to [{final}]",
            f"KOV  TASK-END [DOW] (P/idx=0) [{url}]->[{final}] length=0, expiry=600 lid=[]"])
        self.assertEqual(self.origin.requests, [
            b"GET /a/b.ts HTTP/1.1\r\nHost: 127.0.0.1:%d\r\nConnection: close\r\n"
            b"User-Agent: kov/0.2-0.7 (marlinet)\r\nAccept: text/html,video/*, application/*\r\n"
            b"Accept-Language: en-US,en,ru\r\nAccept-Charset: ISO-8859-1,UTF-8\r\nCache-Control: no-cache\r\n\r\n"
            % self.origin.port])

    def test_expiry(self):
        agent = self.start()
        for i, (query, expiry) in enumerate((("?myexpiry=7", 7), ("?expiry=abc", 0), ("?a=1", 0), ("", 0),
                                             ("?a=1&expiry=-5&b", -5))):
            self.assertEqual(agent.order(self.origin.body(f"/{i}", b"x"), f"e{i}", query), ANSWERS[200])
            agent.wait_log(f"/e{i}-Kova] length=0, expiry={expiry} ")
        self.assertEqual(agent.log().count("NO EXPIRY: sscanf"), 2)

    def test_max_tasks(self):
        agent = self.start("max_tasks = 2;")
        head = b"HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nab"
        for i in range(2):
            self.assertEqual(agent.order(self.origin.raw(f"/{i}", head, self.origin.stall), f"f{i}"), ANSWERS[200])
        self.assertEqual(agent.order(self.origin.body("/third", b"x"), "third"), ANSWERS[500])
        self.assertIn("mk_dw_task: limit on tasks exceeded [2]", agent.log())
        self.origin.released.set()
        agent.wait_log("TASK-END", 2)
        self.assertEqual(agent.order(self.origin.body("/third", b"x"), "third"), ANSWERS[200])
        agent.wait_file("third")

    def test_local_source_needs_no_download(self):
        agent = self.start(f'local_url_prefix = "{self.origin.url("/own")}/";')
        self.assertEqual(agent.order(self.origin.url("/OWN/a.ts"), "a.ts"), ANSWERS[200])
        self.assertEqual(agent.order(self.origin.body("/owner", b"x"), "b.ts"), ANSWERS[200])
        agent.wait_file("b.ts")
        wait_for(lambda: agent.files() == ["b.ts"], "one stored file")


if __name__ == "__main__":
    unittest.main()
