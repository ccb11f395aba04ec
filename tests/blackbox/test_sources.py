"""Sources that refuse, break, lie, stall, crowd; a slow name server; bodies that move inside the kernel."""

import os
import re
import resource
import signal
import socket
import time

from harness import (ANSWERS, ASAN, HEAD, OK, KovTest, NameServer, free_port, needs_namespaces, read, read_all,
                     reset, sized, wait_for)

SIZE = (3 << 20) + 17


class Sources(KovTest):
    def test_refused_connection(self):
        agent = self.start()
        agent.order(f"http://127.0.0.1:{free_port()}/a", "a", 400)
        for port in ("port", self.origin.port + 65536, self.origin.port - 65536, f"{self.origin.port}x", "+1"):
            agent.order(f"http://127.0.0.1:{port}/a".replace("+", "%2b"), "a", 500)
            agent.logged(f"open_socket: empty or invalid port [{port}]\n")
        self.assertEqual(self.origin.requests, [])
        agent.order("http://127.0.0.1", "a", 400)
        self.assertEqual(agent.files(), [])

    def test_a_source_that_hangs_up_on_every_caller(self):
        agent = self.start(trace="connect", inject=("connect:signal=SIGSTOP:when=1",))
        with socket.create_server(("127.0.0.1", 0)) as server:
            for n in range(10):
                with agent.ask(f"http://127.0.0.1:{server.getsockname()[1]}/{n}", "a") as client:
                    with server.accept()[0] as conn:
                        reset(conn)
                    agent.proc.send_signal(signal.SIGCONT)  # the first time it has not sent its GET
                    self.assertEqual(read_all(client), ANSWERS[500])

    def test_heads_that_are_refused(self):
        agent = self.start()
        no_length = "invalid/missing content length"
        for i, (head, message) in enumerate((
                (b"HTTP/1.1 200\r\n\r\n", "recv_http_response: parsed 3 < 4 elements"),
                (OK, "connection broken"),
                (OK + b"X: " + b"y" * 3000, "buffer already full, yet no HTTP EOD"),
                (OK + b"\r\nbody", no_length + ": 0"),
                (OK + b"X-Content-Length: 5\r\nContent-Length: 0\r\n\r\n", no_length + ": 0"),
                (OK + b"transfer-encoding : chunked\r\nContent-Length: 5\r\n\r\n5\r\na", "encodings are not supported"),
                (sized(9223372036854775807), "mk_dest_file: ftruncate("))):
            before = len(agent.log())
            agent.order(self.origin.raw(f"/{i}", head), f"f{i}", 500)
            self.assertIn(message, agent.log()[before:], head)
        agent.order(self.origin.raw("/reset", b"", reset), "r", 500)
        partial = self.origin.raw("/p", OK, lambda conn: (time.sleep(0.2), conn.sendall(b"Content-Length: 1\r\n\r\nx")))
        agent.order(partial, "p", 500)  # what has been seen of a head is not kept
        agent.holds()

    def test_bodies_that_end_early(self):
        for agent in self.in_both_modes():
            for i, (body, then) in enumerate(((b"", None), (b"abc", None), (b"abc", reset), (b"", reset),
                                              (b"a" * 100000, None))):
                agent.order(self.origin.raw(f"/{i}", sized(200000) + body, then), f"e{i}", expect=None)
                agent.ended(i + 1)
            agent.holds()
            agent.logged("e1-Kova] failed, rc=104", "removing T0002 due to error, rc=104")

    def test_stalled_sources_cost_no_cpu(self):
        agent = self.start()
        for i in range(20):
            agent.order(self.origin.cut(f"/{i}", self.origin.stall), f"s{i}")
        client = agent.ask(self.origin.raw("/silent", b"", self.origin.stall), "silent")
        agent.logged("TASK-START", count=21)
        agent.logged("urq_rm: URQ", count=21)
        agent.idles()
        wait_for(lambda: self.keep_alive_timers() == 21, "a keep-alive for every source")
        self.origin.released.set()
        agent.ended(21)
        client.close()
        agent.holds()

    def keep_alive_timers(self):
        """The agent's connections to the source that will be probed within 60 s."""
        rows = [line.split() for line in read("/proc/net/tcp").splitlines()[1:]]
        return sum(row[2].endswith(f":{self.origin.port:04X}") and row[5].startswith("02:") and
                   0 < int(row[5][3:], 16) <= 6000 for row in rows)

    def test_full_disk(self):
        for agent, answer in zip(self.in_both_modes(tmpfs_kib=1024), (500, 200)):
            # Mapped: refused before the answer. Written: the answer is out when the disk fills up.
            agent.order(self.origin.body("/big", b"x" * SIZE, pieces=[HEAD, 1]), "big", answer)
            agent.ended()
            counts = re.search(r"fallocate\(.*ERROR\(28\)|read_fragment: under-write to fd\d+: (\d+)/(-?\d+)\n",
                               agent.log())
            self.assertTrue(counts and (not counts[1] or int(counts[2]) < int(counts[1])), agent.log())
            agent.fetch(self.origin.body("/small", b"x" * 300_000), "small", b"x" * 300_000)
            agent.holds("small")

    def test_a_file_size_limit_fails_the_body_and_the_log_but_not_the_agent(self):
        limit = 1 << 16
        for agent in self.in_both_modes(preexec=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))):
            agent.order(self.origin.body("/big", b"x" * (limit + 1)), "big", 500)
            agent.logged("ERROR(27): ")
            while os.path.getsize(agent.log_path) < limit:
                agent.get("/" + "x" * 500, 400)
            agent.fetch(self.origin.body("/fits", b"y" * limit), "fits", b"y" * limit)

    def test_a_thousand_at_once(self):
        agent = self.start()
        body = bytes(range(256)) * 64

        def one(i):
            agent.order(self.origin.halves(f"/{i}", body[:5000], body[5000:]), f"m/{i}")

        one("warm-up")
        base_kib = agent.rss_kib()
        for i in range(1000):
            one(i)
        self.assertEqual(len(agent.unfinished()), 1001)
        self.origin.released.set()
        for i in range(1000):
            agent.stored(f"m/{i}", body)
        agent.ended(1001)
        agent.at_base_line()
        if not ASAN:
            self.assertLess(agent.rss_kib() - base_kib, 4096, "memory at base line")

    @needs_namespaces
    def test_a_slow_look_up_in_vain_closes_the_road_for_names_for_a_while(self):
        names = self.service(NameServer, 0.55, False)
        agent = self.start(wrapper=names.wrapper)
        by_name = self.origin.body("/a", b"a").replace("127.0.0.1", "localhost")
        agent.order("http://slow.example/a", "slow", 500)
        line = (r"\(WRN\) .*open_socket: looking up \[slow\.example\] took (\d+) ms in vain: "
                r"sources given by name are refused for (\d+) ms\n")
        self.assertRegex(agent.log(), line)
        took, closed = map(int, re.search(line, agent.log()).groups())
        self.assertEqual(closed, took * 10)
        self.assertGreater(took, 500)
        opens = time.monotonic() + closed / 1000
        for n in range(5):
            agent.order(f"http://n{n}.example/a", "name", 500)
        agent.order(by_name, "local", 500)
        agent.order(self.origin.url("/a"), "address")
        agent.get("/", 204)
        self.assertEqual(names.asked, {"slow.example."})
        agent.not_logged("looked up again")
        wait_for(lambda: time.monotonic() > opens, "the road to open", took / 100 + 5)
        agent.fetch(by_name, "local", b"a")
        self.assertEqual(agent.log().count("sources given by name are "), 2)
        self.assertRegex(agent.log(), r"\(WRN\) .*open_socket: sources given by name are looked up again\n")


class Moved(KovTest):
    """Written bodies move inside the kernel, through one pipe."""

    def traced(self, *injections, calls="splice"):
        return self.start("max_mmap_mb = 0;", trace=calls, inject=injections)

    def check_bodies(self, agent):
        for n, size in enumerate((SIZE, 200_000, 131_071)):
            body = os.urandom(size)
            agent.fetch(self.origin.body(f"/{n}", body, pieces=[HEAD, 1]), f"b{n}", body)
        agent.ended(3)

    def test_long_bodies_move_and_short_rests_do_not(self):
        agent = self.traced()
        self.check_bodies(agent)
        filled = emptied = 0
        for line in agent.trace().splitlines():
            n = int(line.rsplit("= ", 1)[1].split()[0])
            if "NONBLOCK" in line:
                filled += n
            else:
                emptied += n
        self.assertEqual(filled, emptied)
        self.assertTrue(SIZE - 131_072 < filled <= SIZE + 200_000, filled)

    def test_refusals_fall_back_to_the_buffer(self):
        for injection in ("error=ENOSYS", "error=EINVAL:when=1", "error=EINVAL:when=2", "error=EIO:when=2",
                          "error=EAGAIN:when=3", "error=EPERM:when=4", "error=EINTR:when=3", "error=ENOSPC:when=2"):
            with self.subTest(injection):
                agent = self.traced("splice:" + injection)
                self.check_bodies(agent)
                self.assertIn("INJECTED", agent.trace())

    def test_a_read_that_a_signal_interrupts_is_repeated(self):
        nth = 1 + self.traced(calls="read").trace().count("read(")
        agent = self.traced("splice:error=ENOSYS", f"read:error=EINTR:when={nth}+2", calls="splice,read")
        self.check_bodies(agent)
        self.assertIn("EINTR", agent.trace())

    def test_without_a_pipe(self):
        agent = self.traced(calls="fcntl")
        wait_for(lambda: "F_SETPIPE_SZ" in agent.trace(), "the pipe")
        nth = len(re.findall(r"(?m)^fcntl\(", agent.trace().split("F_SETPIPE_SZ")[0]))
        base = agent.base_fds
        for injection, text in ((f"fcntl:retval=65536:when={nth}", "is not granted (65536)"),
                                (f"fcntl:error=EPERM:when={nth}", "is not granted (-1)"),
                                ("pipe2:error=EMFILE", "ERROR(24)")):
            agent = self.traced(injection, calls="fcntl,pipe2,splice")
            self.assertEqual(agent.base_fds, base - 2)
            self.assertRegex(agent.log(),
                             rf"\(WRN\) .*open_body_pipe: .*{re.escape(text)}.*: bodies go through the buffer\n")
            self.check_bodies(agent)
            self.assertNotIn("\nsplice(", agent.trace())

    def test_what_stays_in_the_pipe_is_gone_before_the_next_body(self):
        refused = "splice:error=EIO:when=2"
        agent = self.traced(refused, calls="splice,read")
        self.check_bodies(agent)
        until = agent.trace().split("INJECTED")[0]
        nth = 1 + len(re.findall(r"(?m)^read\(", until))
        agent = self.traced(refused, f"read:error=EIO:when={nth}", calls="splice,read")
        agent.order(self.origin.body("/big", b"x" * SIZE, pieces=[HEAD, 1]), "big")
        agent.ended()
        self.assertRegex(agent.log(), r"\(ERR\)  T0001  read_fragment: under-write to fd\d+: \d+/-1\n")
        agent.holds()
        body = os.urandom(SIZE)
        agent.fetch(self.origin.body("/next", body, pieces=[HEAD, 1]), "next", body)
