"""Clients that split, stall, half-close, leave, crowd; listeners of every kind, and accepting that fails."""

import contextlib
import os
import random
import resource
import signal
import socket
import time
from concurrent.futures import ThreadPoolExecutor

from harness import ANSWERS, QUICK, KovTest, free_port, needs_namespaces, read_all, request, reset, run

PING = request("/")


class Clients(KovTest):
    def answered(self, clients, expect=204):
        """Sends a ping to each and compares the answer."""
        for s in clients:
            s.sendall(PING)
        for s in clients:
            self.assertEqual(read_all(s), ANSWERS[expect])
            s.close()

    def test_split_heads_and_tails_and_short_heads(self):
        agent = self.start("urq_tmout_sec = 20;")
        for cuts in ([40, len(PING) - 1], range(1, len(PING)), [33]):
            with agent.connect() as s:
                last = 0
                for cut in cuts:
                    s.sendall(PING[last:cut])
                    last = cut
                    time.sleep(0.003)
                s.sendall(PING[last:])
                self.assertEqual(read_all(s), ANSWERS[204], cuts)
        with agent.connect(PING + b"and a tail") as s:
            self.assertEqual(s.recv(4096), ANSWERS[204])
        agent.logged("read_http_rq: request has tail data, dismissing the tail")
        for head, answer in ((b"GET / HTTP/1.0\r\n\r\n", 204), (b"GET / HTTP/1.0\r\n", 0)):
            with agent.connect(head) as s:  # a short one counts when its client half-closes
                s.shutdown(socket.SHUT_WR)
                self.assertEqual(read_all(s), ANSWERS[answer])
        agent.logged("closed connection")  # an end without a head

    def test_time_outs_leave_nothing_and_burn_nothing(self):
        agent = self.start("urq_tmout_sec = 2;")
        clients = [agent.connect(b"GET /" + b"x" * 3000),  # fills the head buffer without an end: parked
                   agent.connect(b"GET /half HTTP/1.1\r\nHost: incomplete\r\n"), *(agent.connect() for _ in range(50))]
        agent.logged("Accepted", count=52)
        agent.idles()
        agent.logged("requests timed out", seconds=8)
        for s in clients:
            self.assertEqual(read_all(s), b"")
            s.close()
        self.assertEqual(agent.log().count("urq_timeout: TIME-OUT URQ"), 52)

    def test_no_accept_for_nobody(self):
        for inject in ((), ("poll:error=EINTR",)):
            agent = self.start(level="debug", web="max_accept = 3;", trace="accept4,poll", inject=inject)
            for n in range(5):
                agent.get("/", 204)
                agent.logged("end of accept queue reached", count=n + 1)
            self.assertEqual(agent.trace().count("EAGAIN"), 5 if inject else 0)
            with agent.frozen():
                burst = [agent.connect() for _ in range(20)]  # taken in several batches
            self.answered(burst)

    def test_a_client_that_sends_more_gets_its_answer_and_a_clean_end(self):
        agent = self.start()
        for n, answer in enumerate((200, 404)):
            head = b"HTTP/1.1 %d Word\r\nContent-Length: 1\r\n\r\nx" % answer
            url, gate = self.origin.gated(f"/{n}", b"", head)
            with agent.ask(url, f"f{n}") as s:
                agent.logged("urq_rm", count=n + 1)  # nobody reads from it any more
                s.sendall(b"POST / HTTP/1.1\r\n\r\n")
                gate.set()
                self.assertEqual(b"".join(iter(lambda: s.recv(4096), b"")), ANSWERS[answer])  # an end, and no reset
        agent.stored("f0", b"x")
        for target, answer in (("/", 204), ("/x", 400), (f"/src/http://127.0.0.1:{free_port()}/a/dst/a", 400)):
            with agent.connect(request(target) + b"more" * 500) as s:
                self.assertEqual(b"".join(iter(lambda: s.recv(4096), b"")), ANSWERS[answer])

    def test_clients_that_leave(self):
        agent = self.start("urq_tmout_sec = 20;")
        for leave in (lambda s: None, reset):
            for data in (b"", b"GET / HT", b"GET /src/http://h/a/dst/b HTTP/1.1\r\nHost: not complete"):
                with agent.connect(data) as s:
                    leave(s)
        agent.logged("urq_rm: URQ", count=6)
        url, gate = self.origin.gated("/late", b"", b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok")
        with agent.ask(url, "late") as s:  # and leaves before the answer, which costs nothing
            agent.logged("TASK-START")
            reset(s)
        agent.completes(gate, "late", b"ok")

    def test_the_queue_has_a_limit(self):
        agent = self.start("urq_tmout_sec = 30;")
        clients = [agent.connect() for _ in range(1003)]
        agent.logged("rui_add_request: Too many user requests (1000) queued", "Error rc=16 processing connection",
                     count=3)
        self.answered(clients[990:1000])  # of the highest descriptors
        self.assertEqual([s.recv(1) for s in clients[1000:]], [b""] * 3)
        for s in clients:
            s.close()
        agent.get("/", 204)

    def test_few_descriptors(self):
        agent = self.start("urq_tmout_sec = 4;", preexec=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (40, 40)))
        clients = [agent.connect() for _ in range(60)]
        agent.logged("out of resources")
        agent.idles(limit=0.1)
        self.answered(clients)
        self.assertLess(agent.log().count("out of resources"), 5)  # once for each batch that is taken
        answers = [agent.order(self.origin.halves(f"/{i}", b"1", b"2"), f"f{i}", expect=None) for i in range(30)]
        accepted = [f"f{i}" for i, answer in enumerate(answers) if answer == ANSWERS[200]]
        self.assertTrue(10 < len(accepted) < 20, accepted)  # two descriptors each
        self.assertLessEqual(set(answers), {ANSWERS[200], ANSWERS[400], ANSWERS[500], b""})
        self.origin.released.set()
        for name in accepted:
            agent.stored(name, b"12")
        agent.fetch(self.origin.body("/after", b"after"), "after", b"after")
        agent.holds(*accepted, "after")

    def test_thousands_that_misbehave(self):
        count = 400 if QUICK else 3000
        agent = self.start(level="err")
        rnd = random.Random(count)
        good = self.origin.body("/good", b"good")
        head = request(f"/src/{good}/dst/x")

        texts = (head[:60], b"GET /" + b"x" * 3000, rnd.randbytes(2000))
        ends = (read_all, lambda s: (s.shutdown(socket.SHUT_WR), read_all(s)), reset, lambda s: None)

        def client():
            text = rnd.choice(texts)
            with contextlib.suppress(OSError), agent.connect(text[:rnd.randrange(len(text))]) as s:
                rnd.choice(ends)(s)
        stored = 0
        with ThreadPoolExecutor(100) as pool:
            clients = [pool.submit(client) for _ in range(count)]
            while not all(one.done() for one in clients):
                agent.fetch(good, f"g{stored}", b"good")
                stored += 1
        self.assertGreater(stored, 10)
        agent.at_base_line()
        agent.idles(0.5)


class Listeners(KovTest):
    def test_every_kind(self):
        path = f"{self.root}/socket"
        any_port, both_port, udp_port = free_port(), free_port(), free_port()
        local = f', {{ domain_path = "{path}"; }}'
        agent = self.start(more_listeners=f', {{ port = "{any_port}"; }}, '
                           f'{{ default_af = "inet6"; port = {both_port}; }}{local}')
        source = self.origin.body("/f", b"body")
        for n, (family, place) in enumerate(((socket.AF_INET, ("127.0.0.1", any_port)), (socket.AF_UNIX, path),
                                             (socket.AF_INET, ("127.0.0.1", both_port)),
                                             (socket.AF_INET6, ("::1", both_port)))):
            for target, code in (("/" + "x" * 40, 400), (f"/src/{source}/dst/{n}", 200)):
                self.ask(family, place, request(target), code)
            agent.stored(str(n), b"body")
            agent.ended(n + 1)
        with agent.frozen(), socket.socket(socket.AF_UNIX) as s:  # what it said before it left counts
            s.connect(path)
            s.sendall(request(f"/src/{source}/dst/gone"))
        agent.stored("gone", b"body")
        self.end(agent)
        self.assertTrue(os.path.exists(path))  # what an agent leaves is replaced by the next
        agent = self.start(more_listeners=local + f', {{ ifc = "lo"; port = {udp_port}; protocol = "udp"; }}')
        self.ask(socket.AF_UNIX, path, PING, 204)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:  # who can accept nobody is watched no more
            s.sendto(PING, ("127.0.0.1", udp_port))
            time.sleep(0.2)
            agent.idles(0.5, 0.1)

    def ask(self, family, place, head, code):
        with socket.socket(family, socket.SOCK_STREAM) as s:
            s.connect(place)
            s.sendall(head)
            self.assertEqual(read_all(s), ANSWERS[code], place)

    def test_accepting_that_fails_pauses_and_is_said_once_an_episode(self):
        for error, when, why, episodes in (("EPERM", "1..3", "accepting fails, ERROR(1)", 1),
                                           ("EINVAL", "1..3", "accepting fails, ERROR(22)", 1),
                                           ("EMFILE", "1+2", "out of resources, ERROR(24)", 2)):
            agent = self.start(web="max_accept = 1;", trace="accept4", inject=[f"accept4:error={error}:when={when}"])
            for _ in range(2):  # the first ends an episode by being taken
                agent.get("/", 204)
            self.assertEqual(agent.log().count(f"): {why}: waiting clients stay queued"), episodes)

    @needs_namespaces
    def test_one_that_is_destroyed_ends_the_agent(self):
        agent = self.start()
        run("ss", "-K", "-t", "state", "listening", "sport", f"= :{agent.port}")
        self.ends_by_itself(agent, -signal.SIGABRT)
        self.assertRegex(agent.log(), r"on_srv_accept: \[lo:\d+\] ERR/HUP\n(.*\n){1,3}.*rui_crash_on_error: HUP ")
