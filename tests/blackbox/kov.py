"""Harness: the real program against scripted sources. Each test has its own directory, ports and configuration, and each
test ends with the same questions: did the agent live, does it quit within a second with status 0, is no unfinished file, no
descriptor and no bad word left behind?"""

import ctypes
import hashlib
import os
import random
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest

KOV = os.environ["KOV"]
QUICK = os.environ.get("KOV_QUICK") == "1"
HEAD = None
SERVER = b"Server: kov/0.2-0.7 (marlinet)\r\n"
BAD_WORDS = re.compile(r"\(PNC\)|ASSERT|AddressSanitizer|LeakSanitizer|runtime error")

ANSWERS = {
    200: b"HTTP/1.1 200 OK\r\n" + SERVER + b"\r\n",
    204: b"HTTP/1.1 204 No Content\r\n" + SERVER + b"\r\n",
    400: b"HTTP/1.1 400 Bad request\r\n" + SERVER + b"Content-Length: 0\r\n\r\n",
    403: b"HTTP/1.1 403 Forbidden\r\n" + SERVER + b"Content-Length: 0\r\nConnection: close\r\n\r\n",
    404: b"HTTP/1.1 404 Not Found\r\n" + SERVER + b"Content-Length: 0\r\nConnection: close\r\n\r\n",
    500: b"HTTP/1.1 500 Service error\r\n" + SERVER + b"Content-Length: 0\r\nConnection: close\r\n\r\n",
}


def needs_namespaces(test):
    """For tests that change the network or the mounts for their agent alone, or destroy a socket."""
    can = subprocess.run(["unshare", "-n", "-m", "true"], stderr=subprocess.DEVNULL, check=False).returncode == 0
    return unittest.skipUnless(can, "no namespaces can be made here")(test)


def wait_for(condition, what, seconds=10.0):
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError(f"waited {seconds} s for {what}")
        time.sleep(0.01)


def free_port():
    """Below the ports that the kernel hands out: the program shares a port that another test's agent has just been given."""
    while True:
        with socket.socket() as s:
            try:
                s.bind(("127.0.0.1", random.randrange(10000, 32000)))
                return s.getsockname()[1]
            except OSError:
                continue


def read_all(sock):
    """Everything up to the end of the stream; a reset counts as the end."""
    data = b""
    try:
        while chunk := sock.recv(65536):
            data += chunk
    except ConnectionResetError:
        pass
    return data


class Origin:
    """A source of scripted answers: path -> function(socket, path), which may cut, stall, lie or reset."""

    def __init__(self):
        self.paths = {}
        self.requests = []
        self.released = threading.Event()  # handlers that stall wait for it
        self.sock = socket.create_server(("127.0.0.1", 0), backlog=256)
        self.port = self.sock.getsockname()[1]
        self.server = threading.Thread(target=self._serve, daemon=True)
        self.server.start()

    def url(self, path):
        return f"http://127.0.0.1:{self.port}{path}"

    def body(self, path, data, head=b"", pieces=None, pause=0.0):
        """Serves data under path; pieces: the sizes in which head and body are sent (HEAD: the whole head)."""
        def handler(conn, _):
            text = b"HTTP/1.1 200 OK\r\n" + head + b"Content-Length: %d\r\n\r\n" % len(data) + data
            for size in pieces or [len(text)]:
                size = text.index(b"\r\n\r\n") + 4 if size is HEAD else size
                conn.sendall(text[:size])
                text = text[size:]
                time.sleep(pause)
            conn.sendall(text)
        self.paths[path] = handler
        return self.url(path)

    def raw(self, path, data, then=None):
        """Sends just these bytes, then calls then(conn)."""
        def handler(conn, _):
            conn.sendall(data)
            if then:
                then(conn)
        self.paths[path] = handler
        return self.url(path)

    def stall(self, _conn=None):
        self.released.wait(30)

    @staticmethod
    def reset(conn):
        conn.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")

    def _serve(self):
        while True:
            try:
                conn, _ = self.sock.accept()
            except OSError:
                return
            threading.Thread(target=self._one, args=(conn,), daemon=True).start()

    def _one(self, conn):
        try:
            head = b""
            while b"\r\n\r\n" not in head:
                chunk = conn.recv(4096)
                if not chunk:
                    return
                head += chunk
            self.requests.append(head)
            path = head.split()[1].decode()
            self.paths[path](conn, path)
        except OSError:
            pass
        finally:
            conn.close()

    def close(self):
        self.released.set()
        self.sock.shutdown(socket.SHUT_RDWR)  # wakes the accept; a closed number could be the next test's socket
        self.server.join()
        self.sock.close()


class Daemon:
    """A process that has left its starter and was adopted by this one: the part of Popen that the tests use."""

    def __init__(self, pid):
        self.pid = pid
        self.returncode = None

    def poll(self):
        if self.returncode is None:
            pid, status = os.waitpid(self.pid, os.WNOHANG)
            if pid:
                self.returncode = os.waitstatus_to_exitcode(status)
        return self.returncode

    def wait(self, seconds=10):
        wait_for(lambda: self.poll() is not None, "the daemon's end", seconds)
        return self.returncode

    def send_signal(self, signo):
        os.kill(self.pid, signo)

    def kill(self):
        self.send_signal(signal.SIGKILL)


def adopt_orphans():
    """Makes this process the parent of what its children leave behind, so that a daemon's status can be read."""
    pr_set_child_subreaper = 36
    ctypes.CDLL(None).prctl(pr_set_child_subreaper, 1, 0, 0, 0)


def reap_all():
    """Waits for every child; the statuses in the order of their ends."""
    statuses = []
    while True:
        try:
            statuses.append(os.waitstatus_to_exitcode(os.wait()[1]))
        except ChildProcessError:
            return statuses


class Agent:
    """The program, in a terminal run unless daemon is set. settings are lines of the kova group, log, web and runtime of
    the groups of these names, more_listeners goes on in the list of them, options are more arguments, wrapper is a command in
    front."""

    def __init__(self, root, settings="", log="", web="", runtime="", options=(), env=None, preexec=None, tmpfs_kib=None,
                 daemon=False, wrapper=(), more_listeners="", arguments=("-T", "-q")):
        self.root = root
        self.data = f"{root}/d"
        self.log_path = f"{root}/log"
        self.port = free_port()
        os.makedirs(self.data, exist_ok=True)
        self.mounted = bool(tmpfs_kib)
        if tmpfs_kib and subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={tmpfs_kib}k", "none", self.data],
                                        stderr=subprocess.DEVNULL, check=False).returncode != 0:
            raise unittest.SkipTest("a small file system of its own cannot be mounted here")
        self.config = f"""kova = {{
    log = {{ file = "{self.log_path}"; level = "info"; {log} }};
    runtime = {{ {runtime if "core" in runtime else "enforce_core_dumps = false; " + runtime} }};
    web_input = {{ web = ( {{ ifc = "lo"; default_af = "inet4"; port = {self.port}; }}{more_listeners} ); {web} }};
    data_dir = "{self.data}"; task_tmout_ms = 100;
    {settings}
}};
"""
        with open(f"{root}/kov.conf", "w", encoding="utf-8") as f:
            f.write(self.config)
        self.errors = open(f"{root}/stderr", "wb")
        self.is_daemon = daemon
        self.pidfile = "".join(re.findall(r'pidfile = "([^"]*)"', runtime))
        self.launch = {"args": [*wrapper, KOV, "-C", f"{root}/kov.conf", *([] if daemon else arguments), *options],
                       "stderr": self.errors, "env": {**os.environ, **(env or {})}, "preexec_fn": preexec}
        self.run()

    def run(self):
        """Starts it, or starts it again."""
        before = self.read_pidfile()
        if self.is_daemon:
            adopt_orphans()
        self.proc = subprocess.Popen(**self.launch)
        if self.is_daemon:
            self.starter_status = self.proc.wait(10)
            self.leader_status = os.waitstatus_to_exitcode(os.wait()[1])  # of the process between starter and daemon
            wait_for(lambda: self.read_pidfile() not in ("", before), "the pid file")
            self.proc = Daemon(int(self.read_pidfile()))
        self.pid = self.proc.pid

    def read_pidfile(self):
        try:
            with open(self.pidfile, encoding="ascii") as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def wait_ready(self):
        wait_for(lambda: self.is_listening() or self.proc.poll() is not None, "the listener")
        self.base_fds = self.fds()
        return self

    def is_listening(self):
        with open("/proc/net/tcp", encoding="ascii") as f:
            return f":{self.port:04X} 00000000:0000 0A" in f.read()

    def log(self):
        try:
            with open(self.log_path, encoding="utf-8", errors="replace") as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def stderr(self):
        with open(f"{self.root}/stderr", encoding="utf-8", errors="replace") as f:
            return f.read()

    def wait_log(self, text, count=1, seconds=10.0):
        wait_for(lambda: self.log().count(text) >= count, f"[{text}] in the log", seconds)

    def fds(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def cpu_seconds(self):
        with open(f"/proc/{self.pid}/stat", encoding="ascii") as f:
            fields = f.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def rss_kib(self):
        with open(f"/proc/{self.pid}/status", encoding="ascii") as f:
            return int(re.search(r"VmRSS:\s+(\d+)", f.read()).group(1))

    def connect(self):
        return socket.create_connection(("127.0.0.1", self.port), timeout=20)

    def send(self, head):
        """Sends a request head and returns the exact answer."""
        with self.connect() as s:
            s.sendall(head)
            return read_all(s)

    def get(self, target):
        return self.send(f"GET {target} HTTP/1.1\r\nHost: agent.example.net\r\n\r\n".encode("latin-1"))

    def order(self, src, dst="", query=""):
        return self.get(f"/src/{src}/dst/{dst}{query}")

    def path(self, dst):
        return f"{self.data}/{dst}"

    def wait_file(self, dst, seconds=20.0):
        wait_for(lambda: os.path.exists(self.path(dst)), f"file {dst}", seconds)

    def stored(self, dst):
        self.wait_file(dst)
        with open(self.path(dst), "rb") as f:
            return f.read()

    def files(self):
        return sorted(os.path.relpath(os.path.join(d, f), self.data)
                      for d, _, names in os.walk(self.data) for f in names)

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


class KovTest(unittest.TestCase):
    longMessage = True

    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="k", dir="/tmp")
        os.chmod(self.root, 0o755)  # the workers of a source have another user
        self.agents = []
        self.roots = 0
        self.origin = Origin()
        self.idle_check = True  # a test that ends with work in flight clears it

    def start(self, *args, must_run=True, **kwargs):
        agent = Agent(self.new_root(), *args, **kwargs)
        if must_run:
            agent.wait_ready()
            self.agents.append(agent)
        else:  # the test asks for the status itself
            self.addCleanup(agent.kill)
        return agent

    def forget(self, agent):
        """For an agent that the test has ended, or that has ended by itself as it should."""
        agent.kill()
        self.agents.remove(agent)

    def new_root(self):
        root = self.next_root()
        os.makedirs(root)
        self.roots += 1
        return root

    def next_root(self):
        return f"{self.root}/{self.roots}"

    def check_agent(self, agent):
        if agent.proc.poll() is None and self.idle_check:
            wait_for(lambda: agent.fds() <= agent.base_fds, "descriptors at base line")
        was_alive = agent.proc.poll() is None
        status, seconds = agent.stop()
        self.assertTrue(was_alive, "the agent ended by itself")
        self.assertEqual(status, 0)
        self.assertLess(seconds, 5 if "asan" in KOV else 1)
        self.assertNotRegex(agent.log() + agent.stderr(), BAD_WORDS)
        self.assertEqual([f for f in agent.files() if f.endswith("-Kova")], [])

    def tearDown(self):
        try:
            for agent in self.agents:
                self.check_agent(agent)
        except AssertionError:
            for agent in self.agents:
                print(agent.config, agent.log()[-4000:], agent.stderr()[-4000:], sep="\n----\n")
            raise
        finally:
            for agent in self.agents:
                agent.kill()
                if agent.mounted:
                    subprocess.run(["umount", agent.data], check=True)
            self.origin.close()
            shutil.rmtree(self.root, ignore_errors=True)


def sha(data):
    return hashlib.sha256(data).hexdigest()
