"""Directories that go away, limits, sudden death under load."""

import hashlib
import os
import random
import resource
import select
import shutil
import subprocess
import threading

from harness import MODES, QUICK, KovTest, Nginx, age, wait_for


class Directories(KovTest):
    def test_read_only_and_back(self):
        agent = self.start(tmpfs_kib=4096)
        url = self.origin.body("/a", b"a")
        subprocess.run(["mount", "-o", "remount,ro", agent.data], check=True)
        agent.order(url, "ro", 500)
        agent.order(url, "new/dir/ro", 400)
        agent.logged("ERROR(30)")
        subprocess.run(["mount", "-o", "remount,rw", agent.data], check=True)
        agent.fetch(url, "rw", b"a")

    def test_removed_under_a_running_download(self):
        agent = self.start()
        agent.order(self.origin.halves("/a"), "x/a")
        shutil.rmtree(agent.data)
        self.origin.released.set()
        agent.logged("complete_download: rename(", "TASK-END")
        agent.fetch(self.origin.body("/b", b"b"), "x/b", b"b")  # directories are made again

    def test_a_file_size_limit_fails_the_body_and_the_log_but_not_the_agent(self):
        limit = 1 << 16
        for settings in MODES:
            agent = self.start(settings, preexec=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit)))
            agent.order(self.origin.body("/big", b"x" * (limit + 1)), "big", 500)
            agent.logged("ERROR(27): ")
            while os.path.getsize(agent.log_path) < limit:
                agent.get("/" + "x" * 500, 400)
            agent.fetch(self.origin.body("/fits", b"y" * limit), "fits", b"y" * limit)


class Death(KovTest):
    def test_killed_again_and_again(self):
        rounds = 20 if QUICK else 200
        rnd = random.Random(rounds)
        nginx = self.service(Nginx)
        bodies = [rnd.randbytes(rnd.choice((1, 3000, 40_000, 700_000, 3_000_000))) for _ in range(20)]
        digests = [hashlib.sha256(body).digest() for body in bodies]
        urls = [nginx.add(str(k), body) for k, body in enumerate(bodies)]
        agent = self.start("max_mmap_mb = 1;", level="norm")
        seen, orders = set(), 0

        def check_finals():
            for name in set(agent.files()) - set(agent.unfinished()) - seen:
                with open(agent.path(name), "rb") as f:
                    self.assertEqual(hashlib.sha256(f.read()).digest(), digests[int(name.split("-")[1])], name)
                seen.add(name)

        def load(n):
            """Orders without waiting, as fast as they are taken, until the agent dies."""
            clients = []
            try:
                while True:
                    clients = clients[-15:] + [agent.ask(urls[n % 20], f"{n}-{n % 20}")]
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
        left = agent.unfinished()
        self.assertGreater(len(left), 0)
        for name in left[50:]:
            os.remove(agent.path(name))
        for name in left[:50]:
            dst = name.removesuffix("-Kova")
            age(agent.path(name), 32)
            # A source that is being fetched is refused meanwhile.
            url = urls[int(dst.split("-")[1])]
            wait_for(lambda u=url, d=dst: b" 200 " in agent.order(u, d, expect=None), f"{dst} to be taken over")
            agent.stored(dst)
        check_finals()
        wait_for(lambda: not agent.unfinished(), "no unfinished file")
        print(f"\ndeath: {rounds} kills, {orders} orders, {len(seen)} whole files, {len(left)} unfinished ones, "
              f"{len(left[:50])} of them taken over", flush=True)
