"""What sources do wrong: each ends its task cleanly, with the right answer, and without a spin."""
import threading
import unittest

import kov
from kov import answer, head


class Sources(kov.Case):
    def assert_fails(self, script, code, *log):
        """The order has this answer, and its task ends without a file."""
        ended = self.agent.log().count("TASK-END")
        self.assertEqual(self.agent.order(self.origin.on("/a", script), "a"), answer(code))
        self.agent.wait_log("TASK-END", ended + 1)
        self.assertEqual(self.agent.files(), [])
        for pattern in log:
            self.agent.wait_log(pattern)

    def test_refused_connection(self):
        port = kov.free_port()
        self.assertEqual(self.agent.order(f"http://127.0.0.1:{port}/a", "a"), answer(400))
        self.agent.wait_log("TASK-END")
        self.assertEqual(self.agent.files(), [])

    def test_no_usable_head(self):
        for script in [lambda conn: None, lambda conn: conn.reset(), lambda conn: conn.send(b"HTTP/1.1 200 OK\r\nConte"),
                       lambda conn: conn.send(b"220 mail.example ESMTP\r\n\r\n"), lambda conn: conn.send(b"\0" * 100 + b"\n\n"),
                       lambda conn: conn.send(b"HTTP/1.1 200\r\n\r\n"),
                       lambda conn: conn.send(b"HTTP/1.1 200 OK\r\nX: " + b"x" * 3000 + b"\r\n\r\nbody")]:
            self.assert_fails(script, 500)
        self.agent.wait_log(r"recv_http_response: client \[fd=\d+\] connection broken$")
        self.agent.wait_log("recv_http_response: buffer already full, yet no HTTP EOD$")
        self.agent.wait_log("recv_http_response: parsed [0-3] < 4 elements")

    def test_head_in_two_readings_is_not_assembled(self):
        url_log = r"read_src_response: expecting more data from fd\d+$"
        self.assert_fails(lambda conn: (conn.send(b"HTTP/1.1 20"), self.agent.wait_log(url_log),
                                        conn.send(b"0 OK\r\nContent-Length: 1\r\n\r\nx")), 500)

    def test_body_cut_short(self):
        for size in [4, 9 << 20]:  # mapped, written
            for script in [lambda conn, n=size: conn.send(head(n)),
                           lambda conn, n=size: conn.send(head(n) + b"x"),
                           lambda conn, n=size: (conn.send(head(n), b"x" * (n // 2)))]:
                self.assert_fails(script, 200)
        self.agent.wait_log(r"dw_read: removing T\d+ due to error, rc=104$", 6)
        self.agent.wait_log(r"free_dw: removing unfinished \[.*/a-Kova\]$", 6)

    def test_reset_in_the_body(self):
        for size in [4, 9 << 20]:
            self.assert_fails(lambda conn, n=size: (conn.send(head(n) + b"x"),
                                                    self.agent.wait_log("-> dnl"), conn.reset()), 200)

    def test_closed_after_a_head_with_the_whole_body(self):
        url = self.origin.serve("/a", b"whole")
        self.assertEqual(self.agent.order(url, "a"), answer(200))
        self.assertEqual(self.agent.stored("a"), b"whole")

    def test_silent_sources_cost_nothing(self):
        """Before the head, in the body, after a whole body that came with the head; and when the file is cut away."""
        scripts = [lambda conn: conn.hold(), lambda conn: (conn.send(b"HTTP/1.1 2"), conn.hold()),
                   lambda conn: (conn.send(head(9) + b"half"), conn.hold()),
                   lambda conn: (conn.send(head(10 << 20) + b"half"), conn.hold())]
        for number, script in enumerate(scripts):
            url = self.origin.on(f"/{number}", script)
            self.client(self.agent.head(f"/src/{url}/dst/{number}"))
        self.agent.wait_log("-> dnl", 2)
        self.agent.wait_log("read_src_response: expecting more data")
        self.assertLess(self.agent.cpu_over_a_second(), 0.05)
        self.assertEqual(self.agent.ping(), answer(204))

    def test_one_bad_source_disturbs_no_other(self):
        released = threading.Event()
        good = self.origin.on("/good", lambda conn: (conn.send(head(4) + b"go"), conn.hold(released), conn.send(b"od")))
        self.assertEqual(self.agent.order(good, "good"), answer(200))
        self.assert_fails_beside("good-Kova")
        released.set()
        self.assertEqual(self.agent.stored("good"), b"good")

    def assert_fails_beside(self, name):
        self.assertEqual(self.agent.order(self.origin.on("/bad", lambda conn: conn.send(head(9) + b"x")), "bad"), answer(200))
        self.agent.wait_log("removing unfinished ")
        self.assertEqual(self.agent.files(), [name])

    def test_replaced_unfinished_file_is_not_published(self):
        """Another file has taken the unfinished name: the rename fails and nothing appears under the final one."""
        released = threading.Event()
        url = self.origin.on("/a", lambda conn: (conn.send(head(4) + b"mi"), conn.hold(released), conn.send(b"ne")))
        self.assertEqual(self.agent.order(url, "a"), answer(200))
        kov.os.unlink(self.agent.path("a-Kova"))
        with open(self.agent.path("a-Kova"), "wb") as file:
            file.write(b"other")
        released.set()
        self.agent.wait_log(r"dw_read: removing T0001 due to error, rc=-1$")
        self.agent.wait_log("TASK-END")
        self.assertEqual(self.agent.files(), ["a-Kova"], "another's file stays")
        kov.os.unlink(self.agent.path("a-Kova"))


if __name__ == "__main__":
    unittest.main()
