"""Command line, configuration, dump, signals: what an operator sees."""

import os
import re
import signal
import socket
import subprocess
import tempfile
import unittest

from kov import ANSWERS, KOV, KovTest, free_port, needs_namespaces

GOOD = 'log = { }; runtime = { }; web_input = { web = { ifc = "lo"; port = 8020; }; };'


class CommandLine(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory(prefix="k", dir="/tmp")
        self.addCleanup(self.dir.cleanup)

    def run_kov(self, *args, config=None):
        """Status and standard error of a start that is expected to fail."""
        if config is not None:
            with open(f"{self.dir.name}/c", "w", encoding="utf-8") as f:
                f.write(f"kova = {{ {config} }};")
            args = ("-C", f"{self.dir.name}/c", *args)
        done = subprocess.run([KOV, *args], cwd=self.dir.name, capture_output=True, timeout=20, check=False)
        self.assertEqual(done.stdout, b"")
        return done.returncode, done.stderr.decode(errors="replace")

    def refused(self, message, *args, config=GOOD):
        status, text = self.run_kov(*args, config=config)
        self.assertEqual(status, 1, text)
        self.assertIn(message, text)

    def test_identity_and_usage(self):
        identity = (r"kov Download manager 0\.2-0\.7 \(marlinet\) regular \[[^]]+\] 7e301497 built on 2019-10-07\n")
        for args in ((), ("-h",), ("-?",), ("--help",), ("--options",), ("-q", "-h", "-L", "nonsense")):
            status, text = self.run_kov(*args)
            self.assertEqual(status, 1)
            self.assertRegex(text, "^" + identity + r"Usage: kov PARAMETERS \[OPTIONS\]\n\nParameters:\n")
            self.assertIn("  -h|?|--help                = output this option guide\n\n----\n"
                          "libmlx/1.5-6.16 (f727d5c2) @1505383611 [-ggdb3]\n----\n\n", text)
        for args in (("-V",), ("-V", "-L", "nonsense", "-P", "abc")):
            status, text = self.run_kov(*args)
            self.assertEqual(status, 1)
            self.assertRegex(text, "^" + identity + "$")
        for args in (("-u", "root"), ("--nonsense",)):
            status, text = self.run_kov(*args)
            self.assertEqual(status, 1)
            self.assertIn("Usage: kov", text)
        self.assertIn("Invalid or unspecified config [], please use -C path\n", self.run_kov("-T")[1])
        for name in ("marlinet.conf", "kov.conf"):  # where it looks, the second before the first
            with open(f"{self.dir.name}/{name}", "w", encoding="utf-8") as f:
                f.write("kova = {")
            self.assertIn(f"Error reading/parsing config file [./{name}]", self.run_kov("-T")[1])

    def test_options(self):
        path = "/" + "p" * 127
        self.refused("Data path is too long (128 bytes), max=128 bytes.\n", "-D", path)
        self.refused("Log path is too long (128 bytes), max=128 bytes.\n", "-l", path)
        self.refused("Pidfile path is too long (128 bytes), max=128 bytes.\n", "-p", path)
        self.refused("Data path is empty.\n", "-D", "")
        self.refused("Invalid log level: loud\n", "-L", "loud")
        for text in ("abc", "00", ""):
            self.refused(f"Invalid CPU #: {text}\n", "-P", text)
        self.refused("Unknown option: \0\n", "--default")
        self.refused("add_web_cli: missing port number in lo\n", "-w", "lo")
        self.refused("add_web_cli: invalid port number: 123456\n", "-w", "lo:123456")
        self.refused("add_web_cli: invalid interface name: nonsense\n", "-w", "nonsense:80")
        self.refused("validate_config: at least one listener must be present\n", "-w", "lo:80",
                     config="log = { }; runtime = { };")

    def test_configuration(self):
        long = "x" * 127
        for config, message in (
                ("", "load_config: missing log section\n"),
                ("log = { };", "load_config: missing runtime section\n"),
                ("log = 5; runtime = { };", "load_config: missing log section\n"),
                ('log = { }; runtime = "x";', "load_config: missing runtime section\n"),
                ('\n@include "/tmp"\n', "c]: line 2: cannot open include file\n"),
                ('\n@include "/nonexistent"\n', "c]: line 2: cannot open include file\n"),
                ('/*\n@include "/tmp"\n*/ a = "\n@include \\"/tmp\\"";', "load_config: missing log section\n"),
                ("log = { max_files = -5000000000L; };", "max_files value is out of range: -5000000000\n"),
                ("log = { }; runtime = { }; web_input = { max_accept = 5000000000L; };",
                 "max_accept value is out of range: 5000000000\n"),
                ('log = { }; runtime = { }; lbdb = { host = "h"; port = 65537; };', "invalid port value: 65537\n"),
                (GOOD + "max_tasks = 5000000000L;", "kova.max_tasks value is out of range: 5000000000\n"),
                ('log = { level = "loud"; };', "Invalid log level: loud\n"),
                ('log = { time_format = "now"; };', "Invalid time format: now\n"),
                (f'log = {{ file = "{long}"; }};', "file value is too long (127), max = 127 characters.\n"),
                ("log = { }; runtime = { }; udp_input = { };", "load_config: missing url for UDP channel\n"),
                ("log = { }; runtime = { }; web_input = { web = { port = 0; }; };", "invalid port value: [0]\n"),
                ("log = { }; runtime = { }; web_input = { web = { port = 70000; }; };", "invalid port value: [70000]\n"),
                ('log = { }; runtime = { }; web_input = { web = { port = "99999"; }; };', "invalid port value: [99999]\n"),
                ('log = { }; runtime = { }; web_input = { web = { ifc = "nope"; port = 1; }; };',
                 "load_listener_from: [nope] failed the check for IPv4/v6 interface name\n"),
                ('log = { }; runtime = { }; web_input = { web = { default_af = "ipx"; port = 1; }; };',
                 "name2af: unsupported address family [ipx] in configuration.\n"),
                ('log = { }; runtime = { }; web_input = { web = { protocol = "sctp"; port = 1; }; };',
                 "invald protocol for []: sctp\n"),
                ("log = { }; runtime = { }; lbdb = { };", "load_lbdb_cfg: missing host setting\n"),
                ('log = { }; runtime = { }; lbdb = { host = "h"; port = -1; };', "invalid port value: -1\n"),
                ('log = { }; runtime = { }; lbdb = { host = "h"; port = 1; };', "missing sha1_dir setting\n"),
                (GOOD + 'data_dir = "/nonexistent";',
                 "load_config: cannot accept [/nonexistent] as kova.data_dir\n"),
                (GOOD + 'lbdb = { host = "h"; port = 1; sha1_dir = "/"; };',
                 "load_config: kova.local_url_prefix must be set for lbdb-enabled mode\n"),
                (GOOD + 'lbdb = { host = "h"; port = 1; sha1_dir = "/"; }; local_url_prefix = "/";',
                 "load_config: kova.local_url_prefix must be set for lbdb-enabled mode\n"),
                ("log = ", "Error reading/parsing config file ["),
                ("log = { }; runtime = { };", "at least one listener must be present\n")):
            self.refused(message, config=config)
        for path in ("/nonexistent", "/tmp"):
            status, text = self.run_kov("-C", path)
            self.assertEqual(status, 1)
            self.assertIn(f"Failed to load [{path}]\n", text)

    def test_failing_steps_give_their_status(self):
        port = free_port()
        web = f'log = {{ }}; runtime = {{ }}; web_input = {{ web = {{ ifc = "lo"; port = {port}; }}; }};'
        two = (f"log = {{ }}; runtime = {{ }};"
               f"web_input = {{ web = ( {{ port = {port}; }}, {{ port = {free_port()}; }} ); }};")
        for config, args, message in (
                (two, ("-w", "lo:99999"), "open_listener: invalid port number: 99999\n"),
                (web + "max_tasks = -1;", (), "init_kova_ctx: failed to [init sources], rc=-1\n"),
                (web, ("-P", "2000"), "Failed to pin this kov("),
                (web, ("-l", "/nonexistent/log"), "do_open: uid/gig="),
                (web + "max_tasks = 5000001;", (), "failed to [creating task HT], rc=75\n")):
            status, text = self.run_kov("-T", *args, config=config)
            self.assertEqual(status, 75 if "rc=75" in message else 1, text)
            self.assertIn(message, text)
            self.assertIn("kov shut down\n", text)
            self.assertRegex(text, rf"EXIT\({status}\)\. PID=\d+\n")
        self.refused("Logfile must be specified to run as daemon\n", config=web)


class Running(KovTest):
    def test_dump(self):
        agent = self.start('max_tasks = 0; local_url_prefix = "http://me/";', options=("-L", "crit"))
        dump = agent.log().split("-----------------------------------\n")[1]
        self.assertEqual(dump, f"""Log (regular):
	path   = {agent.log_path}
	level  = ctitical
	format = local
	rota:max size   = 64 Mb
	rota:max files  = 16
	rota:end-of-day = off (0)

Runtime:
	flags: [non-daemon] [quiet]

Listeners:
	user listener[lo:{agent.port}]: ifc=lo, af=inet4 port={agent.port}


	max-accepted=64
	I/O timeouts: user-rq=1000, admin-rq=0 custom-rq=0

Misc:
	data directory       = [{agent.data}]
	request time-out     = 1 sec
	max tasks            = 0 (unlimited)
	task time-out        = 100 ms
	mmap up to           = 8 MB
	local URL prefix     = http://me

""")
        agent = self.start("max_mmap_mb = -1; urq_tmout_sec = -1;", web="max_accept = -1;")
        self.assertNotIn("max-accepted", agent.log())
        for line in ("request time-out     = 0 sec", "mmap up to           = 0 MB"):
            self.assertIn(line, agent.log())

    def test_start_and_quit_lines(self):
        for signo in (signal.SIGTERM, signal.SIGINT, signal.SIGQUIT):
            agent = self.start()
            self.assertEqual(agent.stop(signo)[0], 0)
            lines = re.sub(r"(?m)^.*?\((...)\)  KOV  ", r"\1 ", agent.log())
            for line in (r"NRM kov .* STARTING\. PID=\d+", r"INF Config read from \[.*\]", r"NRM QUIT-SIG\(%d\)" % signo,
                         r"NRM kov has been asked to quit\.", "NRM kov shut down", r"NRM kov .* EXIT\(0\)\. PID=\d+"):
                self.assertRegex(lines, f"(?m)^{line}$")
            self.forget(agent)

    def test_listeners_of_the_command_line(self):
        """One goes into the slot before the highest free one, and listeners start up to the first gap."""
        for count, started in ((1, ["file0"]), (2, ["cli", "file0", "file1"]), (3, ["cli", "file0", "file1"]),
                               (4, ["cli", "file1", "file2", "file3"])):
            ports = [free_port() for _ in range(count - 1)]
            cli = free_port()
            agent = self.start(more_listeners="".join(f', {{ ifc = "lo"; default_af = "inet4"; port = {p}; }}' for p in ports),
                               options=("-W" if count == 2 else "-w", f"lo:{cli}", "-P", "0"), must_run=False)
            agent.wait_log("STARTED listener", len(started))
            places = {"cli": ("::1" if count == 2 else "127.0.0.1", cli), "file0": ("127.0.0.1", agent.port),
                      **{f"file{n + 1}": ("127.0.0.1", p) for n, p in enumerate(ports)}}
            found = []
            for name, place in places.items():
                try:
                    socket.create_connection(place).close()
                    found.append(name)
                except ConnectionRefusedError:
                    pass
            self.assertEqual(sorted(found), started, count)
            self.assertEqual("all interface slots are busy" in agent.stderr(), count == 4)
            with open(f"/proc/{agent.pid}/status", encoding="ascii") as f:
                self.assertIn("Cpus_allowed_list:\t0\n", f.read())
            self.assertIn("processor affinity set to CPU0\n", agent.log())

    @needs_namespaces
    def test_interfaces_by_label_and_by_any_spelling_of_an_address(self):
        ports = [free_port(), free_port()]
        label = 'ip link set lo up && ip addr add 127.0.0.9/8 dev lo label lo:9 && exec "$0" "$@"'
        more = f', {{ ifc = "lo:9"; port = {ports[0]}; }}, {{ ifc = "0:0::1"; port = {ports[1]}; }}'
        agent = self.start(more_listeners=more, wrapper=("unshare", "-n", "sh", "-c", label), must_run=False)
        agent.wait_log("STARTED listener", 3)
        for table, place in (("tcp", f"0900007F:{ports[0]:04X}"), ("tcp6", f"{'0' * 24}01000000:{ports[1]:04X}")):
            with open(f"/proc/{agent.pid}/net/{table}", encoding="ascii") as f:
                self.assertIn(f" {place} ", f.read())

    def test_a_table_for_a_million_tasks_costs_address_space_only(self):
        agent = self.start("max_tasks = 1000000;")
        with open(f"/proc/{agent.pid}/smaps", encoding="ascii") as f:
            areas = re.split(r"(?m)^(?=[0-9a-f]+-)", f.read())
        table = [area for area in areas if re.search(r"(?m)^VmFlags:.* nr ", area)
                 and int(re.search(r"Size: +(\d+)", area).group(1)) > 500_000]
        self.assertTrue(any(re.search(r"(?m)^Rss: +\d{1,2} kB$", area) for area in table), table)
        self.assertEqual(agent.order(self.origin.body("/a", b"a"), "a"), ANSWERS[200])
        self.assertEqual(agent.stored("a"), b"a")

    def test_another_user_stays_in_the_foreground(self):
        os.chmod(self.root, 0o777)
        agent = self.start(arguments=("-q", "-l", f"{self.root}/log"), preexec=lambda: os.setuid(65534))
        self.assertEqual(agent.get("/" + "x" * 40), ANSWERS[400])
        self.assertIsNone(agent.proc.poll())

    def test_a_terminal_run_shows_its_log(self):
        agent = self.start(arguments=("-T",), options=("-L", "norm"))
        agent.get("/x")
        agent.stop()
        self.assertIn("malformed HTTP request", agent.log())
        records = [line for line in agent.log().splitlines() if re.search(r"\((NRM|ERR)\)", line)]
        self.assertEqual([line for line in records if line not in agent.stderr()], [])
        self.assertIn("data directory", agent.stderr())
        self.forget(agent)

    def test_quit_with_downloads_running(self):
        self.idle_check = False
        agent = self.start()
        for i in range(50):
            url = self.origin.raw(f"/{i}", b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabc", self.origin.stall)
            self.assertEqual(agent.order(url, f"q{i}"), ANSWERS[200])
        status, _ = agent.stop()
        self.assertEqual(status, 0)
        self.assertEqual(agent.files(), [])
        self.assertEqual(agent.log().count("TASK-END"), 50)
        self.forget(agent)

    def test_quit_while_the_loop_never_sleeps(self):
        self.idle_check = False
        agent = self.start("max_mmap_mb = 0;")
        url = self.origin.raw("/flood", b"HTTP/1.1 200 OK\r\nContent-Length: 9000000000\r\n\r\n",
                              lambda conn: [conn.sendall(b"x" * (1 << 20)) for _ in range(8000)])
        self.assertEqual(agent.order(url, "flood"), ANSWERS[200])

    def test_debug_toggle(self):
        agent = self.start(options=("-L", "warn"), env={"SYSW_DEBUG": "yes"})
        agent.proc.send_signal(signal.SIGUSR2)
        agent.wait_log("now all DEBUG messages will be recorded")
        self.assertIn("Log level PUSH (DEBUG)", agent.log())
        agent.proc.send_signal(signal.SIGUSR2)
        agent.wait_log("T-DBG SIG(12)")  # written at NORM, which only the raised levels let through
        agent.get("/")
        size = len(agent.log())
        agent.get("/")
        self.assertNotIn("(DBG)", agent.log()[size:])
        self.assertNotIn("Log level POP", agent.log())  # the restored level filters it
        self.assertNotIn("CLOSED(fd", agent.log().split("PUSH")[0])

    def test_traced_system_calls(self):
        agent = self.start(env={"SYSW_DEBUG": "1"})
        agent.get("/")
        agent.wait_log("rm_request: CLOSED(fd")

    def test_closed_standard_descriptors(self):
        def close_all():
            for fd in (0, 1):
                os.close(fd)
        agent = self.start(preexec=close_all)
        for fd in (0, 1):
            self.assertEqual(os.readlink(f"/proc/{agent.pid}/fd/{fd}"), "/dev/null")

    def test_log_into_a_command(self):
        out = f"{self.root}/piped"
        agent = self.start()
        agent.stop()
        self.forget(agent)
        proc = subprocess.run([KOV, "-C", f"{agent.root}/kov.conf", "-T", "-q", "-l", f"|cat > {out}", "-P", "2000"],
                              capture_output=True, check=False, timeout=20)
        self.assertEqual(proc.returncode, 1)
        with open(out, encoding="utf-8") as f:
            self.assertIn("Failed to pin this kov(", f.read())


if __name__ == "__main__":
    unittest.main()
