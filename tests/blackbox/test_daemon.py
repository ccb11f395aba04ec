"""The background run: two forks, session, user, descriptors, pid file, and every way in which its set-up can fail."""

import fcntl
import os
import pwd
import resource
import signal
import unittest

import psutil
from harness import KovTest, adopt_orphans, read, write

NOBODY = pwd.getpwnam("nobody")


@unittest.skipIf(os.geteuid() != 0, "only root can become another user")
class Background(KovTest):
    is_open = True

    def setUp(self):
        super().setUp()
        adopt_orphans()
        self.addCleanup(lambda: [child.kill() for child in psutil.Process().children()])
        os.chmod(self.root, 0o777)

    def background(self, user="", more="", **kwargs):
        """Starts a daemon whose directory anybody can write to; its parts are closed to nobody."""
        runtime = f'pidfile = "{self.next_root()}/pid"; run_as_user = "{user}"; {more}'
        return self.start(runtime=runtime, daemon=True, **kwargs)

    @staticmethod
    def link(agent, name):
        return os.readlink(f"/proc/{agent.pid}/{name}")

    def test_as_another_user(self):
        os.mkdir(closed := f"{self.root}/closed", 0o700)
        agent = self.background("nobody", preexec=lambda: (os.setgroups([0, 4, 6]), os.chdir(closed)))
        self.assertEqual((agent.starter_status, agent.leader_status), (0, 0))
        status = dict(line.split(":\t", 1) for line in agent.proc_file("status").splitlines())
        self.assertEqual(status["Uid"].split(), [str(NOBODY.pw_uid)] * 4)
        self.assertEqual(status["Gid"].split(), [str(NOBODY.pw_gid)] * 4)
        self.assertEqual(status["Groups"].split(), [str(NOBODY.pw_gid)])
        self.assertEqual(int(status["PPid"]), os.getpid())  # adopted: its parent is gone
        self.assertNotIn(os.getsid(agent.pid), (os.getsid(0), agent.pid))
        self.assertEqual({self.link(agent, f"fd/{fd}") for fd in (0, 1, 2)}, {"/dev/null"})
        self.assertEqual(self.link(agent, "cwd"), "/tmp")  # the directory of the start is closed to it
        self.assertEqual(read(agent.pidfile), str(agent.pid))
        log_stat = os.stat(agent.log_path)
        self.assertEqual((log_stat.st_uid, log_stat.st_mode & 0o7777), (NOBODY.pw_uid, 0o644))
        agent.logged(f"STARTING. PID={agent.pid}\n", f"Created pidfile [{agent.pidfile}] with pid={agent.pid}.\n",
                     f"Runtime pid={agent.pid} uid/gid = {NOBODY.pw_uid}/{NOBODY.pw_gid} running in")
        self.assertNotRegex(agent.stderr(), "ERR|NRM")  # all went into the log
        agent.fetch(self.origin.body("/a", b"first"), "new/dir/a", b"first")
        self.assertEqual(os.stat(agent.path("new/dir")).st_mode & 0o7777, 0o755)
        self.end(agent)
        self.assertFalse(os.path.exists(agent.pidfile))
        agent.logged("kov shut down\n")

    def test_stays_in_a_directory_that_is_open_to_the_user(self):
        agent = self.background("nobody", preexec=lambda: os.chdir(self.root))
        self.assertEqual(self.link(agent, "cwd"), self.root)
        agent = self.background(preexec=lambda: os.chdir(self.root))  # root stays where the daemon went
        self.assertEqual(self.link(agent, "cwd"), "/")
        self.assertIn("\nUid:\t0\t0\t0\t0\n", agent.proc_file("status"))

    def test_a_relative_data_directory_is_where_the_operator_stood(self):
        root = self.next_root()
        name = "x" * (128 - len(root) - 1)
        self.failed_start(["is too long (128), max = 127 characters.\n"], [1], ("-D", name), lambda: os.chdir(root))
        root = self.next_root()
        agent = self.background(options=("-D", "d/"), preexec=lambda: os.chdir(root))
        agent.logged(f"\tdata directory       = [{root}/d/]\n")
        agent.fetch(self.origin.body("/a", b"here"), "sub/a", b"here")
        agent.logged(f" to [{root}/d/sub/a]\n")

    def test_core_limit(self):
        for user, hard, limit in (("", resource.RLIM_INFINITY, "unlimited"), ("nobody", 0, "0")):
            agent = self.background(user, "enforce_core_dumps = true;",
                                    preexec=lambda hard=hard: resource.setrlimit(resource.RLIMIT_CORE, (0, hard)))
            self.assertRegex(agent.proc_file("limits"), f"Max core file size +{limit} ")
            self.assertEqual("set_unlimited_core: setrlimit ERROR(1): " in agent.log(), hard == 0)

    def test_hang_up_ends_it_by_default(self):
        agent = self.background()
        self.end(agent, -signal.SIGHUP, signal.SIGHUP)
        agent.not_logged("SIGHUP")
        self.assertTrue(os.path.exists(agent.pidfile))

    def test_a_later_instance_takes_the_pid_file_over(self):
        first = self.background()
        second = self.start(runtime=f'pidfile = "{first.pidfile}";', daemon=True)
        self.assertNotEqual(second.pid, first.pid)
        self.end(first)
        self.assertFalse(os.path.exists(first.pidfile))  # unlinked by the first, though the second wrote it
        second.get("/", 204)
        self.end(second)  # and a missing file is no fault
        second.not_logged("unlink")
        terminal = self.start(runtime=f'pidfile = "{first.pidfile}";')
        write(first.pidfile, "1")
        self.end(terminal)
        self.assertFalse(os.path.exists(first.pidfile))  # in a terminal run, too

    def failed_start(self, messages, statuses, options=(), preexec=None, runtime="", place="errors"):
        """A start that fails, with the statuses of its processes, and what it says on standard error or in the log."""
        agent = self.start(runtime=runtime, options=options, preexec=preexec, arguments=(), must_run=False)
        found = [agent.proc.wait(10)]
        while children := psutil.Process().children():
            found += sorted(child.wait(10) for child in children)
        text = agent.stderr() if place == "errors" else agent.log()
        self.assertEqual(found, statuses, text)
        for message in messages:
            self.assertIn(message, text)

    def test_failures_after_the_forks(self):
        pid = f'pidfile = "{self.root}/pid";'
        locked, link, target, fifo, fifo_read = (f"{self.root}/{name}" for name in "abcde")
        write(locked)
        holder = open(locked, "w", encoding="ascii")
        self.addCleanup(holder.close)
        fcntl.lockf(holder, fcntl.LOCK_EX)
        write(target, "not a pid")
        os.symlink(target, link)
        os.mkfifo(fifo)
        self.fifo(fifo_read)
        created = "create_pidfile_extra: "
        for runtime, options, place, message in (
                (pid + 'run_as_user = "nosuch";', (), "errors", "run_as_user: getpwnam: user nosuch not found\n"),
                (pid, ("-l", "/nonexistent/log"), "errors",
                 "do_open: uid/gig=0/0 fopen(/nonexistent/log) ERROR(2): No such file or directory\n"),
                ("", (), "log", created + "no path specified\n"),
                ('pidfile = "/nonexistent/pid";', (), "log",
                 created + "failed to create pidfile [/nonexistent/pid] with pid="),
                (f'pidfile = "{locked}";', (), "log", "Another instance is already running\n"),
                (f'pidfile = "{link}";', (), "log", f"open('{link}', "),
                (f'pidfile = "{fifo}";', (), "log", "ERROR(6): "),
                (f'pidfile = "{fifo_read}";', (), "log", created + f"[{fifo_read}] is not a regular file\n"),
                (pid, ("-P", "2000"), "log", "Failed to pin this kov(pid=")):
            messages = (message, "runtime_setup: FAILED (rc=-1)\n", "kov shut down\n", "EXIT(1). PID=")
            self.failed_start(messages, [0, 0, 1], options, runtime=runtime, place=place)
            self.assertFalse(os.path.exists(f"{self.root}/pid"))
        self.assertEqual(read(target), "not a pid")
        self.assertTrue(all(os.path.lexists(path) for path in (link, fifo, fifo_read)))  # the refused are left alone
        self.assertFalse(os.path.exists(locked))  # the refused instance unlinks the other one's file

    def test_a_quit_signal_goes_with_the_forks(self):
        def ask_to_quit():
            signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGTERM])
            os.kill(os.getpid(), signal.SIGTERM)
        self.failed_start(["QUIT-SIG(15)\n", "EXIT(0). PID="], [0, 0, 0], place="log", preexec=ask_to_quit,
                          runtime=f'pidfile = "{self.root}/pid";')

    def test_start_in_a_removed_directory(self):
        def in_removed():
            os.mkdir(f"{self.root}/gone")
            os.chdir(f"{self.root}/gone")
            os.rmdir(f"{self.root}/gone")
        self.failed_start(["getcwd ERROR(2) : No such file or directory\n", "EXIT(1). PID="], [1], preexec=in_removed)
