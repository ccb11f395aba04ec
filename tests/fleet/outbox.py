#!/usr/bin/python3
"""What becomes of registrations between an agent's outbox and the fleet's database. Each must be found by a reader
exactly once, with the end that it was given, though the carrier is killed again and again, the outbox's Redis is killed
and started from its file, and the database, its master or a master of its cluster dies.

    outbox.py [single|sentinel|cluster]...     # 10,000 registrations, 20 kills each; KOV_QUICK=1: 1,000 and 4
"""

import contextlib
import functools
import os
import random
import subprocess
import sys
import tempfile
import time

import redis
from redis.cluster import ClusterNode, RedisCluster

TOP = os.path.abspath(os.path.dirname(__file__) + "/../..")
QUICK = os.environ.get("KOV_QUICK") == "1"
COUNT, KILLS = (1000, 4) if QUICK else (10000, 20)
FIRST_END = 2000000000
root = tempfile.mkdtemp(prefix="kov-outbox.")
processes = []


def wait_for(condition, what, seconds=60.0):
    deadline = time.monotonic() + seconds
    while True:
        with contextlib.suppress(redis.RedisError, redis.exceptions.RedisClusterException):
            if condition():
                return
        assert time.monotonic() < deadline, f"waited {seconds} s for {what}"
        time.sleep(0.05)


class Process:
    def run(self):
        self.process = subprocess.Popen(self.args, stdout=subprocess.DEVNULL)
        processes.append(self.process)

    def kill(self):
        self.process.kill()
        self.process.wait()


class Server(Process):
    """A redis-server on loopback with its file. The port is below those that the kernel hands out."""
    ports = iter(random.sample(range(12000, 22000), 50))  # a cluster's own port is 10,000 higher

    def __init__(self, *options, conf='save ""\nappendonly yes\n'):
        self.port = next(self.ports)
        self.url = f"redis://127.0.0.1:{self.port}"
        self.client = redis.Redis(port=self.port, socket_timeout=5)
        place = f"{root}/{self.port}"
        os.mkdir(place)
        with open(f"{place}/conf", "w", encoding="ascii") as f:
            f.write(conf)
        self.args = ["redis-server", f"{place}/conf", *options, "--port", str(self.port), "--bind", "127.0.0.1",
                     "--dir", place]
        self.run()

    def run(self):
        super().run()
        wait_for(self.client.ping, "redis-server")


class Carrier(Process):
    def __init__(self, outbox, fleet, *options):
        self.args = [f"{TOP}/tools/fleet/kov-forward", "--outbox", outbox.url, "--fleet", fleet,
                     "--script", f"{TOP}/packaging/redis/add_url.lua", *options]
        self.run()


def shipped(name):
    with open(f"{TOP}/packaging/outbox/{name}", encoding="ascii") as f:
        return f.read()


def carry(name, fleet, reader, break_database):
    """COUNT registrations, KILLS ends of the carrier, one of the outbox, one of the database."""
    outbox = Server(conf=shipped("redis.conf"))
    carrier = Carrier(outbox, fleet)
    script = shipped("add_url.lua")
    start = time.monotonic()
    for i in range(COUNT):
        if i * KILLS // COUNT != (i - 1) * KILLS // COUNT and i:
            carrier.kill()
            carrier.run()
        if i == COUNT // 3:
            mend = break_database()
        if i == COUNT // 2:
            outbox.kill()
            outbox.run()
        if i == 2 * COUNT // 3:
            mend()
        url = f"http://host{i % 7}/v/{i}"
        if i % 10 == 0:  # an earlier end, which must not be the one that stays
            outbox.client.eval(script, 1, f"v/{i}", url, 1500000000)
        assert outbox.client.eval(script, 1, f"v/{i}", url, FIRST_END + i) == f"ok:v/{i}".encode()
        if i % 100 == 50:
            time.sleep(0.05)
    produced = time.monotonic() - start
    wait_for(lambda: outbox.client.xlen("kov:outbox") == 0, "an empty outbox")
    for i in range(COUNT):
        found = reader().zrange(f"v/{i}", 0, -1, withscores=True)
        assert found == [(f"http://host{i % 7}/v/{i}".encode(), FIRST_END + i)], (name, i, found)
    assert outbox.client.xlen("kov:refused") == 0
    carrier.kill()
    print(f"outbox to {name}: {COUNT} registrations in {produced:.1f} s, carrier killed {KILLS} times, outbox and "
          f"database once; each found once, {time.monotonic() - start:.1f} s", flush=True)


def to_single():
    server = Server()

    def break_database():
        server.kill()
        return lambda: (time.sleep(1 if QUICK else 10), server.run())
    carry("a single server", server.url, lambda: server.client, break_database)
    to_single_refused(server)


def to_single_refused(server):
    """What can never be registered holds nothing up, and is kept with its reason."""
    outbox = Server(conf=shipped("redis.conf"))
    server.client.set("string", "x")
    for fields in ({"id": "string"}, {"id": ""}, {"id": "good"}):
        outbox.client.xadd("kov:outbox", {"url": "http://host/x", "ends": FIRST_END, **fields})
    carrier = Carrier(outbox, server.url, "--drain")
    assert carrier.process.wait() == 0
    assert server.client.zscore("good", "http://host/x") == FIRST_END
    reasons = [fields[b"why"].split()[0] for _, fields in outbox.client.xrange("kov:refused")]
    assert sorted(reasons) == [b"WRONGTYPE", b"not"], reasons
    said = subprocess.run([*carrier.args, "--status"], check=True, capture_output=True).stdout
    assert said == b"waiting 0, oldest 0 s, refused 2\n", said


def to_sentinel():
    master = Server()
    replica = Server("--replicaof", "127.0.0.1", str(master.port))
    watchers = [Server("--sentinel", conf=f"sentinel monitor fleet 127.0.0.1 {master.port} 2\n"
                       "sentinel down-after-milliseconds fleet 1000\n"
                       "sentinel failover-timeout fleet 3000\n") for _ in range(3)]
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
        master.kill()
        return mend
    carry("the master of Sentinels", "sentinel://" + ",".join(f"127.0.0.1:{w.port}" for w in watchers) + "/fleet",
          lambda: replica.client, break_database)


def to_cluster():
    nodes = [Server("--cluster-enabled", "yes", "--cluster-node-timeout", "1000") for _ in range(6)]
    places = [f"127.0.0.1:{n.port}" for n in nodes]
    subprocess.run(["redis-cli", "--cluster", "create", *places, "--cluster-replicas", "1", "--cluster-yes"],
                   check=True, stdout=subprocess.DEVNULL)
    wait_for(lambda: all(n.client.cluster("info")["cluster_state"] == "ok" for n in nodes), "the cluster")
    wait_for(lambda: all(n.client.info("replication").get("master_link_status", "up") == "up" for n in nodes),
             "the replicas")
    reader = functools.cache(lambda: RedisCluster(startup_nodes=[ClusterNode("127.0.0.1", n.port) for n in nodes[1:]]))

    def break_database():
        nodes[0].kill()
        return lambda: (wait_for(lambda: sum(n.client.role()[0] == b"master" for n in nodes[1:]) == 3, "a new master"),
                        nodes[0].run())
    carry("a cluster", "cluster://" + ",".join(places[:3]), reader, break_database)
    if "KOVCTL" in os.environ:  # counts on each master; no host says that it lives
        said = subprocess.run([os.environ["KOVCTL"], "fleet"], env={"KOV_FLEET": "cluster://" + ",".join(places[1:])},
                              capture_output=True, text=True, check=False)
        assert said.returncode == 1 and f"\nids: {COUNT};" in said.stdout, said


try:
    for to in sys.argv[1:] or ("single", "sentinel", "cluster"):
        {"single": to_single, "sentinel": to_sentinel, "cluster": to_cluster}[to]()
finally:
    for p in processes:
        p.kill()
        p.wait()
    subprocess.run(["rm", "-rf", root], check=True)
