"""Command line, configuration, dump, signals, the end: what an operator sees."""

import os
import re
import signal
import socket
import subprocess

from harness import KOV, SLOW, KovTest, NameServer, cases, free_port, needs_namespaces, read, unshare, wait_for, write

GOOD = 'log = { }; runtime = { }; web_input = { web = { ifc = "lo"; port = 8020; }; };'
BASE = "log = { }; runtime = { }; "


class CommandLine(KovTest):
    def run_kov(self, *args, status=1, config=None):
        """Standard error of a start that fails."""
        if config is not None:
            write(f"{self.root}/c", f"kova = {{ {config} }};")
            args = ("-C", f"{self.root}/c", *args)
        done = subprocess.run([KOV, *args], cwd=self.root, capture_output=True, timeout=20, check=False)
        text = done.stderr.decode(errors="replace")
        self.assertEqual((done.returncode, done.stdout), (status, b""), text)
        self.assertNotIn("LeakSanitizer", text)
        return text

    def refused(self, message, *args, config=GOOD):
        self.assertIn(message, self.run_kov(*args, config=config))

    def test_identity_and_usage(self):
        identity = r"kov Download manager 0\.2-0\.7 \(marlinet\) regular \[[^]]+\] 7e301497 built on 2019-10-07\n"
        for args in ((), ("-h",), ("-?",), ("--help",), ("--options",), ("-q", "-h", "-L", "nonsense")):
            text = self.run_kov(*args)
            self.assertRegex(text, "^" + identity + r"Usage: kov PARAMETERS \[OPTIONS\]\n\nParameters:\n")
            self.assertIn("  -h|?|--help                = output this option guide\n\n----\n"
                          "libmlx/1.5-6.16 (f727d5c2) @1505383611 [-ggdb3]\n----\n\n", text)
        for args in (("-V",), ("-V", "-L", "nonsense", "-P", "abc")):
            self.assertRegex(self.run_kov(*args), "^" + identity + "$")
        for args in (("-u", "root"), ("--nonsense",)):
            self.assertIn("Usage: kov", self.run_kov(*args))
        for args in (("-T",), ("-C", "")):
            self.refused("Invalid or unspecified config [], please use -C path\n", *args, config=None)
        for name in ("marlinet.conf", "kov.conf"):  # where it looks, the second before the first
            write(f"{self.root}/{name}", "kova = {")
            self.refused(f"Error reading/parsing config file [./{name}]", "-T", config=None)
        for path in ("/nonexistent", "/tmp"):
            self.refused(f"Failed to load [{path}]\n", "-C", path, config=None)

    def test_options(self):
        path = "/" + "p" * 127
        for message, *args in (("Data path is too long (128 bytes), max=128 bytes.\n", "-D", path),
                               ("Log path is too long (128 bytes), max=128 bytes.\n", "-l", path),
                               ("Pidfile path is too long (128 bytes), max=128 bytes.\n", "-p", path),
                               ("Data path is empty.\n", "-D", ""), ("Invalid log level: loud\n", "-L", "loud"),
                               *((f"Invalid CPU #: {text}\n", "-P", text) for text in ("abc", "00", "")),
                               ("Unknown option: \0\n", "--default"), ("Logfile must be specified to run as daemon\n",),
                               ("add_web_cli: missing port number in lo\n", "-w", "lo"),
                               ("add_web_cli: invalid port number: 123456\n", "-w", "lo:123456"),
                               ("add_web_cli: invalid interface name: nonsense\n", "-w", "nonsense:80")):
            self.refused(message, *args)
        self.refused("validate_config: at least one listener must be present\n", "-w", "lo:80", config=BASE)

    def test_configuration(self):
        for config, message in cases("configurations", base=BASE, good=GOOD, x127="x" * 127,
                                     lbdb='lbdb = { host = "h"; port = 1; sha1_dir = "/"; };'):
            self.refused(message, config=config)

    def test_failing_steps_give_their_status(self):
        port = free_port()
        web = f'{BASE} web_input = {{ web = {{ ifc = "lo"; port = {port}; }}; }};'
        two = f"{BASE} web_input = {{ web = ( {{ port = {port}; }}, {{ port = {free_port()}; }} ); }};"
        for config, args, status, message in (
                (two, ("-w", "lo:99999"), 1, "open_listener: invalid port number: 99999\n"),
                (web + "max_tasks = -1;", (), 1, "init_kova_ctx: failed to [init sources], rc=-1\n"),
                (web, ("-P", "2000"), 1, "Failed to pin this kov("),
                (web, ("-l", "/nonexistent/log"), 1, "do_open: uid/gig="),
                (web + "max_tasks = 5000001;", (), 75, "failed to [creating task HT], rc=75\n")):
            text = self.run_kov("-T", *args, config=config, status=status)
            self.assertIn(message, text)
            self.assertRegex(text, rf"(?s)kov shut down\n.*EXIT\({status}\)\. PID=\d+\n")


class Running(KovTest):
    def test_dump(self):
        agent = self.start('max_tasks = 0; local_url_prefix = "http://me/";', options=("-L", "crit"))
        dump = agent.log().split("-----------------------------------\n")[1]
        for name, value in (("{log}", agent.log_path), ("{data}", agent.data), ("{port}", str(agent.port))):
            dump = dump.replace(value, name)
        self.assertEqual(dump, read(f"{os.path.dirname(__file__)}/cases/dump.txt"))
        agent = self.start("max_mmap_mb = -1; urq_tmout_sec = -1;", web="max_accept = -1;")
        agent.not_logged("max-accepted")
        agent.logged("request time-out     = 0 sec", "mmap up to           = 0 MB")

    def test_start_and_quit_lines(self):
        for signo in (signal.SIGTERM, signal.SIGINT, signal.SIGQUIT):
            agent = self.start()
            self.end(agent, signo=signo)
            lines = re.sub(r"(?m)^.*?\((...)\)  KOV  ", r"\1 ", agent.log())
            for line in (r"NRM kov .* STARTING\. PID=\d+", r"INF Config read from \[.*\]",
                         r"NRM QUIT-SIG\(%d\)" % signo, r"NRM kov has been asked to quit\.", "NRM kov shut down",
                         r"NRM kov .* EXIT\(0\)\. PID=\d+"):
                self.assertRegex(lines, f"(?m)^{line}$")

    def test_listeners_of_the_command_line(self):
        """One goes into the slot before the highest free one, and listeners start up to the first gap."""
        for count, started in ((1, ["file0"]), (2, ["cli", "file0", "file1"]), (3, ["cli", "file0", "file1"]),
                               (4, ["cli", "file1", "file2", "file3"])):
            ports = [free_port() for _ in range(count - 1)]
            cli = free_port()
            more = "".join(f', {{ ifc = "lo"; default_af = "inet4"; port = {p}; }}' for p in ports)
            option = "-W" if count == 2 else "-w"
            agent = self.start(more_listeners=more, options=(option, f"lo:{cli}", "-P", "0"), must_run=False)
            agent.logged("STARTED listener", count=len(started))
            places = {"cli": ("::1" if count == 2 else "127.0.0.1", cli), "file0": ("127.0.0.1", agent.port),
                      **{f"file{n + 1}": ("127.0.0.1", p) for n, p in enumerate(ports)}}
            for name, place in places.items():
                with socket.socket(socket.AF_INET6 if ":" in place[0] else socket.AF_INET) as s:
                    self.assertEqual(s.connect_ex(place) == 0, name in started, (count, name))
            self.assertEqual("all interface slots are busy" in agent.stderr(), count == 4)
            self.assertIn("Cpus_allowed_list:\t0\n", agent.proc_file("status"))
            agent.logged("processor affinity set to CPU0\n")

    @needs_namespaces
    def test_interfaces_by_label_and_by_any_spelling_of_an_address(self):
        ports = [free_port(), free_port()]
        label = "ip link set lo up && ip addr add 127.0.0.9/8 dev lo label lo:9"
        more = f', {{ ifc = "lo:9"; port = {ports[0]}; }}, {{ ifc = "0:0::1"; port = {ports[1]}; }}'
        agent = self.start(more_listeners=more, wrapper=unshare("-n", label), must_run=False)
        agent.logged("STARTED listener", count=3)
        self.assertIn(f" 0900007F:{ports[0]:04X} ", agent.proc_file("net/tcp"))
        self.assertIn(f" {'0' * 24}01000000:{ports[1]:04X} ", agent.proc_file("net/tcp6"))

    def test_a_table_for_a_million_tasks_costs_address_space_only(self):
        agent = self.start("max_tasks = 1000000;")
        areas = re.split(r"(?m)^(?=[0-9a-f]+-)", agent.proc_file("smaps"))
        table = [area for area in areas if re.search(r"(?m)^VmFlags:.* nr ", area)
                 and int(re.search(r"Size: +(\d+)", area).group(1)) > 500_000]
        self.assertTrue(any(re.search(r"(?m)^Rss: +\d{1,2} kB$", area) for area in table), table)
        agent.fetch(self.origin.body("/a", b"a"), "a", b"a")

    def test_another_user_stays_in_the_foreground(self):
        os.chmod(self.root, 0o777)
        agent = self.start(arguments=("-q", "-l", f"{self.root}/log"), preexec=lambda: os.setuid(65534))
        agent.get("/" + "x" * 40, 400)
        self.assertIsNone(agent.proc.poll())

    def test_a_terminal_run_shows_its_log(self):
        agent = self.start(arguments=("-T",), options=("-L", "norm"), env={"SYSW_DEBUG": "1"})
        agent.get("/x", 400)
        self.end(agent)
        agent.logged("malformed HTTP request", "rm_request: CLOSED(fd")
        records = [line for line in agent.log().splitlines() if re.search(r"\((NRM|ERR)\)", line)]
        self.assertEqual([line for line in records if line not in agent.stderr()], [])
        self.assertIn("data directory", agent.stderr())

    def test_debug_toggle(self):
        agent = self.start(options=("-L", "warn"), env={"SYSW_DEBUG": "yes"})
        agent.proc.send_signal(signal.SIGUSR2)
        agent.logged("now all DEBUG messages will be recorded", "Log level PUSH (DEBUG)")
        agent.proc.send_signal(signal.SIGUSR2)
        agent.logged("T-DBG SIG(12)")  # written at NORM, which only the raised levels let through
        agent.get("/", 204)
        size = len(agent.log())
        agent.get("/", 204)
        self.assertNotIn("(DBG)", agent.log()[size:])
        agent.not_logged("Log level POP")  # the restored level filters it
        self.assertNotIn("CLOSED(fd", agent.log().split("PUSH")[0])

    def test_closed_standard_descriptors(self):
        agent = self.start(preexec=lambda: os.closerange(0, 2))
        self.assertEqual({os.readlink(f"/proc/{agent.pid}/fd/{fd}") for fd in (0, 1)}, {"/dev/null"})


class Quit(KovTest):
    def test_with_downloads_running(self):
        agent = self.start()
        for i in range(50):
            agent.order(self.origin.cut(f"/{i}", self.origin.stall), f"q{i}")
        self.end(agent)
        self.assertEqual(agent.files(), [])
        self.assertEqual(agent.log().count("TASK-END"), 50)

    @needs_namespaces
    def test_one_look_up_at_most_delays_it(self):
        names = self.service(NameServer, 0.3, True)
        agent = self.start(wrapper=names.wrapper)
        with agent.frozen():
            clients = [agent.ask(f"http://host{i}.example:{self.origin.port}/{i}", f"n{i}") for i in range(20)]
        wait_for(lambda: len(names.asked) > 1, "a look-up")
        self.assertLess(self.end(agent), SLOW)
        self.assertLess(len(names.asked), 5)
        for s in clients:
            s.close()

    def test_no_look_up_begins_after_it(self):
        agent = self.start(trace="accept4", inject=("accept4:signal=SIGTERM:when=1",))
        with agent.ask("http://localhost:1/a", "a"):
            self.ends_by_itself(agent, 0)
        agent.not_logged("CONNECT")
