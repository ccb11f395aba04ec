"""The companion programs against a real agent, the shipped examples, rules and metrics, and the installed tree."""

import collections
import functools
import glob
import json
import os
import re
import resource
import shutil
import signal
import socket
import subprocess
import time
import unittest

from harness import (ANSWERS, ASAN, BIN, KOV, KovTest, ScriptedDatabase, age, free_port, read, read_all, request, run,
                     sized, wait_for, within_reach, write)

FAKETIME = glob.glob("/usr/lib/*/faketime/libfaketime.so.1")[0]
TOP = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../..")
EXAMPLES = f"{TOP}/packaging/examples"


kovctl = functools.partial(run, within_reach(f"{BIN}/kovctl"))
checkconf = functools.partial(run, f"{BIN}/kov-checkconf")


class Checkconf(KovTest):
    GOOD = "log = { }; runtime = { non_daemon = true; }; web_input = { web = { port = 2000; }; }; max_tasks = 10; "

    def setUp(self):
        super().setUp()
        self.good = f'kova = {{ {self.GOOD} data_dir = "{self.root}"; }};'

    def check(self, text, *args, **kwargs):
        write(f"{self.root}/c.conf", text)
        return checkconf(*args, f"{self.root}/c.conf", **kwargs)

    def test_examples_are_accepted_by_the_checker_and_by_the_agent(self):
        for example in glob.glob(f"{EXAMPLES}/*.conf"):
            text = shipped = read(example)
            port = free_port()
            for old, new in (("@DIR@/data", self.root), ("@DIR@", self.root), ("@PORT@", str(port)), ("@REDIS@", "1"),
                             ('"/srv/kov"', f'"{self.root}"'), ("port = 8020", f"port = {port}")):
                text = text.replace(old, new)
            self.assertNotRegex(self.check(text), "unknown key|has no effect|is ignored")
            if "@REDIS@" in shipped or "lbdb = {\n        host" in text:
                continue  # does not start without its database
            write(f"{self.root}/c.conf", text.replace("/var/log/kov/kov.log", f"{self.root}/log"))
            with subprocess.Popen([KOV, "-C", f"{self.root}/c.conf", "-T", "-q"]) as proc:
                wait_for(lambda: "STARTING" in read(f"{self.root}/log", ""), "the start")
                proc.terminate()
                self.assertEqual(proc.wait(10), 0)

    def test_warnings_and_refusals(self):
        digests = f"{self.root}/sha1"
        os.makedirs(digests)
        write(f"{digests}/add_url.sha1", "x" * 40)
        text = f"""kova = {{ log = {{ levle = "info"; max_files = 128; }};
runtime = {{ quiet = 1; }};
web_input = {{ web = ( {{ port = 1; }}, {{ port = 2; protocol = "udp"; }}, {{ domain_path = "/x"; port = 3; }},
{{ port = 4; }}, {{ port = 5; }} ); }};
udp_input = {{ url = "239.1.1.1:5000"; }};
lbdb = {{ host = "h"; port = 1; sha1_dir = "{digests}"; }}; local_url_prefix = "http://h";
max_tasks = 5000000; }}; other = 1;"""
        out = self.check(text)
        for line in ("line 1: unknown key levle", "line 1: max_files is not within 1 to 127",
                     "line 2: quiet is not true or false, and has no effect",
                     "line 4: listener 5 is ignored: there are four at most", "a web listener over udp accepts nobody",
                     "ifc and port are ignored beside domain_path", "unknown key other", "the hard limit is ",
                     "lock_dir /tmp is a temporary place", "can stop the agent with one datagram",
                     "does not hold a SHA1 digest", "a daemon needs log.file", "a daemon needs runtime.pidfile",
                     "Load-balancer DB: h:1\n"):
            self.assertIn(line, out)
        self.check(text, "--strict", status=2)
        text = text.replace("max_tasks = 5000000;", "max_tasks = 4294967297; /* 99999999999 */ h = 0x80000000; "
                            's = "99999999999"; l = 99999999999L; f = 9999999999.5; n99999999999 = -2147483648;')
        cut = re.findall(r"line 7: (\S+) is beyond 32 bits, and is taken for another number", self.check(text))
        self.assertEqual(cut, ["4294967297", "0x80000000"])
        self.check(self.good, "--strict")
        self.check(self.good.replace("= 10;", "= 5000001;"), says="max_tasks 5000001: the agent will not start")
        self.check("kova = {", "--strict", status=1)
        os.makedirs(deep := f"{self.root}/" + "d" * 80)
        self.check(self.good.replace(self.root, deep), says=r"data_dir leaves \d+ characters")
        checkconf("--nonsense", status=1)
        self.check(self.good.replace("max_tasks", "max_taks").replace("port = 2000", "port = 0"), status=1,
                   says="line 1: unknown key max_taks")  # though the port is refused

    def test_what_this_machine_makes_of_it(self):
        os.mkfifo(f"{self.root}/fifo")
        os.chmod(self.root, 0o777)
        with socket.create_server(("127.0.0.1", 0)) as other:
            port = other.getsockname()[1]
            out = self.check(f"""kova = {{ log = {{ file = "{self.root}/fifo"; }};
                runtime = {{ cpunum = 4000; pidfile = "{self.root}/pid"; }};
                web_input = {{ max_accept = 0; web = ( {{ port = {port}; }}, {{ ifc = "lo"; port = {port}; }},
                    {{ port = 80; }} ); }};
                udp_input = {{ url = "127.0.0.1:1"; lock_dir = "{"l" * 90}"; }};
                lbdb = {{ host = "h"; port = 1; sha1_dir = "sha1"; }};
                local_url_prefix = "http://h/{"p" * 60}"; data_dir = "{self.root}"; }};""")
        for line in ("log.file .* is no regular file", "cpunum 4000: this machine has the CPUs 0 to",
                     "pidfile .*: everybody may put a file of that", "sha1_dir sha1: a daemon changes its directory",
                     "lock_dir l+ is missing", "lock_dir leaves 30 characters for a lock id",
                     "local_url_prefix leaves 57 characters", "max_accept 0: no client is ever taken",
                     "listeners 1 and 2 meet at 127.0.0.1", "port 80 is root's",
                     rf"\*:{port}: python3 \(pid {os.getpid()}\) listens there already"):
            self.assertRegex(out, f"(?m)^warning: {line}")
        self.check('kova = { log = { file = "/nowhere/log"; }; runtime = { non_daemon = true; run_as_user = "kov"; };'
                   'web_input = { web = { port = 2000; }; }; };',
                   says="(?s)log.file: the directory /nowhere is missing.*run_as_user has no effect beside non_daemon")

    def test_asks_and_waits_for_the_database(self):
        database = self.redis()
        text = self.good.replace("max_tasks", database.settings() + "max_tasks")
        self.check(text, "--strict", "--wait", "60")
        database.cli("script", "flush")
        database.cli("replicaof", "127.0.0.1", "1")
        self.check(text, says="(?s)does not know the script.* is a replica: ")
        database.stop()
        database.run("--cluster-enabled", "yes")
        self.check(text, says=r"(?s) is a node of a cluster: .*, 1 warning\n")
        database.stop()
        self.check(text, says="no database answers at 127.0.0.1")
        self.check(text, "--wait", "1", status=1, says="refused: no database answers at 127.0.0.1")
        self.check(text, "--wait", "soon", status=1)
        loading = self.service(ScriptedDatabase)
        loading.answers = [b"-LOADING it still reads its data\r\n"] * 1000
        self.check(self.good.replace("max_tasks", loading.settings() + "max_tasks"), "--wait", "1", status=1,
                   says="refused: no database answers at 127.0.0.1")
        checkconf("--help")


class Ctl(KovTest):
    """kovctl beside an agent with everything configured."""

    def setUp(self):
        super().setUp()
        self.database = self.redis()
        self.socket = f"{self.root}/socket"
        self.agent = self.start(self.database.settings() + "max_mmap_mb = 0;", channel="127.0.0.1:{}",
                                more_listeners=f', {{ domain_path = "{self.socket}"; }}')
        self.port, self.data = self.agent.port, self.agent.data

    def ctl(self, *args, **kwargs):
        return kovctl("-C", f"{self.agent.root}/kov.conf", *args, **kwargs)


class Orders(Ctl):
    def test_orders(self):
        self.assertEqual(self.ctl("ping"), f"127.0.0.1:{self.port}: alive\n")
        source = self.origin.body("/a", b"x" * 3000)
        self.assertEqual(self.ctl("--wait", "--expiry", "77", "get", source, "v/a b%.ts"),
                         f"200 started\nstored: {self.data}/v/a b%.ts, 3000 bytes\n")
        self.agent.logged("expiry=77")
        # Segments by which an order is split, a destination made from the source, one with a slash in front; a
        # Unix-domain socket.
        for path, dst, stored in (("/live/Dst/a", "/lead/src/a", "lead/src/a"), ("/src/dst/auto", "", "src/dst/auto"),
                                  ("/f", "\u00e9 @", "\u00e9 @")):
            self.ctl("-a", self.socket, "--wait", "get", self.origin.body(path, b"split"), dst)
            self.agent.stored(stored, b"split")
        for src, dst, status, answer in ((source, "v/a b%.ts", 4, "403 refused: .*there already"),
                                         ("ftp://h/a", "x", 1, "400 refused: .*not http://"),
                                         ("http://h/" + "x" * 130, "x", 1, "400 refused: .*more than 127 characters"),
                                         (self.origin.status("/404", 404), "x", 6, "")):
            self.ctl("get", src, dst, status=status, says=f"^{answer}")
        for dst, status in (("v/a b%.ts", 4), ("x", 6)):  # where the file can be looked at, it tells whose 403 that is
            self.ctl("get", "--wait", self.origin.status("/403", 403), dst, status=status, says="^403 refused")
        cut = self.origin.cut("/cut", lambda conn: time.sleep(1.5))
        self.ctl("get", "--wait", cut, "cut", status=1, says="failed: ")
        self.ctl("send", "job1", source, "by@udp", "600")
        self.agent.stored("by@udp", b"x" * 3000)
        for bad in (("job", "http://h/a", "x", "5"), ("job1", "http://h/a", "x", ""),
                    ("job1", "http://h/" + "a" * 120, "x", "5"), ("a/bc", "http://h/a", "x", "5")):
            self.ctl("send", *bad, status=2)
        self.ctl("register", "v/a b%.ts", status=2)  # an entry without an end is nothing to make by mistake
        self.ctl("-e", "600", "register", "v/a b%.ts", says=r"^v/a b%\.ts: registered\n$")
        self.ctl("-e", "600", "register", "v/none", status=1, says=f"^v/none: not in {self.data}\n$")
        self.assertEqual(self.agent.log().count("TASK-START"), 10)  # nothing was fetched to register
        self.database.stop()
        self.ctl("-e", "600", "register", "v/a b%.ts", status=7, says="NOT registered")

    def test_datagrams_that_found_no_room(self):
        with self.agent.frozen():
            for _ in range(int(read("/proc/sys/net/core/rmem_default")) // 832 + 50):
                self.agent.datagram("no order, for whoever reads it at all")
        self.ctl("status", says=r"\ndatagrams dropped: \d\d+; see net.core.rmem_default\n")
        self.ctl("metrics", says=r"\nkov_dropped_datagrams_total\{agent=\"kov\"\} \d\d+\n")

    def test_usage_and_places_without_an_agent(self):
        for usage in (("dance",), ("get", "one"), ("-t", "soon", "ping"), ("-e", "soon", "get", "http://h/a", "b"),
                      ("get", "http://h/a", "b\n"), ("-p", "0", "status"), ("-D", "/nowhere", "verify"),
                      ("-C", "/nowhere", "ping")):
            self.ctl(*usage, status=2)
        self.ctl("-p", str(os.getpid()), "status", status=3)  # no agent
        run("bash", "-c", f"{BIN}/kovctl --help >/dev/full", status=1, says="standard output: No space left")
        kovctl("-a", f"127.0.0.1:{free_port()}", "ping", status=3)
        with socket.create_server(("127.0.0.1", 0)) as mute:  # takes clients, answers none
            begin = time.monotonic()
            place = f"127.0.0.1:{mute.getsockname()[1]}"
            kovctl("-a", place, "ping", status=5)
            self.assertLess(time.monotonic() - begin, 10)
            kovctl("-a", place, "-t", "1", "ready", status=5)
        commands = "ping ready get send status metrics drain verify sweep register lost replay expire fleet"
        self.assertEqual(re.findall(r"(?m)^  (\w+) ", kovctl("--help")), commands.split())

    def test_each_agent_is_found_by_its_listeners(self):
        both = free_port()  # IPv6 and IPv4
        other = self.start(more_listeners=f', {{ ifc = "lo"; default_af = "inet4"; port = {self.port}; }}, '
                           f'{{ default_af = "inet6"; port = {both}; }}')
        for agent, mate in ((self.agent, other), (other, self.agent)):
            kovctl("-C", f"{agent.root}/kov.conf", "--pid", str(agent.pid), "status",
                   says=rf"listener: 127.0.0.1:{self.port}, shared with pid {mate.pid} \(kov\)\n")
        for command in ("status", "metrics"):
            self.ctl(command, status=3, says="^kovctl: more than one agent listens at ")
        kovctl("-a", f"127.0.0.1:{both}", "status", says=f"^agent: pid {other.pid}\n")
        checkconf(f"{self.agent.root}/kov.conf",
                  says=rf"127.0.0.1:{self.port}: an agent \(pid {self.agent.pid}\) listens there already")
        self.end(other)
        self.ctl("status", says=f"^agent: pid {self.agent.pid}\n")
        kovctl("-C", f"{other.root}/kov.conf", "-D", "/tmp", "status")  # they share a place still
        self.assertEqual(self.agent.stop()[0], 0)
        self.ctl("status", status=3, says="no agent listens at ")
        self.ctl("metrics", says=r'\nkov_up\{agent="kov"\} 0\n')
        self.agent.run()
        self.ctl("ready")


class Hostile(KovTest):
    """Both programs end soon, with a status of theirs, and print nothing that would command a terminal."""

    def tools(self, *args, program="kovctl", **kwargs):
        done = subprocess.run([f"{BIN}/{program}", *args], capture_output=True, timeout=20, check=False, **kwargs)
        self.assertIn(done.returncode, range(8), done)
        self.assertNotRegex(done.stdout + done.stderr, rb"[\x00-\x09\x0b-\x1f\x7f]|runtime error|Sanitizer")
        return done.returncode

    def test_agents_that_answer_garbage_never_or_for_ever(self):
        place = f"127.0.0.1:{self.origin.port}"
        for answer, status in ((b"\0\x1b[2J\xff" * 1000, 1), (b"HTTP/1.1 99999999999999999999 x\r\n", 1), (b"", 1),
                               (b"HTTP/1.1 200" + b"x" * 10_000_000, 0), (None, 5)):
            for path in ("/", "/src/http://h/a/dst/a?expiry=5"):
                self.origin.serve(path, lambda conn, _, a=answer: self.origin.stall() if a is None else conn.sendall(a))
            self.assertEqual(self.tools("-a", place, "-t", "1", "ping"), status or 1)
            self.assertEqual(self.tools("-a", place, "-t", "1", "ready"), 5)
            self.assertEqual(self.tools("-a", place, "-t", "1", "-e", "5", "get", "http://h/a", "a"), status)

    def test_arguments_files_and_logs_of_megabytes_and_control_characters(self):
        long, odd = "x" * 100_000, "a\x1b[2J\r\x07\x7f"
        for text in (long, odd, ""):
            for args in (("-C", text, "ping"), ("-a", text, "ping"),
                         ("-u", text, "send", "job1", "http://h/a", "b", "5"),
                         ("-a", "h:1", "get", text, "a"), ("-a", "h:1", "get", "http://h/a", text),
                         ("-D", text, "verify"), ("-D", "/", "lost", text), (text,), ("-p", text, "status"),
                         ("-t", text, "ping"), ("--" + text, "ping")):
                self.assertNotEqual(self.tools(*args), 0, args)
            self.tools(text, program="kov-checkconf")
            self.tools("--wait", text, "/dev/null", program="kov-checkconf")
        head = "2026-11-22 02:00:40.574449 UTC 4711  (NRM)  u1  TASK-START [DOW] (0x7f/idx=0) "
        for text in ("x" * 10_000_000, odd * 1_000_000, "\0" * 10_000_000, "(" * 1_000_000, "{ a = " * 100_000,
                     'kova = { log = { file = "' + long * 100 + '"; }; };', f'kova = {{ {odd} = 1; "{odd}" }};',
                     f'kova = {{ log = {{ file = "/tmp/{odd}"; }}; data_dir = "/{odd}"; {long} = 1; }};',
                     f"{head}[{long * 100}]->[/d/a] length=0, expiry=60 lid=[]\n" * 2,
                     f"{head}[http://h/{odd}]->[/d/{odd}-Kova] length=0, expiry=9223372036854775807 lid=[]\n",
                     f"{head}[http://h/a]->[/d/a-Kova] length=0, expiry={'9' * 1000} lid=[]\n" * 10_000):
            write(f"{self.root}/f", text)
            self.assertEqual(self.tools(f"{self.root}/f", program="kov-checkconf"), 1)
            self.assertEqual(self.tools("-C", f"{self.root}/f", "status"), 2)
            for command in ("lost", "expire"):
                self.tools("-D", "/d", command, f"{self.root}/f")

    def test_databases_that_answer_anything_or_without_an_end(self):
        def lie(conn):
            while conn.recv(65536):
                head, endless = answer
                conn.sendall(head)
                while endless:
                    conn.sendall(endless * 10_000)

        database = self.service(ScriptedDatabase)
        database.server.talk = lie
        os.makedirs(f"{self.root}/d")
        write(f"{self.root}/c", f'kova = {{ {Checkconf.GOOD} data_dir = "{self.root}/d"; {database.settings()} }};')
        head = "2020-11-22 02:00:40.574449 UTC 4711  (NRM)  u1 "
        write(f"{self.root}/log", f"{head} TASK-START [DOW] (0x7f/idx=0) [http://h/a]->[{self.root}/d/a-Kova] "
              f"length=0, expiry=1 lid=[]\n{head} downloaded: 1 bytes, [http://h/a] to [{self.root}/d/a]\n")
        for answer in ((b"$999999999\r\n", b"x"), (b"*2147483647\r\n", b":1\r\n"), (b"*2000000\r\n", b":1\r\n"),
                       (b"", b"*1\r\n"), (b":1\r\n", b""), (b"*2\r\n:1\r\n$-1\r\n", b""), (b"+\x1b\r\n", b""),
                       (b"*5\r\n" + b"$2\r\n\x1b[\r\n" * 5, b""), (b"", b"\xff"), (b"-ERR \x1b[2J\r\n", b""),
                       (b"*5\r\n" + b"*4\r\n:0\r\n:-1\r\n*0\r\n:0\r\n" * 5, b"")):
            write(f"{self.root}/d/a", seconds_old=10**9)
            for place in ("redis://", "cluster://", "redis://user:password@", "sentinel://"):
                env = {**os.environ, "KOV_FLEET": f"{place}127.0.0.1:{database.port}/m"}
                for args in (("fleet",), ("expire", "--delete", f"{self.root}/log")):
                    self.assertIn(self.tools("-C", f"{self.root}/c", *args, env=env), (2, 7), (answer, place))
            self.assertTrue(os.path.exists(f"{self.root}/d/a"))
            checkconf(f"{self.root}/c")
        if not ASAN:
            self.assertLess(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss, 250 << 10)


class Drain(Ctl):
    def drain(self, seconds=60):
        """Beside three downloads that run."""
        for i in range(3):
            self.agent.order(self.origin.halves(f"/{i}"), f"d{i}")
        waits = subprocess.Popen([f"{BIN}/kovctl", "-C", f"{self.agent.root}/kov.conf", "-t", str(seconds), "drain"],
                                 stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.addCleanup(waits.stdout.close)
        self.assertEqual(waits.stdout.readline(), "waiting: 3 downloads\n")
        return waits

    def ends(self, waits, status, says):
        said = waits.stdout.read()
        self.assertEqual((waits.wait(20), bool(re.search(says, said))), (status, True), said)

    def test_every_download_that_runs_is_stored_first(self):
        kovctl("-a", f"127.0.0.1:{self.port}", "drain", says="^drained: ")  # knows nothing of its database
        waits = self.drain()
        self.origin.released.set()
        self.ends(waits, 0, "^drained: nothing runs, after ")
        for i in range(3):
            self.agent.stored(f"d{i}", b"abcdefghi")

    def test_it_gives_up_in_time_and_on_an_agent_that_hangs(self):
        self.ends(self.drain(1), 5, "gave up: 3 downloads and 0 clients are left")
        with self.agent.frozen():
            self.ctl("drain", status=5, says="the agent hangs: 3 downloads will not end")
        self.origin.released.set()

    def test_an_agent_that_is_told_to_end_has_not_drained(self):
        """Its downloads are cut a while before it is gone."""
        self.agent = self.start(trace="exit_group", inject=("exit_group:delay_enter=1000000",))
        waits = self.drain()
        self.end(self.agent)
        self.ends(waits, 1, "^kovctl: gone: the agent has ended, with 3 downloads at the last look: kovctl lost lists")

    def test_an_agent_that_ends_or_is_one_of_two(self):
        waits = self.drain()
        other = self.start(more_listeners=f', {{ ifc = "lo"; default_af = "inet4"; port = {self.port}; }}')
        self.ctl("drain", status=3, says="more than one agent")
        kovctl("-C", f"{other.root}/kov.conf", "-p", str(other.pid), "drain")
        self.agent.stop(signal.SIGKILL)
        self.ends(waits, 1, "gone: .* with 3 downloads at the last look")
        kovctl("-p", "", "drain", status=3)
        for name in self.agent.unfinished():
            os.unlink(self.agent.path(name))
        self.end(other)
        self.agent.restart()  # and listens: SIGTERM finds its handler


class Left(Ctl):
    def test_what_it_holds_and_what_was_left_behind(self):
        self.ctl("get", self.origin.cut("/r", self.origin.stall), 'run"ning')
        age(self.agent.path('run"ning-Kova'), 40)
        for path, text, seconds_old in (("d/left-Kova", "left", 40), ("d/whole", "whole", 0), ("d/sparse", "", 0),
                                        ("locks/old1.lock", "", 40), ("locks/new1.lock", "", 9),
                                        ("locks/old.lock", "", 40), ("locks/full.lock", "text", 40)):
            write(f"{self.agent.root}/{path}", text, seconds_old)
        os.truncate(self.agent.path("sparse"), 1 << 20)
        with open(self.agent.path("reserved"), "wb") as f:
            os.posix_fallocate(f.fileno(), 0, 1 << 20)
        read(self.agent.path("reserved"))  # its zeros are cached now
        running = self.agent.path('run"ning-Kova')
        self.ctl("status", says=rf"""^agent: pid {self.agent.pid}
listener: 127.0.0.1:{self.port}\nlistener: {self.socket}\nchannel: 127.0.0.1:{self.agent.udp_port}
database: 127.0.0.1:{self.database.port}
clients: 0, 0 waiting\ndownloads: 1 of 4096, 0 bytes/s\ndescriptors: \d+ of \d+
unfinished: {running}, 3 of 9 bytes, 4\d s since its last change\n$""")
        state = json.loads(self.ctl("status", "--json"))
        self.assertEqual((state["downloads"]["running"], state["downloads"]["max"]), (1, 4096))
        files = [(f["path"], f["bytes"], f["written"]) for f in state["unfinished"]["files"]]
        self.assertEqual(files, [(running, 9, 3)])
        text = self.ctl("metrics", says=r'\nkov_downloads\{agent="kov"\} 1\n')
        self.assertRegex(text, r"(?s)^(# (TYPE|HELP) kov_\w+ [^\n]+\n|kov_\w+\{[^\n]*\} \d+\n)+# EOF\n$")
        if os.geteuid() == 0:  # another user must not read that there is no agent
            for command in ("status", "metrics"):
                self.assertEqual(self.ctl(command, status=1, says="run as root", user=65534), "")
            os.mkdir(self.agent.path("locked"), 0o700)
            self.ctl("verify", status=1, says=f"(?m)^kovctl: {self.data}/locked: Permission denied$", user=65534)
        sparse = f"{self.data}/sparse: has fewer blocks than its size"
        both = {f"{self.data}/reserved: has blocks that were never written", sparse}
        since_boot = str(5 - int(time.clock_gettime(time.CLOCK_BOOTTIME)))
        booted = run("unshare", "-T", "--boottime", since_boot, f"{BIN}/kovctl", "-D", self.data, "verify", status=1)
        for said, found in ((self.ctl("verify", status=1), {sparse}), (booted, both),
                            (self.ctl("verify", "--all", status=1), both)):
            self.assertEqual(set(said.splitlines()), found)
        os.symlink(self.data, f"{self.root}/link")
        self.assertNotIn("run", self.ctl("-D", f"{self.root}/link", "sweep", status=1))
        self.assertEqual(set(self.ctl("sweep", status=1).splitlines()),
                         {f"{self.data}/left-Kova: unfinished, and no agent writes it",
                          f"{self.agent.locks}/old1.lock: a lock that has lapsed"})
        self.assertTrue(os.path.exists(self.agent.path("left-Kova")))
        self.ctl("sweep", "--delete")
        self.ctl("verify", "--all", "--delete")
        self.assertEqual(self.agent.files(), ['run"ning-Kova', "whole"])
        self.assertEqual(self.agent.held(), ["full.lock", "new1.lock", "old.lock"])  # too short, not empty: no locks
        self.origin.released.set()
        self.agent.ended()

    def test_what_was_cut_off_comes_back(self):
        agent = self.agent
        agent.datagram(f"#!job1 http://h/src/{self.origin.body('/good', b'good')}/dst/good 0")
        agent.stored("good", b"good")
        agent.order(self.origin.status("/404", 404), "none", 404)
        agent.order(self.origin.cut("/broken"), "broken")
        agent.ended(3)
        os.unlink(agent.path("good"))  # it was stored, and is nobody's loss
        agent.order(self.origin.halves("/stopped"), "v/stop%20ped%25", query="?expiry=600")
        agent.order(self.origin.halves("/over"), "over", query="?expiry=1")
        self.ctl("lost", status=1,
                 says=rf"^http://\S+/broken -> {agent.data}/broken: broken, no expiry\n$")  # others run still
        primary, _ = self.origin.gated("/primary", b"", b"")
        self.addCleanup(agent.ask(primary, "twice").close)
        agent.logged("/primary]->")
        agent.order(self.origin.halves("/backup2"), "twice")
        self.agent.restart()
        wait_for(lambda: "over: cut by a stop, over" in self.ctl("lost", status=1), "the expiry's end")
        time.sleep(1)  # the next log is named by the second, too
        backup, gate = self.origin.gated("/backup", b"", sized(1) + b"x")
        with agent.ask(backup, "crashed") as client:
            agent.logged("/backup]->")
            agent.order(self.origin.halves("/crashed"), "crashed")
            gate.set()
            self.assertEqual(read_all(client), ANSWERS[500])
        agent.ended()
        agent.order(self.origin.halves("/former"), "heir")
        age(agent.path("heir-Kova"), 35)
        agent.order(self.origin.halves("/heir"), "heir")
        log = agent.log()
        self.agent.restart(signal.SIGKILL)
        write(f"{self.root}/last-boot", re.sub(r"(?m)^2\d{3}(-.* )\d+(?=  \()", rf"2001\g<1>{agent.pid}", log))
        self.ctl("lost", f"{self.root}/last-boot", status=1, says="/crashed: cut by a crash")
        for dst in ("crashed", "heir"):
            age(agent.path(f"{dst}-Kova"), 1000)
        lost = [re.sub(r"^\S+ -> |\d+(?= s)", "", line) for line in self.ctl("lost", status=1).splitlines()]
        self.assertEqual(lost, [f"{agent.data}/{what}" for what in (
            "broken: broken, no expiry", "crashed: cut by a crash, no expiry", "heir: cut by a crash, no expiry",
            "over: cut by a stop, over", "twice: cut by a stop, no expiry", "twice: cut by a stop, no expiry",
            "v/stop ped%: cut by a stop,  s left")])
        self.origin.body("/broken", b"whole")
        self.origin.status("/primary", 404)
        self.origin.released.set()
        self.ctl("replay")
        agent.stored("broken", b"whole")
        for dst in ("crashed", "heir", "twice", "v/stop ped%"):
            agent.stored(dst, b"abcdefghi")
        agent.ended(6)
        self.ctl("lost", status=1, says=rf"^\S+ -> {agent.data}/over:[^\n]*\n$")

    def test_registrations_that_failed(self):
        self.database.stop()
        self.agent.order(self.origin.body("/a", b"a"), "a", query="?expiry=600")
        self.agent.ended()
        self.database.run()
        self.ctl("status", says="database: not connected")
        self.ctl("register", "--from-log", status=7)  # its connection is gone for good
        self.agent.restart()
        begin = time.time()
        self.ctl("register", "--from-log", says="^a: registered\n$")
        self.assertLessEqual(float(self.database.urls("a")["http://me.example/a"]), begin + 600)

    def test_files_whose_time_is_over(self):
        agent = self.agent
        for dst, expiry in (("short", 1), ("prolonged", 1), ("changed", 1), ("long", 600), ("ever", 0)):
            agent.order(self.origin.body(f"/{dst}", b"x"), dst, query=f"?expiry={expiry}")
        agent.ended(5)
        age(agent.path("changed"), -5)
        self.ctl("--expiry", "600", "register", "prolonged")
        time.sleep(2)  # until their ends
        self.ctl("expire", status=1, says=f"^{agent.data}/short: its time is over\n$")
        self.ctl("expire", "--delete")
        agent.holds("changed", "ever", "long", "prolonged")
        self.assertNotIn("http://me.example/short", self.database.urls("short"))
        self.database.stop()
        self.ctl("expire", status=7)  # nobody can tell what was prolonged


class Fleet(KovTest):
    def test_who_lives_and_what_ends(self):
        database = self.redis()
        alive = "return redis.call('HSET', KEYS[1], ARGV[1], redis.call('TIME')[1] * 1000 + ARGV[2] .. ARGV[3])"
        for host, age_ms in (("http://a/f", 0), ("http://b", -9000)):
            database.cli("eval", alive, "1", "kov:alive", host, str(age_ms), " 100 1073741824 2147483648 1")
        now = int(time.time())
        for name, host, ends in (("1", "http://a/f", now + 60), ("1", "http://b", "+inf"), ("2", "http://b", now + 60),
                                 ("dir/3", "http://a/f", now + 60), ("gone", "http://a/f", now - 5)):
            database.cli("zadd", name, str(ends), f"{host}/{name}")
        place = {**os.environ, "KOV_FLEET": f"redis://127.0.0.1:{database.port}"}
        out = kovctl("fleet", env=place, status=1)
        for line in (r"http://a/f +yes +100 +1\.0 +yes +2 +2 +0", r"http://b +no, \d+ s +100 +1\.0 +yes +2 +1 +1",
                     "ids: 3; their last copy ends within 3600 s: 2; on no living host: 1",
                     r"ends in \d+ s: dir/3", "on no living host: 2"):
            self.assertRegex(out, f"(?m)^{line}$")
        self.assertNotIn("gone", out)
        kovctl("-t", "5", "fleet", env=place, status=1, says="within 5 s: 0;")
        database.cli("xadd", "kov:outbox", "*", "id", "x")
        kovctl("fleet", env=place, status=2, says="is an outbox")
        database.stop()
        kovctl("fleet", env=place, status=7, says="no database answers at ")
        liar = self.service(ScriptedDatabase)
        now, page = b"*2\r\n$1\r\n5\r\n$1\r\n5\r\n", b"*5\r\n$1\r\n7\r\n:400\r\n*0\r\n*0\r\n*0\r\n"
        liar.answers = [b"$0\r\n\r\n", b":0\r\n", now, b"*0\r\n", b":100\r\n", now] + [page] * 100
        place["KOV_FLEET"] = f"redis://127.0.0.1:{liar.port}"
        kovctl("fleet", env=place, status=7, says="ids do not end: 1600 so far, it has 100 keys")
        self.assertEqual(len(liar.answers), 96)  # of the pages


class Pages(KovTest):
    """What the security page and the unit say, done."""

    def test_the_unit_lets_another_users_web_server_read(self):
        umask = int(re.search(r"\nUMask=(\d+)", read(f"{TOP}/packaging/systemd/kov.service")).group(1), 8)
        agent = self.start(preexec=lambda: os.umask(umask))
        agent.fetch(self.origin.body("/f", b"x"), "d/f", b"x")
        self.assertEqual([os.stat(agent.path(path)).st_mode & 0o5 for path in ("d", "d/f")], [0o5, 0o4])

    def test_the_least_that_redis_must_allow(self):
        database = self.redis()
        # The default user, who may then do no more, is the last.
        for user in re.findall("(?m)^ {4}user (.*)", read(f"{TOP}/SECURITY.md")):
            self.assertEqual(database.cli("acl", "setuser", *user.split()), "OK")
        write(f"{self.root}/password", "SECRET\n")
        digest = f"{database.sha1_dir}/add_url.sha1"
        os.unlink(digest)
        load = [f"{TOP}/packaging/redis/load-scripts", "-p", str(database.port)]
        where = [f"{TOP}/packaging/redis", database.sha1_dir]
        run(*load, *where, status=1)
        self.assertFalse(os.path.exists(digest))
        run(*load, "-u", "loader", "-a", f"{self.root}/password", *where, umask=0o077)
        self.assertEqual(os.stat(digest).st_mode & 0o777, 0o644)
        agent = self.start(database.settings())
        agent.order(self.origin.body("/a", b"a"), "a", query="?expiry=60")
        agent.ended()
        agent.not_logged("(ERR)")
        login = ("--user", "balancer", "--pass", "SECRET", "--no-auth-warning")
        self.assertEqual(database.cli(*login, "zrangebyscore", "a", "-inf", "+inf"), "http://me.example/a")
        self.assertIn("NOPERM", database.cli("del", "a") + database.cli("get", "a"))


class Completion(unittest.TestCase):
    def complete(self, line):
        """What the shell would offer for the last word; it takes "=" for a word."""
        words = line.replace("=", " = ").split(" ")
        script = (f'source {BIN}/../kov.bash; COMP_WORDS=({" ".join(repr(w) for w in words)}); '
                  f'COMP_CWORD={len(words) - 1}; _{words[0].replace("-", "_")} {words[0]} "${{COMP_WORDS[-1]}}" '
                  '"${COMP_WORDS[-2]}"; printf "%s\\n" "${COMPREPLY[@]}"')
        return run("bash", "-c", script, cwd=EXAMPLES).split()

    def test_words(self):
        for line, offered in (("kovctl ve", ["verify"]), ("kovctl --da", ["--data-dir"]), ("kovctl -C k", ["kov.conf"]),
                              ("kovctl --config=fl", ["fleet.conf"]), ("kovctl --expiry ", []), ("kov -U k", []),
                              ("kovctl -D ../e", ["../examples"]), ("kov k", []), ("kov-checkconf d", ["demo.conf"]),
                              ("kov --level=", ["crit", "err", "norm", "warn", "info", "debug"]),
                              ("kov-checkconf -", ["--strict", "--wait", "--keys", "--help"])):
            self.assertEqual(self.complete(line), offered, line)

    def test_every_option_is_offered_by_both_shells(self):
        for program in ("kov", "kovctl", "kov-checkconf"):
            done = subprocess.run([f"{BIN}/{program}", "--help"], capture_output=True, text=True, check=False)
            text = done.stdout + done.stderr.replace("--webrq[6]", "--webrq --webrq6")
            # kov's help names two that it does not take, and its parser takes one that the help does not name
            options = set(re.findall(r"--[a-z][a-z0-9-]*", text)) - {"--default", "--runas"}
            unnamed = {"--options"} if program == "kov" else set()
            self.assertEqual(set(self.complete(f"{program} --")), options | unnamed)
            script = f'_arguments() {{ print -rl -- "$@" }}; service={program}; . {BIN}/../kov.zsh'
            if shutil.which("zsh"):
                offered = re.findall(r"(?m)^\([^)]*\)(--[\w-]+)", run("zsh", "-f", "-c", script))
                self.assertEqual({*offered, *unnamed}, options | unnamed)


class Dashboard(KovTest):
    def test_it_and_the_alerts_name_just_what_the_exporters_print(self):
        agent = self.start("max_tasks = 10;")
        printed = set(re.findall(r"(?m)^(?:# TYPE )?(kov_\w+)(?: gauge$|\{)",
                                 kovctl("-C", f"{agent.root}/kov.conf", "metrics")))
        printed |= set(re.findall(r"(?m)^counter (kov_\w+)", read(f"{TOP}/packaging/mtail/kov.mtail")))
        panels = json.loads(read(f"{TOP}/packaging/grafana/kov.json"))["panels"]
        shown = {name for panel in panels for target in panel["targets"]
                 for name in re.findall(r"kov_\w+", target["expr"])}
        self.assertEqual(shown, printed)
        alerts = re.findall(r"expr:(.*?)(?:labels|for):", read(f"{TOP}/packaging/mtail/kov.rules.yml"), re.S)
        self.assertLessEqual(set(re.findall(r"kov_\w+", "".join(alerts))), printed)


class Metrics(KovTest):
    maxDiff = None

    def test_every_order_is_counted_once_and_every_failure_has_a_cause(self):
        database = self.redis()
        agent = self.start(database.settings() + "max_tasks = 2;", channel="127.0.0.1:{}", level="norm", tmpfs_kib=1024)
        origin = self.origin
        good = origin.body("/good", b"x" * 5000)
        failures = [("present", good), ("connect", "http://127.0.0.1:1/x"), ("connect", "http://255.255.255.255:1/x"),
                    ("disk", origin.raw("/big", sized(2 << 20) + b"abc")),
                    *((cause, url) for cause, urls in origin.faulty().items() for url in urls)]
        agent.fetch(good, "good", b"x" * 5000)
        agent.ended()
        for n, (cause, source) in enumerate(failures):
            agent.order(source, "good" if cause == "present" else f"f{n}", expect=None)
            agent.ended(n + 2)
        ends = len(failures) + 3
        agent.send(request("/src/http://h/a/dst/x", "POST",
                           "x\r\nX: 2026-11-21 10:00:00 UTC 1  (NRM)  T1  downloaded: 5 bytes, "))
        for k in range(2):
            agent.order(origin.cut(f"/slow{k}", origin.stall), f"s{k}")
        agent.order(good, "more", 500)
        agent.datagram("#!job1 http://h/src/ftp://x/dst/y 60")
        agent.logged("request failed")
        origin.released.set()
        agent.ended(ends)
        run("mount", "-o", "remount,ro", agent.data)
        agent.order(good, "forbidden/file", 400)
        agent.logged("malformed", count=2)
        run("mount", "-o", "remount,rw", agent.data)
        limits = resource.prlimit(agent.pid, resource.RLIMIT_NOFILE)
        with agent.connect():  # takes the agent's next descriptor; the next client another one, its duplicate the third
            wait_for(lambda: agent.fds() == agent.base_fds + 1, "the client")
            resource.prlimit(agent.pid, resource.RLIMIT_NOFILE, (agent.base_fds + 3, limits[1]))
            agent.order(good, "no-socket", expect=None)
            agent.ended(ends + 1)
            resource.prlimit(agent.pid, resource.RLIMIT_NOFILE, (agent.base_fds + 1, limits[1]))
            with agent.connect():
                agent.logged("out of resources")
            resource.prlimit(agent.pid, resource.RLIMIT_NOFILE, limits)
        database.stop()
        agent.order(good, "unregistered")
        agent.ended(ends + 2)
        second = f"{self.root}/second"
        run(KOV, "-C", f"{agent.root}/kov.conf", "-T", "-q", "-l", second, status=1)
        out = run("mtail", "--one_shot", "--one_shot_format=prometheus", "--progs", f"{TOP}/packaging/mtail/kov.mtail",
                  "--logs", agent.log_path, "--logs", second)
        counts = {re.sub(r',?prog="[^"]*",?', "", name).replace("{}", ""): int(value)
                  for name, value in re.findall(r"(?m)^kov_(\S+) (\d+)$", out)}
        expected = {"starts_total": 1, "assertions_total": 0, "orders_started_total": len(failures) + 5,
                    "orders_stored_total": 2, "stored_bytes_total": 10000, "orders_failed_total": len(failures) + 3,
                    "registrations_lost_total": 1, "out_of_resources_total": 1, 'exits_total{status="1"}': 1}
        causes = [*(cause for cause, _ in failures), "broken", "broken", "resources"]
        expected |= collections.Counter(f'failures_total{{cause="{cause}"}}' for cause in causes)
        refused = ("malformed", "limit", "datagram", "disk")
        expected |= collections.Counter(f'orders_refused_total{{cause="{cause}"}}' for cause in refused)
        self.assertEqual(counts, expected)


class Installed(KovTest):
    def setUp(self):
        super().setUp()
        self.tree = f"{self.root}/tree"
        run("cmake", "--install", f"{BIN}/..", "--prefix", "/usr", env={**os.environ, "DESTDIR": self.tree})

    def test_rotated_logs_age_out_and_the_live_one_of_a_quiet_agent_does_not(self):
        logs = f"{self.tree}/var/log/kov"
        os.makedirs(logs)
        write(f"{self.tree}/etc/passwd", "kov:x:0:0::/:/bin/sh\n")
        write(f"{self.tree}/etc/group", "kov:x:0:\n")
        for name in ("kov.log", "kov.log.1700000000"):
            write(f"{logs}/{name}")
        rules = f"{self.tree}/usr/lib/tmpfiles.d/kov.conf"
        subprocess.run(["systemd-tmpfiles", f"--root={self.tree}", "--clean", rules], check=False,
                       env={**os.environ, "LD_PRELOAD": FAKETIME, "FAKETIME": "+40d"})
        self.assertEqual(os.listdir(logs), ["kov.log"])

    def test_files_and_links(self):
        pages = glob.glob(f"{self.tree}/usr/share/doc/kov/**/*.md", recursive=True)
        self.assertGreater(len(pages), 5)
        for page in pages:
            for link in re.findall(r"\]\((?!http)([^)#]+)\)", read(page)):
                self.assertTrue(os.path.exists(os.path.join(os.path.dirname(page), link)), f"{page}: {link}")
        for name in ("lib/systemd/system/kov@.service", "lib/systemd/system/kov-watch.timer", "share/man/man8/kov.8",
                     "lib/systemd/system/kov-expire@.timer", "share/kov/load-scripts", "share/kov/redis/add_url.lua"):
            self.assertTrue(os.path.exists(f"{self.tree}/usr/{name}"), name)
