"""Registration in a real Redis by the shipped script, and what a database that errs, lies, hangs or leaves costs."""

import os
import signal
import socket
import time
from urllib.parse import quote

from harness import (QUICK, SLOW, KovTest, Redis, ScriptedDatabase, cases, free_port, read, sized, wait_for,
                     write)

DIGEST = "0123456789" * 4


class Database(KovTest):
    kind = Redis

    def setUp(self):
        super().setUp()
        self.db = self.service(self.kind)

    def store(self, agent, dst, query=""):
        agent.order(self.origin.body(f"/{len(self.origin.paths)}", dst.encode()), quote(dst), query=query)
        agent.stored(dst, dst.encode())

    def refused(self, status, *messages, settings=""):
        messages = [*messages, "kov shut down\n"]
        return self.fails_to_start(status, messages, settings or self.db.settings(), level="debug")


class Registration(Database):
    def test_every_stored_file_is_found_by_a_reader(self):
        agent = self.start(self.db.settings(), channel="127.0.0.1:{}")
        agent.order(self.origin.halves("/s"), "stalled")
        with agent.connect():
            wait_for(lambda: agent.fds() >= agent.base_fds + 3, "a client besides the download")
            for fd in os.listdir(f"/proc/{agent.pid}/fd"):  # nothing that a log command could inherit
                flags = int(agent.proc_file(f"fdinfo/{fd}").split()[3], 8)
                self.assertTrue(int(fd) < 3 or flags & os.O_CLOEXEC, os.readlink(f"/proc/{agent.pid}/fd/{fd}"))
        self.origin.released.set()
        agent.ended()
        now = int(time.time())
        self.store(agent, "v/a b%.ts", "?expiry=600")  # neither blank nor percent sign is anything to the protocol
        self.store(agent, "v/never.ts")
        self.store(agent, "v/past.ts", "?expiry=-1")
        self.store(agent, "v/fixed.ts", "?expiry=2000000000")
        agent.ended(5)
        ends = int(self.db.cli("zscore", "v/a b%.ts", "http://me.example/v/a b%.ts"))
        self.assertTrue(now + 600 <= ends <= now + 605, ends)
        self.assertTrue(595 <= int(self.db.cli("ttl", "v/a b%.ts")) <= 600)
        self.assertEqual(self.db.urls("v/never.ts"), {"http://me.example/v/never.ts": "inf"})
        self.assertEqual(self.db.cli("ttl", "v/never.ts"), "-1")
        self.assertEqual(self.db.urls("v/past.ts"), {})
        self.assertEqual(self.db.urls("v/fixed.ts"), {"http://me.example/v/fixed.ts": "2000000000"})

        # A source below the agent's own prefix, by both ways: no download, the lock of the datagram is left to lapse.
        agent.order("http://ME.example/v/own.ts", "v/own.ts", query="?expiry=2000000001")
        self.assertEqual(self.db.urls("v/own.ts"), {"http://me.example/v/own.ts": "2000000001"})
        agent.datagram("#!job1 http://h/src/http://me.example/dst/v/udp.ts 2000000002")
        agent.logged("id=[v/udp.ts], url=[http://me.example/v/udp.ts], expiry=2000000002\n")
        wait_for(lambda: self.db.urls("v/udp.ts") == {"http://me.example/v/udp.ts": "2000000002"}, "the registration")
        self.assertEqual(agent.held(), ["job1.lock"])
        self.assertEqual(agent.log().count("TASK-START"), 5)
        agent.not_logged("(ERR)")

    def test_the_script_keeps_every_host_until_it_expires(self):
        digest = read(f"{self.db.sha1_dir}/add_url.sha1").strip()

        def add(*args):
            return self.db.cli("evalsha", digest, "1", "id", *args)

        for host, expiry in (("a", "4"), ("b", "100"), ("c", "200"), ("b", "300")):
            self.assertEqual(add(f"http://{host}/id", expiry), "ok:id")
        self.assertEqual(list(self.db.urls("id")), ["http://a/id", "http://c/id", "http://b/id"])
        self.assertTrue(295 <= int(self.db.cli("ttl", "id")) <= 300)
        time.sleep(5.0)  # "a" has ended; it had long enough for a slow machine to see it before
        self.assertEqual(add("http://d/id", "0"), "ok:id")
        self.assertEqual(list(self.db.urls("id")), ["http://c/id", "http://b/id", "http://d/id"])
        self.assertEqual(self.db.cli("ttl", "id"), "-1")
        ends = self.db.urls("id")
        add("http://c/id", "0")
        self.assertEqual(self.db.urls("id"), ends)  # no end was forgotten
        self.assertIn("add_url wants an id, a URL and an expiry", add("http://e/id", "soon"))

    def test_what_a_script_may_answer(self):
        scripts = self.new_root()
        any_id = ["return 'any' .. KEYS[1]", ""], ["return {'any' .. KEYS[1]}", ""]
        for body, message in (*any_id, *cases("scripts")):
            write(f"{scripts}/add_url.lua", body)
            self.db.load(scripts)
            agent = self.start(self.db.settings())
            self.store(agent, "f")
            agent.ended()
            if message:
                agent.logged(message, "add_lbdb_url: failed to add [f]\n")
            else:
                agent.not_logged("(ERR)")
            self.end(agent)

    def test_a_server_that_leaves_costs_registrations_only(self):
        agent = self.start(self.db.settings())
        self.store(agent, "before")
        self.db.stop()
        for n in range(2):
            self.store(agent, f"without{n}")
            agent.ended(n + 2)
        self.assertEqual(agent.log().count("lbdb_add_segurl: NULL as reply\n"), 2)
        self.db.run()  # a server that is back is not connected again
        self.store(agent, "after")
        agent.logged("add_lbdb_url: failed to add [after]\n")
        agent.order("http://me.example/x", "x")  # the file is there, all the same
        agent.logged("add_lbdb_url: failed to add [x]\n")
        agent.get("/", 204)

    def test_a_server_that_hangs_holds_the_agent_up_but_not_its_end(self):
        agent = self.start(self.db.settings())
        self.store(agent, "before")
        agent.ended()
        self.db.proc.send_signal(signal.SIGSTOP)
        self.addCleanup(self.db.proc.send_signal, signal.SIGCONT)
        self.store(agent, "stored")  # the rename comes first
        agent.logged("id=[stored]")
        time.sleep(0.2)  # in the call
        seconds = self.end(agent)
        self.assertTrue(0.4 < seconds < SLOW, seconds)
        agent.logged("lbdb_add_segurl: NULL as reply\n", "kov shut down\n")

    def test_a_lost_connection_keeps_no_commands(self):
        no_quarantine = "quarantine_size_mb=0:thread_local_quarantine_size_kb=0"  # what is freed is free at once
        agent = self.start(self.db.settings(), level="err", env={"ASAN_OPTIONS": no_quarantine})
        self.db.stop()

        def orders(count):
            for _ in range(count):
                agent.order("http://me.example/" + "x" * 90, "y" * 80)
        orders(200)
        base = agent.rss_kib()
        orders(300 if QUICK else 3000)
        self.assertLess(agent.rss_kib() - base, 256)

    def test_a_rename_that_fails_is_registered_all_the_same(self):
        agent = self.start(self.db.settings())
        url, gate = self.origin.gated("/r", sized(2) + b"1", b"2")
        agent.order(url, "r")
        os.mkdir(agent.path("r"))
        gate.set()
        agent.ended()
        self.assertRegex(agent.log(), r"complete_download: rename\(.*\) ERROR\(21\): Is a directory\n")
        self.assertEqual(self.db.urls("r"), {"http://me.example/r": "inf"})
        os.rmdir(agent.path("r"))
        os.remove(agent.path("r-Kova"))  # it stays under its unfinished name


class Start(Database):
    def test_failures_have_their_status(self):
        settings = self.db.settings()
        digest = f"{self.db.sha1_dir}/add_url.sha1"
        messages = ("lbdb_connect: failed for 127.0.0.1:", "init_kova_ctx: failed to [?], rc=")
        self.refused(1, "lbdb_connect: redisConnectWithTimeout ERROR(1): ", *messages,
                     settings=settings.replace(f"port = {self.db.port}", f"port = {free_port()}"))
        self.db.cli("script", "flush")
        self.refused(2, *messages, "rc=2\n")
        for text in ("1" * 38, "1" * 37 + "\n"):
            write(digest, text)
            self.refused(1, "] unexpected SHA1 size: 38\n")
        os.remove(digest)
        self.refused(1, f"read_sha_signature: fopen({digest},...) ERROR(2): ")
        for make in write, os.mkfifo:
            make(digest)
            self.fails_to_start(-signal.SIGABRT, ["read_sha_signature: fgets(...) ERROR(0): ",
                                                  "(PNC)  KOV  ASSERT at:\n", "g_ctx.add_sha1[0]"], settings)
            os.remove(digest)

    def test_a_server_that_does_not_accept_is_given_up_in_time(self):
        with socket.create_server(("127.0.0.1", 0), backlog=0) as full:
            address = full.getsockname()
            fillers = [socket.socket() for _ in range(4)]
            for s in fillers:
                s.setblocking(False)
                s.connect_ex(address)
                self.addCleanup(s.close)
            settings = self.db.settings().replace(f"port = {self.db.port}",
                                                  f"connect_tmout_ms = 700; port = {address[1]}")
            start = time.monotonic()
            self.refused(1, "lbdb_connect: redisConnectWithTimeout ERROR(1): ", settings=settings)
            self.assertTrue(0.6 < time.monotonic() - start < 3)
            start = time.monotonic()
            agent = self.start(settings.replace("= 700", "= 60000"), must_run=False)
            time.sleep(0.5)
            agent.proc.send_signal(signal.SIGUSR2)
            agent.logged("T-DBG SIG(12)")
            agent.proc.send_signal(signal.SIGTERM)
            self.assertEqual(agent.proc.wait(20), 0)
            agent.logged("kov has been asked to quit.\n")
            agent.not_logged("(ERR)")
            self.assertLess(time.monotonic() - start, 3)


class Scripted(Database):
    kind = ScriptedDatabase

    def test_what_the_connect_makes_of_the_reply(self):
        name = "check_script_exists: "
        for answer, status, message in (
                (b"*1\r\n:0\r\n", 2, "rc=2\n"), (b":0\r\n", 2, name + "no such script: " + DIGEST + "\n"),
                (b"*2\r\n:1\r\n:1\r\n", 22, name + "more than 1 element (2) returned\n"),
                (b"*1\r\n$1\r\nx\r\n", 22, name + "expected integer, got 1\n"),
                (b"$2\r\nok\r\n", 22, name + "not expecting reply type=1\n"),
                (b"-ERR no\r\n", 1, name + "Redis error: ERR no\n"), (b"*5000\r\n", 1, name + "NULL as reply\n"),
                (b"$1073741824\r\n" + b"x" * (2 << 20), 1, name + "NULL as reply\n"),
                (b"", 1, name + "NULL as reply\n")):
            self.db.answers = [answer] if answer else []
            agent = self.refused(status, message, "lbdb_connect: failed for 127.0.0.1:")
            if "element" in message or "integer" in message:
                self.assertIn(message, agent.stderr())
                agent.not_logged(message)

    def test_answers_that_nobody_has_asked_for_are_dropped(self):
        self.db.answers = [b":1\r\n+MORE\r\n:7\r\n", b"$4\r\nok:a\r\n", b"+EARLY\r\n", b"$4\r\nok:c\r\n*2\r\n:1\r\n"]
        agent = self.start(self.db.settings(), level="debug")
        for dst, dropped in ("a", 2), ("c", 1):
            self.store(agent, dst)
            agent.logged(f"drop_unasked: {dropped} answers that nobody has asked for\n", f"result=[ok:{dst}]\n")
            if dst == "a":  # the answer to b comes after one that nobody has asked for
                self.store(agent, "b")
                agent.logged("add_lbdb_url: failed to add [b]\n")
                self.db.conn.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                self.db.conn.sendall(b"$4\r\nok:b\r\n")
        for n, dst in enumerate("de"):  # where half an answer ends nobody knows
            self.store(agent, dst)
            agent.logged("lbdb_add_segurl: NULL as reply\n", count=n + 1)
        self.assertEqual(len(self.db.commands), 4)
