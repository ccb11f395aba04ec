"""A real nginx as the source: files of many sizes, many clients at once."""

import os
import shutil
import subprocess
import threading
import unittest

from kov import ANSWERS, QUICK, KovTest
from services import Nginx

MIB = 1 << 20


class NginxSource(KovTest):
    def setUp(self):
        super().setUp()
        self.nginx = Nginx(self.root)
        self.addCleanup(self.nginx.stop)
        self.www = self.nginx.www

    def order_and_compare(self, agent, name):
        self.assertEqual(agent.order(self.nginx.url(name), f"n/{name}"), ANSWERS[200])
        agent.wait_file(f"n/{name}", 60)
        self.assertEqual(subprocess.run(["cmp", f"{self.www}/{name}", agent.path(f"n/{name}")], check=False).returncode, 0)

    def test_sizes(self):
        agent = self.start()
        sizes = [1, 2047, 4096, 1 * MIB, 8 * MIB, 8 * MIB + 1, 50 * MIB] + ([] if QUICK else [200 * MIB])
        for size in sizes:
            with open(f"{self.www}/{size}", "wb") as f:
                f.write(os.urandom(size))
            self.order_and_compare(agent, str(size))
        with open(f"{self.www}/empty", "wb"):
            pass
        self.assertEqual(agent.order(self.nginx.url("empty"), "empty"), ANSWERS[500])

    @unittest.skipIf(QUICK or shutil.disk_usage("/tmp").free < 6 << 30, "needs room for two files of 2 GiB")
    def test_two_gib(self):
        with open(f"{self.www}/large", "wb") as f:
            f.seek(2048 * MIB - 5)
            f.write(b"the-end")
        self.order_and_compare(self.start(), "large")

    def test_many_clients(self):
        agent = self.start(options=("-L", "norm"))
        for i in range(8):
            with open(f"{self.www}/f{i}", "wb") as f:
                f.write(os.urandom(1000 * (i + 1) ** 4))
        wrong = []

        def client(k):
            for i in range(25):
                source = self.nginx.url(f"f{(k + i) % 8}")
                # One download of a source at a time: a second order for it meanwhile is refused.
                while (answer := agent.order(source, f"{k}/{i}")) == ANSWERS[500]:
                    pass
                if answer != ANSWERS[200]:
                    wrong.append(answer)
        threads = [threading.Thread(target=client, args=(k,)) for k in range(8)]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        self.assertEqual(wrong, [])
        for k in range(8):
            for i in range(25):
                with open(f"{self.www}/f{(k + i) % 8}", "rb") as f:
                    agent.wait_file(f"{k}/{i}")
                    self.assertEqual(agent.stored(f"{k}/{i}"), f.read())


if __name__ == "__main__":
    unittest.main()
