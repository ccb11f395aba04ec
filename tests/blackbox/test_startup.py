"""Command line, configuration file, configuration dump, statuses of a start that fails."""
import os
import re
import shutil
import subprocess
import tempfile
import unittest

import kov

IDENTITY = r"kov\b.*Download manager.*\b0\.2-0\.7\b.*\(marlinet\).*\bregular\b.*\[.*\].*\b7e301497\b.*built on 2019-10-07"
LISTENER = {"ifc": "lo", "default_af": "inet4", "port": 8020}


class Startup(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="k", dir="/tmp")
        self.config = self.dir + "/kov.conf"
        self.addCleanup(shutil.rmtree, self.dir)

    def run_kov(self, *args, **env):
        done = subprocess.run([kov.KOV, *args], cwd=self.dir, capture_output=True, text=True, timeout=kov.WAIT_SEC,
                              env={**os.environ, **env}, stdin=subprocess.DEVNULL, check=False)
        for word in kov.FORBIDDEN:
            self.assertNotIn(word, done.stderr)
        self.assertEqual(done.stdout, "")
        return done

    def write(self, text):
        with open(self.config, "w", encoding="utf-8") as file:
            file.write(text)

    def write_groups(self, **groups):
        """A good configuration with some groups replaced; None leaves one out. The port is never reached: listeners
        are opened only after everything that these tests break."""
        good = {"log": {"file": self.dir + "/log"}, "runtime": {}, "web_input": {"web": LISTENER}, "data_dir": self.dir}
        self.write("kova = {" + "".join(f"{key} = {kov.setting(val)};\n" for key, val in {**good, **groups}.items()
                                        if val is not None) + "};")

    def assert_fails(self, text, *args):
        done = self.run_kov("-C", self.config, "-T", *args)
        self.assertEqual(done.returncode, 1, done.stderr)
        self.assertIn(text, done.stderr)
        self.assertFalse(os.path.exists(self.dir + "/log"), "no log file yet")

    def test_usage(self):
        for args in [[], ["-h"], ["--help"], ["-?"], ["--options"], ["-x"], ["-u", "root"], ["-C"], ["-q", "-h"]]:
            with self.subTest(args=args):
                done = self.run_kov(*args)
                self.assertEqual(done.returncode, 1)
                self.assertRegex(done.stderr, "(?m)^" + IDENTITY + r"\nUsage: kov PARAMETERS \[OPTIONS\]\n\nParameters:\n")
                self.assertIn("\n  -P|--cpu {0..N}            = run on CPUx only\n", done.stderr)
                self.assertIn("option guide\n\n----\nlibmlx/1.5-6.16 (f727d5c2) @1505383611 [-ggdb3]\n----\n\n", done.stderr)

    def test_version_wins_over_later_values(self):
        for args in [["-V"], ["--version"], ["-V", "-P", "abc"], ["-P", "abc", "-V"], ["-V", "-C", "/nonexistent"]]:
            with self.subTest(args=args):
                done = self.run_kov(*args)
                self.assertEqual(done.returncode, 1)
                self.assertRegex(done.stderr, "^" + IDENTITY + "\n$")

    def test_no_configuration(self):
        done = self.run_kov("-T")
        self.assertEqual(done.returncode, 1)
        self.assertTrue(done.stderr.startswith("Invalid or unspecified config [], please use -C path\n"), done.stderr)
        self.assertIn("Usage: kov PARAMETERS [OPTIONS]\n", done.stderr)

    def test_unreadable_configuration(self):
        for path in [self.dir + "/none", self.dir]:
            done = self.run_kov("-C", path, "-T")
            self.assertEqual(done.returncode, 1)
            self.assertIn(f"Failed to load [{path}]\n", done.stderr)
        self.write("kova = {\n  log = \n}\n")
        self.assert_fails(f"Error reading/parsing config file [{self.config}]: line 3: syntax error\n")

    def test_bad_options(self):
        self.write_groups()
        long = "/" + "x" * 127
        for args, text in [
                (["-P", "abc"], "Invalid CPU #: abc\n"), (["-P", "00"], "Invalid CPU #: 00\n"),
                (["-L", "loud"], "Invalid log level: loud\n"),
                (["-D", long], "Data path is too long (128 bytes), max=128 bytes.\n"),
                (["-l", long], "Log path is too long (128 bytes), max=128 bytes.\n"),
                (["-p", long], "Pidfile path is too long (128 bytes), max=128 bytes.\n"),
                (["--default"], "Unknown option: \0\n"),
                (["-w", "lo"], "add_web_cli: missing port number in lo\n"),
                (["-w", "nosuchifc:8020"], "add_web_cli: invalid interface name: nosuchifc\n")]:
            with self.subTest(args=args):
                self.assert_fails(text, *args)

    def test_bad_configuration(self):
        web = lambda **keys: {"web_input": {"web": {**LISTENER, **keys}}}
        for groups, text in [
                ({"log": None}, "missing log section\n"), ({"runtime": None}, "missing runtime section\n"),
                ({"log": {"level": "loud"}}, "Invalid log level: loud\n"),
                ({"log": {"time_format": "never"}}, "Invalid time format: never\n"),
                ({"log": {"file": "x" * 127}}, "value is too long (127), max = 127 characters.\n"),
                (web(port=0), "invalid port value: [0]\n"), (web(port="70000"), "invalid port value: [70000]\n"),
                (web(port=70000), "invalid port value: [70000]\n"),
                (web(protocol="sctp"), "load_listener_from: invald protocol for ["),
                (web(default_af="ipx"), "unsupported address family [ipx] in configuration.\n"),
                (web(ifc="nosuchifc"), "invalid network interface name/address: nosuchifc\n"),
                (web(ifc="nosuchifc"), "failed to load web listener(s)\n"),
                ({"udp_input": {"must_lock": True}}, "missing url for UDP channel\n"),
                ({"lbdb": {"port": 1}}, "missing host setting\n"),
                ({"lbdb": {"host": "h", "port": -1}}, "invalid port value: -1\n"),
                ({"lbdb": {"host": "h", "port": 1}}, "missing sha1_dir setting\n"),
                ({"lbdb": {"host": "h", "port": 1, "sha1_dir": "/"}}, "must be set for lbdb-enabled mode\n"),
                ({"data_dir": "/nonexistent"}, "cannot accept [/nonexistent] as "),
                ({"web_input": None}, "validate_config: at least one listener must be present\n")]:
            with self.subTest(groups=groups):
                self.write_groups(**groups)
                self.assert_fails(text)

    def test_lone_command_line_listener_is_none(self):
        self.write_groups(web_input=None)
        self.assert_fails("validate_config: at least one listener must be present\n", "-w", "lo:8020")

    def test_failing_step_gives_the_status(self):
        self.write_groups(max_tasks=-1)
        done = self.run_kov("-C", self.config, "-T", "-q")
        self.assertNotEqual(done.returncode, 0)
        log = kov.read_file(self.dir + "/log").decode()
        self.assertIn("init_kova_ctx: failed to [init sources], rc=", log)
        self.assertRegex(log, IDENTITY + rf" EXIT\({done.returncode}\)\. PID=\d+\n$")

    @unittest.skipUnless(os.geteuid() == 0, "a daemon is started by root")
    def test_daemon_that_cannot_start(self):
        for groups, text in [({"log": {}}, "Logfile must be specified to run as daemon\n"),
                             ({"runtime": {"run_as_user": "nosuchuser"}}, "user nosuchuser not found\n")]:
            with self.subTest(text=text):
                self.write_groups(**groups)
                done = self.run_kov("-C", self.config)
                self.assertIn(text, done.stderr)
                self.assertRegex(done.stderr, r"EXIT\(1\)\. PID=\d+\n$")


class Dump(kov.Case):
    settings = {"log": {"level": "norm"}}

    def test_defaults_to_the_character(self):
        agent = self.agent
        rule = "-" * 35 + "\n"
        self.assertIn(
            f"{rule}Log (regular):\n\tpath   = {agent.log_path}\n\tlevel  = normal\n\tformat = no_time\n"
            "\trota:max size   = 64 Mb\n\trota:max files  = 16\n\trota:end-of-day = off (0)\n\n"
            "Runtime:\n\tflags: [non-daemon] [quiet]\n\n"
            f"Listeners:\n\tuser listener[lo:{agent.port}]: ifc=lo, af=inet4 port={agent.port}\n\n\n"
            "\tmax-accepted=64\n\tI/O timeouts: user-rq=1000, admin-rq=0 custom-rq=0\n\n"
            f"Misc:\n\tdata directory       = [{agent.data}]\n\trequest time-out     = 1 sec\n"
            "\tmax tasks            = 4096 \n\ttask time-out        = 5000 ms\n\tmmap up to           = 8 MB\n\n"
            f"{rule}", agent.log())
        self.assertEqual(agent.stderr().count(rule), 0, "quiet")

    def test_every_setting(self):
        ports = [kov.free_port(), kov.free_port()]
        agent = self.run_agent(
            log={"level": "crit", "max_size_mb": 0}, runtime={"quiet": False, "pidfile": "/tmp/k.pid", "cpunum": 0},
            web={"web": [{"alias": "first", "ifc": "127.0.0.1", "default_af": "inet4", "port": str(ports[0])},
                         {"port": ports[1], "default_af": "inet4"}], "max_accept": 3},
            args=["-P", "-5", "-L", "norm"], urq_tmout_sec=7, max_tasks=0, task_tmout_ms=250, max_mmap_mb=0,
            local_url_prefix="http://here/")
        expected = (
            "level  = normal\n\tformat = no_time\n\nRuntime:\n\tpid file = /tmp/k.pid\n\tflags: [non-daemon]\n\n"
            f"Listeners:\n\tuser listener[first]: ifc=lo, af=inet4 port={ports[0]}\n"
            f"\tuser listener[all:{ports[1]}]: ifc=<anyaddr>, af=inet4 port={ports[1]}\n\n\n\tmax-accepted=3\n")
        misc = ("\trequest time-out     = 7 sec\n\tmax tasks            = 0 (unlimited)\n"
                "\ttask time-out        = 250 ms\n\tmmap up to           = 0 MB\n\tlocal URL prefix     = http://here\n\n")
        for text in agent.log(), agent.stderr():
            self.assertIn(expected, text)
            self.assertIn(misc, text)
        self.assertFalse(os.path.exists("/tmp/k.pid"))

    def test_database_block_and_pipes(self):
        agent = kov.Agent(args=["-P", "-5"], start=False, local_url_prefix="http://here",
                          lbdb={"host": "127.0.0.1", "port": 1, "sha1_dir": "/nonexistent", "connect_tmout_ms": 1005})
        self.addCleanup(agent.destroy)
        agent.start()
        self.assertNotEqual(agent.proc.wait(kov.WAIT_SEC), 0)
        self.assertIn("Load-balancer DB: 127.0.0.1:1\n\tConnect timeout        = 1.5000 sec\n"
                      "\tSHA1 directory         = /nonexistent\n", agent.log())

    def test_log_lines(self):
        """pid, level and group are followed by two blanks; records before the log is open go to standard error."""
        agent = self.agent
        self.assertRegex(agent.log(), rf"(?m)^{agent.proc.pid}  \(NRM\)  KOV  kov Download manager .* STARTING\. PID="
                         rf"{agent.proc.pid}$")
        self.assertRegex(agent.stderr(), r"(?m)^\S+ \S+ \S+ \(DBG\)  KOV  get_listeners: 1 web listeners loaded$")

    def test_wrapped_calls_are_traced_on_demand(self):
        for value, traced in [("1", True), ("yes", False)]:
            agent = self.run_agent(env={"SYSW_DEBUG": value}, log={"level": "debug"})
            agent.request("/src/http://127.0.0.1:1/x/dst/y")
            self.assertEqual("CLOSED(fd" in agent.log(), traced, value)

    @unittest.skipUnless(os.geteuid() == 0, "a daemon is started by root")
    def test_daemon(self):
        agent = kov.Agent(start=False)
        self.addCleanup(agent.destroy)
        pidfile = agent.dir + "/pid"
        subprocess.run([kov.KOV, "-C", agent.config, "-p", pidfile], check=True, timeout=kov.WAIT_SEC, cwd=agent.dir,
                       stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        pid = int(kov.wait_for(lambda: os.path.exists(pidfile) and kov.read_file(pidfile), "pid file"))
        agent.wait_log(" STARTING. PID=")
        self.assertEqual(agent.ping(), kov.answer(204))
        self.assertEqual(os.readlink(f"/proc/{pid}/cwd"), "/")
        os.kill(pid, 15)
        kov.wait_for(lambda: not os.path.exists(f"/proc/{pid}"), "end of the daemon")
        self.assertRegex(agent.log(), r"kov has been asked to quit\.\n(?:.*\n)*.*kov shut down\n.* EXIT\(0\)\. PID=\d+\n$")
        self.assertFalse(os.path.exists(pidfile))


if __name__ == "__main__":
    unittest.main()
