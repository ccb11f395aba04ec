"""Orders for an agent of kov, from Python: one module, nothing but the standard library, made to be copied.

    import kov_client

    agent = ("agent1.example.net", 8020)
    kov_client.order(agent, "http://origin.example/live/a.ts", "cache/a.ts", expiry=600)
    kov_client.wait_for_file("/srv/kov/cache/a.ts", timeout=60)     # on the agent's host

order() returns when the download has begun, and raises what the answer means otherwise. An order may be repeated: an
agent that has it already says so. Who places orders as datagrams hears nothing back.
"""

import os
import re
import socket
import struct
import time
import urllib.parse

FOREVER = 0  # an expiry: the registration of the file has no end
SOURCE_MAX = 127  # characters of a source
HEAD_MAX = 1023  # bytes of a request
ANSWER_MAX = 65536  # no agent says more
ORDER_PATH_MAX = 127  # characters of a datagram's order from the host on
UNFINISHED = "-Kova"

MEANINGS = {
    200: "the download has begun",
    204: "taken for a ping: no order in it",
    400: "refused: the source refuses connections, an unfinished file of that name is still written to, or the "
         "destination is too long for the agent's data directory",
    403: "the destination is there already, or the source itself has answered 403",
    500: "the source is being fetched already, has no such name, port or route, ended early or gave no length, the "
         "agent is full, or the file could not be made: the agent's log says which",
}


class KovError(Exception):
    """What an order came to, when it did not begin a download."""


class NoAgent(KovError):
    """Nobody listens there, or the name is unknown."""


class NoAnswer(KovError):
    """Closed without an answer (the source broke, the agent ends, its queue is full), or none in time. Whether the
    download runs is not known: repeat the order."""


class Refused(KovError):
    """The agent did not take the order; status is its answer's."""

    def __init__(self, status):
        super().__init__(f"{status}: {MEANINGS.get(status, 'refused by the source')}")
        self.status = status


class Exists(Refused):
    """The destination is there already, with which most senders are content; or its source has answered 403, which the
    agent passes on: where that may be, look for the file."""


class SourceRefused(Refused):
    """The source has answered with this status (or one that the agent names so)."""


class DownloadFailed(KovError):
    """The file has not come: its source broke, the disk is full, the agent was stopped. The agent's log says which."""


# ---- texts ----


def _escape(text):
    """Bytes of a part of an order's path. What would end or change it is escaped, and the first letter of a segment by
    which the agent would split the order. Bytes above ASCII stay: the agent does not take their escapes."""
    text = re.sub(r"[ %+?#@]", lambda m: f"%{ord(m[0]):02X}", text)
    text = re.sub(r"(?i)(?:^|(?<=/))[sd](?=(?:(?<=s)rc|(?<=d)st)(?:/|$))", lambda m: f"%{ord(m[0]):02X}", text)
    return text.encode("utf-8", "surrogateescape")


def _source(source):
    """The source as the agent asks for it."""
    if not source.startswith("http://"):
        raise ValueError(f"{source}: not http://")
    if "?" in source or "#" in source:
        raise ValueError(f"{source}: the agent would fetch it without its query")
    host, slash, path = source[len("http://"):].partition("/")
    if "@" in host:
        raise ValueError(f"{source}: the agent sends no user name")
    # What no URL may hold; in an agent's order a second host would begin at an "@".
    source = f"http://{host}{slash}" + urllib.parse.quote(path, safe="/%!$&'()*+,;=:~[]")
    if len(source) > SOURCE_MAX:
        raise ValueError(f"{source}: more than {SOURCE_MAX} characters")
    return source


def _destination(destination):
    if re.search(r"[\0-\x1f\x7f]", destination):
        raise ValueError(f"{destination!r}: control characters cannot be ordered")
    if any(segment == ".." or segment.endswith(UNFINISHED) for segment in destination.split("/")):
        raise ValueError(f"{destination}: no part may be .. or end in {UNFINISHED}")
    return destination


def _expiry(expiry):
    if isinstance(expiry, bool) or not isinstance(expiry, int) or expiry < 0:
        raise ValueError(f"expiry {expiry!r}: a whole number of seconds, the Unix time of the end, or FOREVER")
    return expiry


def order_path(source, destination):
    """Path of an order, as bytes, from "src" on. An empty destination is made from the source's path."""
    return b"src/" + _escape(_source(source)) + b"/dst/" + _escape(_destination(destination))


def order_head(host, source, destination, *, expiry):
    """The HTTP request of an order, whole."""
    head = b"GET /%s?expiry=%d HTTP/1.1\r\nHost: %s\r\nUser-Agent: kov_client\r\n\r\n" % (
        order_path(source, destination), _expiry(expiry), host.encode("ascii"))
    if len(head) > HEAD_MAX:
        raise ValueError(f"{destination}: the request has more than {HEAD_MAX} bytes")
    return head


def order_datagram(lock_id, source, destination, *, expiry):
    """The datagram of an order, whole. Agents that share a lock directory carry one order of a lock_id out at a time.
    """
    if not 4 <= len(lock_id) <= 31 or re.search(r"[\0- /\x7f]", lock_id):
        raise ValueError(f"{lock_id!r}: 4 to 31 characters without blank, slash and control characters")
    path = b"kov/" + order_path(source, destination)
    if len(path) > ORDER_PATH_MAX:
        raise ValueError(f"{destination}: source and destination are too long for a datagram")
    return b"#!%s http://%s %d" % (lock_id.encode("ascii"), path, _expiry(expiry))


# ---- the wire ----


def ask(agent, head, *, timeout):
    """Sends a request to agent, a (host, port) or the path of a Unix-domain socket; all bytes of the answer. timeout:
    seconds, for all of it."""
    deadline = time.monotonic() + timeout
    try:
        if isinstance(agent, str):
            conn = socket.socket(socket.AF_UNIX)
            conn.settimeout(timeout)
            conn.connect(agent)
        else:
            conn = socket.create_connection(agent, timeout)
    except socket.timeout as err:
        raise NoAnswer(f"{agent}: no connection within {timeout} s") from err
    except OSError as err:
        raise NoAgent(f"{agent}: {err}") from err
    answer = b""
    with conn:
        try:
            conn.sendall(head)
            while len(answer) < ANSWER_MAX and (piece := conn.recv(4096)):
                answer += piece
                conn.settimeout(max(deadline - time.monotonic(), 0.001))
        except socket.timeout as err:
            if not answer:
                raise NoAnswer(f"{agent}: no answer within {timeout} s") from err
        except OSError:
            pass  # a reset behind an answer, or instead of one
    return answer


def _status(agent, head, timeout):
    answer = ask(agent, head, timeout=timeout)
    m = re.match(rb"HTTP/1\.\d (\d{3}) ", answer)
    if not m:
        raise NoAnswer(f"{agent}: " + ("answers, but not like an agent" if answer else "closed without an answer"))
    return int(m[1])


def _host(agent):
    return "localhost" if isinstance(agent, str) else agent[0]


def ping(agent, *, timeout=2.0):
    """Whether an agent is there and takes orders."""
    # The agent looks at a request from its 32nd byte on, so it is never shorter.
    head = f"GET / HTTP/1.1\r\nHost: {_host(agent)}\r\nUser-Agent: kov_client\r\n\r\n".encode("ascii")
    try:
        return _status(agent, head, timeout) == 204
    except KovError:
        return False


def order(agent, source, destination, *, expiry, timeout=60.0):
    """Orders a download. Returns when it has begun; else raises a KovError, or ValueError for what cannot be ordered.
    expiry: how long the file is registered, in seconds, or until when (Unix time), or FOREVER."""
    status = _status(agent, order_head(_host(agent), source, destination, expiry=expiry), timeout)
    if status == 200:
        return
    if status == 403:
        raise Exists(status)
    raise Refused(status) if status in MEANINGS else SourceRefused(status)


def send(channel, lock_id, source, destination, *, expiry, interface=None, sender=None, ttl=1):
    """Orders a download by a datagram to channel, a (host, port); nobody answers. Of a group: the interface it goes out
    of, the routers it may pass (ttl), and the address of the one sender that a source-specific channel hears."""
    text = order_datagram(lock_id, source, destination, expiry=expiry)
    family, _, _, _, address = socket.getaddrinfo(*channel, type=socket.SOCK_DGRAM)[0]
    index = socket.if_nametoindex(interface) if interface else 0
    with socket.socket(family, socket.SOCK_DGRAM) as sock:
        if family == socket.AF_INET6:
            sock.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_HOPS, ttl)
            sock.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_IF, index)
        else:
            sock.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, ttl)
            sock.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, struct.pack("=4s4si", b"", b"", index))
        if sender:
            sock.bind((sender, 0))
        sock.sendto(text, address)


# ---- the file ----


def stored_path(data_dir, source, destination):
    """Where the file of an order will be, on the agent's host."""
    if not destination.strip("/"):
        destination = _source(source)[len("http://"):].partition("/")[2]
    return os.path.join(data_dir, destination.lstrip("/"))


def wait_for_file(path, *, timeout, grace=1.0):
    """Waits, on the agent's host, until the file of an order that has begun is stored. DownloadFailed when nobody
    writes it any more (neither it nor its unfinished form is there for grace seconds: a datagram's order may need
    more), TimeoutError after timeout seconds."""
    deadline = time.monotonic() + timeout
    seen = time.monotonic()
    while not os.path.exists(path):
        now = time.monotonic()
        if os.path.exists(path + UNFINISHED):
            seen = now
        elif now - seen > grace and not os.path.exists(path):
            raise DownloadFailed(f"{path}: nobody writes it")
        if now > deadline:
            raise TimeoutError(f"{path}: not stored within {timeout} s")
        time.sleep(0.05)
