"""Clients that split, stall, half-close, leave, crowd."""

import os
import resource
import signal
import socket
import subprocess
import threading
import time
import unittest

from kov import ANSWERS, KovTest, free_port, needs_namespaces, read_all, wait_for


class Clients(KovTest):
    def test_split_heads_and_tails(self):
        agent = self.start("urq_tmout_sec = 20;")
        head = b"GET / HTTP/1.1\r\nHost: split.example.net\r\n\r\n"
        for cuts in ([40, len(head) - 1], range(1, len(head)), [33]):
            with agent.connect() as s:
                last = 0
                for cut in cuts:
                    s.sendall(head[last:cut])
                    last = cut
                    time.sleep(0.003)
                s.sendall(head[last:])
                self.assertEqual(read_all(s), ANSWERS[204], cuts)
        with agent.connect() as s:
            s.sendall(head + b"and a tail")
            self.assertEqual(s.recv(4096), ANSWERS[204])
        agent.wait_log("read_http_rq: request has tail data, dismissing the tail")

    def test_short_head_counts_when_the_client_half_closes(self):
        agent = self.start("urq_tmout_sec = 20;")
        with agent.connect() as s:
            s.sendall(b"GET / HTTP/1.0\r\n\r\n")
            s.shutdown(socket.SHUT_WR)
            self.assertEqual(read_all(s), ANSWERS[204])
        with agent.connect() as s:  # an end without a head is a closed client
            s.sendall(b"GET / HTTP/1.0\r\n")
            s.shutdown(socket.SHUT_WR)
            self.assertEqual(read_all(s), b"")
        agent.wait_log("closed connection")

    def test_time_outs_leave_nothing_and_burn_nothing(self):
        agent = self.start("urq_tmout_sec = 2;")
        full = agent.connect()  # fills the head buffer without an end: parked
        full.sendall(b"GET /" + b"x" * 3000)
        idle = [agent.connect() for _ in range(50)]
        half = agent.connect()
        half.sendall(b"GET /half HTTP/1.1\r\nHost: incomplete\r\n")
        agent.wait_log("Accepted", 52)
        before = agent.cpu_seconds()
        time.sleep(1)
        self.assertLess(agent.cpu_seconds() - before, 0.05)
        agent.wait_log("requests timed out", 1, 8)
        for s in [full, half, *idle]:
            self.assertEqual(read_all(s), b"")
            s.close()
        self.assertEqual(agent.log().count("urq_timeout: TIME-OUT URQ"), 52)

    def test_no_accept_for_nobody(self):
        for injections in ([], ["-e", "inject=poll:error=EINTR"]):
            trace = f"{self.root}/trace{self.roots}"
            agent = self.start(options=("-L", "debug"), env={"ASAN_OPTIONS": "detect_leaks=0"},
                               wrapper=["strace", "-D", "-qq", "-o", trace, "-e", "trace=accept4,poll", *injections])
            for n in range(5):
                self.assertEqual(agent.get("/"), ANSWERS[204])
                agent.wait_log("end of accept queue reached", n + 1)
            with open(trace, encoding="ascii") as f:
                self.assertEqual(f.read().count("EAGAIN"), 5 if injections else 0)
            agent.proc.send_signal(signal.SIGSTOP)
            burst = [agent.connect() for _ in range(20)]
            agent.proc.send_signal(signal.SIGCONT)
            for s in burst:
                s.sendall(b"GET / HTTP/1.1\r\nHost: agent.example.net\r\n\r\n")
                self.assertEqual(read_all(s), ANSWERS[204])
                s.close()

    def test_a_client_that_sends_more_gets_its_answer_and_a_clean_end(self):
        agent = self.start()
        for path, answer in (("/there", 200), ("/gone", 404)):
            gate = threading.Event()
            head = b"HTTP/1.1 %d Word\r\nContent-Length: 1\r\n\r\nx" % answer
            url = self.origin.raw(path, b"", lambda conn, gate=gate, head=head: (gate.wait(30), conn.sendall(head)))
            with agent.connect() as s:
                s.sendall(f"GET /src/{url}/dst{path} HTTP/1.1\r\nHost: h\r\n\r\n".encode())
                agent.wait_log("urq_rm", 1 + (answer == 404))  # nobody reads from it any more
                s.sendall(b"POST / HTTP/1.1\r\n\r\n")
                gate.set()
                data = b""
                while chunk := s.recv(4096):  # an end, and no reset
                    data += chunk
                self.assertEqual(data, ANSWERS[answer])
        agent.wait_file("there")

    def test_clients_that_leave(self):
        agent = self.start("urq_tmout_sec = 20;")
        for reset in (False, True):
            for data in (b"", b"GET / HT", b"GET /src/http://h/a/dst/b HTTP/1.1\r\nHost: not complete"):
                s = agent.connect()
                s.sendall(data)
                if reset:
                    self.origin.reset(s)
                s.close()
        wait_for(lambda: agent.log().count("urq_rm: URQ") == 6, "six requests freed")
        self.assertEqual(agent.get("/"), ANSWERS[204])

    def test_client_that_leaves_before_the_answer_costs_nothing(self):
        agent = self.start()
        url = self.origin.raw("/late", b"", lambda conn: (self.origin.stall(), conn.sendall(
            b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok")))
        s = agent.connect()
        s.sendall(f"GET /src/{url}/dst/late HTTP/1.1\r\nHost: h\r\n\r\n".encode())
        agent.wait_log("TASK-START")
        self.origin.reset(s)
        s.close()
        self.origin.released.set()
        self.assertEqual(agent.stored("late"), b"ok")

    def test_every_kind_of_listener(self):
        path = f"{self.root}/socket"
        any_port, both_port, udp_port = free_port(), free_port(), free_port()
        agent = self.start(more_listeners=f', {{ port = "{any_port}"; }}, {{ default_af = "inet6"; port = {both_port}; }},'
                           f'{{ domain_path = "{path}"; }}')
        places = [(socket.AF_INET, ("127.0.0.1", any_port)), (socket.AF_INET, ("127.0.0.1", both_port)),
                  (socket.AF_INET6, ("::1", both_port)), (socket.AF_UNIX, path)]
        source = self.origin.body("/f", b"body")
        for n, (family, place) in enumerate(places):
            for target, code in (("/" + "x" * 40, 400), (f"/src/{source}/dst/{n}", 200)):
                with socket.socket(family, socket.SOCK_STREAM) as s:
                    s.connect(place)
                    s.sendall(f"GET {target} HTTP/1.1\r\nHost: h\r\n\r\n".encode())
                    self.assertEqual(read_all(s), ANSWERS[code], place)
            self.assertEqual(agent.stored(str(n)), b"body")
            agent.wait_log("TASK-END", n + 1)
        agent.stop()
        self.forget(agent)
        self.assertTrue(os.path.exists(path))  # what an agent leaves is replaced by the next
        agent = self.start(more_listeners=f', {{ domain_path = "{path}"; }}, {{ ifc = "lo"; port = {udp_port}; protocol = "udp"; }}')
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
            s.connect(path)
            s.sendall(b"GET / HTTP/1.1\r\nHost: agent.example.net\r\n\r\n")
            self.assertEqual(read_all(s), ANSWERS[204])
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:  # a listener that can accept nobody is watched no more
            s.sendto(b"GET / HTTP/1.1\r\nHost: agent.example.net\r\n\r\n", ("127.0.0.1", udp_port))
            time.sleep(0.2)
            before = agent.cpu_seconds()
            time.sleep(0.5)
            self.assertLess(agent.cpu_seconds() - before, 0.1)

    def test_accepting_in_batches(self):
        agent = self.start("urq_tmout_sec = 20;", web="max_accept = 3;")
        clients = [agent.connect() for _ in range(12)]
        agent.wait_log("Accepted", 12)
        for s in clients:
            s.sendall(b"GET / HTTP/1.1\r\nHost: batch.example.net\r\n\r\n")
        self.assertTrue(all(read_all(s) == ANSWERS[204] for s in clients))

    def test_the_queue_has_a_limit(self):
        agent = self.start("urq_tmout_sec = 30;")
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 4096), hard))
        clients = [agent.connect() for _ in range(1003)]
        agent.wait_log("rui_add_request: Too many user requests (1000) queued", 3)
        agent.wait_log("Error rc=16 processing connection", 3)
        for s in clients[:10]:
            s.sendall(b"GET / HTTP/1.1\r\nHost: crowd.example.net\r\n\r\n")
            self.assertEqual(read_all(s), ANSWERS[204])
        self.assertEqual([s.recv(1) for s in clients[1000:]], [b""] * 3)
        for s in clients:
            s.close()
        resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))
        self.assertEqual(agent.get("/"), ANSWERS[204])

    def test_few_descriptors(self):
        def limit():
            resource.setrlimit(resource.RLIMIT_NOFILE, (40, 40))
        agent = self.start("urq_tmout_sec = 4;", preexec=limit)
        clients = [agent.connect() for _ in range(60)]
        agent.wait_log("out of resources")
        before = agent.cpu_seconds()
        time.sleep(1)
        self.assertLess(agent.cpu_seconds() - before, 0.1)
        for s in clients:
            s.sendall(b"GET / HTTP/1.1\r\nHost: patient.example.net\r\n\r\n")
        answers = [read_all(s) for s in clients]
        self.assertEqual(answers, [ANSWERS[204]] * 60)
        self.assertLess(agent.log().count("out of resources"), 5)  # once for each batch that is taken
        for s in clients:
            s.close()


class Listeners(KovTest):
    def test_accepting_that_fails_pauses_and_is_said_once_an_episode(self):
        for error, when, why, episodes in (("EPERM", "1..3", "accepting fails, ERROR(1)", 1),
                                           ("EINVAL", "1..3", "accepting fails, ERROR(22)", 1),
                                           ("EMFILE", "1+2", "out of resources, ERROR(24)", 2)):
            tracer = ["strace", "-D", "-qq", "-o", "/dev/null", "-e", "trace=accept4",
                      "-e", f"inject=accept4:error={error}:when={when}"]
            env = {"ASAN_OPTIONS": "detect_leaks=0"}  # leaks cannot be looked for under a tracer
            agent = self.start(web="max_accept = 1;", wrapper=tracer, env=env)
            for _ in range(2):  # the first ends an episode by being taken
                self.assertEqual(agent.get("/"), ANSWERS[204])
            self.assertEqual(agent.log().count(f"): {why}: waiting clients stay queued"), episodes)

    @needs_namespaces
    def test_a_listener_that_is_destroyed_ends_the_agent(self):
        agent = self.start(must_run=False).wait_ready()
        subprocess.run(["ss", "-K", "-t", "state", "listening", "sport", f"= :{agent.port}"], stdout=subprocess.DEVNULL,
                       check=True)
        self.assertEqual(agent.proc.wait(10), -signal.SIGABRT)
        self.assertRegex(agent.log(), r"on_srv_accept: \[lo:\d+\] ERR/HUP\n(.*\n){1,3}.*rui_crash_on_error: HUP ")


if __name__ == "__main__":
    unittest.main()
