"""Outputs of the log whose reader stops or dawdles: lines are lost, and nothing else. Text from outside in the log."""

import fcntl
import os
import re
import signal
import socket
import subprocess
import termios
import threading
import time
import tty
import unittest

from kov import ANSWERS, KovTest, wait_for

STAMP = re.compile(rb"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} ")
AGENT_UID = 65534


def read_some(fd, seconds=0.0):
    """What can be read now, or within so many seconds."""
    data = b""
    deadline = time.monotonic() + seconds
    while True:
        try:
            data += os.read(fd, 65536)
        except BlockingIOError:
            if time.monotonic() > deadline:
                return data
            time.sleep(0.01)
        except OSError:  # the terminal's other side is closed
            return data


class Outputs(KovTest):
    def setUp(self):
        super().setUp()
        self.served = 0

    def new_root(self):
        """Another user may run here, too."""
        root = super().new_root()
        os.makedirs(f"{root}/d")
        for path in (root, f"{root}/d"):
            os.chmod(path, 0o777)
        return root

    def pair(self, pair):
        """A reading end that the test keeps, non-blocking, and a writing end for the agent."""
        for fd in pair:
            self.addCleanup(os.close, fd)
        os.set_blocking(pair[0], False)
        return pair

    def terminal(self, cooked=True):
        reader, writer = self.pair(os.openpty())
        if not cooked:
            tty.setraw(writer)
        return reader, writer

    def fifo(self):
        path = f"{self.root}/fifo"
        os.mkfifo(path)
        reader = os.open(path, os.O_RDWR | os.O_NONBLOCK)
        self.addCleanup(os.close, reader)
        return reader, path

    def works(self, agent, count=40):
        """An order and pings, each with some 40 lines of log; together they may wait for a reader half a second."""
        start = time.monotonic()
        self.served += 1
        name = f"a{self.served}"
        self.assertEqual(agent.order(self.origin.body("/a", b"stored"), name), ANSWERS[200])
        for _ in range(count):
            self.assertEqual(agent.get("/"), ANSWERS[204])
        self.assertEqual(agent.stored(name), b"stored")
        self.assertLess(time.monotonic() - start, 12 if "asan" in os.environ["KOV"] else 6)

    def comes_back(self, agent, reader):
        """When the reader takes what there was, lines come again, and never two of them as one."""
        text = read_some(reader)

        def is_heard():
            nonlocal text
            agent.get("/back")
            text += read_some(reader, 0.05)
            return b"/back" in text

        wait_for(is_heard, "lines to come again")
        for line in text.splitlines():
            self.assertLessEqual(len(STAMP.findall(line)), 1, line)

    def test_a_terminal_as_log_file(self):
        for how in ("cooked, unread", "raw, unread", "stopped"):
            with self.subTest(how):
                reader, writer = self.terminal("raw" not in how)
                agent = self.start(options=("-l", os.ttyname(writer), "-L", "debug"))
                if how == "stopped":
                    os.write(reader, b"\x13")  # ctrl-S
                self.works(agent)
                if how == "stopped":
                    os.write(reader, b"\x11")
                self.comes_back(agent, reader)
                self.works(agent)

    def test_standard_error_of_a_terminal_run(self):
        def nobody(fd):
            os.dup2(fd, 2)
            os.setgid(AGENT_UID)
            os.setuid(AGENT_UID)  # what root has made cannot be opened anew

        def root(fd):
            os.dup2(fd, 2)

        def sockets():
            return [s.detach() for s in socket.socketpair()]

        for how, pair, prepare in (("terminal", os.openpty, root), ("another user's terminal", os.openpty, nobody),
                                   ("pipe", os.pipe, root), ("another user's pipe", os.pipe, nobody),
                                   ("socket", sockets, root)):
            with self.subTest(how):
                if prepare is nobody and os.geteuid() != 0:
                    continue
                reader, writer = self.pair(pair())
                flags = fcntl.fcntl(writer, fcntl.F_GETFL)
                agent = self.start(options=("-L", "debug"), arguments=("-T",), preexec=lambda: prepare(writer))
                self.works(agent)
                self.comes_back(agent, reader)
                self.works(agent)
                self.assertEqual(agent.stop()[0], 0)
                self.forget(agent)
                self.assertEqual(fcntl.fcntl(writer, fcntl.F_GETFL), flags)  # the starter's own mode is as it was

    def test_a_background_job_is_not_stopped_by_its_terminal(self):
        _, writer = self.terminal()
        mode = termios.tcgetattr(writer)
        mode[3] |= termios.TOSTOP
        termios.tcsetattr(writer, termios.TCSANOW, mode)

        name = os.ttyname(writer)
        shell = f"""exec setsid -c sh -m -c '"$0" "$@" & wait $!' "$0" "$@" <{name} 2>{name}"""
        agent = self.start(arguments=("-T",), wrapper=("sh", "-c", shell))
        job = int(subprocess.check_output(["pgrep", "-P", str(agent.pid)]))
        self.works(agent)
        os.kill(job, signal.SIGTERM)
        self.assertEqual(agent.proc.wait(10), 0)
        self.forget(agent)

    def test_a_fifo_that_is_not_read(self):
        reader, path = self.fifo()
        agent = self.start(options=("-l", path, "-L", "debug"))
        self.works(agent)
        self.comes_back(agent, reader)
        self.works(agent)

    def test_a_slow_reader_does_not_cost_a_wait_for_each_record(self):
        reader, path = self.fifo()
        agent = self.start(options=("-l", path, "-L", "debug"))
        self.works(agent)
        is_done = threading.Event()

        def read_slowly():
            while not is_done.wait(0.05):
                os.read(reader, 4096)

        thread = threading.Thread(target=read_slowly)
        thread.start()
        self.addCleanup(thread.join)
        self.addCleanup(is_done.set)
        self.works(agent, 80)

    def test_control_bytes_of_a_request(self):
        agent = self.start(options=("-L", "debug"))
        for head in (b"GET /src/\x1b]0;title\x07 HTTP/1.1\r\nHost: a\x9b\x7f\r\n\r\n",
                     b"G\x1b[2J / HTTP/1.1\r\nHost: agent.net\r\n\r\n",
                     b"GET /src/a%1b%5b/dst/b%0d%0ac%c2%9b HTTP/1.1\r\nHost: over\rwritten\r\n\r\n"):
            self.assertEqual(agent.send(head)[:12], b"HTTP/1.1 400")
        with open(agent.log_path, "rb") as f:
            text = f.read().partition(b"STARTING")[2]
        self.assertIn(b"malformed HTTP request: G?[2J / HTTP/1.1\r\nHost: agent.net\r\n\r\n", text)
        self.assertEqual(re.findall(rb"[\x00-\x09\x0b\x0c\x0e-\x1f\x7f]|\r(?!\n)|\xc2[\x80-\x9f]", text), [])


@unittest.skipIf(subprocess.run(["unshare", "-m", "true"], stderr=subprocess.DEVNULL, check=False).returncode != 0,
                 "needs a mount namespace, so that the machine's own /dev stays as it is")
class Syslog(KovTest):
    LINE = re.compile(rb"<(\d+)>[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d kov\[(\d+)\]: \d{4}-.* \d+  \((ERR|WRN)\)  .*\n")

    def setUp(self):
        super().setUp()
        self.dev = f"{self.root}/dev"
        os.mkdir(self.dev)
        with open(f"{self.dev}/null", "wb"):
            pass
        os.mkfifo(f"{self.dev}/console")
        self.console = os.open(f"{self.dev}/console", os.O_RDWR | os.O_NONBLOCK)
        self.addCleanup(os.close, self.console)

    def syslogd(self, kind=socket.SOCK_DGRAM):
        server = socket.socket(socket.AF_UNIX, kind)
        self.addCleanup(server.close)
        server.settimeout(10)
        server.bind(f"{self.dev}/log")
        return server

    def refused(self, agent, count):
        """So many refused orders, each with two lines for syslog at least."""
        start = time.monotonic()
        for i in range(count):
            self.assertEqual(agent.get(f"/src/ftp://h/{i}/dst/b"), ANSWERS[400])
        self.assertLess(time.monotonic() - start, 5)

    def test_unread_restarted_and_absent(self):
        server = self.syslogd()
        mount = f'mount --bind /dev/null {self.dev}/null && mount --rbind {self.dev} /dev && exec "$0" "$@"'
        agent = self.start(runtime=f'pidfile = "{self.next_root()}/pid";', daemon=True,
                           wrapper=("unshare", "-m", "sh", "-c", mount))
        self.refused(agent, 1)
        line = server.recv(4096)
        self.assertRegex(line, self.LINE)
        priority, pid, level = self.LINE.fullmatch(line).groups()
        self.assertEqual((priority, int(pid), level), (b"131", agent.pid, b"ERR"))  # LOG_LOCAL0 | LOG_ERR
        agent.base_fds = agent.fds()
        self.refused(agent, 600)  # more than any queue of datagrams holds
        self.assertGreater(len(read_some(self.nonblocking(server))), 0)
        self.refused(agent, 1)
        server.settimeout(10)
        self.assertRegex(server.recv(4096), self.LINE)  # it is read again

        server.close()
        os.unlink(f"{self.dev}/log")
        self.refused(agent, 200)
        self.assertRegex(read_some(self.console, 0.2), rb"^kov\[\d+\]: .*\(ERR\).*\r\n")

        server = self.syslogd(socket.SOCK_STREAM)
        server.listen()
        server.settimeout(0.1)
        conn = None
        deadline = time.monotonic() + 10
        while not conn and time.monotonic() < deadline:
            self.refused(agent, 1)
            try:
                conn, _ = server.accept()
            except socket.timeout:
                pass
        with conn:
            conn.settimeout(10)
            text = conn.recv(4096)
        self.assertRegex(text.split(b"\0")[0], self.LINE)
        server.close()
        os.unlink(f"{self.dev}/log")

        server = self.syslogd()

        def is_heard():
            self.refused(agent, 1)
            return read_some(self.nonblocking(server))

        wait_for(is_heard, "a line at the restarted daemon")
        self.refused(agent, 600)  # and quits with its socket full

    @staticmethod
    def nonblocking(server):
        server.setblocking(False)
        return server.fileno()


if __name__ == "__main__":
    unittest.main()
