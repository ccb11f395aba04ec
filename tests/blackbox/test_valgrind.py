"""One of everything under valgrind: no leak, no stray descriptor, no invalid access."""

import os
import re
import shutil
import socket
import unittest

from kov import ANSWERS, KovTest, free_port, wait_for
from services import Redis


@unittest.skipIf("asan" in os.environ["KOV"] or not shutil.which("valgrind"), "the sanitizers look after this run themselves")
class Memcheck(KovTest):
    def test_one_of_everything(self):
        db = Redis(self.new_root())
        self.addCleanup(db.stop)
        report = f"{self.root}/report"
        port = free_port()
        agent = self.start(db.settings() + f'max_mmap_mb = 1; udp_input = {{ url = "127.0.0.1:{port}"; lock_dir = "{self.root}"; }};',
                           wrapper=["valgrind", "--leak-check=full", "--show-leak-kinds=definite,indirect,possible", "--track-fds=yes",
                                    "--error-exitcode=99", f"--log-file={report}"], log="max_size_mb = 1;", options=("-L", "debug"))
        for name, size in (("mapped", 5000), ("written", 3 << 20)):
            self.assertEqual(agent.order(self.origin.body(f"/{name}", b"x" * size), f"v/{name}"), ANSWERS[200])
            self.assertEqual(agent.stored(f"v/{name}"), b"x" * size)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
            s.sendto(f"#!job1 http://h/src/{self.origin.url('/mapped')}/dst/udp 5".encode(), ("127.0.0.1", port))
        agent.wait_file("udp")
        for target in ("/", "/src/ftp://h/a/dst/b", f"/src/{self.origin.raw('/cut', b'HTTP/1.1 200 OK')}/dst/cut",
                       "/src/http://me.example/x/dst/x"):
            agent.get(target)
        for _ in range(150):
            agent.get("/src/ftp://h/" + "f" * 200 + "/dst/" + "d" * 200)
        wait_for(lambda: [n for n in os.listdir(agent.root) if n.startswith("log.")], "a rotation")
        running = self.origin.raw("/stall", b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabc", self.origin.stall)
        self.assertEqual(agent.order(running, "cut-by-the-end"), ANSWERS[200])
        agent.proc.terminate()
        self.assertEqual(agent.proc.wait(60), 0)
        with open(report, encoding="utf-8", errors="replace") as f:
            text = f.read()
        self.assertIn("ERROR SUMMARY: 0 errors", text)
        opened = [fd for fd in re.findall(r"Open (.*)", text) if "<inherited" not in fd]
        inherited = text.count("<inherited from parent>")
        self.assertLessEqual(len(opened), inherited, text)
        self.forget(agent)


if __name__ == "__main__":
    unittest.main()
