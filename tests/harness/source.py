"""A source of scripted answers, which may cut, stall, lie or reset."""

import collections
import contextlib
import socket
import threading
import time

from .agent import OK, reset, sized

HEAD = None  # as a piece: the whole head


class Server:
    """Calls talk(conn) for each connection, in a thread of its own, until it is stopped."""

    def __init__(self, talk, port=0):
        self.talk = talk
        self.sock = socket.create_server(("127.0.0.1", port), backlog=1024)
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        with contextlib.suppress(OSError):
            while True:
                threading.Thread(target=self._one, args=(self.sock.accept()[0],), daemon=True).start()

    def _one(self, conn):
        with conn, contextlib.suppress(OSError):  # who does not like what it hears may hang up
            self.talk(conn)

    def stop(self):
        self.sock.shutdown(socket.SHUT_RDWR)  # wakes the accept; a closed number could be the next test's socket
        self.thread.join()
        self.sock.close()


class Origin:
    """Each path has a handler(socket, path); the methods that make one return its URL."""

    def __init__(self):
        self.paths = collections.defaultdict(lambda: lambda conn, path: None)
        self.requests = []
        self.released = threading.Event()  # handlers that stall wait for it
        self.server = Server(self._talk)
        self.port = self.server.sock.getsockname()[1]

    def url(self, path):
        return f"http://127.0.0.1:{self.port}{path}"

    def serve(self, path, handler):
        self.paths[path] = handler
        return self.url(path)

    def body(self, path, data, pieces=None, pause=0.0):
        """Serves data; pieces: the sizes in which head and body are sent (HEAD: the whole head)."""
        def handler(conn, _):
            text = sized(len(data)) + data
            for size in pieces or [len(text)]:
                size = text.index(b"\r\n\r\n") + 4 if size is HEAD else size
                conn.sendall(text[:size])
                text = text[size:]
                time.sleep(pause)
            conn.sendall(text)
        return self.serve(path, handler)

    def raw(self, path, data, then=None):
        """Sends just these bytes, then calls then(conn)."""
        def handler(conn, _):
            conn.sendall(data)
            if then:
                then(conn)
        return self.serve(path, handler)

    def status(self, path, code):
        return self.raw(path, b"HTTP/1.1 %d Word\r\nContent-Length: 3\r\n\r\nxyz" % code)

    def gated(self, path, *pieces):
        """Sends the first piece at once, each further one when its gate opens. The URL and the gates."""
        gates = [threading.Event() for _ in pieces[1:]]

        def then(conn):
            for gate, piece in zip(gates, pieces[1:]):
                gate.wait(30)
                conn.sendall(piece)
        return self.raw(path, pieces[0], then), *gates

    def halves(self, path, first=b"abc", rest=b"defghi"):
        """The rest comes when the source is released."""
        return self.raw(path, sized(len(first + rest)) + first, lambda conn: (self.stall(), conn.sendall(rest)))

    def cut(self, path, then=None):
        """Three bytes of nine, then then(conn) and the end."""
        return self.raw(path, sized(9) + b"abc", then)

    def faulty(self):
        """URLs of sources that fail an order, by what is wrong with them."""
        return {"broken": [self.raw("/none", b""), self.raw("/halfhead", OK), self.cut("/cut"),
                           self.cut("/reset", reset), self.cut("/slowcut", lambda conn: time.sleep(1))],
                "head": [self.raw("/garbage", b"\1\2\r\n\r\n"), self.raw("/endless", b"x" * 20000),
                         self.raw("/nolength", OK + b"\r\nxyz"), self.raw("/lies", sized(-1))],
                "status": [self.status("/404", 404)]}

    def stall(self, _conn=None):
        self.released.wait(30)

    def _talk(self, conn):
        head = b""
        while b"\r\n\r\n" not in head:
            chunk = conn.recv(4096)
            if not chunk:
                return
            head += chunk
        self.requests.append(head)
        path = head.split()[1].decode()
        self.paths[path](conn, path)

    def close(self):
        self.released.set()
        self.server.stop()
