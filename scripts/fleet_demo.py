#!/usr/bin/python3
"""A fleet, visibly: an origin, three hosts on one multicast group with agent, web server and outbox, a Redis, the
balancer, and players. A miss goes to the origin and is ordered, the next player goes to a host; a host dies; the
database dies and comes back.
scripts/demo-fleet runs it. --quick: fewer files.
"""

import collections
import os
import random
import signal
import subprocess
import sys
import threading
import time

from fleet_parts import (BALANCER, DATABASE, GROUP, ORIGIN, Fleet, Player, enter_namespaces, run_script, wait_for)

QUICK = "--quick" in sys.argv
STARTED = time.monotonic()
FILES = 30 if QUICK else 120


def say(what):
    print(f"\n# [{time.monotonic() - STARTED:4.1f} s] {what}", flush=True)


def show(command):
    print(f"$ {command}", flush=True)
    subprocess.run(command, shell=True, check=True)
    sys.stdout.flush()


def check(is_so, what):
    print(f"  {'ok' if is_so else 'FAILED'}: {what}", flush=True)
    if not is_so:
        sys.exit(1)


def names_of(fleet, kind):
    names = [f"{kind}/{n:03}.ts" for n in range(FILES)]
    os.makedirs(f"{fleet.www}/{kind}")
    for name in names:
        with open(f"{fleet.www}/{name}", "wb") as f:
            f.write(random.randbytes(random.randrange(1000, 200000)))
    return names


def round_of(fleet, names):
    """One player for each file: where they got them, by address."""
    player = Player(fleet)
    places = collections.Counter(player.play(name) for name in names)
    print(f"  {len(names)} players: {', '.join(f'{n} from {place}' for place, n in sorted(places.items()))}; "
          f"asked again {player.asked_again}; the balancer's slowest answer {player.slowest_ms:.0f} ms", flush=True)
    check(not player.errors, f"no player got an error or a partial file{player.errors or ''}")
    return places, player


def wait_held(fleet, names, hosts):
    """Asks as players do until every file is with a living host: what is missing is ordered by being asked for."""
    prefixes = {host.prefix for host in hosts}

    def all_held():
        missing = [name for name in names
                   if not any(url.startswith(prefix) for url in fleet.registered(name) for prefix in prefixes)]
        player = Player(fleet)
        for name in missing:
            player.play(name)
        return not missing
    wait_for(all_held, "every file's registration", 60)


def main():
    fleet = Fleet(enter_namespaces())
    say("The fleet: an origin, a Redis, a balancer; three hosts, each in a network namespace of its own, on one group")
    print(f"  origin {ORIGIN}, Redis {DATABASE}, balancer {BALANCER}, group {GROUP}")
    for host in fleet.hosts:
        print(f"  {host.name} {host.address}: agent, nginx over its data directory, outbox with kov-forward, kov-alive")
    fleet.wait_living()
    show(f"redis-cli -h {DATABASE} hgetall kov:alive")
    check(len(fleet.living()) == 3, "three hosts live")

    say("A miss: the player is sent to the origin, and the file is ordered")
    names = names_of(fleet, "vod")
    first = names[0]
    show(f"curl -s -o /dev/null -w '%{{http_code}} %{{redirect_url}}\\n' http://{BALANCER}/{first}")
    wait_for(lambda: fleet.registered(first), "the registration")
    show(f"grep -h TASK-START {fleet.root}/host*/kov.log")
    show(f"redis-cli -h {DATABASE} zrange {first} 0 -1 withscores")

    say("The next player is sent to a host that has it")
    show(f"curl -s -o /dev/null -w '%{{http_code}} %{{redirect_url}}\\n' http://{BALANCER}/{first}")
    places, _ = round_of(fleet, [first])
    check(ORIGIN not in places, "the file came from a host, whole")

    say(f"{FILES} files: first from the origin, then from the hosts")
    round_of(fleet, names)
    wait_held(fleet, names, fleet.hosts)
    places, _ = round_of(fleet, names)
    check(ORIGIN not in places, "every file came from a host")

    say("host1 loses its power: players who meet it ask again, and what only host1 had is fetched by the others")
    dead = fleet.hosts[0]
    dead.die()
    died = last = time.monotonic()
    player = Player(fleet)
    playing = threading.Thread(target=lambda: [player.play(name) for name in names[:12]])
    playing.start()
    scout, sent = Player(fleet), 0
    while time.monotonic() < died + 5:
        _, place, _ = scout.get(f"http://{BALANCER}/{random.choice(names)}", 1)
        if place.startswith(dead.prefix):
            last, sent = time.monotonic(), sent + 1
        time.sleep(0.02)
    playing.join()
    print(f"  {sent} look-ups gave host1, the last one {last - died:.1f} s after its death; "
          f"of 12 players {player.asked_again} met it and asked again")
    check(sent and last - died < 4 and not player.errors, "out within 4 s, and no player got an error")
    round_of(fleet, names)
    wait_held(fleet, names, fleet.hosts[1:])
    places, player = round_of(fleet, names)
    check(not {ORIGIN, dead.address} & set(places) and not player.asked_again, "every file came from a living host")

    say("The database hangs, then dies: players go to the origin; registrations of new orders wait in the outboxes")
    for signo in (signal.SIGSTOP, signal.SIGKILL):
        fleet.parts["database"].proc.send_signal(signo)
        places, player = round_of(fleet, names)
        check(ORIGIN in places and player.slowest_ms < 100, f"{signo.name}: every answer in less than 0.1 s")
    more = names_of(fleet, "live")
    for n, name in enumerate(more):
        fleet.send(name, f"live-{n:03}")
        time.sleep(0.01)
    hosts = fleet.hosts[1:]
    wait_for(lambda: len(set().union(*(host.stored() for host in hosts)) & set(more)) == FILES, "the files")
    waiting = {host.name: int(host.redis("xlen", "kov:outbox")) for host in hosts}
    print(f"  stored {FILES} files; registrations that wait: {waiting}")
    check(sum(waiting.values()) >= FILES, "none is lost")

    say("It comes back: the outboxes empty themselves, and players go to the hosts again")
    fleet.parts["database"].start()
    back = time.monotonic()
    wait_for(lambda: all(fleet.registered(name) for name in more), "the registrations", 20)
    print(f"  everything was registered {time.monotonic() - back:.1f} s later")
    fleet.wait_living(hosts)
    places, _ = round_of(fleet, names + more)
    check(ORIGIN not in places, "every file came from a host")
    show(f"curl -s http://{BALANCER}/kov:metrics")
    say("Done: nothing is lost, and nobody has noticed")


if __name__ == "__main__":
    run_script(main)
