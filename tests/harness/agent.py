"""The real program with a directory, ports and a configuration of its own, the verbs by which it is driven, and the
commands that can stand in front of it."""

import atexit
import contextlib
import ctypes
import os
import pathlib
import random
import re
import resource
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import unittest

import kov_client
import psutil


def within_reach(program):
    """A program that any user can start: a copy, where the tree lies below root's home."""
    if all(folder.stat().st_mode & 1 for folder in pathlib.Path(program).absolute().parents):
        return program
    place = tempfile.mkdtemp()
    atexit.register(shutil.rmtree, place)
    os.chmod(place, 0o755)
    return shutil.copy(program, place)


BIN = os.path.dirname(os.environ["KOV"])
KOV = within_reach(os.environ["KOV"])
ASAN = "asan" in BIN
QUICK = os.environ.get("KOV_QUICK") == "1"
SLOW = 5 if ASAN else 1            # seconds in which an end comes
MODES = ("", "max_mmap_mb = 0;")   # bodies are mapped, or written
OK = b"HTTP/1.1 200 OK\r\n"
SERVER = b"Server: kov/0.2-0.7 (marlinet)\r\n"
EMPTY = b"Content-Length: 0\r\nConnection: close\r\n\r\n"
ANSWERS = {
    200: OK + SERVER + b"\r\n",
    204: b"HTTP/1.1 204 No Content\r\n" + SERVER + b"\r\n",
    400: b"HTTP/1.1 400 Bad request\r\n" + SERVER + b"Content-Length: 0\r\n\r\n",
    403: b"HTTP/1.1 403 Forbidden\r\n" + SERVER + EMPTY,
    404: b"HTTP/1.1 404 Not Found\r\n" + SERVER + EMPTY,
    500: b"HTTP/1.1 500 Service error\r\n" + SERVER + EMPTY,
    0: b"",                        # no answer
}
SOFT_FILES = 1024                  # each agent starts with it and raises it; this process opens more
HARD_FILES = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
resource.setrlimit(resource.RLIMIT_NOFILE, (min(HARD_FILES, 8192), HARD_FILES))


def wait_for(condition, what, seconds=10.0):
    deadline = time.monotonic() + seconds
    while not (result := condition()):
        if time.monotonic() > deadline:
            raise AssertionError(f"waited {seconds} s for {what}")
        time.sleep(0.01)
    return result


def run(*command, status=0, says="", **kwargs):
    """Runs a program to its end; checks its status and that it says what matches a pattern; returns what it prints."""
    done = subprocess.run(command, capture_output=True, text=True, timeout=60, check=False, **kwargs)
    said = done.stdout + done.stderr
    found = f"{command}: {done.returncode}, {said}"
    assert done.returncode == status and re.search(says, said), f"{found}, not {status}, {says}"
    return done.stdout


def free_port():
    """Below those that the kernel hands out: the program would share one that another test's agent was just given."""
    while True:
        with socket.socket() as s:
            try:
                s.bind(("127.0.0.1", random.randrange(10000, 32000)))
                return s.getsockname()[1]
            except OSError:
                continue


def read(path, missing=None):
    try:
        with open(path, encoding="utf-8", errors="replace", newline="") as f:
            return f.read()
    except FileNotFoundError:
        if missing is None:
            raise
        return missing


def write(path, text="", seconds_old=0):
    with open(path, "w", encoding="utf-8") as f:
        f.write(text)
    age(path, seconds_old)


def age(path, seconds):
    os.utime(path, (time.time() - seconds,) * 2)


def read_all(sock):
    """Everything up to the end of the stream; a reset counts as the end."""
    data = b""
    try:
        while chunk := sock.recv(65536):
            data += chunk
    except ConnectionResetError:
        pass
    return data


def reset(conn):
    """What closes it from now on resets it."""
    conn.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")


def request(target, method="GET", host="agent.example.net"):
    return f"{method} {target} HTTP/1.1\r\nHost: {host}\r\n\r\n".encode("latin-1")


def sized(length):
    """The head of a source's answer with a body of this length."""
    return OK + b"Content-Length: %d\r\n\r\n" % length


def strace(out, calls, *injections):
    return ["strace", "-D", "-qq", "-o", out, "-e", f"trace={calls}",
            *(word for injection in injections for word in ("-e", f"inject={injection}"))]


def unshare(what, preparation):
    """Runs the agent in a namespace of its own, after the preparation in it."""
    return ["unshare", what, "sh", "-c", f'{preparation} && exec "$0" "$@"']


class Daemon(psutil.Process):
    """A process that has left its starter and was adopted by this one, with the part of Popen that the tests use."""

    def poll(self):
        with contextlib.suppress(psutil.TimeoutExpired):
            return self.wait(0)


def adopt_orphans():
    """Makes this process the parent of what its children leave behind, so that a daemon's status can be read."""
    pr_set_child_subreaper = 36
    ctypes.CDLL(None).prctl(pr_set_child_subreaper, 1, 0, 0, 0)


class Agent:
    """The program, in a terminal run unless daemon is set. settings are lines of the kova group, log, web, runtime and
    udp of the groups of these names. more_listeners goes on in the list of them; channel is the URL of the UDP channel,
    {} its port; options are more arguments, wrapper is a command in front, trace and inject make it strace."""

    def __init__(self, root, settings="", *, log="", level="info", web="", runtime="", channel="", udp="", locks="",
                 options=(), env=None, preexec=None, tmpfs_kib=None, daemon=False, wrapper=(), trace="", inject=(),
                 more_listeners="", arguments=("-T", "-q")):
        self.root = root
        self.data = f"{root}/d"
        self.log_path = f"{root}/log"
        self.port = free_port()
        self.udp_port = free_port()
        self.locks = locks or f"{root}/locks"
        os.makedirs(self.data, exist_ok=True)
        os.makedirs(self.locks, exist_ok=True)
        self.mounted = bool(tmpfs_kib)
        if tmpfs_kib and subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={tmpfs_kib}k", "none", self.data],
                                        stderr=subprocess.DEVNULL, check=False).returncode != 0:
            raise unittest.SkipTest("a small file system of its own cannot be mounted here")
        if channel:
            settings += f'udp_input = {{ url = "{channel.format(self.udp_port)}"; lock_dir = "{self.locks}"; {udp} }};'
        self.config = f"""kova = {{
    log = {{ file = "{self.log_path}"; level = "{level}"; {log} }};
    runtime = {{ {runtime if "core" in runtime else "enforce_core_dumps = false; " + runtime} }};
    web_input = {{ web = ( {{ ifc = "lo"; default_af = "inet4"; port = {self.port}; }}{more_listeners} ); {web} }};
    data_dir = "{self.data}"; task_tmout_ms = 100;
    {settings}
}};
"""
        write(f"{root}/kov.conf", self.config)
        self.errors = open(f"{root}/stderr", "wb")
        self.is_daemon = daemon
        self.pidfile = "".join(re.findall(r'pidfile = "([^"]*)"', runtime))
        if trace:  # leaks cannot be looked for under a tracer
            wrapper, env = strace(f"{root}/trace", trace, *inject), {"ASAN_OPTIONS": "detect_leaks=0"}

        def prepare():
            resource.setrlimit(resource.RLIMIT_NOFILE, (SOFT_FILES, HARD_FILES))
            if preexec:
                preexec()
        self.launch = {"args": [*wrapper, KOV, "-C", f"{root}/kov.conf", *([] if daemon else arguments), *options],
                       "stderr": self.errors, "env": {**os.environ, **(env or {})}, "preexec_fn": prepare}
        self.run()

    def run(self):
        """Starts it, or starts it again."""
        if self.is_daemon:
            before = read(self.pidfile, "")
            adopt_orphans()
        self.proc = subprocess.Popen(**self.launch)
        if self.is_daemon:
            self.starter_status = self.proc.wait(10)
            self.leader_status = os.waitstatus_to_exitcode(os.wait()[1])  # of the process between starter and daemon
            wait_for(lambda: read(self.pidfile, "") not in ("", before), "the pid file")
            self.proc = Daemon(int(read(self.pidfile, "")))
        self.pid = self.proc.pid

    def wait_ready(self):
        wait_for(lambda: self.is_listening() or self.proc.poll() is not None, "the listener", 60)
        self.base_fds = self.fds()
        return self

    def is_listening(self):
        return f":{self.port:04X} 00000000:0000 0A" in read("/proc/net/tcp")

    # What it says and holds.

    def log(self):
        return read(self.log_path, "")

    def stderr(self):
        return read(f"{self.root}/stderr")

    def trace(self):
        return read(f"{self.root}/trace")

    def proc_file(self, name):
        return read(f"/proc/{self.pid}/{name}")

    def logged(self, *texts, count=1, seconds=10.0):
        """Waits for each of them."""
        for text in texts:
            wait_for(lambda t=text: self.log().count(t) >= count, f"[{text}] in the log", seconds)

    def not_logged(self, *texts):
        for text in texts:
            assert text not in self.log(), f"[{text}] in the log"

    def ended(self, count=1, seconds=20.0):
        """Waits for the ends of so many downloads since the start."""
        self.logged("TASK-END", count=count, seconds=seconds)

    def fds(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def at_base_line(self, seconds=10.0):
        wait_for(lambda: self.fds() <= self.base_fds, "descriptors at base line", seconds)
        wait_for(lambda: f" {self.data}/" not in self.proc_file("maps"), "mappings given back")

    def cpu_seconds(self):
        fields = self.proc_file("stat").rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def idles(self, seconds=1.0, limit=0.05):
        """Whether it does nothing for so long: at most limit seconds of CPU."""
        before = self.cpu_seconds()
        time.sleep(seconds)
        used = self.cpu_seconds() - before
        assert used < limit, f"{used} s of CPU in {seconds} idle seconds"

    def rss_kib(self):
        return int(re.search(r"VmRSS:\s+(\d+)", self.proc_file("status")).group(1))

    # Orders.

    def connect(self, data=b""):
        s = socket.create_connection(("127.0.0.1", self.port), timeout=20)
        s.sendall(data)
        return s

    def send(self, head, expect=None):
        """Sends a request head; compares the whole answer with that of the status expected, if any, and returns it."""
        with self.connect(head) as s:
            answer = read_all(s)
        assert expect is None or answer == ANSWERS[expect], f"{head[:200]}: {answer}, not {expect}"
        return answer

    def get(self, target, expect=None):
        return self.send(request(target), expect)

    def order(self, src, dst="", expect=200, query=""):
        return self.get(f"/src/{src}/dst/{dst}{query}", expect)

    def ask(self, src, dst):
        """Places an order whose answer is read from the socket that is returned."""
        return self.connect(request(f"/src/{src}/dst/{dst}"))

    def fetch(self, src, dst, body):
        """An ordinary order, placed by the senders' module, to its stored file."""
        kov_client.order(("127.0.0.1", self.port), src, dst, expiry=kov_client.FOREVER)
        self.stored(dst, body)

    def datagram(self, text, host="127.0.0.1", sender="127.0.0.1"):
        with socket.socket(socket.AF_INET6 if ":" in host else socket.AF_INET, socket.SOCK_DGRAM) as s:
            if host.startswith("239."):
                s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton("127.0.0.1"))
                s.bind((sender, 0))
            s.sendto(text.encode(), (host, self.udp_port))

    # Files.

    def path(self, dst):
        return f"{self.data}/{dst}"

    def stored(self, dst, body=None, seconds=20.0):
        """Waits for a stored file, and compares it."""
        wait_for(lambda: os.path.exists(self.path(dst)), f"file {dst}", seconds)
        if body is not None:
            data = self.body(dst)
            assert data == body, f"{dst}: {len(data)} bytes that are not the source's {len(body)}"

    def body(self, name):
        with open(self.path(name), "rb") as f:
            return f.read()

    def completes(self, gate, dst, body):
        """Opens the gate at which the source of a download waits, and waits for its stored file."""
        gate.set()
        self.stored(dst, body)

    def files(self):
        return sorted(os.path.relpath(os.path.join(d, f), self.data)
                      for d, _, names in os.walk(self.data) for f in names)

    def unfinished(self):
        return [name for name in self.files() if name.endswith("-Kova")]

    def holds(self, *names):
        """Waits until these are its files, stored or not."""
        wait_for(lambda: self.files() == sorted(names), f"just the files {names}")

    def held(self):
        return sorted(os.listdir(self.locks))

    # The end.

    def kill(self):
        if self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()
        self.errors.close()

    def stop(self, signo=signal.SIGTERM):
        """Ends the agent; returns its status and how long that took."""
        start = time.monotonic()
        if self.proc.poll() is None:
            self.proc.send_signal(signo)
        status = self.proc.wait(10)
        return status, time.monotonic() - start

    @contextlib.contextmanager
    def frozen(self):
        """What is sent to it meanwhile comes to it at once."""
        self.proc.send_signal(signal.SIGSTOP)
        yield
        self.proc.send_signal(signal.SIGCONT)

    def restart(self, signo=signal.SIGTERM):
        self.stop(signo)
        self.run()
        return self.wait_ready()
