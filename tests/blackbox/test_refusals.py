"""The grammar of an order: each refusal with its exact answer and nothing left behind; what is taken, with its effect."""
import unittest

import kov
from kov import answer


class Refusals(kov.Case):
    def assert_refused(self, target, code=400, log=None, **kwargs):
        with self.subTest(target=target[:80], **kwargs):
            self.assertEqual(self.agent.request(target, **kwargs), answer(code))
            self.assertEqual(self.agent.files(), [])
            self.assertNotIn("TASK-START", self.agent.log())
            if log:
                self.agent.wait_log(log)

    def test_ping(self):
        for target in ["/", "/?x=1"]:
            self.assertEqual(self.agent.request(target), b"HTTP/1.1 204 No Content\r\nServer: kov/0.2-0.7 (marlinet)\r\n\r\n")
        self.agent.wait_log("urq_read: PONG!$", 3)

    def test_no_order(self):
        for target in ["/ping", "/ping/", "/PING", "/favicon.ico", "/Favicon.ICO", "/x", "/src", "/src/", "/a/b/c",
                       "/src/http://h/a", "/src/http://h/src/a/dst/b", "/dst/a/src/http://h/b", "/srcs/http://h/a/dst/b"]:
            self.assert_refused(target)

    def test_request_line(self):
        good = "/src/http://127.0.0.1:1/a/dst/b"
        for method, version in [("POST", "HTTP/1.1"), ("OPTIONS", "HTTP/1.1"), ("PROPFIND", "HTTP/1.1"), ("GE", "HTTP/1.1"),
                                ("GET", "HTTP/2.0"), ("GET", "http/1.1"), ("GET", "")]:
            self.assert_refused(good, method=method, version=version)
        self.agent.wait_log(r"HTTP \[POST\] is NOT supported$")
        self.agent.wait_log(r"urq_read: malformed HTTP request: GET ")

    def test_source(self):
        for source in ["https://h/a", "HTTP://h/a", "ftp://h/a", "h/a", "//h/a", "udp://127.0.0.1:5/a", ""]:
            self.assert_refused(f"/src/{source}/dst/b", log=r"setup_dw_spec: non-HTTP or invalid src=\[")
        for target in ["/udp/127.0.0.1:5/dst/b", "/rtp/127.0.0.1:5/dst/b", "/hls-fra/tmp/a/dst/b",
                       "/hls-m3u/src/http://h/a/dst/b", "/udp/src/http://h/a/dst/b"]:
            self.assert_refused(target)

    def test_source_without_a_path_and_no_destination(self):
        for source in ["http://h", "http://h/"]:
            self.assert_refused(f"/src/{source}/dst/", log="setup_dw_spec: cannot extract path from source URL: http://h")

    def test_destination_outside_the_data_directory(self):
        for dest in ["..", "../x", "a/../x", "a/..", "/../x", "%2e%2e/x", "%2E./x", "a%2f..%2fx", "..%2f..%2fx"]:
            self.assert_refused(f"/src/http://127.0.0.1:1/a/dst/{dest}")
        self.assert_refused("/src/http://127.0.0.1:1/../x/dst/")

    def test_destination_named_as_unfinished(self):
        for dest in ["a-Kova", "-Kova", "x/a%2dKova"]:
            self.assert_refused(f"/src/http://127.0.0.1:1/a/dst/{dest}")

    def test_lengths(self):
        """Source up to 127 characters; unfinished path up to 126 bytes: one of 127 loses its last character."""
        source = "http://127.0.0.1:1/"
        self.assert_refused(f"/src/{source.ljust(128, 'x')}/dst/b", log="init_spec: source URL is too long: 128/128$")
        room = 127 - len(self.agent.data + "/-Kova")
        self.assert_refused(f"/src/{source}a/dst/{'d/'.ljust(room + 1, 'x')}", log="init_spec: full path is too long: 128/128$")
        self.assert_refused(f"/src/{source}a/dst/{'d/'.ljust(room, 'x')}")
        self.assert_refused(f"/src/{source}a/dst/{'d/' + 'x' * 300}")

    def test_longest(self):
        dest = "d/".ljust(126 - len(self.agent.data + "/-Kova"), "x")
        path = "/".ljust(127 - len(self.origin.url("")), "y")
        self.assertEqual(self.agent.order(self.origin.serve(path, b"body"), dest), answer(200))
        self.assertEqual(self.agent.stored(dest), b"body")

    def test_query(self):
        order = "/src/http://127.0.0.1:1/a/dst/b?"
        self.assert_refused(order + "q" * 256, log=r"URI query length \(256 bytes\) is beyond the limit: 256$")
        self.assert_refused(order + "q" * 240, log=r"URI query is too long \(240 bytes\), max allowed=")

    def test_head(self):
        """A good HEAD order has no answer, a bad one the refusal, an empty one the pong."""
        url = self.origin.serve("/a", b"x")
        self.assertEqual(self.agent.order(url, "a", method="HEAD"), b"")
        self.agent.wait_log("urq_read: nothing to do for HEAD request$")
        self.assert_refused("/x", method="HEAD")
        self.assertEqual(self.agent.request("/", method="HEAD"), answer(204))
        self.assertEqual(self.origin.requests, [])

    def test_directory_that_cannot_be_made(self):
        with open(self.agent.path("plain"), "wb"):
            pass
        self.assertEqual(self.agent.order("http://127.0.0.1:1/a", "plain/a"), answer(400))
        self.agent.wait_log(r"init_spec: cannot ensure dest path \[")
        self.assertEqual(self.agent.files(), ["plain"])


class Accepted(kov.Case):
    def test_grammar(self):
        origin, agent = self.origin, self.agent
        host = origin.url("")
        for number, (order, fetched, dest) in enumerate([
                ("/src/{}/dst/cache/{}", "/live/{}", "cache/{}"),
                ("/dl/any/src/{}/dst/{}", "/{}", "{}"),
                ("/SRC/{}/Dst/{}", "/{}", "{}"),
                ("/src/{}/dst/{}", "/src/a/dst/b/{}", "{}"),
                ("/src/{}/dst/{}/dst/x", "/{}", "{}/dst/x"),
                ("/src/{}/dst/", "/derived/{}", "derived/{}"),
                ("/src/{}/dst//{}", "/lead/{}", "{}"),
                ("/src/{}/dst/a%20b+{}", "/{}", "a b {}"),
                ("/src/{}/dst/%7e{}", "/{}", "~{}"),
                ("/src/{}/dst/..{}", "/{}", "..{}")]):
            name = f"n{number}"
            with self.subTest(order=order):
                path = fetched.format(name)
                origin.serve(path, name.encode())
                self.assertEqual(agent.request(order.format(host + path, name)), answer(200))
                self.assertEqual(agent.stored(dest.format(name)), name.encode())

    def test_expiry(self):
        for number, (query, expiry) in enumerate([
                ("", 0), ("?expiry=600", 600), ("?expiry=abc", 0), ("?a=1&expiry=7&b=2", 7), ("?xexpiry=5", 5),
                ("?expiry=", 0), ("?expiry=-3", -3), ("?expires=9", 0), ("?Expiry=9", 0)]):
            name = f"e{number}"
            with self.subTest(query=query):
                self.assertEqual(self.agent.order(self.origin.serve("/" + name, b"x"), name, query), answer(200))
                self.agent.stored(name)
                self.agent.wait_log(rf"TASK-START .*/{name}-Kova\] length=0, expiry={expiry} lid=\[\]$")
        self.agent.wait_log(r"NO EXPIRY: sscanf\('expiry=abc',\.\.\) expected 1, got 0$")
        self.assertFalse([request for request in self.origin.requests if b"expir" in request], "no query is fetched")

    def test_trailing_slash_of_the_data_directory(self):
        agent = self.run_agent(args=["-D", self.agent.data + "/"])
        self.assertEqual(agent.order(self.origin.serve("/a", b"x"), "x"), answer(200))
        agent.wait_log(rf"downloaded: 1 bytes, \[.*\] to \[{self.agent.data}/x\]$")


if __name__ == "__main__":
    unittest.main()
