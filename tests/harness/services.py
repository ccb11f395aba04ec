"""Redis with the shipped script, nginx; a database and a name server of scripted answers."""

import os
import random
import subprocess
import time

from dnslib import QTYPE, RCODE, RR, A
from dnslib.server import DNSLogger, DNSServer

from .agent import free_port, run, unshare, wait_for, write
from .source import Server

REDIS_FILES = os.path.join(os.path.dirname(__file__), "../../packaging/redis")


class Redis:
    """A redis-server without persistence on a free loopback port; scripts are loaded by the shipped tool."""

    def __init__(self, root):
        self.root = root
        self.sha1_dir = f"{root}/sha1"
        os.makedirs(self.sha1_dir)
        self.port = free_port()
        self.run()

    def run(self, *options):
        self.proc = subprocess.Popen(["redis-server", "--port", str(self.port), "--bind", "127.0.0.1", "--save", "",
                                      "--appendonly", "no", "--dir", self.root, *options], stdout=subprocess.DEVNULL)
        wait_for(lambda: self.cli("ping") == "PONG", "redis-server")
        self.load(REDIS_FILES)

    def load(self, directory):
        run(f"{REDIS_FILES}/load-scripts", "-p", str(self.port), directory, self.sha1_dir)

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
        write(f"{self.sha1_dir}/add_url.sha1", "0123456789" * 4 + "\n")
        self.answers = []
        self.commands = []
        self.server = Server(self._talk, self.port)

    def _talk(self, conn):
        self.conn = conn
        while data := conn.recv(65536):
            self.commands.append(data)
            if not self.answers:
                break
            conn.sendall(self.answers.pop(0))

    def stop(self):
        self.server.stop()


class Nginx:
    """An nginx that serves a directory on a free loopback port."""

    def __init__(self, root):
        self.www = f"{root}/www"
        os.makedirs(self.www)
        os.chmod(root, 0o755)
        self.port = free_port()
        temp = "".join(f"{kind}_temp_path {root};" for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        write(f"{root}/nginx.conf",
              f"daemon off; pid {root}/nginx.pid; error_log {root}/nginx.err; worker_processes 1;"
              f"events {{ worker_connections 2048; }} http {{ access_log off; sendfile on; {temp}"
              f"server {{ listen 127.0.0.1:{self.port} backlog=1024; root {self.www}; }} }}")
        self.proc = subprocess.Popen(["nginx", "-c", f"{root}/nginx.conf"], stderr=subprocess.DEVNULL,
                                     env={**os.environ, "PATH": os.environ["PATH"] + ":/usr/sbin"})
        wait_for(lambda: os.path.exists(f"{root}/nginx.pid"), "nginx")

    def url(self, path):
        return f"http://127.0.0.1:{self.port}/{path}"

    def add(self, name, body):
        with open(f"{self.www}/{name}", "wb") as f:
            f.write(body)
        return self.url(name)

    def stop(self):
        self.proc.terminate()
        self.proc.wait(10)


class NameServer:
    """Says after a pause that each name is 127.0.0.1, or that there is no such name; to agents behind its wrapper."""

    def __init__(self, root, pause, is_known):
        self.pause = pause
        self.is_known = is_known
        self.asked = set()
        address = f"127.{os.getpid() % 250}.{random.randrange(250)}.53"
        write(f"{root}/resolv.conf", f"nameserver {address}\noptions timeout:5 attempts:1\n")
        self.wrapper = unshare("-m", f"mount --bind {root}/resolv.conf /etc/resolv.conf")
        self.server = DNSServer(self, address, logger=DNSLogger("-request,-reply"))
        self.server.start_thread()

    def resolve(self, query, _handler):
        self.asked.add(str(query.q.qname))
        time.sleep(self.pause)
        answer = query.reply()
        if not self.is_known:
            answer.header.rcode = RCODE.NXDOMAIN
        elif query.q.qtype == QTYPE.A:
            answer.add_answer(RR(query.q.qname, rdata=A("127.0.0.1")))
        return answer

    def stop(self):
        self.server.stop()
        self.server.server.server_close()
