"""Three agents on one multicast group with one lock directory and one Redis; and one agent after thousands of mixed orders."""

import asyncio
import collections
import os
import random
import socket
import threading
import time
import unittest

from kov import ANSWERS, QUICK, KovTest, free_port, wait_for
from services import Nginx, Redis

GROUP = "239.77.1.3"


class SlowOrigin:
    """Sends a head and half of the body at once and the rest after a delay; notes what was asked for and what was sent."""

    def __init__(self, seconds):
        self.seconds = seconds
        self.asked = collections.Counter()
        self.sent = collections.Counter()
        self.loop = asyncio.new_event_loop()
        self.sock = socket.create_server(("127.0.0.1", 0), backlog=1024)
        self.port = self.sock.getsockname()[1]
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    @staticmethod
    def body(path):
        return (path * 40).encode()

    def _run(self):
        asyncio.set_event_loop(self.loop)
        self.loop.run_until_complete(asyncio.start_server(self._one, sock=self.sock))
        self.loop.run_forever()

    async def _one(self, reader, writer):
        try:
            path = (await reader.readuntil(b"\r\n\r\n")).split()[1].decode()
            self.asked[path] += 1
            body = self.body(path)
            half = len(body) // 2
            writer.write(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % len(body) + body[:half])
            await writer.drain()
            await asyncio.sleep(self.seconds)
            writer.write(body[half:])
            await writer.drain()
            if not await reader.read(1):  # the agent closes after the last byte; a killed one closed before
                self.sent[path] += 1
        except (OSError, asyncio.IncompleteReadError):
            pass
        finally:
            writer.close()

    def close(self):
        self.loop.call_soon_threadsafe(self.loop.stop)
        self.thread.join()
        self.sock.close()


class Fleet(KovTest):
    def setUp(self):
        super().setUp()
        self.db = Redis(self.new_root())
        self.addCleanup(self.db.stop)
        self.locks = self.new_root()
        self.port = free_port()

    def channel(self, url):
        return f'udp_input = {{ url = "{url}:{self.port}"; mcast_ifc = "lo"; lock_dir = "{self.locks}"; }};'

    def send(self, s, lid, source, dst, expiry, host):
        s.sendto(f"#!{lid} http://any/src/{source}/dst/{dst} {expiry}".encode(), (host, self.port))

    def test_three_agents_share_a_thousand_orders(self):
        count = 200 if QUICK else 1000
        origin = SlowOrigin(3.0)  # longer than any agent takes to hear of an order
        self.addCleanup(origin.close)
        agents = [self.start(self.channel(f"udp://{GROUP}") + self.db.settings(f"http://agent{n}"), options=("-L", "norm"))
                  for n in range(3)]
        sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(sender.close)
        sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton("127.0.0.1"))

        def order(i):
            self.send(sender, f"job-{i:04}", f"http://127.0.0.1:{origin.port}/s{i}", f"f/{i}", 2000000000 + i, GROUP)

        for i in range(count):
            order(i)
            time.sleep(0.004)
            if i in (count // 3, 2 * count // 3):
                victim = agents[1 if i == count // 3 else 2]
                victim.proc.kill()
                victim.proc.wait()
                victim.run()
                victim.wait_ready()
        # An agent may have been killed between its lock and its request.
        wait_for(lambda: len({int(path[2:]) for path in origin.asked} | self.held()) == count, "every order's fetch", 30)
        self.settle(agents)
        self.assertGreaterEqual(self.stored(agents) + len(self.held()), count)

        once = [path for path, n in origin.asked.items() if n == 1]
        held = self.held()
        final, unfinished = {}, set()
        for n, agent in enumerate(agents):
            for name in agent.files():
                i = int(name.removesuffix("-Kova").split("/")[1])
                if name.endswith("-Kova"):
                    unfinished.add(i)
                else:
                    final.setdefault(i, []).append(n)
        self.assertEqual(len(once), len(origin.asked))  # no file was fetched twice
        self.assertTrue(all(len(owners) == 1 for owners in final.values()))
        cut = held - set(final)
        self.assertLessEqual(unfinished, cut)  # a lock is left by an order that was cut down, and by no other
        self.assertEqual(set(final) | cut, set(range(count)))
        self.assertLessEqual(len(held & set(final)), 2)  # killed between rename and release
        self.assertGreater(len(unfinished), 0)
        self.check_stored({i: o for i, o in final.items() if i not in held}, agents, origin)
        for i in cut:
            self.assertEqual(self.db.urls(f"f/{i}"), {}, i)
        print(f"\nfleet: {count} datagrams, {len(final)} files by agents "
              f"{[sum(o == [n] for o in final.values()) for n in range(3)]}, {len(once)} sources fetched once, "
              f"{len(cut)} orders cut down by two kills, {len(held)} locks left", flush=True)

        # Half a minute later the same orders are taken over. Two agents that find a stale lock in the same instant may both
        # take it: then both have the file, and both are registered.
        past = time.time() - 32
        for name in os.listdir(self.locks):
            os.utime(f"{self.locks}/{name}", (past, past))
        for agent in agents:
            for name in agent.files():
                os.utime(agent.path(name), (past, past))
        for i in cut:
            order(i)
            time.sleep(0.004)
        wait_for(lambda: self.stored(agents) == count and len(os.listdir(self.locks)) <= len(held & set(final)),
                 "the orders that were cut down", 20)
        self.settle(agents)
        self.check_stored({i: [n for n, a in enumerate(agents) if os.path.exists(a.path(f"f/{i}"))] for i in cut},
                          agents, origin)
        for agent in agents:
            for name in agent.files():  # those that another agent took over
                if name.endswith("-Kova"):
                    os.remove(agent.path(name))

    def held(self):
        return {int(name[4:8]) for name in os.listdir(self.locks)}

    @staticmethod
    def settle(agents):
        for agent in agents:
            wait_for(lambda a=agent: (text := a.log()).count("TASK-START") == text.count("TASK-END"), "the tasks' ends", 30)

    @staticmethod
    def stored(agents):
        return len({f for a in agents for f in a.files() if not f.endswith("-Kova")})

    def check_stored(self, owners, agents, origin):
        for i, hosts in owners.items():
            for n in hosts:
                self.assertEqual(agents[n].stored(f"f/{i}"), origin.body(f"/s{i}"))
            wait_for(lambda i=i, hosts=hosts: self.db.urls(f"f/{i}") ==
                     {f"http://agent{n}/f/{i}": str(2000000000 + i) for n in hosts}, f"registration {i}")

    def test_base_line_after_many_orders(self):
        count = 1000 if QUICK else 10000
        nginx = Nginx(self.new_root())
        self.addCleanup(nginx.stop)
        for k in range(50):
            with open(f"{nginx.www}/{k}", "wb") as f:
                f.write(random.randbytes(100 * (k + 1)))
        agent = self.start(self.channel("127.0.0.1") + self.db.settings() + "max_mmap_mb = 0;", options=("-L", "norm"))
        self.assertEqual(agent.get("/"), ANSWERS[204])
        before = agent.cpu_seconds()
        time.sleep(2.0)
        idle = agent.cpu_seconds() - before
        self.assertLess(idle, 0.03)

        base = 0
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
            for i in range(count):
                source, dst = nginx.url(i % 50), f"m{i // 500}/{i}"
                if i % 2:
                    self.send(s, f"job-{i:06}", source, dst, 600, "127.0.0.1")
                else:
                    # A datagram's download of the same source may still run: it has another number, so no order is refused.
                    self.assertEqual(agent.order(source, dst, "?expiry=600"), ANSWERS[200])
                if i % 20 == 19:
                    agent.wait_file(dst)
                if i == count // 10:
                    base = agent.rss_kib()
        wait_for(lambda: len(agent.files()) == count, "every file", 60)
        self.assertEqual(self.db.cli("dbsize"), str(count))
        for i in random.sample(range(count), 200):
            with open(f"{nginx.www}/{i % 50}", "rb") as f:
                self.assertEqual(agent.stored(f"m{i // 500}/{i}"), f.read())
        agent.wait_log("TASK-END", count)
        wait_for(lambda: agent.fds() <= agent.base_fds, "descriptors at base line")
        grown = agent.rss_kib() - base
        self.assertLess(grown, 512 if "asan" not in os.environ["KOV"] else 65536)
        self.assertEqual(os.listdir(self.locks), [])
        self.assertNotIn("(ERR)", agent.log())
        print(f"\nbase line: {count} mixed orders, {grown} KiB grown since the first tenth, {agent.fds()} descriptors as at "
              f"the start, {idle:.2f} s of CPU in 2 idle seconds", flush=True)


if __name__ == "__main__":
    unittest.main()
