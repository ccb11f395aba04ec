"""The end of a busy agent: what was stored is registered, and nothing holds the end up but the one look-up under way."""

import os
import signal
import socket
import threading
import time
import unittest

from kov import QUICK, KovTest, wait_for
from services import Redis

SLOW = 5 if "asan" in os.environ["KOV"] else 1


class NameServer:
    """Answers every question with 127.0.0.1 after a pause. Programs meet it through a resolv.conf of their own."""

    def __init__(self, root, pause):
        self.pause = pause
        self.asked = 0
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.bind(("127.0.0.53", 53))
        with open(f"{root}/resolv.conf", "w", encoding="ascii") as f:
            f.write("nameserver 127.0.0.53\noptions timeout:5 attempts:1\n")
        self.wrapper = ["unshare", "-m", "sh", "-c", f'mount --bind {root}/resolv.conf /etc/resolv.conf && exec "$@"', "sh"]
        self.server = threading.Thread(target=self._serve, daemon=True)
        self.server.start()

    def _serve(self):
        while True:
            query, client = self.sock.recvfrom(512)
            if not query:
                return
            question = query[12:query.index(b"\0", 12) + 5]
            if question[-3] == 28:  # AAAA: there is none
                self.sock.sendto(query[:2] + b"\x81\x80\0\1\0\0\0\0\0\0" + question, client)
                continue
            self.asked += 1
            time.sleep(self.pause)
            self.sock.sendto(query[:2] + b"\x81\x80\0\1\0\1\0\0\0\0" + question + b"\xc0\x0c\0\1\0\1\0\0\0\0\0\4\x7f\0\0\1",
                             client)

    def stop(self):
        self.sock.sendto(b"", ("127.0.0.53", 53))
        self.server.join()
        self.sock.close()


class Quit(KovTest):
    def start_orders(self, agent, urls, dst):
        """Places orders without waiting for their answers."""
        clients = []
        for n, url in enumerate(urls):
            client = agent.connect()
            client.sendall(f"GET /src/{url}/dst/{dst}{n} HTTP/1.1\r\nHost: h\r\n\r\n".encode())
            clients.append(client)
            self.addCleanup(client.close)
        return clients

    def test_every_file_that_was_stored_is_registered(self):
        db = Redis(self.new_root())
        self.addCleanup(db.stop)
        for n in range(2 if QUICK else 8):
            agent = self.start(db.settings())
            urls = [self.origin.body(f"/{n}/{i}", b"x" * 5000) for i in range(60)]
            clients = self.start_orders(agent, urls, f"{n}/")
            agent.wait_log("downloaded: ", 5 + 3 * n)
            status, seconds = agent.stop()
            self.assertEqual(status, 0)
            self.assertLess(seconds, SLOW)
            stored = agent.files()
            self.assertGreaterEqual(len(stored), 5)
            self.assertEqual([name for name in stored if name.endswith("-Kova") or not db.urls(name)], [])
            self.forget(agent)
            for client in clients:
                client.close()

    def test_one_look_up_at_most_delays_the_end(self):
        names = NameServer(self.root, 0.3)
        self.addCleanup(names.stop)
        agent = self.start(wrapper=names.wrapper)
        urls = [f"http://host{i}.example:{self.origin.port}/{i}" for i in range(20)]
        agent.proc.send_signal(signal.SIGSTOP)
        self.start_orders(agent, urls, "n")
        agent.proc.send_signal(signal.SIGCONT)
        wait_for(lambda: names.asked > 1, "a look-up")
        status, seconds = agent.stop()
        self.assertEqual(status, 0)
        self.assertLess(seconds, SLOW)
        self.assertLess(names.asked, 5)
        self.forget(agent)


if __name__ == "__main__":
    unittest.main()
