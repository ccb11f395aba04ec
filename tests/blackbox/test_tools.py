"""The companion programs against a real agent, and the shipped examples."""

import glob
import json
import os
import re
import resource
import signal
import socket
import subprocess
import time
import unittest

from kov import KOV, KovTest, free_port, wait_for
from services import Redis

BIN = os.path.dirname(KOV)
FAKETIME = glob.glob("/usr/lib/*/faketime/libfaketime.so.1")[0]
PACKAGING = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../packaging")
EXAMPLES = f"{PACKAGING}/examples"


def run(name, *args, env=None):
    done = subprocess.run([f"{BIN}/{name}", *args], capture_output=True, text=True, timeout=60, check=False,
                          env={**os.environ, **(env or {})})
    return done.returncode, done.stdout, done.stderr


def extra_listener(port):
    """For an agent that listens where another one does, too."""
    return f', {{ ifc = "lo"; default_af = "inet4"; port = {port}; }}'


class Checkconf(KovTest):
    def check(self, text, *args):
        path = f"{self.root}/c.conf"
        with open(path, "w", encoding="utf-8") as f:
            f.write(text)
        return run("kov-checkconf", *args, path)

    def test_examples_are_accepted_by_the_checker_and_by_the_agent(self):
        for example in glob.glob(f"{EXAMPLES}/*.conf"):
            with open(example, encoding="utf-8") as f:
                text = f.read()
            port = free_port()
            for old, new in (("@DIR@/data", self.root), ("@DIR@", self.root), ("@PORT@", str(port)), ("@REDIS@", "1"),
                             ('"/srv/kov"', f'"{self.root}"'), ("port = 8020", f"port = {port}")):
                text = text.replace(old, new)
            status, out, err = self.check(text)
            self.assertEqual(status, 0, out + err)
            self.assertNotRegex(out, "unknown key|has no effect|is ignored")
            if "@REDIS@" in open(example, encoding="utf-8").read() or "lbdb = {\n        host" in text:
                continue  # does not start without its database
            with open(f"{self.root}/c.conf", "w", encoding="utf-8") as f:
                f.write(text.replace("/var/log/kov/kov.log", f"{self.root}/log"))
            with subprocess.Popen([KOV, "-C", f"{self.root}/c.conf", "-T", "-q"]) as proc:
                wait_for(lambda: os.path.exists(f"{self.root}/log") and "STARTING" in open(f"{self.root}/log").read(), "start")
                proc.terminate()
                self.assertEqual(proc.wait(10), 0)

    def test_the_reference_example_names_every_key(self):
        with open(f"{PACKAGING}/../tools/schema.h", encoding="utf-8") as f:
            keys = set(re.findall(r'\{"(\w+)", V_', f.read()))
        self.assertGreater(len(keys), 30)
        for page in (f"{EXAMPLES}/kov.conf", f"{PACKAGING}/man/kov.conf.5"):
            with open(page, encoding="utf-8") as f:
                self.assertEqual(keys - set(re.findall(r"\w+", f.read())), set(), page)

    def test_warnings_and_refusals(self):
        digests = f"{self.root}/sha1"
        os.makedirs(digests)
        with open(f"{digests}/add_url.sha1", "w", encoding="ascii") as f:
            f.write("x" * 40)
        text = (f'kova = {{ log = {{ levle = "info"; }};\nruntime = {{ quiet = 1; }};\n'
                'web_input = { web = ( { port = 1; }, { port = 2; protocol = "udp"; }, { domain_path = "/x"; port = 3; },\n'
                '{ port = 4; }, { port = 5; } ); };\nudp_input = { url = "239.1.1.1:5000"; };\n'
                f'lbdb = {{ host = "h"; port = 1; sha1_dir = "{digests}"; }}; local_url_prefix = "http://h";\n'
                'max_tasks = 9000000; }; other = 1;')
        status, out, _ = self.check(text)
        self.assertEqual(status, 0)
        for line in ("line 1: unknown key levle", "line 2: quiet is not true or false, and has no effect",
                     "line 4: listener 5 is ignored: there are four at most", "a web listener over udp accepts nobody",
                     "ifc and port are ignored beside domain_path", "unknown key other", "the hard limit is ",
                     "lock_dir /tmp is a temporary place", "can stop the agent with one datagram", "does not hold a SHA1 digest",
                     "a daemon needs log.file", "a daemon needs runtime.pidfile"):
            self.assertIn(line, out)
        self.assertIn("Load-balancer DB: h:1\n", out)
        self.assertEqual(self.check(text, "--strict")[0], 2)
        text = text.replace("max_tasks = 9000000;", "max_tasks = 4294967297; /* 99999999999 */ h = 0x80000000; "
                            's = "99999999999"; l = 99999999999L; f = 9999999999.5; n99999999999 = -2147483648;')
        cut = re.findall(r"line 7: (\S+) is beyond 32 bits, and is taken for another number", self.check(text)[1])
        self.assertEqual(cut, ["4294967297", "0x80000000"])
        good = f'kova = {{ log = {{ }}; runtime = {{ non_daemon = true; }}; web_input = {{ web = {{ port = 2000; }}; }}; data_dir = "{self.root}"; max_tasks = 10; }};'
        self.assertEqual(self.check(good, "--strict")[0], 0)
        self.assertEqual(self.check("kova = {", "--strict")[0], 1)
        os.makedirs(deep := f"{self.root}/" + "d" * 80)
        self.assertRegex(self.check(good.replace(self.root, deep))[1], r"data_dir leaves \d+ characters")
        self.assertEqual(run("kov-checkconf", "--nonsense")[0], 1)
        status, out, _ = self.check(good.replace("max_tasks", "max_taks").replace("port = 2000", "port = 0"))
        self.assertEqual(status, 1)  # and yet the misspelt key is named
        self.assertIn("line 1: unknown key max_taks", out)

    def test_what_this_machine_makes_of_it(self):
        os.mkfifo(f"{self.root}/fifo")
        os.chmod(self.root, 0o777)
        with socket.create_server(("127.0.0.1", 0)) as other:
            taken = other.getsockname()[1]
            out = self.check(f'kova = {{ log = {{ file = "{self.root}/fifo"; }}; runtime = {{ cpunum = 4000; pidfile = "{self.root}/pid"; }};\n'
                             f'web_input = {{ max_accept = 0; web = ( {{ port = {taken}; }}, {{ ifc = "lo"; port = {taken}; }}, {{ port = 80; }} ); }};'
                             f'udp_input = {{ url = "127.0.0.1:1"; lock_dir = "{"l" * 90}"; }};'
                             f'lbdb = {{ host = "h"; port = 1; sha1_dir = "sha1"; }}; local_url_prefix = "http://h/{"p" * 60}"; data_dir = "{self.root}"; }};')[1]
        for line in ("log.file .* is no regular file", "cpunum 4000: this machine has the CPUs 0 to", "pidfile .*: everybody may put a file of that name",
                     "sha1_dir sha1: a daemon changes its directory", "lock_dir l+ is missing", "lock_dir leaves 30 characters for a lock id",
                     "local_url_prefix leaves 57 characters", "max_accept 0: no client is ever taken", "listeners 1 and 2 meet at 127.0.0.1",
                     "port 80 is root's", rf"\*:{taken}: python3 \(pid {os.getpid()}\) listens there already"):
            self.assertRegex(out, f"(?m)^warning: {line}")
        user = 'kova = { log = { file = "/nowhere/log"; }; runtime = { non_daemon = true; run_as_user = "kov"; }; web_input = { web = { port = 2000; }; }; };'
        self.assertRegex(self.check(user)[1], "(?s)log.file: the directory /nowhere is missing.*run_as_user has no effect beside non_daemon")

    def test_waits_for_the_database(self):
        database = Redis(self.new_root())
        text = (f'kova = {{ log = {{ }}; runtime = {{ non_daemon = true; }}; web_input = {{ web = {{ port = 2000; }}; }}; data_dir = "{self.root}";'
                f'{database.settings()} }};')
        self.addCleanup(database.stop)
        self.assertEqual(self.check(text, "--wait", "60")[0], 0)
        database.stop()
        status, out, _ = self.check(text, "--wait", "1")
        self.assertEqual((status, "refused: no database answers at 127.0.0.1" in out), (1, True), out)
        self.assertEqual(self.check(text, "--wait", "soon")[0], 1)
        self.assertEqual(run("kov-checkconf", "--help")[0], 0)


class Ctl(KovTest):
    def setUp(self):
        super().setUp()
        self.udp_port = free_port()
        self.database = Redis(self.new_root())
        self.addCleanup(self.database.stop)
        self.agent = self.start(self.database.settings() + f'udp_input = {{ url = "127.0.0.1:{self.udp_port}"; lock_dir = "{self.root}"; }};'
                                'max_mmap_mb = 0;',
                                more_listeners=f', {{ domain_path = "{self.root}/socket"; }}')

    def ctl(self, *args):
        return run("kovctl", "-C", f"{self.agent.root}/kov.conf", *args)

    def test_orders(self):
        self.assertEqual(self.ctl("ping")[:2], (0, f"127.0.0.1:{self.agent.port}: alive\n"))
        source = self.origin.body("/a b%.ts", b"x" * 3000)
        self.origin.paths["/a"] = self.origin.paths["/a b%.ts"]
        status, out, _ = self.ctl("--wait", "--expiry", "77", "get", self.origin.url("/a"), "v/a b%.ts")
        self.assertEqual((status, out), (0, f"200 started\nstored: {self.agent.path('v/a b%.ts')}, 3000 bytes\n"))
        self.assertIn("expiry=77", self.agent.log())
        self.assertTrue(source)
        # Segments by which an order is split, a destination made from the source, one with a slash in front; a Unix-domain socket.
        for path, dst, stored in (("/live/Dst/a", "/lead/src/a", "lead/src/a"), ("/src/dst/auto", "", "src/dst/auto"), ("/f", "\u00e9 @", "\u00e9 @")):
            status, out, _ = self.ctl("-a", f"{self.root}/socket", "--wait", "get", self.origin.body(path, b"split"), dst)
            self.assertEqual(status, 0, out)
            self.assertEqual(self.agent.stored(stored), b"split")
        for args, code, words in (((self.origin.url("/a"), "v/a b%.ts"), 403, "there already"), (("ftp://h/a", "x"), 400, "not http://"),
                                  (("http://h/" + "x" * 130, "x"), 400, "more than 127 characters")):
            status, out, _ = self.ctl("get", *args)
            self.assertEqual(status, 4 if code == 403 else 1)
            self.assertRegex(out, f"^{code} refused: .*{words}")
        self.assertEqual(self.ctl("get", self.origin.raw("/404", b"HTTP/1.1 404 Not Found\r\n\r\n"), "x")[0], 6)
        cut = self.origin.raw("/cut", b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabc", lambda conn: time.sleep(1.5))
        status, out, _ = self.ctl("get", "--wait", cut, "cut")
        self.assertEqual(status, 1)
        self.assertIn("failed: ", out)
        self.assertEqual(self.ctl("send", "job1", self.origin.url("/a"), "by@udp", "600")[0], 0)
        self.assertEqual(self.agent.stored("by@udp"), b"x" * 3000)
        for bad in (("job", "http://h/a", "x", "5"), ("job1", "http://h/a", "x", ""), ("job1", "http://h/" + "a" * 120, "x", "5"),
                    ("a/bc", "http://h/a", "x", "5")):
            self.assertEqual(self.ctl("send", *bad)[0], 2)
        self.assertEqual(self.ctl("register", "v/a b%.ts")[:2], (0, "v/a b%.ts: registered\n"))
        self.assertEqual(self.ctl("register", "v/none")[:2], (1, f"v/none: not in {self.agent.data}\n"))
        self.assertEqual(self.agent.log().count("TASK-START"), 8)  # nothing was fetched to register
        self.database.stop()
        self.assertRegex(self.ctl("register", "v/a b%.ts")[1], "NOT registered")
        self.assertEqual(self.ctl("register", "v/a b%.ts")[0], 7)
        self.assertEqual(run("kovctl", "-a", f"127.0.0.1:{free_port()}", "ping")[0], 3)
        self.assertEqual(self.ctl("dance")[0], 2)
        for usage in (("get", "one"), ("-t", "soon", "ping"), ("-e", "soon", "get", "http://h/a", "b"), ("get", "http://h/a", "b\n"), ("-p", "0", "status"), ("-D", "/nowhere", "verify")):
            self.assertEqual(self.ctl(*usage)[0], 2)
        self.assertEqual(self.ctl("-p", str(os.getpid()), "status")[0], 3)  # no agent
        with socket.create_server(("127.0.0.1", 0)) as mute:  # takes clients, answers none
            begin = time.monotonic()
            mute_place = f"127.0.0.1:{mute.getsockname()[1]}"
            self.assertEqual(run("kovctl", "-a", mute_place, "ping")[0], 5)
            self.assertLess(time.monotonic() - begin, 10)
            self.assertEqual(run("kovctl", "-a", mute_place, "-t", "1", "ready")[0], 5)
        self.assertEqual(run("kovctl", "-C", "/nowhere", "ping")[0], 2)

    def test_each_agent_is_found_by_its_listeners(self):
        other = self.start(more_listeners=extra_listener(self.agent.port))
        for agent in (self.agent, other):
            status, out, _ = run("kovctl", "-C", f"{agent.root}/kov.conf", "--pid", str(agent.pid), "status")
            self.assertEqual(status, 0)
            mate = other if agent is self.agent else self.agent
            self.assertIn(f"listener: 127.0.0.1:{self.agent.port}, shared with pid {mate.pid} (kov)\n", out)
        self.assertRegex(self.ctl("status")[2], "more than one agent listens at ")
        self.assertEqual(run("kovctl", "-a", f"127.0.0.1:{other.port}", "status")[1].splitlines()[0], f"agent: pid {other.pid}")
        conf = f"{self.agent.root}/kov.conf"
        self.assertRegex(run("kov-checkconf", conf)[1], rf"127.0.0.1:{self.agent.port}: an agent \(pid {self.agent.pid}\) listens there already")
        self.assertEqual(other.stop()[0], 0)
        self.forget(other)
        self.assertEqual(self.ctl("status")[1].splitlines()[0], f"agent: pid {self.agent.pid}")
        self.assertEqual(run("kovctl", "-C", f"{other.root}/kov.conf", "-D", "/tmp", "status")[0], 0)  # they share a place still
        self.assertEqual(self.agent.stop()[0], 0)
        status, _, err = self.ctl("status")
        self.assertEqual((status, "no agent listens at " in err), (3, True), err)
        self.assertIn('\nkov_up{agent="kov"} 0\n', self.ctl("metrics")[1])
        self.agent.run()
        self.assertEqual(self.ctl("ready")[0], 0)

    def test_what_it_holds_and_what_was_left_behind(self):
        running = self.origin.raw("/r", b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabc", self.origin.stall)
        self.assertEqual(self.ctl("get", running, 'run"ning')[0], 0)
        old = time.time() - 40
        for name in ('run"ning-Kova', "left-Kova"):
            with open(self.agent.path(name), "ab") as f:
                f.write(b"" if name.startswith("run") else b"left")
            os.utime(self.agent.path(name), (old, old))
        for name, age in (("old1", old), ("new1", time.time()), ("old", old), ("full", old)):
            with open(f"{self.root}/{name}.lock", "w", encoding="ascii") as f:
                f.write("another program's" if name == "full" else "")
            os.utime(f"{self.root}/{name}.lock", (age, age))
        with open(self.agent.path("sparse"), "wb") as f:
            f.truncate(1 << 20)
        with open(self.agent.path("whole"), "wb") as f:
            f.write(b"whole")
        status, out, _ = self.ctl("status")
        self.assertEqual(status, 0)
        self.assertRegex(out, rf"agent: pid {self.agent.pid}\nlistener: 127.0.0.1:{self.agent.port}\nlistener: {self.root}/socket\nchannel: 127.0.0.1:{self.udp_port}\n"
                         r"clients: 0, 0 waiting\ndownloads: 1 of 4096, 0 bytes/s\ndescriptors: \d+ of \d+\n"
                         rf'unfinished: {self.agent.data}/run"ning-Kova, 3 of 9 bytes, 4\d s since its last change\n$')
        state = json.loads(self.ctl("status", "--json")[1])
        self.assertEqual((state["downloads"]["running"], state["downloads"]["max"]), (1, 4096))
        self.assertEqual([(f["path"], f["bytes"], f["written"]) for f in state["unfinished"]["files"]], [(self.agent.path('run"ning-Kova'), 9, 3)])
        text = self.ctl("metrics")[1]
        self.assertRegex(text, r"(?s)^(# (TYPE|HELP) kov_\w+ [^\n]+\n|kov_\w+\{[^\n]*\} \d+\n)+# EOF\n$")
        self.assertIn('\nkov_downloads{agent="kov"} 1\n', text)
        if os.geteuid() == 0:  # another user must not read that there is no agent
            for command in ("status", "metrics"):
                done = subprocess.run([f"{BIN}/kovctl", "-C", f"{self.agent.root}/kov.conf", command], capture_output=True, text=True,
                                      check=False, user=65534)
                self.assertEqual((done.returncode, "run as root" in done.stderr, done.stdout), (1, True, ""))
        status, out, _ = self.ctl("verify")
        self.assertEqual((status, out), (1, f"{self.agent.path('sparse')}: has fewer blocks than its size\n"))
        os.symlink(self.agent.data, f"{self.root}/link")
        status, out, _ = self.ctl("-D", f"{self.root}/link", "sweep")
        self.assertNotIn("run", out)
        status, out, _ = self.ctl("sweep")
        self.assertEqual(status, 1)
        self.assertEqual(set(out.splitlines()), {f"{self.agent.path('left')}-Kova: unfinished, and no agent writes it",
                                                 f"{self.root}/old1.lock: a lock that has lapsed"})
        self.assertTrue(os.path.exists(self.agent.path("left-Kova")))
        self.assertEqual(self.ctl("sweep", "--delete")[0] + self.ctl("verify", "--delete")[0], 0)
        self.assertEqual(self.agent.files(), ['run"ning-Kova', "whole"])
        self.assertEqual(sorted(n for n in os.listdir(self.root) if n.endswith(".lock")), ["full.lock", "new1.lock", "old.lock"])  # too short, not empty: no locks
        self.origin.released.set()
        self.agent.wait_log("TASK-END")

    def test_help_names_every_command(self):
        status, out, _ = run("kovctl", "--help")
        self.assertEqual(status, 0)
        self.assertEqual(re.findall(r"(?m)^  (\w+) ", out), ["ping", "ready", "get", "send", "status", "metrics", "verify", "sweep", "register", "lost", "replay", "expire"])


class FromTheLog(KovTest):
    def setUp(self):
        super().setUp()
        self.database = Redis(self.new_root())
        self.addCleanup(self.database.stop)
        self.agent = self.start(self.database.settings(), options=("-L", "norm"))

    def ctl(self, *args):
        return run("kovctl", "-C", f"{self.agent.root}/kov.conf", *args)

    def slow(self, path):
        return self.origin.raw(path, b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabc", lambda conn: (self.origin.stall(), conn.sendall(b"defghi")))

    def restart(self, signo):
        self.agent.stop(signo)
        self.agent.run()
        self.agent.wait_ready()

    def test_what_was_cut_off_comes_back(self):
        agent = self.agent
        agent.order(self.origin.body("/good", b"good"), "good")
        agent.order(self.origin.raw("/404", b"HTTP/1.1 404 Not Found\r\n\r\n"), "none")
        agent.order(self.origin.raw("/broken", b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabc"), "broken")
        agent.wait_log("TASK-END", 3)
        agent.order(self.slow("/stopped"), "v/stop%20ped%25", "?expiry=600")
        agent.order(self.slow("/over"), "over", "?expiry=1")
        self.assertRegex(self.ctl("lost")[1], rf"^http://\S+/broken -> {agent.data}/broken: broken, no expiry\n$")  # others run still
        self.restart(signal.SIGTERM)
        wait_for(lambda: "over: cut by a stop, over" in self.ctl("lost")[1], "the expiry's end")
        rotated = int(glob.glob(f"{agent.log_path}.*")[0].rsplit(".", 1)[1])
        wait_for(lambda: time.time() > rotated + 1, "another second, by which the next log is named")
        agent.order(self.slow("/crashed"), "crashed")
        self.restart(signal.SIGKILL)
        os.utime(agent.path("crashed-Kova"), (0, 0))
        status, out, _ = self.ctl("lost")
        self.assertEqual(status, 1)
        self.assertEqual([re.sub(r"^\S+ -> |\d+(?= s)", "", line) for line in out.splitlines()],
                         [f"{agent.data}/{what}" for what in ("broken: broken, no expiry", "crashed: cut by a crash, no expiry",
                                                               "over: cut by a stop, over", "v/stop ped%: cut by a stop,  s left")])
        self.origin.body("/broken", b"whole")
        self.origin.released.set()
        status, out, _ = self.ctl("replay")
        self.assertEqual(status, 0, out)
        for dst, body in (("broken", b"whole"), ("crashed", b"abcdefghi"), ("v/stop ped%", b"abcdefghi")):
            self.assertEqual(agent.stored(dst), body)
        agent.wait_log("TASK-END", 3)
        self.assertEqual([line.split()[2] for line in self.ctl("lost")[1].splitlines()], [f"{agent.data}/over:"])

    def test_registrations_that_failed(self):
        agent = self.agent
        self.database.stop()
        agent.order(self.origin.body("/a", b"a"), "a", "?expiry=600")
        agent.wait_log("TASK-END")
        self.database.run()
        self.assertEqual(self.ctl("register", "--from-log")[0], 7)  # its connection is gone for good
        self.restart(signal.SIGTERM)
        begin = time.time()
        self.assertEqual(self.ctl("register", "--from-log")[:2], (0, "a: registered\n"))
        self.assertLessEqual(float(self.database.urls("a")["http://me.example/a"]), begin + 600)

    def test_files_whose_time_is_over(self):
        agent = self.agent
        for dst, expiry in (("short", 1), ("prolonged", 1), ("changed", 1), ("long", 600), ("ever", 0)):
            agent.order(self.origin.body(f"/{dst}", b"x"), dst, f"?expiry={expiry}")
        agent.wait_log("TASK-END", 5)
        later = time.time() + 5
        os.utime(agent.path("changed"), (later, later))
        self.assertEqual(self.ctl("--expiry", "600", "register", "prolonged")[0], 0)
        wait_for(lambda: self.ctl("expire")[:2] == (1, f"{agent.data}/short: its time is over\n"), "the end")
        self.assertEqual(self.ctl("expire", "--delete")[0], 0)
        self.assertEqual(agent.files(), ["changed", "ever", "long", "prolonged"])
        self.assertNotIn("http://me.example/short", self.database.urls("short"))
        self.database.stop()
        self.assertEqual(self.ctl("expire")[0], 7)  # nobody can tell what was prolonged


class Firewall(unittest.TestCase):
    def test_the_rules_of_the_page(self):
        with open(f"{PACKAGING}/../SECURITY.md", encoding="utf-8") as f:
            rules = "\n".join(re.findall(r"(?m)^ +(nft .*)", f.read()))
        done = subprocess.run(["unshare", "-n", "sh", "-ec", f"PATH=$PATH:/usr/sbin; {rules}\nnft list ruleset"], capture_output=True, text=True, check=False)
        if "not permitted" in done.stderr:
            self.skipTest("no network namespace of its own here")
        self.assertIn("udp dport 5000 ip saddr != 10.0.0.5 drop", done.stdout, done.stderr)


class LoadScripts(KovTest):
    def test_the_least_that_redis_must_allow(self):
        database = Redis(self.new_root())
        self.addCleanup(database.stop)
        with open(f"{PACKAGING}/../SECURITY.md", encoding="utf-8") as f:
            for user in re.findall(r"(?m)^    user (.*)", f.read()):  # the default user, who may then do no more, is the last
                self.assertEqual(database.cli("acl", "setuser", *user.split()), "OK")
        with open(f"{self.root}/password", "w", encoding="ascii") as f:
            f.write("SECRET\n")
        digest = f"{database.sha1_dir}/add_url.sha1"
        os.unlink(digest)
        load = [f"{PACKAGING}/redis/load-scripts", "-p", str(database.port)]
        where = [f"{PACKAGING}/redis", database.sha1_dir]
        self.assertEqual(subprocess.run([*load, *where], capture_output=True, check=False).returncode, 1)
        self.assertFalse(os.path.exists(digest))
        subprocess.run([*load, "-u", "loader", "-a", f"{self.root}/password", *where], check=True, capture_output=True, umask=0o077)
        self.assertEqual(os.stat(digest).st_mode & 0o777, 0o644)
        agent = self.start(database.settings())
        agent.order(self.origin.body("/a", b"a"), "a", "?expiry=60")
        agent.wait_log("TASK-END")
        self.assertNotIn("(ERR)", agent.log())
        login = ("--user", "balancer", "--pass", "SECRET", "--no-auth-warning")
        self.assertEqual(database.cli(*login, "zrangebyscore", "a", "-inf", "+inf"), "http://me.example/a")
        self.assertIn("NOPERM", database.cli("del", "a") + database.cli("get", "a"))


class Completion(unittest.TestCase):
    def complete(self, line):
        """What the shell would offer for the last word; it takes "=" for a word."""
        words = line.replace("=", " = ").split(" ")
        program = words[0].replace("-", "_")
        script = (f'source {BIN}/../kov.bash; COMP_WORDS=({" ".join(repr(w) for w in words)}); COMP_CWORD={len(words) - 1}; '
                  f'_{program} {words[0]} "${{COMP_WORDS[-1]}}" "${{COMP_WORDS[-2]}}"; printf "%s\\n" "${{COMPREPLY[@]}}"')
        return subprocess.run(["bash", "-c", script], capture_output=True, text=True, check=True, cwd=EXAMPLES).stdout.split()

    def test_words(self):
        for line, offered in (("kovctl ve", ["verify"]), ("kovctl --da", ["--data-dir"]), ("kovctl -C k", ["kov.conf"]),
                              ("kovctl --config=fl", ["fleet.conf"]), ("kovctl --expiry ", []), ("kovctl -D ../e", ["../examples"]),
                              ("kov --level=", ["crit", "err", "norm", "warn", "info", "debug"]), ("kov -U k", []), ("kov k", []),
                              ("kov-checkconf d", ["demo.conf"]), ("kov-checkconf -", ["--strict", "--wait", "--help"])):
            self.assertEqual(self.complete(line), offered, line)

    def test_every_option_is_offered(self):
        for program in ("kov", "kovctl", "kov-checkconf"):
            text = "".join(run(program, "--help")[1:])
            options = set(re.findall(r"--[a-z][a-z0-9-]*", re.sub(r"--webrq\[6\]", "--webrq --webrq6", text)))
            # kov's help names two that it does not take, and its parser takes one that the help does not name
            self.assertEqual(set(self.complete(f"{program} --")) ^ options - {"--default", "--runas"},
                             {"--options"} if program == "kov" else set())


class Metrics(KovTest):
    maxDiff = None

    def test_every_order_is_counted_once_and_every_failure_has_a_cause(self):
        database = Redis(self.new_root())
        udp_port = free_port()
        agent = self.start(database.settings() + f'udp_input = {{ url = "127.0.0.1:{udp_port}"; lock_dir = "{self.root}"; }}; max_tasks = 2;',
                           options=("-L", "norm"), tmpfs_kib=1024)
        ok = b"HTTP/1.1 200 OK\r\n"
        length = ok + b"Content-Length: %d\r\n\r\n"
        good = self.origin.body("/good", b"x" * 5000)
        failures = (("broken", self.origin.raw("/cut", length % 9000 + b"abc")), ("broken", self.origin.raw("/none", b"")),
                    ("broken", self.origin.raw("/reset", length % 9000 + b"abc", self.origin.reset)), ("present", good),
                    ("status", self.origin.raw("/404", b"HTTP/1.1 404 Not Found\r\n\r\n")), ("head", self.origin.raw("/nolength", ok + b"\r\n")),
                    ("head", self.origin.raw("/garbage", b"\1\2\r\n\r\n")), ("head", self.origin.raw("/endless", b"x" * 20000)),
                    ("connect", "http://127.0.0.1:1/x"), ("connect", "http://255.255.255.255:1/x"),
                    ("disk", self.origin.raw("/big", length % (2 << 20) + b"abc")))
        agent.order(good, "good")
        agent.wait_log("TASK-END")
        for n, (cause, source) in enumerate(failures):
            agent.order(source, "good" if cause == "present" else f"f{n}")
            agent.wait_log("TASK-END", n + 2)
        agent.send(b"POST /src/http://h/a/dst/x HTTP/1.1\r\nX: 2026-11-21 10:00:00 UTC 1  (NRM)  T1  downloaded: 5 bytes, \r\n\r\n")
        for k in range(2):
            agent.order(self.origin.raw(f"/slow{k}", length % 9 + b"abc", self.origin.stall), f"s{k}")
        agent.order(good, "more")
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
            s.sendto(b"#!job1 http://h/src/ftp://x/dst/y 60", ("127.0.0.1", udp_port))
        agent.wait_log("request failed")
        self.origin.released.set()
        agent.wait_log("TASK-END", len(failures) + 3)
        ends = len(failures) + 3
        subprocess.run(["mount", "-o", "remount,ro", agent.data], check=True)
        agent.order(good, "forbidden/file")
        agent.wait_log("malformed", 2)
        subprocess.run(["mount", "-o", "remount,rw", agent.data], check=True)
        limits = resource.prlimit(agent.pid, resource.RLIMIT_NOFILE)
        with agent.connect():  # takes the agent's next descriptor; the next client another one, its duplicate the third
            wait_for(lambda: agent.fds() == agent.base_fds + 1, "the client")
            resource.prlimit(agent.pid, resource.RLIMIT_NOFILE, (agent.base_fds + 3, limits[1]))
            agent.order(good, "no-socket")
            agent.wait_log("TASK-END", ends + 1)
            resource.prlimit(agent.pid, resource.RLIMIT_NOFILE, limits)
        database.stop()
        agent.order(good, "unregistered")
        agent.wait_log("TASK-END", ends + 2)
        failed_start = subprocess.run([KOV, "-C", f"{agent.root}/kov.conf", "-T", "-q", "-l", f"{self.root}/second"], check=False)
        self.assertNotEqual(failed_start.returncode, 0)
        done = subprocess.run(["mtail", "--one_shot", "--one_shot_format=prometheus", "--progs", f"{PACKAGING}/mtail/kov.mtail", "--logs",
                               agent.log_path, "--logs", f"{self.root}/second"], capture_output=True, text=True, check=True, timeout=60)
        counts = {re.sub(r',?prog="[^"]*",?', "", name).replace("{}", ""): int(value)
                  for name, value in re.findall(r"(?m)^kov_(\S+) (\d+)$", done.stdout)}
        expected = {"starts_total": 1, "assertions_total": 0, "orders_started_total": len(failures) + 5, "orders_stored_total": 2,
                    "stored_bytes_total": 10000, "orders_failed_total": len(failures) + 3, "registrations_lost_total": 1,
                    "out_of_resources_total": counts["out_of_resources_total"], f'exits_total{{status="{failed_start.returncode}"}}': 1}
        for cause in "malformed", "limit", "datagram", "disk":
            expected[f'orders_refused_total{{cause="{cause}"}}'] = 1
        for cause, _ in (*failures, ("broken", ""), ("broken", ""), ("resources", "")):
            key = f'failures_total{{cause="{cause}"}}'
            expected[key] = expected.get(key, 0) + 1
        self.assertEqual(counts, expected)


class Installed(KovTest):
    def test_install_start_order_remove(self):
        tree = f"{self.root}/tree"
        subprocess.run(["cmake", "--install", f"{BIN}/..", "--prefix", "/usr"], check=True, capture_output=True,
                       env={**os.environ, "DESTDIR": tree})
        with open(f"{tree}/etc/kov/kov.conf", encoding="utf-8") as f:
            text = f.read()
        port = free_port()
        data = f"{tree}/srv/kov"
        os.makedirs(data)
        for old, new in (("/srv/kov", data), ("/var/log/kov/kov.log", f"{tree}/log"), ("port = 8020", f"port = {port}")):
            self.assertIn(old, text)
            text = text.replace(old, new)
        with open(f"{tree}/etc/kov/kov.conf", "w", encoding="utf-8") as f:
            f.write(text)
        conf = f"{tree}/etc/kov/kov.conf"
        self.assertEqual(subprocess.run([f"{tree}/usr/sbin/kov-checkconf", conf], capture_output=True, check=False).returncode, 0)
        with open(f"{tree}/usr/lib/systemd/system/kov.service", encoding="utf-8") as f:
            umask = int(re.search(r"\nUMask=(\d+)", f.read()).group(1), 8)
        with subprocess.Popen([f"{tree}/usr/sbin/kov", "-C", conf, "-T", "-q"], umask=umask) as proc:
            ctl = [f"{tree}/usr/bin/kovctl", "-C", conf]
            wait_for(lambda: subprocess.run([*ctl, "ping"], capture_output=True, check=False).returncode == 0, "the agent")
            source = self.origin.body("/f", b"installed" * 1000)
            self.assertEqual(subprocess.run([*ctl, "get", "--wait", source, "d/f"], capture_output=True, check=False).returncode, 0)
            proc.terminate()
            self.assertEqual(proc.wait(10), 0)
        with open(f"{data}/d/f", "rb") as f:
            self.assertEqual(f.read(), b"installed" * 1000)
        # A web server of another user reads it.
        self.assertEqual((os.stat(f"{data}/d").st_mode & 0o5, os.stat(f"{data}/d/f").st_mode & 0o4), (0o5, 0o4))
        # Rotated logs age out, the live one of a quiet agent does not.
        logs = f"{tree}/var/log/kov"
        os.makedirs(logs)
        for name, line in (("passwd", "kov:x:0:0::/:/bin/sh\n"), ("group", "kov:x:0:\n")):
            with open(f"{tree}/etc/{name}", "w", encoding="ascii") as f:
                f.write(line)
        for name in ("kov.log", "kov.log.1700000000"):
            open(f"{logs}/{name}", "w", encoding="ascii").close()
        done = subprocess.run(["systemd-tmpfiles", f"--root={tree}", "--clean", f"{tree}/usr/lib/tmpfiles.d/kov.conf"], capture_output=True,
                              text=True, check=False, env={**os.environ, "LD_PRELOAD": FAKETIME, "FAKETIME": "+40d"})
        self.assertEqual(os.listdir(logs), ["kov.log"], done.stderr)
        pages = glob.glob(f"{tree}/usr/share/doc/kov/**/*.md", recursive=True)
        self.assertGreater(len(pages), 5)
        for page in pages:
            with open(page, encoding="utf-8") as f:
                for link in re.findall(r"\]\((?!http)([^)#]+)\)", f.read()):
                    self.assertTrue(os.path.exists(os.path.join(os.path.dirname(page), link)), f"{page}: {link}")
        for name in ("systemd/system/kov@.service", "systemd/system/kov-watch.timer", "systemd/system/kov-expire@.timer"):
            self.assertTrue(os.path.exists(f"{tree}/usr/lib/{name}"), name)
        for name in ("man/man8/kov.8", "man/man5/kov.conf.5", "man/man1/kovctl.1", "man/man8/kov-checkconf.8", "kov/load-scripts",
                     "kov/redis/add_url.lua"):
            self.assertTrue(os.path.exists(f"{tree}/usr/share/{name}"), name)


if __name__ == "__main__":
    unittest.main()
