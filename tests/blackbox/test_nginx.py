"""A real nginx as the source: files of many sizes, many clients at once."""

import os
import shutil
import subprocess
import threading
import unittest

from kov import ANSWERS, QUICK, KovTest, free_port, wait_for

MIB = 1 << 20


class Nginx(KovTest):
    def setUp(self):
        super().setUp()
        self.www = f"{self.root}/www"
        os.makedirs(self.www)
        os.chmod(self.root, 0o755)
        self.port = free_port()
        temp = "".join(f"{kind}_temp_path {self.root};" for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        with open(f"{self.root}/nginx.conf", "w", encoding="ascii") as f:
            f.write(f"daemon off; pid {self.root}/nginx.pid; error_log {self.root}/nginx.err; worker_processes 1;"
                    f"events {{ worker_connections 2048; }} http {{ access_log off; sendfile on; {temp}"
                    f"server {{ listen 127.0.0.1:{self.port} backlog=1024; root {self.www}; }} }}")
        self.nginx = subprocess.Popen(["nginx", "-c", f"{self.root}/nginx.conf"], stderr=subprocess.DEVNULL,
                                      env={**os.environ, "PATH": os.environ["PATH"] + ":/usr/sbin"})
        self.addCleanup(self.stop_nginx)
        wait_for(lambda: os.path.exists(f"{self.root}/nginx.pid"), "nginx")

    def stop_nginx(self):
        self.nginx.terminate()
        self.nginx.wait(10)

    def order_and_compare(self, agent, name):
        self.assertEqual(agent.order(f"http://127.0.0.1:{self.port}/{name}", f"n/{name}"), ANSWERS[200])
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
        self.assertEqual(agent.order(f"http://127.0.0.1:{self.port}/empty", "empty"), ANSWERS[500])

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
                source = f"http://127.0.0.1:{self.port}/f{(k + i) % 8}"
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
