"""Real services around the agent: Redis with the shipped script, nginx, and a database that answers what a test scripts."""

import contextlib
import os
import socket
import subprocess
import threading

from kov import free_port, wait_for

REDIS_FILES = os.path.join(os.path.dirname(__file__), "../../packaging/redis")


class Redis:
    """A redis-server without persistence on a free loopback port; scripts are loaded by the shipped tool."""

    def __init__(self, root):
        self.root = root
        self.sha1_dir = f"{root}/sha1"
        os.makedirs(self.sha1_dir)
        self.port = free_port()
        self.run()

    def run(self):
        self.proc = subprocess.Popen(["redis-server", "--port", str(self.port), "--bind", "127.0.0.1", "--save", "",
                                      "--appendonly", "no", "--dir", self.root], stdout=subprocess.DEVNULL)
        wait_for(lambda: self.cli("ping") == "PONG", "redis-server")
        return self.load(REDIS_FILES)

    def load(self, directory):
        return subprocess.run([f"{REDIS_FILES}/load-scripts", "-p", str(self.port), directory, self.sha1_dir], check=True,
                              capture_output=True, text=True).stdout

    def cli(self, *args):
        return subprocess.run(["redis-cli", "-p", str(self.port), *args], capture_output=True, text=True,
                              check=False).stdout.rstrip("\n")

    def urls(self, key):
        """What a balancer reads: the URLs of an id with the times at which they end."""
        words = self.cli("zrange", key, "0", "-1", "withscores").split()
        return dict(zip(words[::2], words[1::2]))

    def settings(self, prefix="http://me.example"):
        return (f'lbdb = {{ host = "127.0.0.1"; port = {self.port}; sha1_dir = "{self.sha1_dir}"; }};'
                f'local_url_prefix = "{prefix}";')

    def stop(self):
        self.proc.terminate()
        self.proc.wait(10)


class ScriptedDatabase(Redis):
    """Answers the n-th command with the n-th text, then with nothing."""

    def run(self):
        with open(f"{self.sha1_dir}/add_url.sha1", "w", encoding="ascii") as f:
            f.write("0123456789" * 4 + "\n")
        self.answers = []
        self.commands = []
        self.sock = socket.create_server(("127.0.0.1", self.port))
        self.server = threading.Thread(target=self._serve, daemon=True)
        self.server.start()

    def _serve(self):
        while True:
            try:
                conn, _ = self.sock.accept()
            except OSError:
                return
            with conn, contextlib.suppress(ConnectionError):  # who is told too much may hang up
                while data := conn.recv(65536):
                    self.commands.append(data)
                    if not self.answers:
                        break
                    conn.sendall(self.answers.pop(0))

    def stop(self):
        self.sock.shutdown(socket.SHUT_RDWR)
        self.server.join()
        self.sock.close()


class Nginx:
    """An nginx that serves a directory on a free loopback port."""

    def __init__(self, root):
        self.www = f"{root}/www"
        os.makedirs(self.www)
        os.chmod(root, 0o755)
        self.port = free_port()
        temp = "".join(f"{kind}_temp_path {root};" for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        with open(f"{root}/nginx.conf", "w", encoding="ascii") as f:
            f.write(f"daemon off; pid {root}/nginx.pid; error_log {root}/nginx.err; worker_processes 1;"
                    f"events {{ worker_connections 2048; }} http {{ access_log off; sendfile on; {temp}"
                    f"server {{ listen 127.0.0.1:{self.port} backlog=1024; root {self.www}; }} }}")
        self.proc = subprocess.Popen(["nginx", "-c", f"{root}/nginx.conf"], stderr=subprocess.DEVNULL,
                                     env={**os.environ, "PATH": os.environ["PATH"] + ":/usr/sbin"})
        wait_for(lambda: os.path.exists(f"{root}/nginx.pid"), "nginx")

    def url(self, path):
        return f"http://127.0.0.1:{self.port}/{path}"

    def stop(self):
        self.proc.terminate()
        self.proc.wait(10)
