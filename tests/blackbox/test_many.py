"""A thousand orders in flight over slow sources, and a shortage of descriptors: nothing is lost, nothing stays behind."""
import asyncio
import collections
import re
import resource
import threading
import unittest

import kov
from kov import answer, head

ORDERS = 1000


def body_of(number):
    return (b"%06d|" % number) * (1500 + number)


class SlowOrigin:
    """Serves /<number> from one asyncio thread: a head, then a body in portions, none before release()."""

    def __init__(self):
        self.loop = asyncio.new_event_loop()
        self.waiting = collections.Counter()
        self.port, self.ready = 0, threading.Event()
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()
        self.ready.wait()

    def run(self):
        asyncio.set_event_loop(self.loop)
        self.released = asyncio.Event()
        server = self.loop.run_until_complete(asyncio.start_server(self.serve, "127.0.0.1", 0, backlog=4096))
        self.port = server.sockets[0].getsockname()[1]
        self.ready.set()
        self.loop.run_forever()
        server.close()

    async def serve(self, reader, writer):
        try:
            number = int((await reader.readuntil(b"\r\n\r\n")).split()[1][1:])
            body = body_of(number)
            writer.write(head(len(body)) + body[:number % 100])
            self.waiting["all"] += 1
            await self.released.wait()
            for pos in range(number % 100, len(body), 4096):
                writer.write(body[pos:pos + 4096] if pos + 4096 < len(body) else body[pos:])
                await writer.drain()
                await asyncio.sleep(0.02)
        finally:
            writer.close()

    def release(self):
        self.loop.call_soon_threadsafe(self.released.set)

    def stop(self):
        self.loop.call_soon_threadsafe(self.loop.stop)
        self.thread.join()


async def one_order(agent, target, gate):
    async with gate:
        reader, writer = await asyncio.open_connection("127.0.0.1", agent.port)
        try:
            writer.write(agent.head(target))
            return await reader.read()
        finally:
            writer.close()


async def all_orders(agent, targets, at_once):
    gate = asyncio.Semaphore(at_once)
    return await asyncio.gather(*(one_order(agent, target, gate) for target in targets))


class Many(kov.Case):
    settings = {"log": {"level": "norm"}, "urq_tmout_sec": 60}

    def setUp(self):
        kov.raise_fd_limit()
        super().setUp()
        self.slow = SlowOrigin()
        self.addCleanup(self.slow.stop)

    def target(self, number):
        return f"/src/http://127.0.0.1:{self.slow.port}/{number}/dst/{number % 10}/{number}"

    def place(self, numbers, at_once=250):
        answers = asyncio.run(all_orders(self.agent, [self.target(number) for number in numbers], at_once))
        return collections.Counter(answers)

    def assert_intact(self, numbers):
        for number in numbers:
            self.assertEqual(self.agent.stored(f"{number % 10}/{number}"), body_of(number), number)

    def test_a_thousand_in_flight(self):
        agent = self.agent
        self.assertEqual(self.place(range(ORDERS, ORDERS + 50)), {answer(200): 50})  # what the first orders cost stays
        self.slow.release()
        self.assert_intact(range(ORDERS, ORDERS + 50))
        kov.wait_for(lambda: agent.fd_count() == agent.baseline, "warm")
        warm = agent.rss_kib()

        self.slow.loop.call_soon_threadsafe(self.slow.released.clear)
        self.assertEqual(self.place(range(ORDERS)), {answer(200): ORDERS})
        kov.wait_for(lambda: self.slow.waiting["all"] >= ORDERS + 50, "all at the origin")
        self.assertEqual(len(agent.unfinished()), ORDERS, "all in flight at once")
        self.assertGreaterEqual(agent.fd_count(), ORDERS)
        self.assertLess(agent.cpu_over_a_second(), 0.05)
        self.slow.release()
        self.assert_intact(range(ORDERS))
        kov.wait_for(lambda: agent.fd_count() == agent.baseline, "descriptors back at base line", 60)
        if not kov.SANITIZED:
            self.assertLess(agent.rss_kib() - warm, 1024, "memory back at base")

    def test_in_flight_at_the_end(self):
        """What runs when the agent is told to quit ends with it."""
        self.assertEqual(self.place(range(300)), {answer(200): 300})
        self.assertLess(self.agent.stop(), kov.QUIT_SEC)
        self.assertEqual(len(re.findall("TASK-END", self.agent.log())), 300)


class Shortage(kov.Case):
    settings = {"urq_tmout_sec": 60}

    def test_few_descriptors(self):
        """Clients beyond the limit wait without a spin, and are served when descriptors come back."""
        agent = self.agent
        resource.prlimit(agent.proc.pid, resource.RLIMIT_NOFILE, (agent.baseline + 12,) * 2)
        released = threading.Event()
        url = self.origin.on("/a", lambda conn: (conn.send(head(4) + b"bo"), conn.hold(released), conn.send(b"dy")))
        self.assertEqual(agent.order(url, "a"), answer(200))
        idle = [self.client() for _ in range(20)]
        late = [self.client(agent.head("/")) for _ in range(5)]
        agent.wait_log(r"\(WRN\)")
        self.assertLess(agent.cpu_over_a_second(), 0.05)
        self.assertEqual(len(re.findall(r"\(WRN\)", agent.log())), 1, "one warning for the episode")
        released.set()
        self.assertEqual(agent.stored("a"), b"body")
        for sock in idle:
            sock.close()
        self.assertEqual([agent.recv_all(sock) for sock in late], [answer(204)] * 5)
        self.assertEqual(agent.ping(), answer(204))


if __name__ == "__main__":
    unittest.main()
