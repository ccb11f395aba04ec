"""A fleet on one machine, for scripts/demo-fleet and scripts/fleet-test: hosts in network namespaces on one bridge,
each with agent, web server, outbox, kov-forward and kov-alive; an origin, a database and a balancer, with the shipped
configurations.

Everything runs in namespaces of its own, processes and mounts, too: what a script leaves behind ends with it.
"""

import glob
import logging
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.request
from types import MappingProxyType

import redis
import redis.cluster
import redis.sentinel

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SKIPPED = 77
UNREAD = 128 + signal.SIGPIPE
logging.getLogger("redis").setLevel(logging.CRITICAL)  # a failover is no news here
BROKEN = (redis.RedisError, redis.exceptions.RedisClusterException)
ORIGIN, DATABASE, BALANCER, PLAYER = "10.77.0.1", "10.77.0.2", "10.77.0.3", "10.77.0.4"
GROUP = "239.77.1.1:5000"
DATABASES = {"single": f"redis://{DATABASE}:6379", "sentinel": f"sentinel://{DATABASE}:26379,{DATABASE}:26380/kov",
             "cluster": f"cluster://{DATABASE}:7001,{DATABASE}:7002"}
LUA_MODULES = "".join(f"load_module /usr/lib/nginx/modules/{name}_module.so;" for name in ("ndk_http", "ngx_http_lua"))


def print_ends_of_logs(root):
    for path in sorted(glob.glob(f"{root}/**/*.log", recursive=True)):
        with open(path, encoding="utf-8", errors="replace") as log:
            lines = [line for line in log.readlines() if re.search(r"\(ERR|no beat| wait|\[error|[A-Z]\w+Error", line)]
            print(f"-- {path}\n{''.join(lines[-2:])}" if lines else "", file=sys.stderr, end="")


def enter_namespaces():
    """Starts the script again as the first process of new namespaces, and returns there: its directory, which ends with
    it. Without leave to make namespaces the script ends as skipped."""
    if inside := os.environ.get("KOV_FLEET_INSIDE"):
        return inside
    unshare = ["unshare", "--net", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]
    if os.getuid() != 0:
        unshare += ["--user", "--map-root-user"]
    if subprocess.run([*unshare, "true"], stderr=subprocess.DEVNULL, check=False).returncode:
        print("skipped: no namespaces can be made here (they need root, or unprivileged user namespaces)", flush=True)
        sys.exit(SKIPPED)
    with tempfile.TemporaryDirectory(prefix="kov-fleet.", ignore_cleanup_errors=True) as root:
        # The signals' senders mean the whole fleet: the first process of a namespace is deaf to most of them.
        for signo in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(signo, lambda signo, _: (proc.kill(), sys.exit(128 + signo)))
        again = [*unshare, sys.executable, *sys.argv]
        with subprocess.Popen(again, env={**os.environ, "KOV_FLEET_INSIDE": root}) as proc:
            status = proc.wait()
        if status not in (0, UNREAD):
            print_ends_of_logs(root)
    sys.exit(status if status >= 0 else 128 - status)


def run_script(main):
    """A script's main function, to its end, its user's or its reader's: connections have errors of their own."""
    try:
        main()
    except BrokenPipeError:
        os._exit(UNREAD)  # nothing is flushed
    except KeyboardInterrupt:
        os._exit(128 + signal.SIGINT)


def wait_for(condition, what, seconds=10.0):
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            raise SystemExit(f"waited {seconds} s for {what}")
        time.sleep(0.02)


def ip(*words):
    subprocess.run(["ip", *words], check=True)


def program(name):
    build = os.environ.get("KOV_BIN", f"{TOP}/build/release/bin")
    return f"{build}/{name}"


def shipped(name, here):
    """The text of a shipped configuration, with what is different here."""
    with open(f"{TOP}/packaging/{name}", encoding="ascii") as f:
        text = f.read()
    for theirs, ours in here.items():
        assert theirs in text, theirs
        text = text.replace(theirs, ours)
    return text


class Part:
    """A process of the fleet in the namespace of inside, or in the bridge's own."""

    def __init__(self, fleet, name, command, inside=None, ready=None):
        self.name = name
        self.log = f"{fleet.root}/{name}.log"
        self.command = (["nsenter", "-t", str(inside), "-n"] if inside else []) + [str(word) for word in command]
        self.ready = ready
        self.proc = None
        self.start()

    def start(self):
        with open(self.log, "ab") as log:
            self.proc = subprocess.Popen(self.command, stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        if self.ready:
            wait_for(lambda: self.ready() or not self.alive(), self.name)
        if not self.alive():
            with open(self.log, encoding="utf-8", errors="replace") as log:
                raise SystemExit(f"{self.name} has ended: {log.read()[-2000:]}")

    def kill(self, signo=signal.SIGKILL):
        self.proc.send_signal(signo)
        self.proc.wait()

    def alive(self):
        return self.proc.poll() is None


class Host:
    """One host of the fleet. Its agent fetches into data; weight is its share of the players."""

    def __init__(self, fleet, n, weight=100, disk_kib=None):
        self.fleet = fleet
        self.n = n
        self.name = f"host{n}"
        self.address = f"10.77.1.{n}"
        self.prefix = f"http://{self.address}:8081"
        self.root = f"{fleet.root}/{self.name}"
        self.data = f"{self.root}/data"
        self.weight = weight
        os.makedirs(self.data)
        os.makedirs(f"{self.root}/sha1")
        if disk_kib:
            subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={disk_kib}k", "none", self.data], check=True)
        self.space = subprocess.Popen(["unshare", "--net", "sleep", "infinity"])
        self.enter = ["nsenter", "-t", str(self.space.pid), "-n"]
        mine = os.readlink("/proc/self/ns/net")
        wait_for(lambda: os.readlink(f"/proc/{self.space.pid}/ns/net") != mine, "a namespace")
        ip("link", "add", f"port{n}", "type", "veth", "peer", "name", "eth0", "netns", str(self.space.pid))
        ip("link", "set", f"port{n}", "master", "fleet", "up")
        script = f"ip addr add {self.address}/16 dev eth0; ip link set eth0 up; ip link set lo up; " \
                 "ip route add 224.0.0.0/4 dev eth0"
        self.run("sh", "-ec", script)
        self.parts = []
        self.start()

    def run(self, *command, check=True):
        return subprocess.run([*self.enter, *command], check=check, capture_output=True, text=True)

    def redis(self, *words):
        """What the outbox answers."""
        return self.run("redis-cli", "-p", "6378", *words, check=False).stdout.strip()

    def part(self, name, command, ready=None):
        part = Part(self.fleet, f"{self.name}-{name}", command, self.space.pid, ready)
        self.parts.append(part)
        return part

    def start(self):
        self.outbox = self.part("outbox", ["redis-server", f"{TOP}/packaging/outbox/redis.conf", "--dir", self.root],
                                lambda: self.redis("ping") == "PONG")
        self.run(f"{TOP}/packaging/redis/load-scripts", "-p", "6378", f"{TOP}/packaging/outbox", f"{self.root}/sha1")
        self.forward = self.part("forward", [f"{TOP}/tools/fleet/kov-forward", "--fleet", self.fleet.url,
                                             "--script", f"{TOP}/packaging/redis/add_url.lua"])
        self.files = self.fleet.nginx(f"{self.name}-files", self.files_conf(), self)
        with open(f"{self.root}/kov.conf", "w", encoding="ascii") as f:
            f.write(f"""kova = {{
    log = {{ file = "{self.root}/kov.log"; level = "norm"; }};
    runtime = {{ pidfile = "{self.root}/pid"; }};
    web_input = {{ web = {{ ifc = "lo"; default_af = "inet4"; port = 8020; }}; }};
    udp_input = {{ url = "udp://{GROUP}"; mcast_ifc = "eth0"; lock_dir = "{self.fleet.locks}"; }};
    lbdb = {{ host = "127.0.0.1"; port = 6378; sha1_dir = "{self.root}/sha1"; }};
    data_dir = "{self.data}";
    local_url_prefix = "{self.prefix}";
    max_mmap_mb = 0;
}};
""")
        self.start_agent()
        self.alive = self.part("alive", [f"{TOP}/tools/fleet/kov-alive", "--fleet", self.fleet.url,
                                         "--prefix", self.prefix, "--weight", self.weight, "--data", self.data,
                                         "--agent", "http://127.0.0.1:8020/"])

    def start_agent(self):
        ping = [program("kovctl"), "-C", f"{self.root}/kov.conf", "ping"]
        self.agent = self.part("agent", [program("kov"), "-C", f"{self.root}/kov.conf", "-T", "-q"],
                               lambda: self.run(*ping, check=False).returncode == 0)

    def files_conf(self):
        return shipped("balancer/files.conf", {"/srv/kov": self.data, "http://127.0.0.1:80": self.fleet.origin_url})

    def stored(self):
        """Complete files, by their ids."""
        found = (os.path.relpath(os.path.join(place, name), self.data) for place, _, names in os.walk(self.data)
                 for name in names)
        return {name for name in found if not name.endswith("-Kova")}

    def die(self):
        """As when its power is cut: nothing says goodbye."""
        for part in self.parts:
            if part.alive():
                part.kill()
        ip("link", "set", f"port{self.n}", "down")


class Fleet:
    """Origin, database, balancer and hosts, from the start; of_host has a host's own arguments by its number."""

    def __init__(self, root, hosts=3, of_host=MappingProxyType({}), database="single"):
        self.root = root
        self.www = f"{root}/www"
        self.locks = f"{root}/locks"
        self.url = DATABASES[database]
        self.origin_url = f"http://{ORIGIN}:80"
        os.makedirs(self.www)
        os.makedirs(self.locks)
        os.chmod(root, 0o755)
        ip("link", "set", "lo", "up")
        # An address of its own: else it changes with each port, and hosts go on with the one that they have learned.
        ip("link", "add", "name", "fleet", "address", "02:00:00:00:00:01", "type", "bridge", "mcast_snooping", "0")
        for address in (ORIGIN, DATABASE, BALANCER, PLAYER):
            ip("addr", "add", f"{address}/16", "dev", "fleet")
        ip("link", "set", "fleet", "up")
        ip("route", "add", "224.0.0.0/4", "dev", "fleet")
        self.sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        body = f"listen {ORIGIN}:80 backlog=1024; root {self.www}; access_log {root}/origin-access.log combined;"
        self.parts = {"origin": self.nginx("origin", f"server {{ {body} }}")}
        self.start_database(database)
        self.parts["balancer"] = self.nginx("balancer", self.balancer_conf())
        self.hosts = [Host(self, n + 1, **of_host.get(n + 1, {})) for n in range(hosts)]

    def server(self, port, *options):
        """A Redis of the fleet's database; port's first one is the one that dies."""
        place = f"{self.root}/redis-{port}"
        os.makedirs(place)
        with open(f"{place}/conf", "w", encoding="ascii") as f:
            f.write(f"bind {DATABASE}\nbind-source-addr {DATABASE}\nport {port}\ndir {place}\nprotected-mode no\n")
            f.write("\n".join(options))
        role = ["--sentinel"] if "sentinel" in " ".join(options) else []
        self.parts.setdefault("database", part := Part(self, f"redis-{port}", ["redis-server", f"{place}/conf", *role],
                                                       ready=lambda: self.redis("-p", port, "ping") == "PONG"))
        return part

    def start_database(self, kind):
        data = ["appendonly yes", 'save ""']
        if kind == "single":
            self.server(6379, *data)
        elif kind == "sentinel":
            self.server(6379, *data)
            self.server(6380, *data, f"replicaof {DATABASE} 6379")
            for port in (26379, 26380, 26381):
                self.server(port, f"sentinel monitor kov {DATABASE} 6379 2", "sentinel failover-timeout kov 5000",
                            "sentinel down-after-milliseconds kov 1000")
        else:
            for port in range(7001, 7007):
                self.server(port, *data, "cluster-enabled yes", "cluster-node-timeout 2000")
            nodes = [f"{DATABASE}:{port}" for port in range(7001, 7007)]
            subprocess.run(["redis-cli", "--cluster", "create", *nodes, "--cluster-replicas", "1", "--cluster-yes"],
                           check=True, stdout=subprocess.DEVNULL)
            wait_for(lambda: "cluster_state:ok" in self.redis("-p", 7006, "cluster", "info"), "the cluster", 20)

    def balancer_conf(self):
        return shipped("balancer/balancer.conf", {
            "/usr/share/kov/balancer": f"{TOP}/packaging/balancer", "redis://127.0.0.1:6379": self.url,
            "http://127.0.0.1:80": self.origin_url, "232.1.1.1:5000": GROUP,
            "listen 8080": f"listen {BALANCER}:80 backlog=1024", "allow 127.0.0.1": "allow all"})

    def nginx(self, name, servers, host=None):
        place = f"{self.root}/nginx-{name}"
        os.makedirs(place)
        temp = "".join(f"{kind}_temp_path {place};" for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        modules = LUA_MODULES if "lua" in servers else ""
        with open(f"{place}/nginx.conf", "w", encoding="ascii") as f:
            f.write(f"{modules} user root; daemon off; pid {place}/pid; error_log {place}/error.log notice;"
                    f"worker_processes 1; events {{ worker_connections 4096; }}\n"
                    f"http {{ access_log off; sendfile on; {temp}\n{servers}\n}}\n")
        nginx = shutil.which("nginx", path=os.environ["PATH"] + ":/usr/sbin")
        command = [nginx, "-c", f"{place}/nginx.conf", "-e", f"{place}/error.log"]

        def ready():
            return os.path.exists(f"{place}/pid") and os.path.getsize(f"{place}/pid") > 0
        return host.part("files", command, ready) if host else Part(self, name, command, ready=ready)

    @staticmethod
    def redis(*words):
        command = ["redis-cli", "-h", DATABASE, *map(str, words)]
        return subprocess.run(command, capture_output=True, text=True, check=False).stdout.strip()

    def client(self):
        """A reader of the fleet's database."""
        options = {"decode_responses": True, "socket_timeout": 1.0, "socket_connect_timeout": 1.0}
        if self.url.startswith("sentinel"):
            return redis.sentinel.Sentinel([(DATABASE, 26379)], socket_timeout=1.0).master_for("kov", **options)
        if self.url.startswith("cluster"):
            nodes = [redis.cluster.ClusterNode(DATABASE, port) for port in (7002, 7003)]
            return redis.cluster.RedisCluster(startup_nodes=nodes, require_full_coverage=False, **options)
        return redis.Redis(DATABASE, **options)

    def living(self):
        """Prefixes of the hosts that count as living. One machine has one clock."""
        oldest = time.time() * 1000 - 3000
        said = self.client().hgetall("kov:alive").items()
        return {prefix for prefix, value in said if int(value.split()[0]) >= oldest}

    def wait_living(self, hosts=None):
        hosts = hosts or self.hosts
        wait_for(lambda: self.living() == {host.prefix for host in hosts}, "every host's beat")
        wait_for(lambda: (seen := self.metrics())["living_hosts"] == len(hosts) and seen["database_up"],
                 "the balancer's look at the beats")

    @staticmethod
    def metrics():
        """What the balancer has counted, by the ends of the names."""
        with urllib.request.urlopen(f"http://{BALANCER}/kov:metrics", timeout=2) as answer:
            words = (line.split() for line in answer.read().decode().splitlines())
            return {name.removeprefix("kov_balancer_").removesuffix("_total"): int(value) for name, value in words}

    def registered(self, name):
        """Where a reader finds an id: its unexpired copies."""
        return self.client().zrangebyscore(name, f"({time.time():.0f}", "+inf")

    def send(self, name, lock, seconds=3600):
        """Orders a file of the origin by datagram."""
        place, port = GROUP.split(":")
        order = f"#!{lock} http://k/src/{self.origin_url}/{name}/dst/ {seconds}"
        self.sender.sendto(order.encode(), (place, int(port)))


class NoRedirect(urllib.request.HTTPRedirectHandler):
    def redirect_request(self, *_):
        return None


class Player:
    """Asks the balancer for files, follows it, and asks again where nobody is. What it meets is counted."""

    def __init__(self, fleet):
        self.fleet = fleet
        self.opener = urllib.request.build_opener(urllib.request.ProxyHandler({}), NoRedirect)
        self.asked_again = 0
        self.errors = []
        self.slowest_ms = 0.0

    def get(self, url, seconds):
        """(status, Location, body)"""
        try:
            with self.opener.open(url, timeout=seconds) as answer:
                return answer.status, None, answer.read()
        except urllib.error.HTTPError as answer:
            return answer.code, answer.headers["Location"], b""

    def play(self, name):
        """The address that a file was got from, or None: then errors has grown."""
        with open(f"{self.fleet.www}/{name}", "rb") as f:
            right = f.read()
        url = f"http://{BALANCER}/{name}"
        for _ in range(20):
            try:
                started = time.monotonic()
                status, place, body = self.get(url, 2.0)
                if url.startswith(f"http://{BALANCER}/"):
                    self.slowest_ms = max(self.slowest_ms, (time.monotonic() - started) * 1000)
                if status == 307:
                    url = place
                    continue
                if status == 200 and body == right:
                    return url.split("/")[2].split(":")[0]
                self.errors.append(f"{url}: {status}, {len(body)} of {len(right)} bytes")
                return None
            except OSError as error:  # the host that the balancer named is not there
                if url.startswith(f"http://{BALANCER}/"):
                    self.errors.append(f"{url}: {error}")
                    return None
                self.asked_again += 1
                url = f"http://{BALANCER}/{name}"
                time.sleep(0.2)
        self.errors.append(f"{url}: given up")
        return None
