"""What tools/client gives to senders: the Python module and the shell example, against a real agent."""

import os

import kov_client
from harness import KovTest, free_port, run

CLIENT = os.path.dirname(kov_client.__file__)
ODD_NAMES = ("a b%41+c@d&e.ts", "lead/src/a", "DST/b", "\u00e9/\u20ac", "q?x#y")


class Client(KovTest):
    def setUp(self):
        super().setUp()
        self.agent = self.start(channel="127.0.0.1:{}")
        self.place = ("127.0.0.1", self.agent.port)

    def order(self, path, dst, expiry=60):
        kov_client.order(self.place, self.origin.url(path), dst, expiry=expiry)

    def shell(self, *args, status=0):
        return run(f"{CLIENT}/order.sh", f"127.0.0.1:{self.agent.port}", *args, status=status)

    def test_names_arrive_as_they_were_given(self):
        for i, dst in enumerate(ODD_NAMES):
            body = os.urandom(3000)
            self.origin.body("/live/Src/%41%20b%40+c", body)
            given = "/live/Src/%41 b@+c" if i % 2 else "/live/Src/%41%20b%40+c"
            self.order(given, dst, expiry=77)
            kov_client.wait_for_file(kov_client.stored_path(self.agent.data, self.origin.url(given), dst), timeout=10)
            self.agent.stored(dst, body)
            self.assertEqual(self.shell(self.origin.url("/live/Src/%41%20b%40+c"), dst + ".sh", "77"), "begun\n")
            self.agent.stored(dst + ".sh", body)
        self.assertEqual(self.agent.log().count("expiry=77"), 4 * len(ODD_NAMES))
        self.order("/live/Src/%41%20b%40+c", "")  # the agent makes the name of the source's path
        self.agent.stored("live/Src/%41%20b%40+c")

    def test_each_answer_has_its_exception(self):
        self.origin.body("/a", b"x")
        self.origin.status("/404", 404)
        self.order("/a", "a")
        cases = (("/a", "a", kov_client.Exists, 403, 4), ("/404", "b", kov_client.SourceRefused, 404, 6),
                 ("/a", "x" * 120, kov_client.Refused, 400, 1), (":1/a", "c", kov_client.Refused, 500, 1))
        self.agent.stored("a")
        for path, dst, error, status, shell_status in cases:
            with self.assertRaises(error) as caught:
                self.order(path, dst)
            self.assertEqual((type(caught.exception), caught.exception.status), (error, status))
            self.shell(self.origin.url(path), dst, "5", status=shell_status)
        self.assertTrue(kov_client.ping(self.place))
        nobody = ("127.0.0.1", free_port())
        self.assertFalse(kov_client.ping(nobody))
        with self.assertRaises(kov_client.NoAgent):
            kov_client.order(nobody, "http://h/a", "a", expiry=1)

    def test_nothing_is_sent_that_no_agent_should_hear(self):
        with self.assertRaises(TypeError):
            kov_client.order_datagram("job1", "http://h/a", "a")
        for bad in (None, "", -1, 1.5, True):
            with self.assertRaises(ValueError):
                kov_client.order_datagram("job1", "http://h/a", "a", expiry=bad)
        for lock_id, src, dst in (("job", "http://h/a", "a"), ("jo/b", "http://h/a", "a"), ("job1", "ftp://h/a", "a"),
                                  ("job1", "http://h/a?b", "a"), ("job1", "http://u@h/a", "a"),
                                  ("job1", "http://h/a", "a\n"), ("job1", "http://h/a", "../a"),
                                  ("job1", "http://h/a", "a-Kova/b"), ("job1", "http://h/" + "a" * 130, "a"),
                                  ("job1", "http://h/a", "d" * 120)):
            with self.assertRaises(ValueError, msg=(lock_id, src, dst)):
                kov_client.order_datagram(lock_id, src, dst, expiry=1)
        for args in (("http://h/a", "a"), ("http://h/a", "a", ""), ("ftp://h/a", "a", "5")):
            self.shell(*args, status=2)

    def test_datagrams_and_the_wait_for_the_file(self):
        self.origin.body("/a", b"by datagram")
        channel = ("127.0.0.1", self.agent.udp_port)
        kov_client.send(channel, "job1", self.origin.url("/a"), "b +c", expiry=kov_client.FOREVER)
        kov_client.wait_for_file(self.agent.path("b +c"), timeout=10, grace=10)
        self.origin.cut("/cut")
        self.order("/cut", "cut")
        with self.assertRaises(kov_client.DownloadFailed):
            kov_client.wait_for_file(self.agent.path("cut"), timeout=10)
        with self.assertRaises(TimeoutError):
            kov_client.wait_for_file(self.agent.path("never"), timeout=0.2)

    def test_a_mute_and_a_babbling_agent_are_given_up(self):
        for answer, error in ((lambda conn, _: self.origin.stall(), "no answer within 0.3 s"),
                              (lambda conn, _: None, "closed without an answer"),
                              (lambda conn, _: conn.sendall(b"\0\xff" * 10000000), "not like an agent")):
            self.origin.serve("/src/http://h/a/dst/a?expiry=1", answer)
            with self.assertRaisesRegex(kov_client.NoAnswer, error):
                kov_client.order(("127.0.0.1", self.origin.port), "http://h/a", "a", expiry=1, timeout=0.3)
