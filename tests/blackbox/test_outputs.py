"""Outputs of the log whose reader stops or dawdles: lines are lost, and nothing else. Text from outside in the log."""

import contextlib
import fcntl
import os
import re
import select
import signal
import socket
import termios
import threading
import time
import tty

from harness import ASAN, KovTest, needs_namespaces, run, unshare, wait_for, write

STAMP = re.compile(rb"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} ")
SYSLOG = re.compile(rb"<(\d+)>[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d kov\[(\d+)\]: \d{4}-.* \d+  \((ERR|WRN)\)  .*\n")
AGENT_UID = 65534


def read_some(fd, seconds=0.0):
    """What can be read now, or comes without a longer pause."""
    data = b""
    with contextlib.suppress(OSError):  # the terminal's other side is closed
        while select.select([fd], [], [], seconds)[0]:
            data += os.read(fd, 65536)
    return data


class Outputs(KovTest):
    is_open = True
    served = 0

    def pair(self, pair):
        """A reading end that the test keeps, and a writing end for the agent."""
        for fd in pair:
            self.addCleanup(os.close, fd)
        return pair

    def works(self, agent, count=40):
        """An order and pings, each with some 40 lines of log; together they may wait for a reader half a second."""
        start = time.monotonic()
        self.served += 1
        agent.fetch(self.origin.body("/a", b"stored"), f"a{self.served}", b"stored")
        for _ in range(count):
            agent.get("/", 204)
        self.assertLess(time.monotonic() - start, 12 if ASAN else 6)

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
        self.works(agent)

    def test_a_terminal_as_log_file(self):
        for how, stop, go in (("cooked", b"", b""), ("raw", b"", b""), ("stopped", b"\x13", b"\x11")):  # ctrl-S, ctrl-Q
            with self.subTest(how):
                reader, writer = self.pair(os.openpty())
                if how == "raw":
                    tty.setraw(writer)
                agent = self.start(options=("-l", os.ttyname(writer), "-L", "debug"))
                os.write(reader, stop)
                self.works(agent)
                os.write(reader, go)
                self.comes_back(agent, reader)

    def test_standard_error_of_a_terminal_run(self):
        def as_nobody():
            os.setgid(AGENT_UID)
            os.setuid(AGENT_UID)  # what root has made cannot be opened anew

        def sockets():
            return [s.detach() for s in socket.socketpair()]

        for pair, become in ((os.openpty, None), (os.openpty, as_nobody), (os.pipe, None), (os.pipe, as_nobody),
                             (sockets, None)):
            with self.subTest(pair=pair, become=become):
                if become and os.geteuid() != 0:
                    continue
                reader, writer = self.pair(pair())
                flags = fcntl.fcntl(writer, fcntl.F_GETFL)
                agent = self.start(options=("-L", "debug"), arguments=("-T",),
                                   preexec=lambda w=writer, b=become: (os.dup2(w, 2), b and b()))
                self.works(agent)
                self.comes_back(agent, reader)
                self.end(agent)
                self.assertEqual(fcntl.fcntl(writer, fcntl.F_GETFL), flags)  # the starter's own mode is as it was

    def test_a_background_job_is_not_stopped_by_its_terminal(self):
        _, writer = self.pair(os.openpty())
        mode = termios.tcgetattr(writer)
        mode[3] |= termios.TOSTOP
        termios.tcsetattr(writer, termios.TCSANOW, mode)
        name = os.ttyname(writer)
        shell = f"""exec setsid -c sh -m -c '"$0" "$@" & wait $!' "$0" "$@" <{name} 2>{name}"""
        agent = self.start(arguments=("-T",), wrapper=("sh", "-c", shell))
        job = int(run("pgrep", "-P", str(agent.pid)))
        self.works(agent)
        os.kill(job, signal.SIGTERM)
        self.ends_by_itself(agent, 0)

    def test_a_fifo_whose_reader_stops_or_dawdles(self):
        path = f"{self.root}/fifo"
        reader = self.fifo(path)
        agent = self.start(options=("-l", path, "-L", "debug"))
        self.works(agent)
        is_done = threading.Event()

        def read_slowly():
            while not is_done.wait(0.05):
                os.read(reader, 4096)

        thread = threading.Thread(target=read_slowly)
        thread.start()
        try:
            self.works(agent, 80)  # no wait for each record
        finally:
            is_done.set()
            thread.join()
        self.comes_back(agent, reader)


@needs_namespaces
class Syslog(KovTest):
    """In a mount namespace, so that the machine's own /dev stays as it is."""

    def setUp(self):
        super().setUp()
        self.dev = self.new_root()
        write(f"{self.dev}/null")
        self.console = self.fifo(f"{self.dev}/console")

    def syslogd(self, kind=socket.SOCK_DGRAM):
        server = socket.socket(socket.AF_UNIX, kind)
        self.addCleanup(server.close)
        server.setblocking(False)
        server.bind(f"{self.dev}/log")
        return server

    def refused(self, agent, count):
        """So many refused orders, each with two lines for syslog at least."""
        start = time.monotonic()
        for i in range(count):
            agent.get(f"/src/ftp://h/{i}/dst/b", 400)
        self.assertLess(time.monotonic() - start, 5)

    def refused_until(self, agent, condition):
        """Refuses orders until the condition, about a syslog daemon that may be a new one, is true; what it says."""
        return wait_for(lambda: self.refused(agent, 1) or condition(), "the syslog daemon to hear of them")

    def heard(self, agent, server):
        return self.refused_until(agent, lambda: read_some(server.fileno()))

    def test_unread_restarted_and_absent(self):
        server = self.syslogd()
        mount = f"mount --bind /dev/null {self.dev}/null && mount --rbind {self.dev} /dev"
        agent = self.start(runtime=f'pidfile = "{self.next_root()}/pid";', daemon=True, wrapper=unshare("-m", mount))
        priority, pid, level = SYSLOG.match(self.heard(agent, server)).groups()
        self.assertEqual((priority, int(pid), level), (b"131", agent.pid, b"ERR"))  # LOG_LOCAL0 | LOG_ERR
        agent.base_fds = agent.fds()
        self.refused(agent, 600)  # more than any queue of datagrams holds
        self.assertGreater(len(read_some(server.fileno())), 0)
        self.assertRegex(self.heard(agent, server), SYSLOG)  # it is read again

        server.close()
        os.unlink(f"{self.dev}/log")
        self.refused(agent, 200)
        self.assertRegex(read_some(self.console, 0.2), rb"^kov\[\d+\]: .*\(ERR\).*\r\n")

        server = self.syslogd(socket.SOCK_STREAM)
        server.listen()
        self.refused_until(agent, lambda: select.select([server], [], [], 0)[0])
        with server.accept()[0] as conn:
            conn.settimeout(10)
            self.assertRegex(conn.recv(4096).split(b"\0")[0], SYSLOG)
        server.close()
        os.unlink(f"{self.dev}/log")

        self.heard(agent, self.syslogd())
        self.refused(agent, 600)  # and quits with its socket full
