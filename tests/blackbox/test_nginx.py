"""The main job on real input: nginx as the source, files of many sizes, many clients at once."""
import collections
import concurrent.futures
import os
import shutil
import subprocess
import unittest

import kov
from kov import answer

MIB = 1 << 20
SIZES = {"empty": 0, "one": 1, "page": 4096, "mapped": 8 * MIB, "written": 8 * MIB + 1}
LARGE = {"large": 200 * MIB, "huge": 2048 * MIB}
CONFIG = """daemon off; master_process off; pid {dir}/pid; error_log {dir}/error.log;
events {{ worker_connections 1024; }}
http {{
    access_log off; sendfile on; keepalive_timeout 0;
    client_body_temp_path {dir}/t1; proxy_temp_path {dir}/t2; fastcgi_temp_path {dir}/t3; uwsgi_temp_path {dir}/t4;
    scgi_temp_path {dir}/t5;
    server {{
        listen 127.0.0.1:{port};
        root {dir}/root;
        location /slow/ {{ alias {dir}/root/; limit_rate 400k; }}
        location /moved/ {{ return 302 /page; }}
    }}
}}
"""


def nginx_path():
    return shutil.which("nginx", path=os.environ["PATH"] + ":/usr/sbin")


@unittest.skipUnless(nginx_path(), "no nginx")
class Nginx(kov.Case):
    settings = {"log": {"level": "info"}}

    def setUp(self):
        super().setUp()
        self.dir, self.port = self.agent.dir + "/nginx", kov.free_port()
        os.makedirs(self.dir + "/root")
        with open(self.dir + "/conf", "w", encoding="ascii") as file:
            file.write(CONFIG.format(dir=self.dir, port=self.port))
        self.nginx = subprocess.Popen([nginx_path(), "-p", self.dir, "-c", self.dir + "/conf", "-e", self.dir + "/error.log"],
                                      stderr=subprocess.DEVNULL)
        self.addCleanup(self.end_nginx)
        kov.wait_for(lambda: self.nginx.poll() is not None or os.path.exists(self.dir + "/pid"), "nginx")
        self.assertIsNone(self.nginx.poll(), "nginx runs")

    def end_nginx(self):
        self.nginx.terminate()
        self.nginx.wait()

    def url(self, path):
        return f"http://127.0.0.1:{self.port}/{path}"

    def make(self, name, size):
        with open(f"{self.dir}/root/{name}", "wb") as file:
            if size > 1024 * MIB:  # sparse, with something to find at both ends
                file.write(b"begin")
                file.seek(size - 3)
                file.write(b"end")
            else:
                file.write(os.urandom(size))

    def same(self, name, dest, seconds=120):
        kov.wait_for(lambda: os.path.exists(self.agent.path(dest)), f"{dest} stored", seconds)
        return kov.sha256(f"{self.dir}/root/{name}") == kov.sha256(self.agent.path(dest))

    def test_sizes(self):
        for name, size in SIZES.items():
            with self.subTest(name=name):
                self.make(name, size)
                self.assertEqual(self.agent.order(self.url(name), f"a/{name}"), answer(200 if size else 500))
                if size:
                    self.assertTrue(self.same(name, f"a/{name}"))
        self.assertEqual(self.agent.order(self.url("none"), "a/none"), answer(404))
        self.assertEqual(self.agent.order(self.url("moved/"), "a/moved"), answer(302))

    @unittest.skipIf(kov.QUICK, "KOV_QUICK")
    def test_large(self):
        for name, size in LARGE.items():
            if shutil.disk_usage(self.agent.dir).free < 3 * size:
                continue
            with self.subTest(name=name):
                self.make(name, size)
                self.assertEqual(self.agent.order(self.url(name), name), answer(200))
                self.assertTrue(self.same(name, name))
                os.unlink(self.agent.path(name))

    def test_many_clients(self):
        """100 clients at once, fast and slow sources mixed; curl among them."""
        for number in range(20):
            self.make(f"f{number}", 1000 + number * 40000)
        jobs = [(f"{'slow/' if number % 3 == 0 else ''}f{number % 20}", f"m{number % 7}/{number}")
                for number in range(100)]

        def place(job):
            path, dest = job
            target = f"http://127.0.0.1:{self.agent.port}/src/{self.url(path)}/dst/{dest}"
            if dest.endswith("3") and shutil.which("curl"):
                return subprocess.run(["curl", "-s", "-i", target], capture_output=True, timeout=60, check=True).stdout
            return self.agent.order(self.url(path), dest)

        # A source that is being fetched is not fetched twice at once: such an order is refused, and placed again.
        with concurrent.futures.ThreadPoolExecutor(25) as pool:
            answers = list(pool.map(place, jobs))
        self.assertLessEqual(set(answers), {answer(200), answer(500)})
        for job, got in zip(jobs, answers):
            while got == answer(500):
                got = place(job)
            self.assertEqual(got, answer(200))
        for path, dest in jobs:
            self.assertTrue(self.same(path.removeprefix("slow/"), dest), dest)
        self.assertEqual(collections.Counter(len(name.split("/")) for name in self.agent.files()), {1: 7, 2: 100})


if __name__ == "__main__":
    unittest.main()
