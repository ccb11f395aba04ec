"""An order from the GET to the stored file: targets, heads, bodies of all shapes, answers, log lines."""

import os
import re
import shutil
import unittest

from harness import HEAD, QUICK, KovTest, Nginx, age, cases, run, write

MIB = 1 << 20


class Bodies(KovTest):
    def check_body(self, agent, name, size, **shape):
        body = os.urandom(size)
        agent.fetch(self.origin.body(f"/{name}", body, **shape), f"out/{name}", body)

    def test_shapes(self):
        for settings in ("", "max_mmap_mb = 0; max_tasks = 0;"):  # as many tasks as there are descriptors
            agent = self.start(settings)
            self.check_body(agent, "one", 1)
            self.check_body(agent, "with-head", 700)
            self.check_body(agent, "no-tail", 5000, pieces=[HEAD, 1], pause=0.05)
            self.check_body(agent, "pieces", 50000, pieces=[HEAD] + [1000] * 20, pause=0.002)
            self.check_body(agent, "drops", 9, pieces=[HEAD] + [1] * 9, pause=0.02)
            self.check_body(agent, "odd", 3 * MIB + 17)
            head = b"HTTP/1.0 200 OK\nContent-Length: 5\n\n"  # what is beyond the length is ignored
            agent.fetch(self.origin.raw("/more", head + b"12345678"), "more", b"12345")
            url, gate = self.origin.gated("/later", head, b"12345678")
            agent.order(url, "later")
            agent.completes(gate, "later", b"12345")

    def test_the_border_between_mapping_and_writing(self):
        agent = self.start("max_mmap_mb = 1;", level="debug")
        for size, mode in ((MIB - 1, "mmap"), (MIB, "mmap"), (MIB + 1, "file")):
            self.check_body(agent, f"b{size}", size)
            agent.logged(f"mk_dest_file: created {mode} for [{agent.path(f'out/b{size}')}-Kova]")

    @unittest.skipIf(QUICK or shutil.disk_usage("/tmp").free < 6 << 30, "needs room for two files of 2 GiB")
    def test_large_files_of_nginx(self):
        nginx = self.service(Nginx)
        agent = self.start()
        for size in (8 * MIB, 8 * MIB + 1, 50 * MIB, 2 << 30):
            source = nginx.add(f"{size}", os.urandom(5 * MIB))
            os.truncate(f"{nginx.www}/{size}", size)
            agent.order(source, f"n/{size}")
            agent.stored(f"n/{size}", seconds=60)
            run("cmp", f"{nginx.www}/{size}", agent.path(f"n/{size}"))


class Answers(KovTest):
    def test_answer_comes_with_the_head_and_the_name_with_the_last_byte(self):
        agent = self.start()
        url = self.origin.halves("/slow", b"ab", b"cd")
        agent.order(url, "x/slow.ts")
        self.assertEqual(agent.files(), ["x/slow.ts-Kova"])
        self.assertEqual(os.path.getsize(agent.path("x/slow.ts-Kova")), 4)
        agent.order(url, "other", 500)  # the source is being fetched
        agent.logged("task already present")
        agent.order(self.origin.url("/else"), "x/slow.ts", 400)  # fresh unfinished file
        agent.completes(self.origin.released, "x/slow.ts", b"abcd")

    def test_status_of_the_source_is_passed_on(self):
        agent = self.start()
        for code, answer in ((404, 404), (403, 403), (418, 500), (500, 500), (100, 500), (103, 500), (1000, 500),
                             (4294967496, 500)):
            agent.order(self.origin.status(f"/s{code}", code), f"s{code}", answer)
        for code in (201, 299):
            url = self.origin.raw(f"/s{code}", b"HTTP/1.1 %d Word\r\ncontent-length:3\r\n\r\nxyz" % code)
            agent.fetch(url, f"s{code}", b"xyz")
        self.assertEqual(agent.files(), ["s201", "s299"])

    def test_what_is_there_already(self):
        agent = self.start()
        source = self.origin.body("/f", b"fresh")
        write(agent.path("there"), "old")
        agent.order(source, "there", 403)
        agent.stored("there", b"old")
        agent.logged(f"check_dest_path: destination [{agent.path('there')}] is BUSY (already there)")
        write(agent.path("f-Kova"), "left behind", 29)
        agent.order(source, "f", 400)
        agent.logged(f"setup_dw_spec: [{agent.path('f-Kova')}] already exists\n")
        age(agent.path("f-Kova"), 32)
        agent.fetch(source, "f", b"fresh")

    def test_log_lines_and_request_of_an_order(self):
        agent = self.start()
        url = self.origin.body("/a/b.ts", b"x" * 100)
        agent.get(f"/any/prefix/SRC/{url}/Dst/?expiry=600&x=1", 200)
        agent.stored("a/b.ts", b"x" * 100)
        agent.ended()
        lines = [re.sub(r"\(0x[0-9a-f]+", "(P", line.split("(NRM)  ")[1])
                 for line in agent.log().splitlines() if "(NRM)" in line and "b.ts" in line]
        final = agent.path("a/b.ts")
        self.assertEqual(lines, [
            f"u1  TASK-START [DOW] (P/idx=0) [{url}]->[{final}-Kova] length=0, expiry=600 lid=[]",
            f"T0001  downloaded: 100 bytes, [{url}] to [{final}]",
            f"KOV  TASK-END [DOW] (P/idx=0) [{url}]->[{final}] length=0, expiry=600 lid=[]"])
        self.assertEqual(self.origin.requests, [
            b"GET /a/b.ts HTTP/1.1\r\nHost: 127.0.0.1:%d\r\nConnection: close\r\n"
            b"User-Agent: kov/0.2-0.7 (marlinet)\r\nAccept: text/html,video/*, application/*\r\n"
            b"Accept-Language: en-US,en,ru\r\nAccept-Charset: ISO-8859-1,UTF-8\r\nCache-Control: no-cache\r\n\r\n"
            % self.origin.port])

    def test_expiry(self):
        agent = self.start()
        for i, (query, expiry) in enumerate((("?myexpiry=7", 7), ("?expiry=abc", 0), ("?a=1", 0), ("", 0),
                                             ("?a=1&expiry=-5&expiry=2", -5))):
            agent.order(self.origin.body(f"/{i}", b"x"), f"e{i}", query=query)
            agent.logged(f"/e{i}-Kova] length=0, expiry={expiry} ")
        self.assertEqual(agent.log().count("NO EXPIRY: sscanf"), 2)

    def test_local_source_needs_no_download(self):
        agent = self.start(f'local_url_prefix = "{self.origin.url("/own")}/";')
        agent.order(self.origin.url("/OWN/a.ts"), "a.ts")
        agent.fetch(self.origin.body("/owner", b"x"), "b.ts", b"x")
        agent.holds("b.ts")


class Grammar(KovTest):
    """Every refusal has its code and leaves nothing behind; what looks odd and is accepted."""

    def test_refused_targets(self):
        agent = self.start()
        room = 126 - len(agent.data) - len("/-Kova")  # of a path that is just short enough
        write(agent.path("file"))
        for target, message in cases("targets", room="x" * room, **{str(n): "s" * n for n in (119, 240, 250, 256)}):
            before = len(agent.log())
            agent.get(target, 400)
            self.assertIn(message, agent.log()[before:], target)
        self.assertEqual((agent.files(), os.listdir(agent.data)), (["file"], ["file"]))
        agent.not_logged("TASK-START")
        agent.get("/", 204)

    def test_accepted_targets(self):
        agent = self.start()
        self.origin.body("/src/a/dst/b", b"nested")  # a blank splits the request line of the scripted source
        room = 126 - len(agent.data) - len("/-Kova")
        nested = self.origin.url("/src/a/dst/b")
        longest = self.origin.body("/".ljust(127 - len(self.origin.url("")), "a"), b"nested")
        for target, stored in ((f"/p/dst/q/src/{nested}%20c/dst/n1", "n1"), (f"/src/{nested}+c/dst//n2", "n2"),
                               (f"/src/{nested}%20c/dst/{'n' * room}", "n" * room),
                               (f"/src/{longest}/dst/up..ward/..x/y..", "up..ward/..x/y.."),
                               (f"/src/{nested}+c/dst/x-kova/x-Kovas", "x-kova/x-Kovas")):
            agent.get(target, 200)
            agent.stored(stored, b"nested")
        for n, host in enumerate(("udp", "RTP:80", "src", "hls-m3u", "hls-fra", "dst")):  # no segment
            agent.get(f"http://{host}/src/{self.origin.body(f'/h{n}', b'host')}/dst/h{n}", 200)
            agent.stored(f"h{n}", b"host")

    def test_heads(self):
        agent = self.start()
        sources = [self.origin.body(f"/{n}", b"x").encode() for n in range(3)]
        order = b" /src/http://h/a/dst/b"
        host = b"\r\nHost: h.example.net\r\n\r\n"
        refused = (
            b"POST" + order + b" HTTP/1.1" + host, b"PROPPATCH" + order + b" HTTP/1.1\r\n\r\n",
            b"G" + order + b" HTTP/1.1" + host,
            b"GET" + order + b" HTTP/2.0" + host, b"GET" + order + host, b"\r\n\r\n" + b" " * 40,
            b"\0\1\2\3" * 20 + b"\r\n\r\n", b"G\x1b[2J / HTTP/1.1" + host, b"GET                    " + host,
            b"get / http/1.1 this is long enough\r\n\r\n", b"HEAD /src/ftp://h/a/dst/h HTTP/1.1" + host,
            b"GET http://agent/favicon.ico HTTP/1.1" + host)
        pings = (b"GET http://agent/ HTTP/1.1" + host, b"GET http://agent HTTP/1.1" + host,
                 b"get / HTTP/1.9 this is long enough\r\n\r\n")
        orders = (
            b"GET\t/src/%s/dst/t0 HTTP/1.0\n\n" % sources[0],
            b"GET http://agent.example/src/%s/dst/t1 HTTP/1.0\r\nConnection: Close\r\n\r\n" % sources[1],
            b"GET /src/%s/dst/t2 HTTP/1.1\r\nAccept-Encoding: %s\r\nHost: %s\r\nUser-Agent: %s\r\n\r\n"
            % (sources[2], b"e" * 40, b"h" * 64, b"u" * 128))
        agent.send(b"HEAD /src/%s/dst/t0 HTTP/1.1" % sources[0] + host, 0)  # gets no answer
        for answer, heads in ((400, refused), (204, pings), (200, orders)):
            for head in heads:
                agent.send(head, answer)
        for n in range(3):
            agent.stored(f"t{n}", b"x")
        self.assertEqual(len(self.origin.requests), 3)
        agent.logged("[Accept-Encoding:] text has been trimmed from 40 to 31 chars", "Host length is too long: 64",
                     "User-Agent length is too long: 128", "no header sections found", "HTTP [POST] is NOT supported",
                     "malformed HTTP request: G?[2J / HTTP/1.1\r\nHost: h.example.net\r\n\r\n")
