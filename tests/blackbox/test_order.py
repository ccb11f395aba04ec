"""One order end to end: bodies of every shape and size, the answer's moment, the log lines, answers of the source."""
import os
import random
import re
import threading
import time
import unittest

import kov
from kov import answer, head

MIB = 1 << 20
RANDOM = random.Random(7)


def pieces(body, size):
    return [body[pos:pos + size] for pos in range(0, len(body), size)]


class Bodies(kov.Case):
    """Every way a body can arrive, mapped and written; the file has the source's bytes."""
    settings = {"max_mmap_mb": 1}

    def fetch(self, name, script):
        self.assertEqual(self.agent.order(self.origin.on("/" + name, script), name), answer(200))

    def run_shapes(self):
        """head and body together, in two, in many pieces, and with more bytes than announced."""
        for size in [1, 100, 1500, 70000]:
            body = RANDOM.randbytes(size)
            released = threading.Event()
            shapes = {
                "whole": lambda conn: conn.send(head(len(body)) + body),
                "apart": lambda conn: (conn.send(head(len(body))), conn.hold(released), conn.send(body)),
                "split": lambda conn: (conn.send(head(len(body)) + body[:50]), conn.hold(released), conn.send(body[50:])),
                "drip": lambda conn: conn.send(head(len(body)), *pieces(body, max(1, size // 300))),
                "extra": lambda conn: conn.send(head(len(body)) + body + b"tail")}
            for shape, script in shapes.items():
                with self.subTest(shape=shape, size=size):
                    name = f"{shape}-{size}"
                    self.fetch(name, script)
                    released.set()
                    self.assert_stored(name, body)

    def test_shapes_mapped(self):
        self.run_shapes()
        self.assertIn("created mmap for", self.agent.log())

    def test_mapping_limit(self):
        """Exactly max_mmap_mb is mapped, one byte more is written."""
        for size, mode in [(MIB, "mmap"), (MIB + 1, "file"), (9 * MIB + 5, "file")]:
            with self.subTest(size=size):
                body, name = RANDOM.randbytes(size), str(size)
                self.fetch(name, lambda conn, body=body: conn.send(head(len(body)), body))
                self.assert_stored(name, body)
                self.assertIn(f"created {mode} for [{self.agent.path(name)}", self.agent.log())


class BodiesWritten(Bodies):
    settings = {"max_mmap_mb": 0}

    def test_shapes_mapped(self):
        self.run_shapes()
        self.assertNotIn("created mmap for", self.agent.log())

    def test_mapping_limit(self):
        self.skipTest("no mapping")


class Order(kov.Case):
    def test_answer_comes_before_the_body(self):
        released = threading.Event()
        url = self.origin.on("/a", lambda conn: (conn.send(head(10) + b"12345"), conn.hold(released), conn.send(b"67890")))
        self.assertEqual(self.agent.order(url, "x/a"), answer(200))
        self.assertEqual(self.agent.files(), ["x", "x/a-Kova"])
        self.assertEqual(os.path.getsize(self.agent.path("x/a-Kova")), 10, "full length from the start")
        released.set()
        self.assertEqual(self.agent.stored("x/a"), b"1234567890")
        self.assertEqual(self.agent.unfinished(), [])

    def test_log_of_an_order(self):
        url = self.origin.serve("/live/a.ts", b"x" * 4096)
        self.agent.order(url, "cache/a.ts", "?expiry=600")
        self.agent.stored("cache/a.ts")
        self.agent.wait_log("TASK-END")
        final = re.escape(self.agent.path("cache/a.ts"))
        pid, url = self.agent.proc.pid, re.escape(url)
        lines = [line for line in self.agent.log().splitlines() if "(NRM)" in line][1:]
        tail = r"length=0, expiry=600 lid=\[\]$"
        for line, pattern in zip(lines, [
                rf"\S+  TASK-START \[DOW\] \(0x[0-9a-f]+/idx=0\) \[{url}\]->\[{final}-Kova\] {tail}",
                rf"\S+  downloaded: 4096 bytes, \[{url}\] to \[{final}\]$",
                rf"\S+  TASK-END \[DOW\] \(0x[0-9a-f]+/idx=0\) \[{url}\]->\[{final}\] {tail}"], strict=True):
            self.assertRegex(line, rf"^{pid}  \(NRM\)  {pattern}")
        self.assertRegex(self.agent.log(), r"\(INF\)  T0001  read_src_response: ready to download 4096 bytes to ")

    def test_request_to_the_source(self):
        url = self.origin.serve("/p/q", b"x")
        self.agent.order(url, "q", "?expiry=5&other=1")
        self.agent.stored("q")
        self.assertEqual(self.origin.requests, [(
            f"GET /p/q HTTP/1.1\r\nHost: 127.0.0.1:{self.origin.port}\r\nConnection: close\r\nUser-Agent: {kov.SERVER}\r\n"
            "Accept: text/html,video/*, application/*\r\nAccept-Language: en-US,en,ru\r\n"
            "Accept-Charset: ISO-8859-1,UTF-8\r\nCache-Control: no-cache\r\n\r\n").encode()])

    def test_final_file_exists(self):
        with open(self.agent.path("a"), "wb") as file:
            file.write(b"old")
        self.assertEqual(self.agent.order(self.origin.serve("/a", b"new"), "a"), answer(403))
        self.assertEqual(self.agent.stored("a"), b"old")
        self.agent.wait_log(r"check_dest_path: destination \[.*\] is BUSY \(already there\)$")

    def test_unfinished_file_exists(self):
        """A fresh one refuses the order; one that nobody wrote to for more than 30 s is taken for left behind."""
        left = self.agent.path("a-Kova")
        url = self.origin.serve("/a", b"new")
        for age, code in [(0, 400), (28, 400), (32, 200)]:
            with open(left, "wb") as file:
                file.write(b"left behind")
            os.utime(left, (time.time() - age,) * 2)
            self.assertEqual(self.agent.order(url, "a"), answer(code), age)
        self.assertEqual(self.agent.stored("a"), b"new")
        self.assertEqual(len(self.origin.requests), 1)

    def test_source_in_flight(self):
        """A second order for a source that is being fetched is refused, and accepted once the first has ended."""
        released = threading.Event()
        url = self.origin.on("/a", lambda conn: (conn.send(head(4)), conn.hold(released), conn.send(b"body")))
        self.assertEqual(self.agent.order(url, "one"), answer(200))
        self.assertEqual(self.agent.order(url, "two"), answer(500))
        self.agent.wait_log(r"mk_dw_task: task already present \(0x[0-9a-f]+\) T0001 url=" + re.escape(url))
        released.set()
        self.agent.stored("one")
        self.assertEqual(self.agent.order(url, "two"), answer(200))
        self.agent.stored("two")
        self.assertEqual(len(re.findall("TASK-START", self.agent.log())), 2)

    def test_statuses_of_the_source(self):
        for status, code in [("302 Found", 302), ("403 No", 403), ("404 Not Found", 404), ("406 No", 406), ("408 Late", 408),
                             ("502 Bad", 502), ("503 Busy", 503), ("504 Slow", 504), ("418 Teapot", 500), ("400 No", 400),
                             ("500 Oops", 500), ("199 Odd", 200)]:
            with self.subTest(status=status):
                url = self.origin.serve(f"/{code}{status[0]}", b"body", status)
                self.assertEqual(self.agent.order(url, "a"), answer(code))
        self.assertEqual(self.agent.files(), [])
        self.agent.wait_log(r"no response for HTTP418 defined, please update the lib!$")
        self.agent.wait_log(r"read_src_response: expected HTTP 2xx, got HTTP 404$")

    def test_other_success_is_200(self):
        for status in ["201 Created", "206 Partial"]:
            self.assertEqual(self.agent.order(self.origin.serve("/" + status[:3], b"b", status), status[:3]), answer(200))
            self.agent.stored(status[:3])

    def test_no_length(self):
        for name, length in [("none", None), ("zero", 0), ("negative", -4), ("word", "many"), ("huge", "9" * 30)]:
            with self.subTest(name=name):
                url = self.origin.on("/" + name, lambda conn, length=length: conn.send(head(length) + b"body"))
                self.assertEqual(self.agent.order(url, name), answer(500))
        self.assertEqual(self.agent.files(), [])
        self.agent.wait_log(r"mk_dest_file: invalid/missing content length: ", 5)

    def test_too_large_for_the_disk(self):
        url = self.origin.on("/a", lambda conn: conn.send(head(1 << 62) + b"body"))
        self.assertEqual(self.agent.order(url, "a"), answer(500))
        self.agent.wait_log("TASK-END")
        self.assertEqual(self.agent.files(), [])

    def test_table_is_full(self):
        agent = self.run_agent(max_tasks=1)
        released = threading.Event()
        slow = self.origin.on("/slow", lambda conn: (conn.send(head(1)), conn.hold(released), conn.send(b"x")))
        self.assertEqual(agent.order(slow, "slow"), answer(200))
        self.assertEqual(agent.order(self.origin.serve("/a", b"x"), "a"), answer(500))
        agent.wait_log(r"mk_dw_task: limit on tasks exceeded \[1\]$")
        released.set()
        agent.wait_log("TASK-END")
        self.assertEqual(agent.order(self.origin.url("/a"), "a"), answer(200))
        agent.stored("a")

    def test_local_source_needs_no_download(self):
        agent = self.run_agent(local_url_prefix=self.origin.url("/local/"))
        self.assertEqual(agent.order(self.origin.url("/LOCAL/x"), "a"), answer(200))
        self.assertEqual(agent.order(self.origin.url("/localx"), "a"), answer(500), "fetched: the origin knows no such path")
        self.assertEqual(len(self.origin.requests), 1)


if __name__ == "__main__":
    unittest.main()
