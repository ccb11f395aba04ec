"""Orders as datagrams over loopback, a group and IPv6, with their locks; agents that share them."""

import os
import signal
import socket
import time

from harness import QUICK, KovTest, age, cases, free_port, read, sized, wait_for, write

GROUP = "239.77.1.2"


class Channel(KovTest):
    def start(self, settings="", channel="127.0.0.1:{}", **kwargs):
        agent = super().start(settings, channel=channel, **kwargs)
        agent.host = GROUP if GROUP in channel else "::1" if "::1" in channel else "127.0.0.1"
        return agent

    def order(self, agent, lid, path, dst, tail="600"):
        text = f"#!{lid} http://any.example/x/src/{self.origin.url(path)}/dst/{dst}?ignored=1 {tail}"
        agent.datagram(text, agent.host)

    def test_order_is_stored_and_its_lock_released(self):
        agent = self.start()
        with agent.frozen():
            for i, tail in enumerate(("600", "600\r\n", "  -7 more words", "soon", "0\n\n") * 20):
                self.origin.body(f"/{i}", b"from a datagram")
                self.order(agent, f"job{i:02}", f"/{i}", f"u/{i}", tail)
        agent.ended(100)
        for i in range(100):
            agent.stored(f"u/{i}", b"from a datagram")
        self.assertEqual(agent.held(), [])
        self.assertEqual(agent.log().count("NO EXPIRY: sscanf('soon',..) expected 1, got 0\n"), 20)
        agent.logged("expiry=600 lid=[job", "expiry=-7 lid=[job")
        agent.order(self.origin.url("/0"), "http")

    def test_refusals(self):
        agent = self.start()
        source = self.origin.body("/a", b"x")
        fill = {f"x{n}": "x" * n for n in (31, 40, 1401, 9000)}
        fill["128"] = "/".rjust(128 - len(f"src/{source}/dst/x"), "s")  # of a path
        for text, message in cases("datagrams", source=source, i32="i" * 32, **fill):
            text = text[:-4].ljust(32) if text.endswith("{32}") else text
            before = agent.log().count(" request failed; url=[")
            agent.datagram(text)
            agent.logged(message)
            agent.logged(" request failed; url=[", count=before + 1)
        agent.datagram(f"#!{'i' * 31} http://udp/src/{source}/dst/y 5".ljust(1400))
        agent.stored("y", b"x")
        self.assertEqual((os.listdir(agent.data), agent.held()), (["y"], []))

    def test_a_datagram_without_expiry_stops_the_agent(self):
        for tail in ("", " ", " #600", "\r\n"):
            agent = self.start()
            agent.datagram(f"#!job1 http://h/src/{self.origin.url('/a')}/dst/x{tail}")
            self.ends_by_itself(agent, -signal.SIGABRT)
            self.assertIn("parse_msg: no expiry data passed\n", agent.log())
            self.assertRegex(agent.log(), r"\(PNC\)  uDl  ASSERT at:\n#0: ")
            self.assertEqual(agent.files() + agent.held(), [])

    def test_locks(self):
        agent = self.start()
        for path in ("/a", "/b"):
            self.origin.body(path, b"a")
        lock = f"{agent.locks}/held.lock"
        for seconds_old in (0, 29, 32, -100):
            write(lock, "", seconds_old)
            self.order(agent, "held", "/a", f"l{seconds_old}")
            self.order(agent, "next", "/b", f"n{seconds_old}")  # taken afterwards, so the first one has been decided
            agent.stored(f"n{seconds_old}")
            left = [] if seconds_old == 32 else ["held.lock"]
            wait_for(lambda left=left: agent.held() == left, f"just {left} after {seconds_old} s")
        agent.holds("l32", *(f"n{seconds_old}" for seconds_old in (0, 29, 32, -100)))
        self.assertEqual(agent.log().count("udl_accept: [held] already engaged, will skip\n"), 3)
        agent.not_logged("request failed")
        os.remove(lock)

        # Held while the download runs, whatever its end; another source with the same id is skipped meanwhile.
        slow = self.origin.cut("/slow", self.origin.stall)
        self.order(agent, "slow", "/slow", "slow")
        wait_for(lambda: agent.held() == ["slow.lock"], "the lock")
        stat = os.stat(f"{agent.locks}/slow.lock")
        self.assertEqual((stat.st_mode & 0o7777, stat.st_size), (0o644, 0))
        self.order(agent, "slow", "/a", "other")
        agent.logged("udl_accept: [slow] already engaged")
        # A source in progress: the second order's own lock goes at once, the first one's stays.
        agent.datagram(f"#!twin http://h/src/{slow}/dst/twin 5")
        agent.logged("task already present")
        wait_for(lambda: agent.held() == ["slow.lock"], "the twin's lock to go")
        self.origin.released.set()
        agent.logged("removing")
        wait_for(lambda: agent.held() == [], "the lock's release")

    def test_a_lock_that_was_taken_over_is_not_released_by_its_former_holder(self):
        agent = self.start()
        gates = []
        for n in range(2):
            gates.append(self.origin.gated(f"/{n}", sized(2) + b"1", b"2")[1])
            self.order(agent, "same", f"/{n}", f"t{n}")
            agent.logged("ready to download", count=n + 1)
            if n == 0:
                age(f"{agent.locks}/same.lock", 32)
        agent.completes(gates[0], "t0", b"12")
        agent.logged("lid_unlock: [same] has been taken over by another order\n")
        self.assertEqual(agent.held(), ["same.lock"])
        agent.completes(gates[1], "t1", b"12")
        wait_for(lambda: agent.held() == [], "the lock's release")

    def test_an_order_without_its_lock_goes_on(self):
        agent = self.start()
        self.origin.body("/a", b"a")
        for n, lid in enumerate(("../x1", "job\x1b", "job1")):
            if lid == "job1":
                os.rmdir(agent.locks)
            self.order(agent, lid, "/a", f"none{n}")
            agent.stored(f"none{n}", b"a")
            agent.ended(n + 1)
        self.assertEqual(agent.log().count("lid_lock: invalid lock path (n="), 2)
        agent.logged("lid=[]", f"lid_lock: open({agent.locks}/job1.lock,...) ERROR(2): ")
        agent.not_logged("unlink")

    def test_without_locking(self):
        self.origin.body("/a", b"a")
        for query, form in (("", ""), ("", "gzip"), ("?zipped=1", "text")):  # of the option, which reverses the flag
            if form:  # a channel of the command line alone: there is no place for locks
                port = free_port()
                url = f"127.0.0.1:{port}{query}"
                agent = self.start(channel="", options=("-U", url))
                agent.udp_port = port
                agent.logged(f"\tUDP input            = [{url}] ifc=all fmt={form} lk=[none]\n")
            else:
                agent = self.start(udp="must_lock = false;")
            write(f"{agent.locks}/job1.lock")
            for n, lid in enumerate(("job1", "../x1")):  # an id that cannot name a lock is as good as any
                self.order(agent, lid, "/a", f"x{n}")
                agent.stored(f"x{n}", b"a")
                agent.ended(n + 1)
            self.assertEqual(agent.held(), ["job1.lock"])
            agent.not_logged("lid_lock")

    def test_group_and_addresses(self):
        self.origin.body("/a", b"a")
        for n, (channel, interface) in enumerate((
                (GROUP + ":{}", "lo"), (f"udp://{GROUP}:{{}}", "127.0.0.1"), (f"udp://127.0.0.1@{GROUP}:{{}}", "lo"),
                ("udp://[::1]:{}", ""), ("udp://127.0.0.1:{}?pkt_size=1316", ""))):
            agent = self.start(channel=channel, udp=f'mcast_ifc = "{interface}";')
            self.order(agent, "job1", "/a", f"g{n}")
            agent.stored(f"g{n}", b"a")
            self.assertRegex(agent.log(), r"udl_ctx_init: fd\d+ set up to listen on \[")

    def test_groups_of_ipv6_are_joined(self):
        for group, interface in (("ff12::77", "lo"), ("ff15::78", "::1")):
            self.start(channel=f"[{group}]:{{}}", udp=f'mcast_ifc = "{interface}";')
            self.assertRegex(read("/proc/net/igmp6"), rf"lo +{socket.inet_pton(socket.AF_INET6, group).hex()} ")

    def test_a_source_specific_group_hears_its_source_only(self):
        agent = self.start(channel=f"udp://127.0.0.2@{GROUP}:{{}}", udp='mcast_ifc = "lo";')
        source = self.origin.body("/a", b"a")
        for sender, dst in (("127.0.0.1", "stranger"), ("127.0.0.2", "friend")):
            agent.datagram(f"#!{dst} http://h/src/{source}/dst/{dst} 5", GROUP, sender)
        agent.stored("friend")
        self.assertEqual(agent.files(), ["friend"])

    def test_an_unreachable_channel_fails_the_start(self):
        for url, message in cases("channels"):
            agent = self.fails_to_start(1, (message, "init_kova_ctx: failed to [?], rc=-1\n"), channel=url)
            agent.logged(f"udl_ctx_init: failed to open [{url.format(agent.udp_port)}]\n")


class Fleet(KovTest):
    def slowly(self, conn, path):
        """Half of the body comes later than any agent needs to hear of the order."""
        body = path.encode() * 40
        conn.sendall(sized(len(body)) + body[:len(body) // 2])
        time.sleep(3.0)
        conn.sendall(body[len(body) // 2:])

    def test_every_order_is_fetched_once(self):
        """Three agents on one group with one lock directory; two are killed on the way."""
        count = 200 if QUICK else 1000
        port = free_port()
        agents = [self.start(channel=f"udp://{GROUP}:{port}", udp='mcast_ifc = "lo";', level="norm",
                             locks=f"{self.root}/locks") for _ in range(3)]
        agents[0].udp_port = port
        for i in range(count):
            url = self.origin.serve(f"/{i}", self.slowly)
            agents[0].datagram(f"#!job-{i:04} http://any/src/{url}/dst/{i} 5", GROUP)
            time.sleep(0.004)
            if i in (count // 3, 2 * count // 3):
                agents[1 if i == count // 3 else 2].restart(signal.SIGKILL)

        def asked():
            return [int(head.split()[1][1:]) for head in self.origin.requests]

        def held():
            return {int(name[4:8]) for name in agents[0].held()}

        # An agent may have been killed between its lock and its request.
        wait_for(lambda: set(asked()) | held() == set(range(count)), "every order's fetch", 30)
        for agent in agents:
            wait_for(lambda a=agent: a.log().count("TASK-START") == a.log().count("TASK-END"), "the ends", 30)
        stored = [(int(name), agent) for agent in agents for name in agent.files() if not name.endswith("-Kova")]
        unfinished = {int(name[:-5]) for agent in agents for name in agent.unfinished()}
        cut = held() - {i for i, _ in stored}
        self.assertEqual(len(asked()), len(set(asked())))
        self.assertEqual(sorted([i for i, _ in stored] + list(cut)), list(range(count)))
        self.assertTrue(0 < len(unfinished) and unfinished <= cut)  # who was cut down leaves its lock, no other
        self.assertLessEqual(len(held() - cut), 2)  # killed between rename and release
        for i, agent in stored:
            agent.stored(f"{i}", f"/{i}".encode() * 40)
        for agent in agents:
            for name in agent.unfinished():
                os.remove(agent.path(name))
