"""Harness of the black-box tests: the real program ($KOV), a scripted origin, raw clients, and the checks that hold after
every test. Nothing sleeps for a time: everything waits for a condition with a deadline."""
import hashlib
import os
import re
import resource
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

KOV = os.environ.get("KOV", "")
QUICK = os.environ.get("KOV_QUICK") == "1"
if not os.access(KOV, os.X_OK):
    sys.exit("KOV must name the program under test")
with open(KOV, "rb") as program:
    SANITIZED = b"__asan_init" in program.read()
# A sanitized program is slower, and looks for leaks before it ends.
QUIT_SEC = 10 if SANITIZED else 1
WAIT_SEC = 30 if SANITIZED else 15

SERVER = "kov/0.2-0.7 (marlinet)"
REASONS = {200: "OK", 204: "No Content", 302: "Moved Temporarily", 400: "Bad request", 403: "Forbidden",
           404: "Not Found", 406: "Not Acceptable", 408: "Request Timeout", 500: "Service error", 502: "Bad Gateway",
           503: "Service Unavailable", 504: "Gateway Timeout"}
FORBIDDEN = ("(PNC)", "ASSERT", "AddressSanitizer", "LeakSanitizer", "runtime error")


def answer(code):
    """The exact bytes of the answer with this code."""
    text = f"HTTP/1.1 {code} {REASONS[code]}\r\nServer: {SERVER}\r\n"
    if code >= 300:
        text += "Content-Length: 0\r\n"
        text += "" if code == 400 else "Connection: close\r\n"
    return (text + "\r\n").encode()


def wait_for(condition, what, seconds=WAIT_SEC):
    """Returns the first true value of condition()."""
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"not within {seconds} s: {what}")
        time.sleep(0.005)


def free_port():
    with socket.socket() as sock:
        sock.bind(("127.0.0.1", 0))
        return sock.getsockname()[1]


def read_file(path):
    with open(path, "rb") as file:
        return file.read()


def sha256(path):
    digest = hashlib.sha256()
    with open(path, "rb") as file:
        while block := file.read(1 << 20):
            digest.update(block)
    return digest.hexdigest()


def setting(value):
    """A value in the syntax of the configuration file; a dictionary is a group, a list of dictionaries a list."""
    if isinstance(value, dict):
        return "{ " + " ".join(f"{key} = {setting(val)};" for key, val in value.items()) + " }"
    if isinstance(value, list):
        return "( " + ", ".join(setting(item) for item in value) + " )"
    if isinstance(value, bool):
        return str(value).lower()
    return f'"{value}"' if isinstance(value, str) else str(value)


class Agent:
    """One running program with its own directory, port and configuration."""

    def __init__(self, args=(), env=None, log=None, runtime=None, web=None, start=True, **kova):
        self.dir = tempfile.mkdtemp(prefix="k", dir="/tmp")  # short: paths have 127 bytes
        self.port = free_port()
        self.data = self.dir + "/d"
        self.log_path = self.dir + "/log"
        self.err_path = self.dir + "/err"
        os.mkdir(self.data)
        web_input = {"web": {"ifc": "lo", "default_af": "inet4", "port": self.port}, **(web or {})}
        self.config = self.write_config("kov.conf", {
            "log": {"file": self.log_path, "level": "debug", "time_format": "no_time", **(log or {})},
            "runtime": {"quiet": True, "enforce_core_dumps": False, **(runtime or {})},
            "web_input": web_input, "data_dir": self.data, **kova})
        self.args = [KOV, "-C", self.config, "-T", *args]
        self.env = {**os.environ, **(env or {})}
        self.proc = None
        self.baseline = 0
        if start:
            self.start()

    def write_config(self, name, groups):
        path = f"{self.dir}/{name}"
        with open(path, "w", encoding="utf-8") as file:
            file.write("kova = {\n" + "".join(f"    {key} = {setting(val)};\n" for key, val in groups.items()) + "};\n")
        return path

    def start(self):
        with open(self.err_path, "wb") as err:
            self.proc = subprocess.Popen(self.args, stdin=subprocess.DEVNULL, stdout=err, stderr=err, env=self.env,
                                         cwd=self.dir)
        wait_for(lambda: " STARTING. PID=" in self.log() or self.proc.poll() is not None, "start")
        if self.proc.poll() is None:
            self.ping()
            self.wait_idle()
            self.baseline = self.fd_count()

    # What an operator sees.

    def log(self):
        if not os.path.exists(self.log_path):
            return ""
        return read_file(self.log_path).decode("utf-8", "replace")

    def stderr(self):
        return read_file(self.err_path).decode("utf-8", "replace")

    def wait_log(self, pattern, count=1, seconds=WAIT_SEC):
        """Waits for a regular expression to appear count times in the log; the matches."""
        return wait_for(lambda: len(found := re.findall(pattern, self.log(), re.M)) >= count and found,
                        f"{count} x {pattern!r} in the log", seconds)

    def fd_count(self):
        return len(os.listdir(f"/proc/{self.proc.pid}/fd"))

    def cpu_sec(self):
        fields = read_file(f"/proc/{self.proc.pid}/stat").rsplit(b")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def rss_kib(self):
        return int(re.search(rb"VmRSS:\s+(\d+)", read_file(f"/proc/{self.proc.pid}/status"))[1])

    def cpu_over_a_second(self):
        before = self.cpu_sec()
        time.sleep(1)
        return self.cpu_sec() - before

    def wait_idle(self):
        """Waits until every accepted request has been freed again."""
        wait_for(lambda: self.proc.poll() is not None or not self.client_fds(), "requests and tasks freed")

    def client_fds(self):
        """Sockets besides the one listener."""
        count = 0
        for name in os.listdir(f"/proc/{self.proc.pid}/fd"):
            try:
                count += os.readlink(f"/proc/{self.proc.pid}/fd/{name}").startswith("socket:")
            except FileNotFoundError:
                pass
        return count - 1

    # What a client does.

    def connect(self, data=b""):
        sock = socket.create_connection(("127.0.0.1", self.port), timeout=WAIT_SEC)
        if data:
            sock.sendall(data)
        return sock

    @staticmethod
    def recv_all(sock):
        """What comes until the agent closes; the socket is closed."""
        data = b""
        with sock:
            try:
                while piece := sock.recv(65536):
                    data += piece
            except ConnectionResetError:
                pass
        return data

    def request(self, target, method="GET", version="HTTP/1.1"):
        """The whole answer to a request line."""
        return self.recv_all(self.connect(self.head(target, method, version)))

    def head(self, target, method="GET", version="HTTP/1.1"):
        line = f"{method} {target} {version}".rstrip()
        return f"{line}\r\nHost: 127.0.0.1:{self.port}\r\nUser-Agent: test\r\n\r\n".encode()

    def order(self, source, dest, query="", **kwargs):
        return self.request(f"/src/{source}/dst/{dest}{query}", **kwargs)

    def ping(self):
        return self.request("/")

    def path(self, dest):
        return f"{self.data}/{dest}"

    def stored(self, dest):
        """The bytes of a stored file, awaited."""
        wait_for(lambda: os.path.exists(self.path(dest)), f"{dest} stored")
        return read_file(self.path(dest))

    def files(self):
        return sorted(os.path.join(root, name)[len(self.data) + 1:]
                      for root, dirs, names in os.walk(self.data) for name in names + dirs)

    def unfinished(self):
        return [name for name in self.files() if name.endswith("-Kova")]

    # The end.

    def stop(self, signo=signal.SIGTERM):
        """Seconds between the signal and the end."""
        started = time.monotonic()
        self.proc.send_signal(signo)
        self.proc.wait(QUIT_SEC + 5)
        return time.monotonic() - started

    def check(self, case):
        """What must hold after every test, the program stopped by the test or not."""
        if self.proc is None:
            return
        if self.proc.poll() is None:
            wait_for(lambda: self.fd_count() <= self.baseline, f"descriptors back at {self.baseline}")
            case.assertEqual(self.fd_count(), self.baseline, "descriptors at base line")
            case.assertLess(self.stop(), QUIT_SEC, "quits in time")
        case.assertEqual(self.proc.returncode, 0, "exit status")
        case.assertEqual(self.unfinished(), [], "no unfinished file")
        for word in FORBIDDEN:
            case.assertNotIn(word, self.log() + self.stderr())

    def report(self):
        lines = self.log().splitlines()[-60:]
        return "\n".join(["--- configuration", read_file(self.config).decode(), "--- standard error", self.stderr(),
                          "--- log", *lines, "--- files", *self.files()])

    def destroy(self):
        if self.proc and self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()
        shutil.rmtree(self.dir, ignore_errors=True)


class Conn:
    """One connection at the origin, in the hands of the path's script."""

    def __init__(self, sock, origin):
        self.sock, self.origin, self.request = sock, origin, b""

    def send(self, *pieces):
        for piece in pieces:
            self.sock.sendall(piece)

    def reset(self):
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
        self.sock.close()

    def hold(self, event=None):
        """Waits for an event of the test, at most until the origin closes."""
        wait_for(lambda: self.origin.closing or (event and event.is_set()), "release of a held connection", 60)


def head(length, status="200 OK"):
    """A source's head; length None: no such field."""
    field = "" if length is None else f"Content-Length: {length}\r\n"
    return f"HTTP/1.1 {status}\r\nServer: origin\r\n{field}\r\n".encode()


class Origin:
    """A scripted source: each path has a function that gets the connection. The connection closes when it returns."""

    def __init__(self):
        self.scripts, self.requests, self.socks, self.closing = {}, [], set(), False
        self.listener = socket.create_server(("127.0.0.1", 0), backlog=1024)
        self.port = self.listener.getsockname()[1]
        self.thread = threading.Thread(target=self.accept, daemon=True)
        self.thread.start()

    def url(self, path):
        return f"http://127.0.0.1:{self.port}{path}"

    def on(self, path, script):
        self.scripts[path] = script
        return self.url(path)

    def serve(self, path, body, status="200 OK"):
        return self.on(path, lambda conn: conn.send(head(len(body), status) + body))

    def accept(self):
        while not self.closing:
            try:
                sock, _ = self.listener.accept()
            except OSError:
                return
            sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self.socks.add(sock)
            threading.Thread(target=self.run, args=(sock,), daemon=True).start()

    def run(self, sock):
        conn = Conn(sock, self)
        try:
            while b"\r\n\r\n" not in conn.request:
                piece = sock.recv(4096)
                if not piece:
                    return
                conn.request += piece
            self.requests.append(conn.request)
            self.scripts[conn.request.split()[1].decode()](conn)
        except OSError:
            pass
        finally:
            self.socks.discard(sock)
            sock.close()

    def close(self):
        self.closing = True
        self.listener.close()
        for sock in list(self.socks):
            try:
                sock.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass


class Case(unittest.TestCase):
    """A test with an agent (settings: overrides of its configuration) and an origin."""
    settings = {}

    def setUp(self):
        self.agents, self.socks = [], []
        self.origin = Origin()
        self.agent = self.run_agent(**self.settings)

    def run_agent(self, **settings):
        agent = Agent(**settings, start=False)
        self.agents.append(agent)
        agent.start()
        return agent

    def client(self, data=b""):
        """A raw client whose socket is closed after the test."""
        sock = self.agent.connect(data)
        self.socks.append(sock)
        return sock

    def tearDown(self):
        for sock in self.socks:
            sock.close()
        self.origin.close()
        failed = not self._outcome.success
        try:
            for agent in self.agents:
                agent.check(self)
        except BaseException:
            failed = True
            raise
        finally:
            for agent in self.agents:
                if failed:
                    print(agent.report(), file=sys.stderr)
                agent.destroy()

    def assert_stored(self, dest, body):
        self.assertEqual(hashlib.sha256(self.agent.stored(dest)).digest(), hashlib.sha256(body).digest(), dest)


def raise_fd_limit():
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
