"""The background run: two forks, session, user, descriptors, pid file, and every way in which its set-up can fail."""

import fcntl
import os
import pwd
import re
import resource
import signal
import subprocess
import unittest

from kov import ANSWERS, KOV, KovTest, adopt_orphans, reap_all

NOBODY = pwd.getpwnam("nobody")


@unittest.skipIf(os.geteuid() != 0, "only root can become another user")
class Background(KovTest):
    def setUp(self):
        super().setUp()
        adopt_orphans()
        os.chmod(self.root, 0o777)

    def new_root(self):
        root = super().new_root()
        os.makedirs(f"{root}/d")
        for path in (root, f"{root}/d"):
            os.chmod(path, 0o777)
        return root

    def background(self, user="", more="", **kwargs):
        """Starts a daemon whose directory anybody can write to; its parts are closed to nobody."""
        return self.start(runtime=f'pidfile = "{self.next_root()}/pid"; run_as_user = "{user}"; {more}', daemon=True, **kwargs)

    @staticmethod
    def status(agent):
        with open(f"/proc/{agent.pid}/status", encoding="ascii") as f:
            return dict(line.split(":\t", 1) for line in f.read().splitlines())

    def test_as_another_user(self):
        agent = self.background("nobody", preexec=lambda: (os.setgroups([0, 4, 6]), os.chdir("/root")))
        self.assertEqual((agent.starter_status, agent.leader_status), (0, 0))
        status = self.status(agent)
        self.assertEqual(status["Uid"].split(), [str(NOBODY.pw_uid)] * 4)
        self.assertEqual(status["Gid"].split(), [str(NOBODY.pw_gid)] * 4)
        self.assertEqual(status["Groups"].split(), [str(NOBODY.pw_gid)])
        self.assertEqual(int(status["PPid"]), os.getpid())  # adopted: its parent is gone
        self.assertNotIn(os.getsid(agent.pid), (os.getsid(0), agent.pid))
        for fd in (0, 1, 2):
            self.assertEqual(os.readlink(f"/proc/{agent.pid}/fd/{fd}"), "/dev/null")
        self.assertEqual(os.readlink(f"/proc/{agent.pid}/cwd"), "/tmp")  # the directory of the start is closed to it
        self.assertEqual(agent.read_pidfile(), str(agent.pid))
        log_stat = os.stat(agent.log_path)
        self.assertEqual((log_stat.st_uid, log_stat.st_mode & 0o7777), (NOBODY.pw_uid, 0o644))
        self.assertRegex(agent.log(), rf"STARTING\. PID={agent.pid}\n")
        self.assertIn(f"Created pidfile [{agent.pidfile}] with pid={agent.pid}.\n", agent.log())
        self.assertRegex(agent.log(), rf"Runtime pid={agent.pid} uid/gid = {NOBODY.pw_uid}/{NOBODY.pw_gid} running in")
        self.assertNotRegex(agent.stderr(), "ERR|NRM")  # all went into the log
        self.assertEqual(agent.order(self.origin.body("/a", b"first"), "new/dir/a"), ANSWERS[200])
        self.assertEqual(agent.stored("new/dir/a"), b"first")
        self.assertEqual(os.stat(agent.path("new/dir")).st_mode & 0o7777, 0o755)
        self.assertEqual(agent.stop()[0], 0)
        self.assertFalse(os.path.exists(agent.pidfile))
        self.assertIn("kov shut down\n", agent.log())
        self.forget(agent)

    def test_stays_in_a_directory_that_is_open_to_the_user(self):
        agent = self.background("nobody", preexec=lambda: os.chdir(self.root))
        self.assertEqual(os.readlink(f"/proc/{agent.pid}/cwd"), self.root)
        agent = self.background(preexec=lambda: os.chdir(self.root))  # root stays where the daemon went
        self.assertEqual(os.readlink(f"/proc/{agent.pid}/cwd"), "/")
        self.assertEqual(self.status(agent)["Uid"].split(), ["0"] * 4)

    def test_a_relative_data_directory_is_where_the_operator_stood(self):
        root = self.next_root()
        name = "x" * (128 - len(root) - 1)
        statuses, errors, _ = self.failed_start(options=("-D", name), preexec=lambda: os.chdir(root))
        self.assertEqual(statuses, [1], errors)  # before the first fork
        self.assertIn("is too long (128), max = 127 characters.\n", errors)
        root = self.next_root()
        agent = self.background(options=("-D", "d"), preexec=lambda: os.chdir(root))
        self.assertIn(f"\tdata directory       = [{root}/d]\n", agent.log())
        self.assertEqual(agent.order(self.origin.body("/a", b"here"), "sub/a"), ANSWERS[200])
        self.assertEqual(agent.stored("sub/a"), b"here")

    def test_core_limit(self):
        for user, hard, message in (("", resource.RLIM_INFINITY, ""),
                                    ("nobody", 0, "set_unlimited_core: setrlimit ERROR(1): ")):
            agent = self.background(user, "enforce_core_dumps = true;",
                                    preexec=lambda hard=hard: resource.setrlimit(resource.RLIMIT_CORE, (0, hard)))
            with open(f"/proc/{agent.pid}/limits", encoding="ascii") as f:
                limit = re.search(r"Max core file size +(\S+)", f.read()).group(1)
            self.assertEqual(limit, "0" if user else "unlimited")
            self.assertIn(message, agent.log())

    def test_hang_up_ends_it_by_default(self):
        agent = self.background()
        self.assertEqual(agent.stop(signal.SIGHUP)[0], -signal.SIGHUP)
        self.assertNotIn("SIGHUP", agent.log())
        self.assertTrue(os.path.exists(agent.pidfile))
        self.forget(agent)

    def test_a_later_instance_takes_the_pid_file_over(self):
        first = self.background()
        second = self.start(runtime=f'pidfile = "{first.pidfile}";', daemon=True)
        self.assertNotEqual(second.pid, first.pid)
        self.assertEqual(first.stop()[0], 0)
        self.assertFalse(os.path.exists(first.pidfile))  # unlinked by the first, though the second wrote it
        self.forget(first)
        self.assertEqual(second.get("/"), ANSWERS[204])
        self.assertEqual(second.stop()[0], 0)  # and a missing file is no fault
        self.assertNotIn("unlink", second.log())
        self.forget(second)

    def test_a_terminal_run_unlinks_the_pid_file_of_another(self):
        pidfile = f"{self.root}/0/other"
        agent = self.start(runtime=f'pidfile = "{pidfile}";')
        with open(pidfile, "w", encoding="ascii") as f:
            f.write("1")
        agent.stop()
        self.assertFalse(os.path.exists(pidfile))
        self.forget(agent)

    def failed_start(self, runtime="", log="", options=(), preexec=None):
        """Statuses of the three processes, standard error and log of a start that fails after the forks."""
        root = self.new_root()
        with open(f"{root}/kov.conf", "w", encoding="utf-8") as f:
            f.write(f'kova = {{ log = {{ file = "{root}/log"; {log} }}; runtime = {{ {runtime} }};'
                    f'web_input = {{ web = {{ ifc = "lo"; port = 9; }}; }}; data_dir = "{root}"; }};')
        with subprocess.Popen([KOV, "-C", f"{root}/kov.conf", *options], stderr=subprocess.PIPE, preexec_fn=preexec) as proc:
            errors = proc.stderr.read().decode()
            statuses = reap_all()
            proc.returncode = 0
        try:
            with open(f"{root}/log", encoding="utf-8") as f:
                return statuses, errors, f.read()
        except FileNotFoundError:
            return statuses, errors, ""

    def test_failures_after_the_forks(self):
        locked = f"{self.root}/locked"
        holder = open(locked, "w", encoding="ascii")
        self.addCleanup(holder.close)
        fcntl.lockf(holder, fcntl.LOCK_EX)
        pid = f'pidfile = "{self.root}/pid";'
        link, target, fifo, read = (f"{self.root}/{name}" for name in ("link", "target", "fifo", "read"))
        with open(target, "w", encoding="ascii") as f:
            f.write("not a pid")
        os.symlink(target, link)
        os.mkfifo(fifo)
        os.mkfifo(read)
        self.addCleanup(os.close, os.open(read, os.O_RDONLY | os.O_NONBLOCK))
        for arguments, where, message in (
                ({"runtime": pid + 'run_as_user = "no-such-user";'}, "stderr",
                 "run_as_user: getpwnam: user no-such-user not found\n"),
                ({"runtime": pid, "options": ("-l", "/nonexistent/log")}, "stderr",
                 "do_open: uid/gig=0/0 fopen(/nonexistent/log) ERROR(2): No such file or directory\n"),
                ({"runtime": ""}, "log", "create_pidfile_extra: no path specified\n"),
                ({"runtime": 'pidfile = "/nonexistent/pid";'}, "log",
                 "create_pidfile_extra: failed to create pidfile [/nonexistent/pid] with pid="),
                ({"runtime": f'pidfile = "{locked}";'}, "log", "Another instance is already running\n"),
                ({"runtime": f'pidfile = "{link}";'}, "log", f"open('{link}', "),
                ({"runtime": f'pidfile = "{fifo}";'}, "log", "ERROR(6): "),
                ({"runtime": f'pidfile = "{read}";'}, "log", f"create_pidfile_extra: [{read}] is not a regular file\n"),
                ({"runtime": pid, "options": ("-P", "2000")}, "log", "Failed to pin this kov(pid=")):
            statuses, errors, log = self.failed_start(**arguments)
            text = errors if where == "stderr" else log
            self.assertEqual(sorted(statuses), [0, 0, 1], text)  # the two orphans end in any order
            for line in (message, "runtime_setup: FAILED (rc=-1)\n", "kov shut down\n", "EXIT(1). PID="):
                self.assertIn(line, text)
            self.assertFalse(os.path.exists(f"{self.root}/pid"))
        with open(target, encoding="ascii") as f:
            self.assertEqual(f.read(), "not a pid")
        self.assertTrue(all(os.path.lexists(path) for path in (link, fifo, read)))  # what was refused is left alone
        self.assertFalse(os.path.exists(locked))  # the refused instance unlinks the other one's file

    def test_start_in_a_removed_directory(self):
        def in_removed():
            os.mkdir(f"{self.root}/gone")
            os.chdir(f"{self.root}/gone")
            os.rmdir(f"{self.root}/gone")
        statuses, errors, _ = self.failed_start(preexec=in_removed)
        self.assertEqual(statuses, [1])  # before the first fork
        self.assertIn("getcwd ERROR(2) : No such file or directory\n", errors)
        self.assertIn("EXIT(1). PID=", errors)


if __name__ == "__main__":
    unittest.main()
