"""What clients do: heads in pieces, silence, floods, leaving early; none of it costs processor time or descriptors."""
import socket
import threading
import unittest

import kov
from kov import answer, head


def is_closed(sock):
    """Whether the agent has closed the connection without an answer."""
    sock.setblocking(False)
    try:
        return sock.recv(1) == b""
    except BlockingIOError:
        return False
    except ConnectionResetError:
        return True


class Clients(kov.Case):
    settings = {"urq_tmout_sec": 60}

    def test_head_in_pieces(self):
        """The first piece needs 32 bytes to be seen, the later ones one."""
        body = b"body"
        request = self.agent.head(f"/src/{self.origin.serve('/a', body)}/dst/a")
        for cut in [40, len(request) - 1]:
            sock = self.client(request[:cut])
            self.agent.wait_log("urq_read: need more data on ")
            for pos in range(cut, len(request)):
                sock.sendall(request[pos:pos + 1])
            self.assertEqual(self.agent.recv_all(sock), answer(200 if cut == 40 else 403))
            self.assertEqual(self.agent.stored("a"), body)

    def test_short_head_is_seen_at_the_end_of_the_stream(self):
        sock = self.client(b"GET / HTTP/1.1\r\n\r\n")
        sock.shutdown(socket.SHUT_WR)
        self.assertEqual(self.agent.recv_all(sock), answer(204))

    def test_bare_line_feeds_and_no_fields(self):
        self.assertEqual(self.agent.recv_all(self.client(b"GET /?" + b"x" * 32 + b" HTTP/1.0\n\n")), answer(204))

    def test_tail_after_the_head(self):
        self.assertEqual(self.agent.recv_all(self.client(self.agent.head("/") + b"GET /ping HTTP/1.1\r\n\r\n")), answer(204))
        self.agent.wait_log("read_http_rq: request has tail data, dismissing the tail$")

    def test_longest_head(self):
        request = self.agent.head("/")
        pad = lambda size: request[:-2] + b"X: " + b"x" * (size - len(request) - 5) + b"\r\n\r\n"
        self.assertEqual(len(pad(1023)), 1023)
        self.assertEqual(self.agent.recv_all(self.client(pad(1023))), answer(204))

    def test_half_closed_client_gets_its_answer(self):
        sock = self.client(self.agent.head(f"/src/{self.origin.serve('/a', b'x')}/dst/a"))
        sock.shutdown(socket.SHUT_WR)
        self.assertEqual(self.agent.recv_all(sock), answer(200))
        self.agent.stored("a")

    def test_client_leaves(self):
        """Before its head, in the middle of it, and while its order waits for the source: the file comes all the same."""
        self.client().close()
        sock = self.client(self.agent.head("/")[:40])
        self.agent.wait_log("need more data on ")
        sock.close()
        self.agent.wait_log(r"read_http_rq: client fd=\d+ closed connection$", 2)
        released = threading.Event()
        url = self.origin.on("/a", lambda conn: (conn.hold(released), conn.send(head(1) + b"x")))
        sock = self.client(self.agent.head(f"/src/{url}/dst/a"))
        self.agent.wait_log(r"request_data_stream: awaiting response from ")
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
        sock.close()
        released.set()
        self.assertEqual(self.agent.stored("a"), b"x")

    def test_idle_and_parked_clients_cost_nothing(self):
        """Silent ones, half heads, heads that fill the buffer, clients that wait for a silent source."""
        url = self.origin.on("/a", lambda conn: conn.hold())
        for data in [b"", b"GET", self.agent.head("/")[:40], b"GET /" + b"x" * 1018, b"GET /" + b"x" * 20000]:
            for _ in range(3):
                self.client(data)
        self.client(self.agent.head(f"/src/{url}/dst/a"))
        self.agent.wait_log("need more data on ", 3)
        self.agent.wait_log("awaiting response from ")
        self.assertLess(self.agent.cpu_over_a_second(), 0.05)
        self.assertEqual(self.agent.ping(), answer(204))

    def test_accepted_in_portions(self):
        agent = self.run_agent(web={"max_accept": 3})
        agent.proc.send_signal(19)
        kov.wait_for(lambda: b"T (stopped)" in kov.read_file(f"/proc/{agent.proc.pid}/status"), "stop")
        socks = [agent.connect(agent.head("/")) for _ in range(5)]
        agent.proc.send_signal(18)
        self.assertEqual([agent.recv_all(sock) for sock in socks], [answer(204)] * 5)
        agent.wait_log(r"\(WRN\)  \S+  rui_accept\(.*\): CANNOT ACCEPT ALL \(accepted=3\), max=3$")


class TimeOuts(kov.Case):
    settings = {"urq_tmout_sec": 1, "task_tmout_ms": 100}

    def test_unanswered_clients_are_dropped(self):
        """Time counts from acceptance, and is looked at when the loop wakes."""
        flood = b"GET /" + b"x" * 3000
        socks = [self.client(data) for data in (b"", b"GET / HTTP/1.1\r\n\r\n", self.agent.head("/")[:40], flood)]
        kov.wait_for(lambda: self.agent.ping() and all(map(is_closed, socks)), "clients dropped")
        found = self.agent.wait_log(r"urq_timeout: TIME-OUT URQ \[u\d+\] \(0x[0-9a-f]+\) start-tm: (\d+)\.(\d+), now=(\d+)\.(\d+)$", 4)
        for start, start_ns, now, now_ns in found:
            self.assertGreater(int(now) * 10**9 + int(now_ns) - int(start) * 10**9 - int(start_ns), 10**9)

    def test_order_outlives_the_time_out_of_requests(self):
        released = threading.Event()
        url = self.origin.on("/a", lambda conn: (conn.hold(released), conn.send(head(1) + b"x")))
        sock = self.client(self.agent.head(f"/src/{url}/dst/a"))
        idle = self.client()
        kov.wait_for(lambda: self.agent.ping() and is_closed(idle), "idle client dropped")
        released.set()
        self.assertEqual(self.agent.recv_all(sock), answer(200))
        self.agent.stored("a")


class NoTimer(kov.Case):
    def test_dropped_without_other_events(self):
        sock = self.client(self.agent.head("/")[:40])
        kov.wait_for(lambda: is_closed(sock), "client dropped", 15)


if __name__ == "__main__":
    unittest.main()
