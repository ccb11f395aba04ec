"""Registration in a real Redis by the shipped script, and what a database that errs, lies, hangs or leaves costs."""

import os
import signal
import socket
import time
import unittest
from urllib.parse import quote

from kov import ANSWERS, QUICK, KovTest, free_port, wait_for
from services import Redis, ScriptedDatabase


class Database(KovTest):
    kind = Redis

    def setUp(self):
        super().setUp()
        self.db = self.kind(self.new_root())
        self.addCleanup(self.db.stop)

    def order(self, agent, dst, query=""):
        source = self.origin.body(f"/{len(self.origin.paths)}", dst.encode())
        self.assertEqual(agent.order(source, quote(dst), query), ANSWERS[200])
        self.assertEqual(agent.stored(dst), dst.encode())

    def fails_to_start(self, settings, status, *messages):
        agent = self.start(settings, must_run=False, options=("-L", "debug"))
        self.assertEqual(agent.proc.wait(20), status)
        for message in (*messages, "kov shut down\n"):
            self.assertIn(message, agent.log() + agent.stderr())
        return agent


class Registration(Database):
    def test_every_stored_file_is_found_by_a_reader(self):
        udp_port = free_port()
        agent = self.start(self.db.settings() + f'udp_input = {{ url = "127.0.0.1:{udp_port}"; lock_dir = "{self.root}"; }};')
        stalled = self.origin.raw("/s", b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabc",
                                  lambda conn: (self.origin.stall(), conn.sendall(b"defghi")))
        self.assertEqual(agent.order(stalled, "stalled"), ANSWERS[200])
        with agent.connect():
            wait_for(lambda: agent.fds() >= agent.base_fds + 3, "a client besides the download")
            for fd in os.listdir(f"/proc/{agent.pid}/fd"):  # nothing that a log command could inherit
                with open(f"/proc/{agent.pid}/fdinfo/{fd}", encoding="ascii") as f:
                    self.assertTrue(int(fd) < 3 or int(f.read().split()[3], 8) & os.O_CLOEXEC, os.readlink(f"/proc/{agent.pid}/fd/{fd}"))
        self.origin.released.set()
        agent.wait_log("TASK-END")
        now = int(time.time())
        self.order(agent, "v/a b%.ts", "?expiry=600")  # neither blank nor percent sign is anything to the protocol
        self.order(agent, "v/never.ts")
        self.order(agent, "v/past.ts", "?expiry=-1")
        self.order(agent, "v/fixed.ts", "?expiry=2000000000")
        agent.wait_log("TASK-END", 5)
        ends = int(self.db.cli("zscore", "v/a b%.ts", "http://me.example/v/a b%.ts"))
        self.assertTrue(now + 600 <= ends <= now + 605, ends)
        self.assertTrue(595 <= int(self.db.cli("ttl", "v/a b%.ts")) <= 600)
        self.assertEqual(self.db.urls("v/never.ts"), {"http://me.example/v/never.ts": "inf"})
        self.assertEqual(self.db.cli("ttl", "v/never.ts"), "-1")
        self.assertEqual(self.db.urls("v/past.ts"), {})
        self.assertEqual(self.db.urls("v/fixed.ts"), {"http://me.example/v/fixed.ts": "2000000000"})

        # A source below the agent's own prefix, by both ways: no download, the lock of the datagram is left to lapse.
        self.assertEqual(agent.order("http://ME.example/v/own.ts", "v/own.ts", "?expiry=2000000001"), ANSWERS[200])
        self.assertEqual(self.db.urls("v/own.ts"), {"http://me.example/v/own.ts": "2000000001"})
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
            s.sendto(b"#!job1 http://h/src/http://me.example/dst/v/udp.ts 2000000002", ("127.0.0.1", udp_port))
        agent.wait_log("id=[v/udp.ts], url=[http://me.example/v/udp.ts], expiry=2000000002\n")
        wait_for(lambda: self.db.urls("v/udp.ts") == {"http://me.example/v/udp.ts": "2000000002"}, "the registration")
        self.assertTrue(os.path.exists(f"{self.root}/job1.lock"))
        self.assertEqual(agent.log().count("TASK-START"), 5)
        self.assertNotIn("(ERR)", agent.log())

    def test_the_script_keeps_every_host_until_it_expires(self):
        for host, expiry in (("a", "4"), ("b", "100"), ("c", "200"), ("b", "300")):
            self.assertEqual(self.add("id", f"http://{host}/id", expiry), "ok:id")
        self.assertEqual(list(self.db.urls("id")), ["http://a/id", "http://c/id", "http://b/id"])
        self.assertTrue(295 <= int(self.db.cli("ttl", "id")) <= 300)
        time.sleep(5.0)  # "a" has ended; it had long enough for a slow machine to see it before
        self.assertEqual(self.add("id", "http://d/id", "0"), "ok:id")
        self.assertEqual(list(self.db.urls("id")), ["http://c/id", "http://b/id", "http://d/id"])
        self.assertEqual(self.db.cli("ttl", "id"), "-1")
        ends = self.db.urls("id")
        self.add("id", "http://c/id", "0")
        self.assertEqual(self.db.urls("id"), ends)  # no end was forgotten
        self.assertIn("add_url wants an id, a URL and an expiry", self.add("id", "http://e/id", "soon"))

    def add(self, *args):
        with open(f"{self.db.sha1_dir}/add_url.sha1", encoding="ascii") as f:
            return self.db.cli("evalsha", f.read().strip(), "1", *args)

    def test_what_a_script_may_answer(self):
        scripts = f"{self.root}/scripts"
        os.makedirs(scripts)
        for body, message in (
                ("return 'any' .. KEYS[1]", None),
                ("return {'any' .. KEYS[1]}", None),
                ("return 'ok:other'", "lbdb_add_segurl: expected f, got [ok:other]\n"),
                ("return 'ok'", "lbdb_add_segurl: expected f, got [ok]\n"),
                ("return ''", "lbdb_add_segurl: expected f, got []\n"),
                ("return 7", "reply_to_str: not expecting reply type=3\n"),
                ("return nil", "reply_to_str: not expecting reply type=4\n"),
                ("return {'ok:f', 'more'}", "reply_to_str: more than 1 element (2) returned\n"),
                ("return {}", "reply_to_str: more than 1 element (0) returned\n"),
                ("return {7}", "reply_to_str: expected string, got 3\n"),
                ("return redis.status_reply('FINE')", "reply_to_str: Redis status: FINE\n"),
                ("return redis.error_reply('BAD day')", "reply_to_str: Redis error: BAD day\n"),
                ("return 'ok:' .. string.rep('x', 1021)", "reply_to_str: reply is bigger than buffer: 1024/1023\n"),
                ("return {'ok:' .. string.rep('x', 1021)}", "reply_to_str: reply is bigger than buffer: 1024/1023\n"),
                ("return nosuch()", "reply_to_str: Redis error: ERR ")):
            with open(f"{scripts}/add_url.lua", "w", encoding="ascii") as f:
                f.write(body)
            self.db.load(scripts)
            agent = self.start(self.db.settings())
            self.order(agent, "f")
            agent.wait_log("TASK-END")
            if message:
                self.assertIn(message, agent.log(), body)
                self.assertIn("add_lbdb_url: failed to add [f]\n", agent.log(), body)
            else:
                self.assertNotIn("(ERR)", agent.log(), body)
            self.assertEqual(agent.stop()[0], 0)
            self.forget(agent)

    def test_a_server_that_leaves_costs_registrations_only(self):
        agent = self.start(self.db.settings())
        self.order(agent, "before")
        self.db.stop()
        for n in range(2):
            self.order(agent, f"without{n}")
            agent.wait_log("TASK-END", n + 2)
        self.assertEqual(agent.log().count("lbdb_add_segurl: NULL as reply\n"), 2)
        self.db.run()  # a server that is back is not connected again
        self.order(agent, "after")
        agent.wait_log("add_lbdb_url: failed to add [after]\n")
        self.assertEqual(agent.order("http://me.example/x", "x"), ANSWERS[200])  # the file is there, all the same
        self.assertIn("add_lbdb_url: failed to add [x]\n", agent.log())
        self.assertEqual(agent.get("/"), ANSWERS[204])

    def test_a_server_that_hangs_holds_the_agent_up_but_not_its_end(self):
        agent = self.start(self.db.settings())
        self.order(agent, "before")
        agent.wait_log("TASK-END")
        self.db.proc.send_signal(signal.SIGSTOP)
        self.addCleanup(self.db.proc.send_signal, signal.SIGCONT)
        self.order(agent, "stored")  # the rename comes first
        agent.wait_log("id=[stored]")
        time.sleep(0.2)  # in the call
        status, seconds = agent.stop()
        self.assertEqual(status, 0)
        self.assertTrue(0.4 < seconds < (5 if "asan" in os.environ["KOV"] else 1), seconds)
        self.assertIn("lbdb_add_segurl: NULL as reply\n", agent.log())
        self.assertIn("kov shut down\n", agent.log())
        self.db.proc.send_signal(signal.SIGCONT)
        self.forget(agent)

    def test_a_lost_connection_keeps_no_commands(self):
        agent = self.start(self.db.settings(), options=("-L", "err"))
        self.db.stop()
        def orders(count):
            for _ in range(count):
                self.assertEqual(agent.order("http://me.example/" + "x" * 90, "y" * 80), ANSWERS[200])
        orders(200)
        base = agent.rss_kib()
        orders(300 if QUICK else 3000)
        self.assertLess(agent.rss_kib() - base, 256 if "asan" not in os.environ["KOV"] else 4096)

    def test_a_rename_that_fails_is_registered_all_the_same(self):
        agent = self.start(self.db.settings())
        gate = self.origin.raw("/r", b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n1",
                               lambda conn: (self.origin.stall(), conn.sendall(b"2")))
        self.assertEqual(agent.order(gate, "r"), ANSWERS[200])
        os.mkdir(agent.path("r"))
        self.origin.released.set()
        agent.wait_log("TASK-END")
        self.assertRegex(agent.log(), r"complete_download: rename\(.*\) ERROR\(21\): Is a directory\n")
        self.assertEqual(self.db.urls("r"), {"http://me.example/r": "inf"})
        os.rmdir(agent.path("r"))
        os.remove(agent.path("r-Kova"))  # it stays under its unfinished name


class Start(Database):
    def test_failures_have_their_status(self):
        settings = self.db.settings()
        port = self.db.port
        digest = f"{self.db.sha1_dir}/add_url.sha1"
        refused = ("lbdb_connect: failed for 127.0.0.1:", "init_kova_ctx: failed to [?], rc=")
        self.fails_to_start(settings.replace(f"port = {port}", f"port = {free_port()}"), 1,
                            "lbdb_connect: redisConnectWithTimeout ERROR(1): ", *refused)
        self.db.cli("script", "flush")
        self.fails_to_start(settings, 2, *refused, "rc=2\n")
        for text, message in (("1" * 38, "] unexpected SHA1 size: 38\n"), ("1" * 37 + "\n", "] unexpected SHA1 size: 38\n")):
            self.write(digest, text)
            self.fails_to_start(settings, 1, message)
        os.remove(digest)
        self.fails_to_start(settings, 1, f"read_sha_signature: fopen({digest},...) ERROR(2): ")
        self.write(digest, "")
        agent = self.start(settings, must_run=False)
        self.assertEqual(agent.proc.wait(20), -signal.SIGABRT)
        self.assertIn("read_sha_signature: fgets(...) ERROR(0): ", agent.log())
        self.assertIn("(PNC)  KOV  ASSERT at:\n", agent.log())
        self.assertIn("g_ctx.add_sha1[0]", agent.stderr())

    @staticmethod
    def write(path, text):
        with open(path, "w", encoding="ascii") as f:
            f.write(text)

    def test_a_script_command_that_is_refused(self):
        self.db.cli("acl", "setuser", "default", "-script")
        self.fails_to_start(self.db.settings(), 1, "check_script_exists: Redis error: NOPERM ")

    def test_a_server_that_does_not_accept_is_given_up_in_time(self):
        with socket.socket() as full:
            full.bind(("127.0.0.1", 0))
            full.listen(0)
            address = full.getsockname()
            fillers = [socket.socket() for _ in range(4)]
            for s in fillers:
                s.setblocking(False)
                s.connect_ex(address)
            settings = self.db.settings().replace(f"port = {self.db.port}", f"connect_tmout_ms = 700; port = {address[1]}")
            start = time.monotonic()
            self.fails_to_start(settings, 1, "lbdb_connect: redisConnectWithTimeout ERROR(1): ")
            self.assertTrue(0.6 < time.monotonic() - start < 3)
            start = time.monotonic()
            agent = self.start(settings.replace("= 700", "= 60000"), must_run=False)
            time.sleep(0.5)
            agent.proc.send_signal(signal.SIGUSR2)
            agent.wait_log("T-DBG SIG(12)")
            agent.proc.send_signal(signal.SIGTERM)
            self.assertEqual(agent.proc.wait(20), 0)
            self.assertIn("kov has been asked to quit.\n", agent.log())
            self.assertLess(time.monotonic() - start, 3)
            for s in fillers:
                s.close()


class Scripted(Database):
    kind = ScriptedDatabase

    def test_what_the_connect_makes_of_the_reply(self):
        name = "check_script_exists: "
        for answer, status, message in (
                (b"*1\r\n:0\r\n", 2, "rc=2\n"), (b":0\r\n", 2, name + "no such script: " + "0123456789" * 4 + "\n"),
                (b":7\r\n", 2, "rc=2\n"), (b"*2\r\n:1\r\n:1\r\n", 22, name + "more than 1 element (2) returned\n"),
                (b"*0\r\n", 22, name + "more than 1 element (0) returned\n"),
                (b"*1\r\n$1\r\nx\r\n", 22, name + "expected integer, got 1\n"),
                (b"$2\r\nok\r\n", 22, name + "not expecting reply type=1\n"),
                (b"-ERR no\r\n", 1, name + "Redis error: ERR no\n"), (b"?!garbage\r\n", 1, name + "NULL as reply\n"),
                (b"$1073741824\r\n" + b"x" * (2 << 20), 1, name + "NULL as reply\n"), (b"", 1, name + "NULL as reply\n")):
            self.db.answers = [answer] if answer else []
            agent = self.fails_to_start(self.db.settings(), status, message, "lbdb_connect: failed for 127.0.0.1:")
            if "element" in message or "integer" in message:
                self.assertIn(message, agent.stderr())
                self.assertNotIn(message, agent.log())

    def test_a_server_that_says_more_than_it_was_asked_is_lost(self):
        self.db.answers = [b":1\r\n+MORE\r\n", b"$4\r\nok:a\r\n", b"$4\r\nok:b\r\n"]
        agent = self.start(self.db.settings())
        for n, dst in enumerate("ab"):
            self.order(agent, dst)
            agent.wait_log("lbdb_add_segurl: NULL as reply\n", n + 1)
        self.assertEqual(len(self.db.commands), 1)

    def test_the_commands_on_the_wire(self):
        for found in (b"*1\r\n:1\r\n", b":1\r\n"):
            self.db.commands.clear()
            self.db.answers = [found, b"$9\r\n#e#w/id 1\r\n", b"$14\r\n#err: w/id 2..\r\n"]
            agent = self.start(self.db.settings())
            self.order(agent, "w/id 1", "?expiry=77")
            agent.wait_log("TASK-END")
            self.assertNotIn("(ERR)", agent.log())
            digest = b"0123456789" * 4
            url = b"http://me.example/w/id 1"
            self.assertEqual(self.db.commands, [
                b"*3\r\n$6\r\nscript\r\n$6\r\nexists\r\n$40\r\n%s\r\n" % digest,
                b"*6\r\n$7\r\nevalsha\r\n$40\r\n%s\r\n$1\r\n1\r\n$6\r\nw/id 1\r\n$%d\r\n%s\r\n$2\r\n77\r\n"
                % (digest, len(url), url)])
            agent.stop()
            self.forget(agent)


if __name__ == "__main__":
    unittest.main()
