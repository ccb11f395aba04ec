"""Three agents on one multicast group with one lock directory and one Redis."""

import collections
import os
import time

from harness import QUICK, KovTest, age, free_port, sized, wait_for

GROUP = "239.77.1.3"


class Fleet(KovTest):
    def setUp(self):
        super().setUp()
        self.db = self.redis()
        self.locks = self.new_root()
        port = free_port()
        for n in range(3):
            agent = self.start(self.db.settings(f"http://agent{n}"), channel=f"udp://{GROUP}:{port}", level="norm",
                               udp='mcast_ifc = "lo";', locks=self.locks)
            agent.udp_port = port

    def order(self, i):
        url = self.origin.serve(f"/s{i}", self.slowly)
        self.agents[0].datagram(f"#!job-{i:04} http://any/src/{url}/dst/f/{i} {2000000000 + i}", GROUP)
        time.sleep(0.004)

    @staticmethod
    def body(i):
        return b"/s%d" % i * 40

    def slowly(self, conn, path):
        """Half of the body comes later than any agent needs to hear of the order."""
        body = self.body(int(path[2:]))
        conn.sendall(sized(len(body)) + body[:len(body) // 2])
        time.sleep(3.0)
        conn.sendall(body[len(body) // 2:])

    def asked(self):
        """How often each order's source was asked."""
        return collections.Counter(int(head.split()[1][2:]) for head in self.origin.requests)

    def held(self):
        return {int(name[4:8]) for name in os.listdir(self.locks)}

    def owners(self):
        """Order -> the agents that have stored it."""
        found = collections.defaultdict(list)
        for n, agent in enumerate(self.agents):
            for name in agent.files():
                if not name.endswith("-Kova"):
                    found[int(name[2:])].append(n)
        return found

    def settle(self):
        for agent in self.agents:
            wait_for(lambda a=agent: (text := a.log()).count("TASK-START") == text.count("TASK-END"), "the ends", 30)

    def check_stored(self, owners):
        for i, hosts in owners.items():
            for n in hosts:
                self.agents[n].stored(f"f/{i}", self.body(i))
            registered = {f"http://agent{n}/f/{i}": str(2000000000 + i) for n in hosts}
            wait_for(lambda i=i, r=registered: self.db.urls(f"f/{i}") == r, f"registration {i}")

    def test_three_agents_share_a_thousand_orders(self):
        count = 200 if QUICK else 1000
        for i in range(count):
            self.order(i)
            if i in (count // 3, 2 * count // 3):
                victim = self.agents[1 if i == count // 3 else 2]
                victim.proc.kill()
                victim.proc.wait()
                victim.run()
                victim.wait_ready()
        # An agent may have been killed between its lock and its request.
        wait_for(lambda: len(set(self.asked()) | self.held()) == count, "every order's fetch", 30)
        self.settle()
        held, owners = self.held(), self.owners()
        self.assertEqual(set(self.asked().values()), {1})  # no file was fetched twice
        self.assertEqual({len(hosts) for hosts in owners.values()}, {1})
        cut = held - set(owners)
        unfinished = {int(name[2:-5]) for agent in self.agents for name in agent.unfinished()}
        self.assertTrue(0 < len(unfinished) and unfinished <= cut)  # who was cut down leaves its lock, no other
        self.assertEqual(set(owners) | cut, set(range(count)))
        self.assertLessEqual(len(held & set(owners)), 2)  # killed between rename and release
        self.check_stored({i: hosts for i, hosts in owners.items() if i not in held})
        for i in cut:
            self.assertEqual(self.db.urls(f"f/{i}"), {}, i)
        print(f"\nfleet: {count} datagrams, {len(owners)} files by agents "
              f"{[sum(hosts == [n] for hosts in owners.values()) for n in range(3)]}, {len(cut)} orders cut down by "
              f"two kills, {len(held)} locks left", flush=True)

        # Half a minute later the same orders are taken over. Two agents that find a stale lock in the same instant may
        # both take it: then both have the file, and both are registered.
        for name in os.listdir(self.locks):
            age(f"{self.locks}/{name}", 32)
        for agent in self.agents:
            for name in agent.unfinished():
                age(agent.path(name), 32)
        for i in cut:
            self.order(i)
        wait_for(lambda: len(self.owners()) == count and len(self.held()) <= len(held & set(owners)),
                 "the orders that were cut down", 20)
        self.settle()
        self.check_stored({i: hosts for i, hosts in self.owners().items() if i in cut})
        for agent in self.agents:
            for name in agent.unfinished():  # those that another agent took over
                os.remove(agent.path(name))
