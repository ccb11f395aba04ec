"""A long run: orders over HTTP and as datagrams, a tenth of them failing in every way that a client, a source or a sender has.

    soak.py MINUTES

Says each minute what was done and what the agent holds; at the end asks whether memory and descriptors stayed flat, every
stored file is its source's, and no ERR line came that was not provoked."""

import hashlib
import os
import random
import re
import socket
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "../blackbox"))
from kov import ANSWERS, Agent, Origin, free_port, read_all, wait_for  # noqa: E402
from services import Nginx, Redis  # noqa: E402

SIZES = (1, 900, 4096, 50_000, 300_000, 2 << 20)
PER_SECOND = 40
# The ERR lines that the failing orders provoke.
PROVOKED = re.compile(
    r"non-HTTP or invalid src|parse_dw_get: URQ|malformed HTTP request|destination leaves|request failed|message prefix|"
    r"message length|missing URL part|id length|connection broken|connect.*ERROR\(111\)|ERROR\(111\)|error sending HTTP|"
    r"removing T\d+ due to error|expected HTTP 2xx|content length|parsed \d < 4|failed, rc=104|already there|rc=-?\d+$|"
    r"HTTP \[|failed to get HTTP method|expected \[HTTP|is to be removed|timed out|on_read: |on_error|"
    r"task already present|already exists|failed to parse URL|error\(\S+\) parsing|NOT SUPPORTED|invalid path size")


class Soak:
    def __init__(self, root):
        self.rnd = random.Random(1)
        self.origin = Origin()
        self.nginx = Nginx(f"{root}/nginx")
        self.db = Redis(f"{root}/redis")
        self.digests = []
        for k, size in enumerate(SIZES * 8):
            body = self.rnd.randbytes(size)
            self.digests.append(hashlib.sha256(body).hexdigest())
            with open(f"{self.nginx.www}/{k}", "wb") as f:
                f.write(body)
        ok = b"HTTP/1.1 200 OK\r\n"
        length = ok + b"Content-Length: 9000\r\n\r\n"
        for path, data, then in (("/garbage", os.urandom(500) + b"\r\n\r\n", None), ("/cut", length + b"abc", None),
                                 ("/reset", length + b"abc", Origin.reset), ("/none", b"", None), ("/nolength", ok + b"\r\nxyz", None),
                                 ("/lies", ok + b"Content-Length: -1\r\n\r\n", None), ("/gone", b"HTTP/1.1 404 Not Found\r\n\r\n", None),
                                 ("/halfhead", ok, None), ("/slowcut", length, lambda conn: time.sleep(1))):
            self.origin.raw(path, data, then)
        self.udp_port = free_port()
        self.locks = f"{root}/locks"
        os.makedirs(self.locks)
        self.agent = Agent(f"{root}/agent", self.db.settings() + f"max_mmap_mb = 1; udp_input = {{ url = "
                           f'"127.0.0.1:{self.udp_port}"; lock_dir = "{self.locks}"; }};', options=("-L", "norm"),
                           log="max_size_mb = 16; max_files = 100;").wait_ready()
        self.sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.number = 0
        self.good = 0
        self.failing = 0
        self.pending = []  # (destination, digest) not yet seen
        self.wrong = []

    def send(self, text):
        self.sender.sendto(text.encode(), ("127.0.0.1", self.udp_port))

    def order_well(self, n):
        k = self.rnd.randrange(len(self.digests))
        dst = f"s/{n % 97}/{n}"
        if n % 3 == 0:
            self.send(f"#!soak{n:08} http://any/src/{self.nginx.url(k)}/dst/{dst} 600")
        else:
            answer = self.agent.order(self.nginx.url(k), dst, "?expiry=600")
            if answer == ANSWERS[500]:
                return  # the source is still being fetched by another order
            if answer != ANSWERS[200]:
                self.wrong.append(f"{dst}: {answer[:40]}")
        self.pending.append((dst, self.digests[k], time.monotonic()))
        self.good += 1

    def order_badly(self, n):
        self.failing += 1
        source = self.origin.url(self.rnd.choice(sorted(self.origin.paths)))
        kind = self.rnd.randrange(10)
        if kind < 4:
            self.agent.order(source, f"bad/{n}")
        elif kind == 4:
            self.send(f"#!bad{n:08} http://any/src/{source}/dst/bad/{n} 5")
        elif kind == 5:
            self.send(self.rnd.choice(("short", "x" * 1401, "no prefix " * 5, f"#!ab http://h/src/{source}/dst/x 5",
                                       f"#!dots http://h/src/{source}/dst/../x 5")))
        elif kind == 6:
            self.agent.order(self.rnd.choice(("ftp://h/a", f"http://127.0.0.1:1/{n}")), f"bad/{n}")
        elif kind == 7:
            self.agent.order(source, f"../../bad/{n}")
        elif kind == 8:
            self.agent.send(self.rnd.randbytes(self.rnd.randrange(40, 900)) + b"\r\n\r\n")
        else:
            s = self.agent.connect()
            s.sendall(f"GET /src/{source}".encode())
            if n % 2:
                Origin.reset(s)
            s.close()

    def collect(self, patience=0.0):
        """Compares and removes what has been stored; complains of what is late."""
        deadline = time.monotonic() + patience
        while True:
            waiting = []
            for dst, digest, since in self.pending:
                path = self.agent.path(dst)
                try:
                    with open(path, "rb") as f:
                        body = f.read()
                except FileNotFoundError:
                    waiting.append((dst, digest, since))
                    continue
                if hashlib.sha256(body).hexdigest() != digest:
                    self.wrong.append(f"{dst}: another body")
                os.remove(path)
            self.pending = waiting
            if not waiting or time.monotonic() >= deadline:
                return
            time.sleep(0.1)

    def provoked(self, line):
        return "(ERR)" not in line or PROVOKED.search(line.split("(ERR)", 1)[1])

    def unprovoked(self):
        directory = os.path.dirname(self.agent.log_path)
        found = []
        for name in sorted(os.listdir(directory)):
            if name.startswith("log"):
                with open(f"{directory}/{name}", encoding="utf-8", errors="replace") as f:
                    found += [line.rstrip() for line in f if not self.provoked(line)]
        return found

    def run(self, minutes):
        start = time.monotonic()
        end = start + 60 * minutes
        report = start
        history = []
        while (now := time.monotonic()) < end:
            self.number += 1
            (self.order_badly if self.number % 10 == 0 else self.order_well)(self.number)
            if self.number % 50 == 0:
                self.collect()
            if now >= report:
                history.append((self.agent.rss_kib(), self.agent.fds()))
                print(f"{(now - start) / 60:5.1f} min: {self.number} orders, {history[-1][0]} KiB resident, {history[-1][1]} descriptors,"
                      f" {self.agent.cpu_seconds():.1f} s CPU", flush=True)
                report += 60 if minutes >= 5 else 10
            time.sleep(max(0.0, start + self.number / PER_SECOND - time.monotonic()))
        self.collect(20.0)
        # Datagrams for a source that was being fetched are refused, so their files never come.
        lost = [dst for dst, _, _ in self.pending if not self.was_refused(dst)]
        wait_for(lambda: self.agent.fds() <= self.agent.base_fds, "descriptors at base line", 15)
        left = [name for name in self.agent.files() if name.endswith("-Kova")]
        warm = history[max(1, len(history) // 10)][0] if len(history) > 1 else history[0][0]
        grown = self.agent.rss_kib() - warm
        errors = self.unprovoked()
        status = self.agent.stop()[0]
        print(f"soak: {minutes} min, {self.number} orders, {self.good} good ones, {self.failing} failing ones; {len(self.wrong)} wrong, "
              f"{len(lost)} lost, {len(left)} unfinished left, {grown} KiB grown since the warm-up, {len(errors)} ERR lines that "
              f"nothing provoked, locks left {len(os.listdir(self.locks))}, status {status}")
        print("\n".join([*self.wrong[:5], *lost[:5], *left[:5], *errors[:5]]))
        return not (self.wrong or lost or left or errors or status or grown > 1024 or os.listdir(self.locks))

    def was_refused(self, dst):
        directory = os.path.dirname(self.agent.log_path)
        lid = f"soak{int(dst.rsplit('/', 1)[1]):08}"
        return not any(f"lid=[{lid}]" in open(f"{directory}/{name}", encoding="utf-8", errors="replace").read()
                       for name in os.listdir(directory) if name.startswith("log"))

    def stop(self):
        self.agent.kill()
        self.db.stop()
        self.nginx.stop()
        self.origin.close()


def main():
    minutes = float(sys.argv[1])
    with tempfile.TemporaryDirectory(prefix="s", dir="/tmp") as root:
        os.chmod(root, 0o755)
        for name in ("agent", "nginx", "redis"):
            os.makedirs(f"{root}/{name}")
        soak = Soak(root)
        try:
            return 0 if soak.run(minutes) else 1
        finally:
            soak.stop()


if __name__ == "__main__":
    sys.exit(main())
