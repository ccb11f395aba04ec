"""Crowds of clients that misbehave, directories that go away, and sudden death under load."""

import hashlib
import os
import random
import resource
import select
import shutil
import socket
import subprocess
import threading
import time
import unittest

from kov import ANSWERS, QUICK, KovTest, read_all, wait_for
from services import Nginx


class Crowds(KovTest):
    def test_thousands_of_clients_that_misbehave(self):
        count = 400 if QUICK else 3000
        agent = self.start(options=("-L", "err"))
        self.origin.body("/good", b"good")
        rnd = random.Random(count)
        head = b"GET /src/" + self.origin.url("/good").encode() + b"/dst/%d HTTP/1.1\r\nHost: h.example.net\r\n\r\n"

        def silent(s, _):
            s.settimeout(5)
            read_all(s)

        def slow(s, n):
            for byte in (head % n)[:20]:
                s.sendall(bytes([byte]))
            silent(s, n)

        def leaves(s, n):
            s.sendall((head % n)[:rnd.randrange(60)])

        def resets(s, n):
            leaves(s, n)
            self.origin.reset(s)

        def half_closes(s, n):
            s.sendall((head % n)[:rnd.randrange(32)])
            s.shutdown(socket.SHUT_WR)
            read_all(s)

        def garbage(s, n):
            s.sendall(rnd.randbytes(rnd.randrange(1, 2000)))
            s.shutdown(socket.SHUT_WR)
            silent(s, n)

        def endless(s, n):
            s.sendall(b"GET /" + b"x" * 3000)
            silent(s, n)

        kinds = [silent, slow, leaves, resets, half_closes, garbage, endless]

        def client(numbers):
            for n in numbers:
                try:
                    with socket.create_connection(("127.0.0.1", agent.port), timeout=10) as s:
                        kinds[n % len(kinds)](s, n)
                except OSError:
                    pass
        threads = [threading.Thread(target=client, args=(range(k, count, 100),)) for k in range(100)]
        for t in threads:
            t.start()
        stored = 0
        while any(t.is_alive() for t in threads):
            self.assertEqual(agent.order(self.origin.url("/good"), f"g{stored}"), ANSWERS[200])
            self.assertEqual(agent.stored(f"g{stored}"), b"good")
            stored += 1
        for t in threads:
            t.join()
        self.assertGreater(stored, 10)
        wait_for(lambda: agent.fds() <= agent.base_fds, "descriptors at base line")
        before = agent.cpu_seconds()
        time.sleep(0.5)
        self.assertLess(agent.cpu_seconds() - before, 0.05)

    def test_clients_and_sources_beyond_1024_descriptors(self):
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 8192), hard))
        self.addCleanup(resource.setrlimit, resource.RLIMIT_NOFILE, (soft, hard))
        agent = self.start("urq_tmout_sec = 30;")
        url = [self.origin.raw(f"/{i}", b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n1",
                               lambda conn: (self.origin.stall(), conn.sendall(b"2"))) for i in range(300)]
        for i, source in enumerate(url):
            self.assertEqual(agent.order(source, f"f{i}"), ANSWERS[200])
        idle = [agent.connect() for _ in range(700)]
        wait_for(lambda: agent.fds() > 1100, "more than 1,100 descriptors")
        self.origin.released.set()
        for i in range(300):
            self.assertEqual(agent.stored(f"f{i}"), b"12")
        for s in idle:
            s.sendall(b"GET / HTTP/1.1\r\nHost: idle.example.net\r\n\r\n")
        self.assertEqual({read_all(s) for s in idle}, {ANSWERS[204]})
        for s in idle:
            s.close()

    def test_few_descriptors_for_many_orders(self):
        agent = self.start(preexec=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (40, 40)))
        head = b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n1"
        answers = [agent.order(self.origin.raw(f"/{i}", head, lambda conn: (self.origin.stall(), conn.sendall(b"2"))), f"f{i}")
                   for i in range(30)]
        accepted = [i for i, answer in enumerate(answers) if answer == ANSWERS[200]]
        self.assertGreater(len(accepted), 10)
        self.assertLess(len(accepted), 20)  # two descriptors each
        self.assertEqual(set(answers) - {ANSWERS[200]} - {ANSWERS[400], ANSWERS[500], b""}, set())
        self.origin.released.set()
        for i in accepted:
            self.assertEqual(agent.stored(f"f{i}"), b"12")
        self.assertEqual(agent.order(self.origin.body("/after", b"after"), "after"), ANSWERS[200])
        self.assertEqual(agent.stored("after"), b"after")
        wait_for(lambda: agent.files() == sorted([f"f{i}" for i in accepted] + ["after"]), "nothing else")

    def test_sources_that_drip(self):
        def drip(conn, _):
            for byte in b"HTTP/1.1 200 OK\r\nContent-Length: 30\r\n\r\n":
                conn.sendall(bytes([byte]))
            for n in range(30):
                conn.sendall(b"%d" % (n % 10))
                time.sleep(0.01)
        for settings in ("", "max_mmap_mb = 0;"):
            agent = self.start(settings)
            stored = 0
            for i in range(10):  # a head that comes in pieces is refused when the agent was quick enough to see one
                self.origin.paths[f"/{i}"] = drip
                if agent.order(self.origin.url(f"/{i}"), f"d{i}") == ANSWERS[200]:
                    self.assertEqual(agent.stored(f"d{i}"), b"0123456789" * 3)
                    stored += 1
            self.assertEqual(len(agent.files()), stored)


class Directories(KovTest):
    def test_read_only_then_gone_then_back(self):
        agent = self.start(tmpfs_kib=4096)
        self.origin.body("/a", b"a")
        subprocess.run(["mount", "-o", "remount,ro", agent.data], check=True)
        self.assertEqual(agent.order(self.origin.url("/a"), "ro"), ANSWERS[500])
        self.assertEqual(agent.order(self.origin.url("/a"), "new/dir/ro"), ANSWERS[400])
        self.assertIn("ERROR(30)", agent.log())
        subprocess.run(["mount", "-o", "remount,rw", agent.data], check=True)
        self.assertEqual(agent.order(self.origin.url("/a"), "rw"), ANSWERS[200])
        self.assertEqual(agent.stored("rw"), b"a")

    def test_removed_under_a_running_download(self):
        agent = self.start()
        url = self.origin.raw("/a", b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n1",
                              lambda conn: (self.origin.stall(), conn.sendall(b"2")))
        self.assertEqual(agent.order(url, "x/a"), ANSWERS[200])
        shutil.rmtree(agent.data)
        self.origin.released.set()
        agent.wait_log("TASK-END")
        self.assertIn("complete_download: rename(", agent.log())
        self.assertEqual(agent.order(self.origin.body("/b", b"b"), "x/b"), ANSWERS[200])  # directories are made again
        self.assertEqual(agent.stored("x/b"), b"b")


class FileSizeLimit(KovTest):
    def test_it_fails_the_body_and_the_log_but_not_the_agent(self):
        limit = 1 << 16
        for settings in ("", "max_mmap_mb = 0;"):
            agent = self.start(settings, preexec=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit)))
            self.assertEqual(agent.order(self.origin.body("/big", b"x" * (limit + 1)), "big"), ANSWERS[500])
            agent.wait_log("ERROR(27): ")
            while os.path.getsize(agent.log_path) < limit:
                self.assertEqual(agent.get("/" + "x" * 500), ANSWERS[400])
            self.assertEqual(agent.order(self.origin.body("/fits", b"y" * limit), "fits"), ANSWERS[200])
            self.assertEqual(agent.stored("fits"), b"y" * limit)


class Death(KovTest):
    def test_killed_again_and_again(self):
        rounds = 20 if QUICK else 200
        rnd = random.Random(rounds)
        nginx = Nginx(self.new_root())
        self.addCleanup(nginx.stop)
        digests = []
        for k in range(20):
            body = rnd.randbytes(rnd.choice((1, 3000, 40_000, 700_000, 3_000_000)))
            digests.append(hashlib.sha256(body).digest())
            with open(f"{nginx.www}/{k}", "wb") as f:
                f.write(body)
        agent = self.start("max_mmap_mb = 1;", options=("-L", "norm"))
        seen, orders = set(), 0

        def check_finals():
            for name in set(agent.files()) - seen:
                if not name.endswith("-Kova"):
                    with open(agent.path(name), "rb") as f:
                        self.assertEqual(hashlib.sha256(f.read()).digest(), digests[int(name.split("-")[1])], name)
                    seen.add(name)

        def load(first):
            """Orders without waiting, as fast as they are taken, until the agent dies."""
            n = first
            clients = []
            try:
                while True:
                    s = socket.create_connection(("127.0.0.1", agent.port))
                    s.sendall(f"GET /src/{nginx.url(n % 20)}/dst/{n}-{n % 20} HTTP/1.1\r\nHost: h.example\r\n\r\n".encode())
                    clients = clients[-15:] + [s]
                    n += 1
                    if len(clients) > 15:
                        select.select([clients[0]], [], [], 1)
            except OSError:
                return n

        for _ in range(rounds):
            timer = threading.Timer(rnd.uniform(0.002, 0.06), agent.proc.kill)
            timer.start()
            orders = load(orders)
            timer.join()
            agent.proc.wait()
            check_finals()
            agent.run()
            agent.wait_ready()
        left = [name for name in agent.files() if name.endswith("-Kova")]
        self.assertGreater(len(left), 0)
        for name in left[50:]:
            os.remove(agent.path(name))
        for name in left[:50]:
            dst = name.removesuffix("-Kova")
            k = int(dst.split("-")[1])
            os.utime(agent.path(name), (time.time() - 32,) * 2)
            # A source that is being fetched is refused meanwhile.
            wait_for(lambda k=k, dst=dst: agent.order(nginx.url(k), dst) == ANSWERS[200], f"{dst} to be taken over")
            agent.wait_file(dst)
        check_finals()
        wait_for(lambda: not [name for name in agent.files() if name.endswith("-Kova")], "no unfinished file")
        print(f"\ndeath: {rounds} kills, {orders} orders, {len(seen)} whole files, {len(left)} unfinished ones, {len(left[:50])} "
              "of them taken over",
              flush=True)


if __name__ == "__main__":
    unittest.main()
