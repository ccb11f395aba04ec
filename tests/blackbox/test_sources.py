"""Sources that refuse, break, lie, stall, crowd."""

import os
import random
import re
import resource
import socket
import threading
import time
import unittest

from kov import ANSWERS, KovTest, free_port, needs_namespaces, wait_for

OK = b"HTTP/1.1 200 OK\r\n"


class Sources(KovTest):
    def test_refused_connection(self):
        agent = self.start()
        self.assertEqual(agent.order(f"http://127.0.0.1:{free_port()}/a", "a"), ANSWERS[400])
        for port in ("port", self.origin.port + 65536, self.origin.port - 65536, f"{self.origin.port}x", "+1"):
            source = f"http://127.0.0.1:{port}/a".replace("+", "%2b")
            self.assertEqual(agent.order(source, "a"), ANSWERS[500], port)
            self.assertIn(f"open_socket: empty or invalid port [{port}]\n", agent.log())
        self.assertEqual(self.origin.requests, [])
        self.assertEqual(agent.order("http://127.0.0.1", "a"), ANSWERS[400])
        self.assertEqual(agent.files(), [])

    def test_a_source_that_hangs_up_on_every_caller(self):
        agent = self.start()
        with socket.create_server(("127.0.0.1", 0)) as server:
            def hang_up():
                for _ in range(20):
                    conn, _ = server.accept()
                    self.origin.reset(conn)
                    conn.close()
            threading.Thread(target=hang_up, daemon=True).start()
            for n in range(20):  # before the GET, behind it, or in between
                self.assertEqual(agent.order(f"http://127.0.0.1:{server.getsockname()[1]}/{n}", "a"), ANSWERS[500])

    def test_heads_that_are_refused(self):
        agent = self.start()
        for i, (head, message) in enumerate((
                (b"junk\r\n\r\n", "recv_http_response: parsed 0 < 4 elements"),
                (b"HTTP/1.1 200\r\n\r\n", "recv_http_response: parsed 3 < 4 elements"),
                (b"", "connection broken"),
                (OK, "connection broken"),
                (OK + b"X: " + b"y" * 3000, "buffer already full, yet no HTTP EOD"),
                (OK + b"\r\nbody", "invalid/missing content length: 0"),
                (OK + b"Content-Length: 0\r\n\r\n", "invalid/missing content length: 0"),
                (OK + b"Content-Length: -5\r\n\r\n", "invalid/missing content length"),
                (OK + b"Content-Length: 5x\r\n\r\n12345", "invalid/missing content length"),
                (OK + b"X-Content-Length: 5\r\n\r\n12345", "invalid/missing content length"),
                (OK + b"transfer-encoding : chunked\r\nContent-Length: 5\r\n\r\n5\r\nab", "encodings are not supported"),
                (OK + b"Content-Length: 18446744073709551617\r\n\r\n", "invalid/missing content length"),
                (OK + b"Content-Length: 9223372036854775807\r\n\r\n", "ERROR("))):
            before = len(agent.log())
            self.assertEqual(agent.order(self.origin.raw(f"/{i}", head), f"f{i}"), ANSWERS[500], head)
            self.assertIn(message, agent.log()[before:], head)
        reset = self.origin.raw("/reset", b"", self.origin.reset)
        self.assertEqual(agent.order(reset, "r"), ANSWERS[500])
        wait_for(lambda: agent.files() == [], "no file")

    def test_partial_head_is_not_kept(self):
        agent = self.start()
        url = self.origin.raw("/p", OK, lambda conn: (time.sleep(0.2), conn.sendall(b"Content-Length: 1\r\n\r\nx")))
        self.assertEqual(agent.order(url, "p"), ANSWERS[500])

    def test_bodies_that_end_early(self):
        for settings in ("", "max_mmap_mb = 0;"):
            agent = self.start(settings)
            for i, (body, then) in enumerate(((b"", None), (b"abc", None), (b"abc", self.origin.reset),
                                              (b"", self.origin.reset), (b"a" * 100000, None))):
                url = self.origin.raw(f"/{i}", OK + b"Content-Length: 200000\r\n\r\n" + body, then)
                agent.order(url, f"e{i}")
                agent.wait_log("TASK-END", i + 1)
            wait_for(lambda: agent.files() == [], "no file")
            self.assertIn("e1-Kova] failed, rc=104", agent.log())
            self.assertIn("removing T0002 due to error, rc=104", agent.log())

    def test_stalled_sources_cost_no_cpu(self):
        agent = self.start()
        for i in range(20):
            url = self.origin.raw(f"/{i}", OK + b"Content-Length: 9\r\n\r\nabc", self.origin.stall)
            self.assertEqual(agent.order(url, f"s{i}"), ANSWERS[200])
        client = agent.connect()
        url = self.origin.raw("/silent", b"", self.origin.stall)
        client.sendall(f"GET /src/{url}/dst/silent HTTP/1.1\r\nHost: h\r\n\r\n".encode())
        agent.wait_log("TASK-START", 21)
        wait_for(lambda: agent.log().count("urq_rm: URQ") == 21, "requests freed")
        before = agent.cpu_seconds()
        time.sleep(1)
        self.assertLess(agent.cpu_seconds() - before, 0.05)
        wait_for(lambda: self.keep_alive_timers() == 21, "a keep-alive for every source")
        self.origin.released.set()
        agent.wait_log("TASK-END", 21)
        client.close()
        wait_for(lambda: agent.files() == [], "no file")

    def keep_alive_timers(self):
        """The agent's connections to the source that will be probed within 60 s."""
        with open("/proc/net/tcp", encoding="ascii") as f:
            rows = [line.split() for line in f]
        return sum(row[2].endswith(f":{self.origin.port:04X}") and row[5].startswith("02:") and
                   0 < int(row[5][3:], 16) <= 6000 for row in rows[1:])

    def test_full_disk(self):
        for settings, answer in (("", 500), ("max_mmap_mb = 0;", 200)):
            agent = self.start(settings, tmpfs_kib=1024)
            # Mapped: refused before the answer. Written: the answer is out when the disk fills up.
            self.assertEqual(agent.order(self.origin.body("/big", b"x" * (2 << 20)), "big"), ANSWERS[answer])
            agent.wait_log("TASK-END")
            self.assertRegex(agent.log(), r"fallocate\(.*ERROR\(28\)|under-write to fd")
            self.assertEqual(agent.order(self.origin.body("/small", b"x" * 1000), "small"), ANSWERS[200])
            agent.wait_file("small")
            wait_for(lambda: agent.files() == ["small"], "the refused file to go")


class ManyOrders(KovTest):
    N = 1000

    def test_a_thousand_at_once(self):
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 8192), hard))
        agent = self.start()
        body = bytes(range(256)) * 64

        def slow(conn, path):
            conn.sendall(OK + b"Content-Length: %d\r\n\r\n" % len(body) + body[:5000])
            self.origin.stall()
            conn.sendall(body[5000:])

        def one(i):
            self.origin.paths[f"/{i}"] = slow
            self.assertEqual(agent.order(self.origin.url(f"/{i}"), f"m/{i}"), ANSWERS[200])

        one("warm-up")
        base_kib = agent.rss_kib()
        for i in range(self.N):
            one(i)
        self.assertEqual(len([f for f in agent.files() if f.endswith("-Kova")]), self.N + 1)
        self.origin.released.set()
        for i in range(self.N):
            self.assertEqual(agent.stored(f"m/{i}"), body)
        agent.wait_log("TASK-END", self.N + 1)
        wait_for(lambda: agent.fds() <= agent.base_fds, "descriptors at base line")
        if "asan" not in agent.proc.args[0]:
            self.assertLess(agent.rss_kib() - base_kib, 4096, "memory at base line")
        resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))


@needs_namespaces
class Names(KovTest):
    """A name server of its own, slow and without any answer, behind the agent's resolver."""

    def setUp(self):
        super().setUp()
        self.server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(self.server.close)
        self.address = f"127.{os.getpid() % 250}.{random.randrange(250)}.53"
        self.server.bind((self.address, 53))
        self.asked = []
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        try:
            while True:
                query, peer = self.server.recvfrom(512)
                self.asked.append(query[12:].split(b"\0")[0])
                no_such_name = query[:2] + b"\x81\x83" + query[4:]
                threading.Timer(0.55, self.server.sendto, (no_such_name, peer)).start()
        except OSError:
            pass

    def test_a_slow_look_up_in_vain_closes_the_road_for_names_for_a_while(self):
        resolv = f"{self.root}/resolv.conf"
        with open(resolv, "w", encoding="ascii") as f:
            f.write(f"nameserver {self.address}\noptions timeout:5 attempts:1\n")
        mount = f'mount --bind {resolv} /etc/resolv.conf && exec "$0" "$@"'
        agent = self.start(wrapper=("unshare", "-m", "sh", "-c", mount))
        by_name = self.origin.body("/a", b"a").replace("127.0.0.1", "localhost")
        self.assertEqual(agent.order("http://slow.example/a", "slow"), ANSWERS[500])
        line = (r"\(WRN\) .*open_socket: looking up \[slow\.example\] took (\d+) ms in vain: "
                r"sources given by name are refused for (\d+) ms\n")
        self.assertRegex(agent.log(), line)
        took, closed = map(int, re.search(line, agent.log()).groups())
        self.assertEqual(closed, took * 10)
        self.assertGreater(took, 500)
        opens = time.monotonic() + closed / 1000
        for n in range(5):
            self.assertEqual(agent.order(f"http://n{n}.example/a", "name"), ANSWERS[500])
        self.assertEqual(agent.order(by_name, "local"), ANSWERS[500])
        self.assertEqual(agent.order(self.origin.url("/a"), "address"), ANSWERS[200])
        self.assertEqual(agent.get("/"), ANSWERS[204])
        self.assertEqual(set(self.asked), {b"\4slow\7example"})
        self.assertNotIn("looked up again", agent.log())
        wait_for(lambda: time.monotonic() > opens, "the road to open", took / 100 + 5)
        self.assertEqual(agent.order(by_name, "local"), ANSWERS[200])
        self.assertEqual(agent.stored("local"), b"a")
        self.assertEqual(agent.log().count("sources given by name are "), 2)
        self.assertRegex(agent.log(), r"\(WRN\) .*open_socket: sources given by name are looked up again\n")


if __name__ == "__main__":
    unittest.main()
