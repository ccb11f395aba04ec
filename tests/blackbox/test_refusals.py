"""Every refusal of the order grammar: its code, and nothing left behind."""

import os
import unittest

from kov import ANSWERS, KovTest


class Refusals(KovTest):
    def refuse(self, agent, target, message, answer=400):
        before = len(agent.log())
        self.assertEqual(agent.get(target), ANSWERS[answer], target)
        self.assertIn(message, agent.log()[before:], target)

    def test_targets(self):
        agent = self.start()
        src = "/src/http://h.example/a.ts/dst/"
        room = 126 - len(agent.data) - len("/-Kova")  # of a path that is just short enough
        for target, message in (
                ("/ping", "Handling user-side PING request"),
                ("/PING/", "Handling user-side PING request"),
                ("/favicon.ico", "ERROR(1028)"),
                ("/word", "web_parse_urq: error(3) parsing request data [word]"),
                ("/a/b/c", "web_parse_urq: error(-14) parsing request data [a/b/c]"),
                ("/src/http://h/a", "web_parse_urq: error(1) parsing request data"),
                ("/src/http://h/src/a/dst/b", "web_parse_urq: error(1) parsing request data"),
                ("/hls-m3u/src/http://h/a/dst/b", "error(-14)"),
                ("/udp/1.2.3.4:5/dst/x", "non-HTTP or invalid src=[udp://"),
                ("/src/https://h/a/dst/b", "setup_dw_spec: non-HTTP or invalid src=[https://h/a]"),
                ("/src/HTTP://h/a/dst/b", "non-HTTP or invalid src=[HTTP://h/a]"),
                ("/src/http://h/dst/", "setup_dw_spec: cannot extract path from source URL: http://h"),
                ("/src/http://h//dst/", "cannot extract path from source URL: http://h/"),
                (src + "../x", "destination leaves the data directory"),
                (src + "a/%2e%2e/x", "destination leaves the data directory"),
                (src + "a/..", "destination leaves the data directory"),
                (src + "x-Kova", "destination names an unfinished file"),
                (src + "x-Kova/y", "destination names an unfinished file"),
                (src + "new/\x7f", "setup_dw_spec: control byte 0x7f at 4 of the destination"),
                ("/src/http://h\x01/new/a/dst/", "setup_dw_spec: control byte 0x01 at 8 of the source"),
                ("http://src/http://h/a/dst/b", "web_parse_urq: error(-14) parsing request data [http://h/a/dst/b]"),
                (src + "x" * (room + 1), "init_spec: full path was cut"),
                (src + "x" * (room + 2), "init_spec: full path is too long: 128/128"),
                (f"/src/http://h/{'s' * 119}/dst/x", "init_spec: source URL is too long: 128/128"),
                (f"/src/http://h/{'s' * 250}/dst/x", "web_parse_urq: error(7)"),
                (f"{src}x?{'q' * 256}", "URI query length (256 bytes) is beyond the limit: 256"),
                (f"{src}x?{'q' * 240}", "URI query is too long (240 bytes)"),
                (src + "d/x/y", "cannot ensure dest path")):
            if target.endswith("d/x/y"):
                with open(agent.path("d"), "w", encoding="ascii"):
                    pass
            self.refuse(agent, target, message)
        self.assertEqual(agent.files(), ["d"])
        self.assertEqual(os.listdir(agent.data), ["d"])
        self.assertNotIn("TASK-START", agent.log())
        self.assertEqual(agent.send(b"GET / HTTP/1.1\r\nHost: a-long-enough-name\r\n\r\n"), ANSWERS[204])

    def test_accepted_shapes(self):
        agent = self.start()
        url = self.origin.body("/src/a/dst/b c", b"nested")
        room = 126 - len(agent.data) - len("/-Kova")
        for target, stored in (
                (f"/p/dst/q/src/{self.origin.url('/src/a/dst/b%20c')}/dst/n1", "n1"),
                (f"/src/{self.origin.url('/src/a/dst/b+c')}/dst//n2", "n2"),
                (f"/src/{self.origin.url('/src/a/dst/b%20c')}/dst/{'n' * room}", "n" * room)):
            # A blank in the path splits the request line of the scripted source.
            self.origin.paths["/src/a/dst/b"] = self.origin.paths["/src/a/dst/b c"]
            self.assertEqual(agent.get(target), ANSWERS[200], target)
            self.assertEqual(agent.stored(stored), b"nested")
        # The host of an absolute target is no segment.
        for n, host in enumerate(("udp", "RTP:80", "src", "hls-m3u", "hls-fra", "dst")):
            source = self.origin.body(f"/h{n}", b"host")
            self.assertEqual(agent.get(f"http://{host}/src/{source}/dst/h{n}"), ANSWERS[200], host)
            self.assertEqual(agent.stored(f"h{n}"), b"host")
        self.assertTrue(url)

    def test_heads(self):
        agent = self.start()
        ok = self.origin.body("/ok", b"x")
        trimmed = self.origin.body("/trimmed", b"x")  # a source in progress would be refused
        for head, answer in (
                (b"POST /src/http://h/a/dst/b HTTP/1.1\r\nHost: h\r\n\r\n", 400),
                (b"OPTIONS /src/http://h/a/dst/b HTTP/1.1\r\n\r\n", 400),
                (b"PROPPATCH /src/http://h/a/dst/b HTTP/1.1\r\n\r\n", 400),
                (b"G /src/http://h/a/dst/b HTTP/1.1\r\nHost: h\r\n\r\n", 400),
                (b"GET /src/http://h/a/dst/b HTTP/2.0\r\nHost: h\r\n\r\n", 400),
                (b"GET /src/http://h/a/dst/b\r\nHost: h.example.net\r\n\r\n", 400),
                (b"\r\n\r\n" + b" " * 40, 400),
                (b"\0\1\2\3" * 20 + b"\r\n\r\n", 400),
                (b"GET                    \r\nHost: h.example.net\r\n\r\n", 400),
                (b"get / http/1.1 this is long enough\r\n\r\n", 400),
                (b"GET http://agent/ HTTP/1.1\r\nHost: h.example.net\r\n\r\n", 204),
                (b"GET http://agent HTTP/1.1\r\nHost: h.example.net\r\n\r\n", 204),
                (b"GET http://agent/favicon.ico HTTP/1.1\r\nHost: h\r\n\r\n", 400),
                (b"get / HTTP/1.9 this is long enough\r\n\r\n", 204),
                (b"GET\t/src/%s/dst/t1 HTTP/1.0\n\n" % ok.encode(), 200),
                (b"GET /src/%s/dst/t2 HTTP/1.1\r\nAccept-Encoding: %s\r\nHost: %s\r\nUser-Agent: %s\r\n\r\n"
                 % (trimmed.encode(), b"e" * 40, b"h" * 64, b"u" * 128), 200)):
            self.assertEqual(agent.send(head), ANSWERS[answer], head)
        for dst in ("t1", "t2"):
            agent.wait_file(dst)
        for message in ("[Accept-Encoding:] text has been trimmed from 40 to 31 chars",
                        "Host length is too long: 64", "User-Agent length is too long: 128",
                        "no header sections found", "HTTP [POST] is NOT supported"):
            self.assertIn(message, agent.log())

    def test_head_requests_get_no_answer(self):
        agent = self.start()
        target = f"/src/{self.origin.body('/h', b'x')}/dst/h"
        self.assertEqual(agent.send(f"HEAD {target} HTTP/1.1\r\nHost: h\r\n\r\n".encode()), b"")
        self.assertEqual(agent.send(b"HEAD /src/ftp://h/a/dst/h HTTP/1.1\r\nHost: h\r\n\r\n"), ANSWERS[400])
        self.assertEqual(self.origin.requests, [])


if __name__ == "__main__":
    unittest.main()
