#!/usr/bin/python3
"""What becomes of registrations between an agent's outbox and the fleet's database. Each must be found by a reader
exactly once, with the end that it was given, though the carrier is killed again and again, the outbox's Redis is killed
and started from its file, and the database, its master or a master of its cluster dies. What can never be registered
holds nothing up, and is kept with its reason.

    outbox.py single|sentinel|cluster [--quick]     # 10,000 registrations, 20 kills; the quick form: 1,000 and 4
"""

import os
import subprocess
import sys
import time

import redis

TOP = os.path.abspath(os.path.dirname(__file__) + "/../..")
sys.path.insert(0, f"{TOP}/scripts")
from fleet_parts import DATABASE, Fleet, Part, enter_namespaces, program, wait_for  # noqa: E402

QUICK = "--quick" in sys.argv
COUNT, KILLS = (1000, 4) if QUICK else (10000, 20)
FIRST_END = 2000000000
CARRIER = [f"{TOP}/tools/fleet/kov-forward", "--script", f"{TOP}/packaging/redis/add_url.lua", "--fleet"]


def roles(fleet, kind):
    """Of the servers that stay when one dies."""
    ports = {"single": (), "sentinel": (6380,), "cluster": range(7002, 7007)}[kind]
    return [fleet.redis("-p", port, "role") for port in ports]


def settle(fleet, kind):
    """Until those that take over have the data, and the Sentinels know them and each other."""
    wait_for(lambda: all(role.startswith("master") or "connected" in role.split() for role in roles(fleet, kind)),
             "the replicas", 20)
    for port in (26379, 26380, 26381) if kind == "sentinel" else ():
        wait_for(lambda p=port: "num-slaves\n1\n" in (said := fleet.redis("-p", p, "sentinel", "master", "kov")) and
                 "num-other-sentinels\n2\n" in said, f"Sentinel {port}", 20)


def mend(fleet, kind):
    """The database comes back when another has taken over, or after a while."""
    masters = {"single": 0, "sentinel": 1, "cluster": 3}[kind]
    wait_for(lambda: sum(role.startswith("master") for role in roles(fleet, kind)) == masters, "a new master", 30)
    if kind == "single":
        time.sleep(1 if QUICK else 10)
    if kind == "sentinel" and QUICK:
        fleet.parts["database"].command += ["--replicaof", DATABASE, "6380"]
    # Else it comes back as a master, and the Sentinels, which still send to it, degrade it ten seconds later.
    fleet.parts["database"].start()


def carry(fleet, kind, outbox, client):
    """COUNT registrations, KILLS ends of the carrier, one of the outbox, one of the database."""
    carrier = Part(fleet, "carrier", [*CARRIER, fleet.url])
    with open(f"{TOP}/packaging/outbox/add_url.lua", encoding="ascii") as f:
        script = f.read()
    start = time.monotonic()
    for i in range(COUNT):
        if i and i * KILLS // COUNT != (i - 1) * KILLS // COUNT:
            carrier.kill()
            carrier.start()
        if i == COUNT // 3:
            fleet.parts["database"].kill()
        if i == COUNT // 2:
            outbox.kill()
            outbox.start()
        if i == 2 * COUNT // 3:
            mend(fleet, kind)
        url = f"http://host{i % 7}/v/{i}"
        if i % 10 == 0:  # an earlier end, which must not be the one that stays
            client.eval(script, 1, f"v/{i}", url, 1500000000)
        assert client.eval(script, 1, f"v/{i}", url, FIRST_END + i) == f"ok:v/{i}".encode()
        if i % 100 == 50:
            time.sleep(0.05)
    produced = time.monotonic() - start
    wait_for(lambda: client.xlen("kov:outbox") == 0, "an empty outbox", 60)
    reader = fleet.client()
    for i in range(COUNT):
        found = reader.zrange(f"v/{i}", 0, -1, withscores=True)
        assert found == [(f"http://host{i % 7}/v/{i}", FIRST_END + i)], (i, found)
    assert client.xlen("kov:refused") == 0
    carrier.kill()
    print(f"outbox to {kind}: {COUNT} registrations in {produced:.1f} s, carrier killed {KILLS} times, outbox and "
          f"database once; each found once, {time.monotonic() - start:.1f} s", flush=True)


def refuse(fleet, client):
    fleet.client().set("string", "x")
    for fields in ({"id": "string"}, {"id": ""}, {"id": "good"}):
        client.xadd("kov:outbox", {"url": "http://host/x", "ends": FIRST_END, **fields})
    subprocess.run([*CARRIER, fleet.url, "--drain"], check=True, timeout=60)
    assert fleet.client().zscore("good", "http://host/x") == FIRST_END
    reasons = [fields[b"why"].split()[0] for _, fields in client.xrange("kov:refused")]
    assert sorted(reasons) == [b"WRONGTYPE", b"not"], reasons
    said = subprocess.run([*CARRIER, fleet.url, "--status"], check=True, capture_output=True).stdout
    assert said == b"waiting 0, oldest 0 s, refused 2\n", said


def main():
    kind = sys.argv[1]
    fleet = Fleet(enter_namespaces(), 0, database=kind)
    settle(fleet, kind)
    client = redis.Redis(port=6378)
    outbox = Part(fleet, "outbox", ["redis-server", f"{TOP}/packaging/outbox/redis.conf", "--dir", fleet.root],
                  ready=lambda: fleet.redis("-h", "127.0.0.1", "-p", 6378, "ping") == "PONG")
    carry(fleet, kind, outbox, client)
    # Counts on each master; no host says that it lives.
    said = subprocess.run([program("kovctl"), "fleet"], env={"KOV_FLEET": fleet.url}, capture_output=True, text=True,
                          check=False)
    assert said.returncode == 1 and f"\nids: {COUNT};" in said.stdout, said
    refuse(fleet, client)


if __name__ == "__main__":
    main()
