"""Plays a day of an agent's life in three minutes, for the picture in docs/OPERATION.md: the agent's clock runs 480
times as fast, its load follows an audience, and three things go wrong.

    day.py LOG"""

import fileinput
import glob
import math
import os
import random
import shutil
import sys
import tempfile
import threading
import time

sys.path[:0] = [os.path.join(os.path.dirname(__file__), path) for path in ("../tests", "../tools/client")]
from harness import Agent, Nginx, Origin, Redis  # noqa: E402

SPEED = 480
PEAK = 250  # orders a second of the player's own time
SOURCES = 800
SIZES = (2000, 20_000, 60_000, 200_000)


def audience(hour):
    """The share of the peak: low at five in the morning, high at half past eight in the evening."""
    day = (1 - math.cos((hour - 4.5) / 24 * 2 * math.pi)) / 2
    return 0.15 + 0.5 * day + 0.35 * math.exp(-((hour - 20.5) / 1.8) ** 2)


def sweep(data, is_over):
    """An audience that has seen its files."""
    while not is_over.wait(1):
        for directory, _, names in os.walk(data):
            for name in names:
                path = f"{directory}/{name}"
                if not name.endswith("-Kova"):
                    os.unlink(path)


def main():
    root = tempfile.mkdtemp(prefix="kd", dir="/dev/shm")
    os.chmod(root, 0o755)
    rnd = random.Random(1)
    origin = Origin()
    nginx = Nginx(f"{root}/nginx")
    database = Redis(f"{root}/redis")
    for k in range(SOURCES):
        with open(f"{nginx.www}/{k}", "wb") as f:
            f.write(rnd.randbytes(SIZES[k % len(SIZES)]))
    answers = b"HTTP/1.1 200 OK\r\nContent-Length: 40000\r\n\r\n"
    faketime = next(f"/usr/lib/{d}/faketime/libfaketime.so.1" for d in os.listdir("/usr/lib")
                    if os.path.exists(f"/usr/lib/{d}/faketime/libfaketime.so.1"))

    def clock(hour):
        return f"@2026-03-02 {int(hour):02}:{int(hour * 60 % 60):02}:00 x{SPEED}"
    env = {"LD_PRELOAD": faketime, "FAKETIME": clock(0), "FAKETIME_DONT_FAKE_MONOTONIC": "1", "TZ": "UTC"}
    agent = Agent(f"{root}/agent", database.settings() + "max_tasks = 45;", options=("-L", "norm"),
                  log="max_size_mb = 1000;", env=env).wait_ready()
    is_over = threading.Event()
    threading.Thread(target=sweep, args=(agent.data, is_over), daemon=True).start()

    def slow(conn, _):
        conn.sendall(answers)
        for _ in range(4):
            time.sleep(rnd.random() * 0.15)
            conn.sendall(b"x" * 10000)
    start = time.monotonic()
    number = 0
    is_registering = True
    due = 0.0
    while (hour := (time.monotonic() - start) * SPEED / 3600) < 23.98:
        now = time.monotonic() - start
        if due > now:
            time.sleep(due - now)
        due = max(due, now - 0.2) + rnd.expovariate(PEAK * audience(hour))
        number += 1
        if 14 <= hour < 14.7 and is_registering:
            database.stop()
            is_registering = False
        if 14.7 <= hour and not is_registering:
            is_registering = True
            agent.stop()
            database.run()
            agent.launch["env"]["FAKETIME"] = clock(hour)
            agent.run()
            agent.wait_ready()
        is_source_down = 9 <= hour < 9.5
        if rnd.random() < 0.03:
            source = f"http://127.0.0.1:1/{number}" if rnd.random() < 0.2 else nginx.url(f"gone{number}")
        elif rnd.random() < (0.6 if 20 <= hour < 20.7 else 0.05):
            origin.paths[f"/{number}"] = slow
            source = origin.url(f"/{number}")
        else:
            source = nginx.url(rnd.randrange(SOURCES))
        if is_source_down:
            source = f"http://127.0.0.1:1/{number}"
        with agent.connect() as s:  # whoever orders does not wait here
            s.sendall(f"GET /src/{source}/dst/{number % 50}/{number} HTTP/1.1\r\nHost: h\r\n\r\n".encode())
    time.sleep(1)
    is_over.set()
    agent.stop()
    logs = sorted(glob.glob(f"{agent.log_path}*"), key=os.path.getmtime)
    with fileinput.input(logs, encoding="utf-8") as lines, open(sys.argv[1], "w", encoding="utf-8") as copy:
        # The last minutes may be of the next day.
        copy.writelines(line for line in lines if line.startswith("2026-03-02"))
    database.stop()
    nginx.stop()
    origin.close()
    shutil.rmtree(root)


if __name__ == "__main__":
    main()
