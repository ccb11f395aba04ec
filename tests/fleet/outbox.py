#!/usr/bin/python3
"""What becomes of registrations between an agent's outbox and the fleet's database. Each must be found by a reader
exactly once, with the end that it was given, though the carrier is killed again and again, the outbox's Redis is killed
and started from its file, and the database, its master or a master of its cluster dies.

    outbox.py [Outbox.test_single | Outbox.test_sentinel | Outbox.test_cluster]... with KOV and PYTHONPATH set

10,000 registrations, 20 kills each; KOV_QUICK=1: 1,000 and 4."""

import functools
import os
import random
import subprocess
import time
import unittest

import harness
import redis
from harness import KOV, QUICK, KovTest, read, run, write
from redis.cluster import ClusterNode, RedisCluster

TOP = os.path.abspath(os.path.dirname(__file__) + "/../..")
COUNT, KILLS = (1000, 4) if QUICK else (10000, 20)
FIRST_END = 2000000000
wait_for = functools.partial(harness.wait_for, seconds=60,
                             not_yet=(redis.RedisError, redis.exceptions.RedisClusterException))


class Process:
    def __init__(self, *args):
        self.args = [*args]
        self.run()

    def run(self):
        self.process = subprocess.Popen(self.args, stdout=subprocess.DEVNULL)

    def stop(self):
        self.process.kill()
        self.process.wait()


class Server(Process):
    """A redis-server on loopback with its file. The port is below those that the kernel hands out."""
    ports = iter(random.sample(range(12000, 22000), 50))  # a cluster's own port is 10,000 higher

    def __init__(self, root, conf, *options):
        self.port = next(self.ports)
        self.url = f"redis://127.0.0.1:{self.port}"
        self.client = redis.Redis(port=self.port, socket_timeout=5)
        write(f"{root}/conf", conf)
        super().__init__("redis-server", f"{root}/conf", *options, "--port", str(self.port), "--bind", "127.0.0.1",
                         "--dir", root)

    def run(self):
        super().run()
        wait_for(self.client.ping, "redis-server")


class Outbox(KovTest):
    def server(self, *options, conf='save ""\nappendonly yes\n'):
        return self.service(Server, conf, *options)

    def outbox(self):
        return self.server(conf=read(f"{TOP}/packaging/outbox/redis.conf"))

    def carrier(self, outbox, fleet, *options):
        carrier = Process(f"{TOP}/tools/fleet/kov-forward", "--outbox", outbox.url, "--fleet", fleet,
                          "--script", f"{TOP}/packaging/redis/add_url.lua", *options)
        self.addCleanup(carrier.stop)
        return carrier

    def carry(self, fleet, reader, break_database):
        """COUNT registrations, KILLS ends of the carrier, one of the outbox, one of the database."""
        outbox = self.outbox()
        carrier = self.carrier(outbox, fleet)
        script = read(f"{TOP}/packaging/outbox/add_url.lua")
        start = time.monotonic()
        for i in range(COUNT):
            if i * KILLS // COUNT != (i - 1) * KILLS // COUNT and i:
                carrier.stop()
                carrier.run()
            if i == COUNT // 3:
                mend = break_database()
            if i == COUNT // 2:
                outbox.stop()
                outbox.run()
            if i == 2 * COUNT // 3:
                mend()
            url = f"http://host{i % 7}/v/{i}"
            if i % 10 == 0:  # an earlier end, which must not be the one that stays
                outbox.client.eval(script, 1, f"v/{i}", url, 1500000000)
            self.assertEqual(outbox.client.eval(script, 1, f"v/{i}", url, FIRST_END + i), f"ok:v/{i}".encode())
            if i % 100 == 50:
                time.sleep(0.05)
        produced = time.monotonic() - start
        wait_for(lambda: outbox.client.xlen("kov:outbox") == 0, "an empty outbox")
        for i in range(COUNT):
            self.assertEqual(reader().zrange(f"v/{i}", 0, -1, withscores=True),
                             [(f"http://host{i % 7}/v/{i}".encode(), FIRST_END + i)])
        self.assertEqual(outbox.client.xlen("kov:refused"), 0)
        print(f"{fleet}: {COUNT} registrations in {produced:.1f} s, carrier killed {KILLS} times, outbox and database "
              f"once; each found once, {time.monotonic() - start:.1f} s", flush=True)

    def test_single(self):
        server = self.server()

        def break_database():
            server.stop()
            return lambda: (time.sleep(1 if QUICK else 10), server.run())
        self.carry(server.url, lambda: server.client, break_database)

    def test_what_can_never_be_registered_holds_nothing_up_and_is_kept_with_its_reason(self):
        server, outbox = self.server(), self.outbox()
        server.client.set("string", "x")
        for fields in ({"id": "string"}, {"id": ""}, {"id": "good"}):
            outbox.client.xadd("kov:outbox", {"url": "http://host/x", "ends": FIRST_END, **fields})
        carrier = self.carrier(outbox, server.url, "--drain")
        self.assertEqual(carrier.process.wait(60), 0)
        self.assertEqual(server.client.zscore("good", "http://host/x"), FIRST_END)
        reasons = [fields[b"why"].split()[0] for _, fields in outbox.client.xrange("kov:refused")]
        self.assertEqual(sorted(reasons), [b"WRONGTYPE", b"not"])
        run(*carrier.args, "--status", says="^waiting 0, oldest 0 s, refused 2\n$")

    def test_sentinel(self):
        master = self.server()
        replica = self.server("--replicaof", "127.0.0.1", str(master.port))
        conf = f"sentinel monitor fleet 127.0.0.1 {master.port} 2\nsentinel failover-timeout fleet 3000\n" \
               "sentinel down-after-milliseconds fleet 1000\n"
        watchers = [self.server("--sentinel", conf=conf) for _ in range(3)]
        wait_for(lambda: replica.client.info("replication")["master_link_status"] == "up", "the replica")
        wait_for(lambda: all(w.client.sentinel_master("fleet")["num-other-sentinels"] == 2 and
                             w.client.sentinel_master("fleet")["num-slaves"] == 1 for w in watchers), "the Sentinels")

        def mend():
            wait_for(lambda: replica.client.role()[0] == b"master", "the other master")
            if QUICK:
                master.args += ["--replicaof", "127.0.0.1", str(replica.port)]
            # Else it comes back as a master, and the Sentinels, which still send to it, degrade it ten seconds later.
            master.run()

        def break_database():
            master.stop()
            return mend
        self.carry("sentinel://" + ",".join(f"127.0.0.1:{w.port}" for w in watchers) + "/fleet",
                   lambda: replica.client, break_database)

    def test_cluster(self):
        nodes = [self.server("--cluster-enabled", "yes", "--cluster-node-timeout", "1000") for _ in range(6)]
        places = [f"127.0.0.1:{n.port}" for n in nodes]
        run("redis-cli", "--cluster", "create", *places, "--cluster-replicas", "1", "--cluster-yes")
        wait_for(lambda: all(n.client.cluster("info")["cluster_state"] == "ok" for n in nodes), "the cluster")
        wait_for(lambda: all(n.client.info("replication").get("master_link_status", "up") == "up" for n in nodes),
                 "the replicas")
        living = nodes[1:]
        reader = functools.cache(lambda: RedisCluster(startup_nodes=[ClusterNode("127.0.0.1", n.port) for n in living]))

        def break_database():
            nodes[0].stop()
            return lambda: (wait_for(lambda: sum(n.client.role()[0] == b"master" for n in living) == 3, "a new master"),
                            nodes[0].run())
        self.carry("cluster://" + ",".join(places[:3]), reader, break_database)
        # Counts on each master; no host says that it lives.
        run(f"{os.path.dirname(KOV)}/kovctl", "fleet", env={"KOV_FLEET": "cluster://" + ",".join(places[1:])}, status=1,
            says=f"\nids: {COUNT};")


if __name__ == "__main__":
    unittest.main()
