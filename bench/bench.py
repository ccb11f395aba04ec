"""Measures kov against what a user would pick instead, and against a bare loop of the same system calls.

    bench.py [--quick] [--repeat N] [--only WORK] [--json FILE]

Each contender runs alone on core 0; the source (nginx) and the load run on core 1. Repetitions are interleaved: every
contender once, then every contender again. CPU is that of the contender's process alone, from the scheduler."""

import argparse
import json
import os
import platform
import re
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import time
import urllib.request

BIN = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../build/bench/bin")
CORES = os.cpu_count() or 1


def pinned(core, *command):
    return ["taskset", "-c", str(core), *command] if CORES > 1 else list(command)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_until(condition, seconds=60.0, pause=0.005):
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            raise TimeoutError
        time.sleep(pause)


def listening(port):
    with socket.socket() as s:
        return s.connect_ex(("127.0.0.1", port)) == 0


def cpu_seconds(pids):
    total = 0
    for pid in pids:
        for thread in os.listdir(f"/proc/{pid}/task"):
            with open(f"/proc/{pid}/task/{thread}/schedstat", encoding="ascii") as f:
                total += int(f.read().split()[0])
    return total / 1e9


def memory_kib(pids, field="RssAnon"):
    total = 0
    for pid in pids:
        with open(f"/proc/{pid}/status", encoding="ascii") as f:
            total += int(re.search(rf"{field}:\s+(\d+)", f.read()).group(1))
    return total


def proportional_kib(pids):
    total = 0
    for pid in pids:
        with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as f:
            total += int(re.search(r"Pss:\s+(\d+)", f.read()).group(1))
    return total


def nginx_conf(root, port, body, workers=1):
    temp = "".join(f"{kind}_temp_path {root}/tmp;" for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
    return (f"daemon off; pid {root}/nginx.pid; error_log {root}/nginx.err crit; worker_processes {workers}; user root;"
            f"worker_rlimit_nofile 20000; events {{ worker_connections 8192; }} http {{ access_log off; sendfile on;"
            f"tcp_nopush on; keepalive_requests 1000000; {temp} server {{ listen 127.0.0.1:{port} backlog=4096;"
            f" {body} }} }}")


def children(pid):
    with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as f:
        return [int(child) for child in f.read().split()]


def start_nginx(root, port, body, core):
    os.makedirs(f"{root}/tmp", exist_ok=True)
    with open(f"{root}/nginx.conf", "w", encoding="ascii") as f:
        f.write(nginx_conf(root, port, body))
    proc = subprocess.Popen(pinned(core, "/usr/sbin/nginx", "-c", f"{root}/nginx.conf"), stderr=subprocess.DEVNULL)
    wait_until(lambda: listening(port) and children(proc.pid))
    return proc, children(proc.pid)


class Contender:
    """Started anew for each measurement; stores the orders' files as NUMBER in its directory."""

    early = ""  # "+": the client need not wait for the body

    def __init__(self, root, source_port):
        self.root = root
        self.source_port = source_port
        self.files = f"{root}/files"
        self.pids = []

    def start(self):
        shutil.rmtree(self.root, ignore_errors=True)
        os.makedirs(self.files)
        self.port = free_port()
        self.launch()
        wait_until(lambda: listening(self.port))

    def target(self, path):
        dst = "w%d" if path == "warm" else "%d"
        return f"/src/http://127.0.0.1:{self.source_port}/{path}/%d/dst/{dst}"

    def load(self, window, count, path, watch=False):
        """Places the orders; the words of the load generator's line."""
        command = pinned(CORES - 1, f"{BIN}/load", str(self.port), str(window), f"{self.early}{count}",
                         self.target(path))
        if watch:
            command.append(f"{self.files}/%d")
        done = subprocess.run(command, check=True, capture_output=True, text=True)
        words = [float(w) for w in done.stdout.split()]
        if words[1]:
            raise RuntimeError(f"{self.name}: {words[1]:.0f} orders were refused")
        return words

    def stored(self, count):
        return sum(not e.name.endswith(("-Kova", ".aria2")) for e in os.scandir(self.files)) >= count

    def stop(self):
        self.proc.send_signal(signal.SIGTERM)
        self.proc.wait(20)
        shutil.rmtree(self.root, ignore_errors=True)


class Bare(Contender):
    def __init__(self, root, source_port, mode):
        super().__init__(root, source_port)
        self.mode = mode
        self.name = f"bare loop, {mode}"

    def launch(self, wrapper=()):
        self.proc = subprocess.Popen([*wrapper, *pinned(0, f"{BIN}/bare_loop", str(self.port), self.files, self.mode)])
        self.pids = [self.proc.pid]


class Kov(Contender):
    def __init__(self, root, source_port, mode, level="norm", program=f"{BIN}/kov"):
        super().__init__(root, source_port)
        self.mode = mode
        self.level = level
        self.program = program
        self.name = f"kov, {mode}" + ("" if level == "norm" else f", log at {level}")

    def launch(self, wrapper=()):
        with open(f"{self.root}/kov.conf", "w", encoding="ascii") as f:
            f.write(f'kova = {{ log = {{ file = "{self.root}/log"; level = "{self.level}"; max_size_mb = 0; }};'
                    f"runtime = {{ enforce_core_dumps = false; }}; data_dir = \"{self.files}\"; max_tasks = 4200;"
                    f"urq_tmout_sec = 60;"
                    f'web_input = {{ web = {{ ifc = "lo"; default_af = "inet4"; port = {self.port}; }}; }};'
                    f"max_mmap_mb = {8 if self.mode == 'mapped' else 0}; }};")
        self.proc = subprocess.Popen([*wrapper, *pinned(0, self.program, "-C", f"{self.root}/kov.conf", "-T", "-q")],
                                     stderr=subprocess.DEVNULL)
        self.pids = [self.proc.pid]


class ProxyStore(Contender):
    name = "nginx proxy_store"
    early = "+"

    def launch(self):
        body = (f"location / {{ proxy_pass http://127.0.0.1:{self.source_port}; proxy_store {self.files}/$arg_n; "
                f"proxy_http_version 1.0; proxy_ignore_client_abort on; }}")
        self.proc, self.pids = start_nginx(self.root, self.port, body, 0)

    def target(self, path):
        return f"/{path}/%d?n={'w' if path == 'warm' else ''}%d"


class Aria2(Contender):
    name = "aria2 (batched)"

    def launch(self):
        self.proc = subprocess.Popen(pinned(0, "aria2c", "--enable-rpc", f"--rpc-listen-port={self.port}",
                                            f"--dir={self.files}", "-j", str(self.window), "-q", "--no-conf",
                                            "--file-allocation=none", "-s1", "-x1", "--max-download-result=0",
                                            "--check-certificate=false"))
        self.pids = [self.proc.pid]

    window = 64

    def call(self, method, params):
        request = json.dumps({"jsonrpc": "2.0", "id": "1", "method": method, "params": params}).encode()
        with urllib.request.urlopen(f"http://127.0.0.1:{self.port}/jsonrpc", request, timeout=60) as reply:
            return json.load(reply)["result"]

    def stored(self, count):
        stat = self.call("aria2.getGlobalStat", [])
        return stat["numActive"] == stat["numWaiting"] == "0" and len(os.listdir(self.files)) >= count

    def load(self, window, count, path, watch=False):
        start = time.monotonic()
        for first in range(0, count, 500):
            self.call("system.multicall", [[{"methodName": "aria2.addUri", "params": [
                [f"http://127.0.0.1:{self.source_port}/{path}/{n}"], {"out": str(n)}]}
                for n in range(first, min(first + 500, count))]])
        return [time.monotonic() - start, 0.0, 0.0, 0.0]


class Curl(Contender):
    name = "curl -Z"

    def start(self):
        shutil.rmtree(self.root, ignore_errors=True)
        os.makedirs(self.files)

    def run(self, window, count, path):
        with open(f"{self.root}/list", "w", encoding="ascii") as f:
            for n in range(count):
                f.write(f'url = "http://127.0.0.1:{self.source_port}/{path}/{n}"\noutput = "{self.files}/{n}"\n')
        before = os.times()
        start = time.monotonic()
        subprocess.run(pinned(0, "curl", "-s", "-Z", "--parallel-max", str(min(window, 300)), "-K",
                              f"{self.root}/list"), check=True, stderr=subprocess.DEVNULL)
        seconds = time.monotonic() - start
        after = os.times()
        return seconds, after.children_user + after.children_system - before.children_user - before.children_system

    def stop(self):
        shutil.rmtree(self.root, ignore_errors=True)


def measure(contender, window, count, path, size):
    """One run: rate, CPU per order and per GiB, share of the core."""
    contender.window = window
    contender.start()
    try:
        if isinstance(contender, Curl):
            seconds, cpu = contender.run(window, count, path)
        else:
            before = cpu_seconds(contender.pids)
            start = time.monotonic()
            contender.load(window, count, path)
            wait_until(lambda: contender.stored(count), 120, 0.01)
            seconds = time.monotonic() - start
            cpu = cpu_seconds(contender.pids) - before
    finally:
        contender.stop()
    return {"orders_s": count / seconds, "cpu_us": cpu / count * 1e6, "cpu_gib": cpu / (count * size) * (1 << 30),
            "core": cpu / seconds}


def latency(contender, count):
    contender.window = 1
    contender.start()
    try:
        contender.load(1, 50, "warm")
        words = contender.load(1, count, "4k", watch=True)
    finally:
        contender.stop()
    return {"answer_us": words[2], "stored_us": words[4]}


def slow(contender, count):
    """A thousand downloads that take ten seconds each: CPU for all of them, memory for each beyond the idle process."""
    contender.window = count
    contender.start()
    try:
        idle = memory_kib(contender.pids)
        before = cpu_seconds(contender.pids)
        if isinstance(contender, ProxyStore):
            loader = subprocess.Popen(pinned(CORES - 1, f"{BIN}/load", str(contender.port), str(count), str(count),
                                             contender.target("slow")), stdout=subprocess.DEVNULL)
            time.sleep(5)
        else:
            loader = None
            contender.load(count, count, "slow")
            time.sleep(3)
        anonymous = memory_kib(contender.pids) - idle
        proportional = proportional_kib(contender.pids)
        wait_until(lambda: contender.stored(count), 120, 0.05)
        cpu = cpu_seconds(contender.pids) - before
        after = memory_kib(contender.pids) - idle
        peak = memory_kib(contender.pids, "VmHWM")
        if loader:
            loader.wait(60)
    finally:
        contender.stop()
    return {"cpu_s": cpu, "kib_task": anonymous / count, "kib_after": after, "pss_kib": proportional, "hwm_kib": peak}


def crowd(contender, tasks, clients):
    """The cost of an order while so many downloads run and so many clients wait."""
    contender.start()
    idle = []
    try:
        if tasks:
            contender.load(64, tasks, "stalled")
        idle = [socket.create_connection(("127.0.0.1", contender.port)) for _ in range(clients)]
        before = cpu_seconds(contender.pids)
        subprocess.run(pinned(CORES - 1, f"{BIN}/load", str(contender.port), "1", "2000",
                              f"/src/http://127.0.0.1:{contender.source_port}/4k/%d/dst/c%d"),
                       check=True, capture_output=True)
        cpu = cpu_seconds(contender.pids) - before
        return {"cpu_us": cpu / 2000 * 1e6}
    finally:
        for s in idle:
            s.close()
        contender.stop()


def released(contender, tasks=4000):
    """Memory after a peak of so many tasks, beyond the process before it."""
    contender.start()
    try:
        contender.load(1, 50, "warm")
        base = memory_kib(contender.pids)
        contender.load(64, tasks, "slow")
        peak = memory_kib(contender.pids)
        wait_until(lambda: contender.stored(tasks), 120, 0.1)
        time.sleep(0.5)
        return {"peak_kib": peak - base, "after_kib": memory_kib(contender.pids) - base}
    finally:
        contender.stop()


def calls(contender, count=500):
    """System calls an order, by strace: a run of its own."""
    shutil.rmtree(contender.root, ignore_errors=True)
    os.makedirs(contender.files)
    contender.port = free_port()
    table = f"{contender.root}/strace"
    contender.launch(wrapper=("strace", "-D", "-qq", "-f", "-o", table))
    wait_until(lambda: listening(contender.port))
    try:
        contender.load(1, 20, "warm")
        with open(table, encoding="ascii", errors="replace") as f:
            before = sum(1 for _ in f)
        contender.load(1, count, "4k")
        wait_until(lambda: contender.stored(count + 20))
        time.sleep(0.3)
        with open(table, encoding="ascii", errors="replace") as f:
            after = sum("resumed>" not in line and line.find("(") > 0 for line in f)
        return {"calls": (after - before) / count}
    finally:
        contender.proc.send_signal(signal.SIGTERM)
        contender.proc.wait(20)
        shutil.rmtree(contender.root, ignore_errors=True)


def medians(runs):
    return {key: statistics.median(run[key] for run in runs) for key in runs[0]}


def interleaved(title, contenders, repeat, work):
    results = {c.name: [] for c in contenders}
    for n in range(repeat):
        for c in contenders:
            results[c.name].append(work(c))
        print(f"{title}: {n + 1} of {repeat}", file=sys.stderr, flush=True)
    return {name: medians(runs) for name, runs in results.items()}


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--quick", action="store_true", help="small counts, one repetition: within a minute")
    parser.add_argument("--repeat", type=int, default=7)
    parser.add_argument("--only", default="", help="works whose name matches")
    parser.add_argument("--dir", default="/dev/shm/kov-bench", help="where files go; a tmpfs unless said otherwise")
    parser.add_argument("--json", default="")
    args = parser.parse_args()
    repeat = 1 if args.quick else args.repeat
    few = 10 if args.quick else 1

    os.makedirs(args.dir, exist_ok=True)
    www = f"{args.dir}/www"
    os.makedirs(www, exist_ok=True)
    sizes = {"4k": 4096, "1m": 1 << 20, "32m": 32 << 20, "2g": (1 << 31) // few, "slow": 200_000, "warm": 4096,
             "stalled": 65536}  # nginx limits a rate by whole pages
    for name, size in sizes.items():
        if name == "2g" and not re.search(args.only, "2 GiB"):
            continue
        with open(f"{www}/{name}.bin", "wb") as f:
            for _ in range(size >> 20):
                f.write(os.urandom(1 << 20))
            f.write(os.urandom(size & 0xfffff))
    locations = "".join(f"location /{name}/ {{ try_files /{name}.bin =404; {rate} }}" for name, rate in (
        ("4k", ""), ("1m", ""), ("32m", ""), ("2g", ""), ("warm", ""), ("slow", "limit_rate 20k;"),
        ("stalled", "limit_rate 10; limit_rate_after 1000;")))
    source_port = free_port()
    source, _ = start_nginx(f"{args.dir}/source", source_port, f"root {www}; {locations}", CORES - 1)

    def wanted(name):
        return re.search(args.only, name)

    root = f"{args.dir}/run"
    bare = [Bare(root, source_port, "mapped"), Bare(root, source_port, "written")]
    kov = [Kov(root, source_port, "mapped"), Kov(root, source_port, "written")]
    others = [ProxyStore(root, source_port), Aria2(root, source_port), Curl(root, source_port)]
    results = {}
    try:
        for name, window, count, path in (("4 KiB", 64, 20000 // few, "4k"), ("1 MiB", 32, 2000 // few, "1m"),
                                          ("32 MiB", 8, 64 // few, "32m"), ("2 GiB", 1, 1, "2g")):
            if wanted(name):
                extra = [Kov(root, source_port, "written", "info")] if path == "4k" else []
                # Beyond max_mmap_mb kov writes, whatever its setting.
                fleet = bare + kov if path in ("4k", "1m") else [bare[1], kov[1]]
                results[name] = interleaved(name, fleet + extra + others, repeat,
                                            lambda c, w=window, n=count, p=path: measure(c, w, n, p, sizes[p]))
        if wanted("one by one"):
            results["one by one"] = interleaved("one by one", bare + kov + others[:1], repeat,
                                                lambda c: latency(c, 2000 // few))
        if wanted("slow"):
            chosen = [bare[1], kov[1]] if args.quick else bare + kov + others[:2]
            results["1,000 slow"] = interleaved("slow", chosen, 1 if args.quick else min(3, repeat),
                                                lambda c: slow(c, 1000 // few))
        if wanted("crowd"):
            for tasks, clients in ((10, 0), (1000, 0), (4000, 0), (0, 1), (0, 900)):
                if not args.quick or tasks + clients < 100:
                    results[f"crowd {tasks} tasks, {clients} clients"] = interleaved(
                        "crowd", kov[1:], repeat, lambda c, t=tasks, n=clients: crowd(c, t, n))
        if wanted("released") and not args.quick:
            results["released"] = interleaved("released", kov, 1, released)
        if wanted("calls"):
            results["calls"] = interleaved("calls", bare + kov, 1, calls)
        if wanted("load alone"):
            c = bare[0]
            c.start()
            done = subprocess.run(pinned(CORES - 1, f"{BIN}/load", str(c.port), "64", str(20000 // few),
                                         "/ping-ping-ping-%d"), check=True, capture_output=True, text=True)
            c.stop()
            results["load alone"] = {"answers": {"orders_s": 20000 / few / float(done.stdout.split()[0])}}
    finally:
        source.terminate()
        source.wait(10)
        shutil.rmtree(args.dir, ignore_errors=True)

    if not results:
        sys.exit(f"bench: no work has a name like {args.only!r}")
    for work, table in results.items():
        print(f"\n{work}")
        for name, row in table.items():
            print(f"  {name:26s} " + "  ".join(f"{key} {value:{'.3g' if value < 100 else '.0f'}}"
                                               for key, value in row.items()))
    if args.json:
        with open(args.json, "w", encoding="ascii") as f:
            json.dump({"machine": f"{CORES} cores, Linux {platform.release()}", "dir": args.dir, "repeat": repeat,
                       "results": results}, f, indent=1)
    return 0


if __name__ == "__main__":
    sys.exit(main())
