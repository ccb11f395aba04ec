"""Signals at any moment: the end within a second with status 0, and the debug toggle."""
import signal
import subprocess
import threading
import time
import unittest

import kov
from kov import answer, head


class Quit(kov.Case):
    def test_idle(self):
        for signo in signal.SIGTERM, signal.SIGINT, signal.SIGQUIT:
            agent = self.run_agent()
            self.assertLess(agent.stop(signo), kov.QUIT_SEC)
            self.assertRegex(agent.log(), rf"\(NRM\)  \S+  QUIT-SIG\({int(signo)}\)\n(?:.*\n)*"
                             r".*\(NRM\)  KOV  kov has been asked to quit\.\n(?:.*\n)*"
                             r".*app_shutdown: begins\n(?:.*\n)*.*\(NRM\)  KOV  kov shut down\n(?:.*\n)*"
                             rf".*\(NRM\)  KOV  kov Download manager .* EXIT\(0\)\. PID={agent.proc.pid}\n$")

    def test_with_downloads_and_clients(self):
        """Every stage at once: connected clients, awaited heads, mapped and written bodies, one of them at full speed."""
        block = bytes(1 << 20)

        def flood(conn):
            conn.send(head(1 << 40))
            while True:
                conn.send(block)

        scripts = [lambda conn: conn.hold(), lambda conn: (conn.send(head(9) + b"half"), conn.hold()),
                   lambda conn: (conn.send(head(10 << 20) + b"half"), conn.hold()), flood]
        for number, script in enumerate(scripts):
            self.client(self.agent.head(f"/src/{self.origin.on(f'/{number}', script)}/dst/d/{number}"))
        for data in b"", b"GET", self.agent.head("/")[:40], b"GET /" + b"x" * 3000:
            self.client(data)
        self.agent.wait_log("-> dnl", 3)
        self.agent.wait_log("need more data on ")
        self.assertLess(self.agent.stop(), kov.QUIT_SEC)
        self.assertEqual(self.agent.files(), ["d"])
        self.assertEqual(self.agent.log().count("TASK-END"), 4)
        self.assertEqual(self.agent.log().count("removing unfinished"), 4)

    def test_at_any_moment(self):
        """Under a stream of orders, at moments that differ from run to run."""
        for number in range(6 if kov.SANITIZED else 20):
            agent = self.run_agent(log={"level": "norm"})
            done = threading.Event()

            def place(agent=agent, done=done):
                serial = 0
                while not done.is_set():
                    serial += 1
                    url = self.origin.serve(f"/{serial}", b"x" * 5000)
                    try:
                        agent.order(url, str(serial))
                    except OSError:
                        return

            thread = threading.Thread(target=place)
            thread.start()
            time.sleep(number * 0.0037)
            seconds = agent.stop()
            done.set()
            thread.join()
            self.assertLess(seconds, kov.QUIT_SEC)
            self.assertEqual(agent.proc.returncode, 0)

    def test_during_the_start(self):
        """From the handlers on a quit signal ends the start with status 0; before, it ends the process as such."""
        for number in range(6 if kov.SANITIZED else 20):
            agent = kov.Agent(start=False)
            self.addCleanup(agent.destroy)
            with open(agent.err_path, "wb") as err:
                agent.proc = subprocess.Popen(agent.args, stdout=err, stderr=err)
            time.sleep(number * 0.0007)
            agent.stop()
            self.assertIn(agent.proc.returncode, (0, -signal.SIGTERM))
            self.assertTrue(agent.proc.returncode or " EXIT(0). PID=" in agent.log())

    def test_one_that_is_not_handled(self):
        agent = kov.Agent()
        self.addCleanup(agent.destroy)
        agent.stop(signal.SIGHUP)
        self.assertEqual(agent.proc.returncode, -signal.SIGHUP)


class Toggle(kov.Case):
    settings = {"log": {"level": "info"}}

    def test_debug_toggle(self):
        agent = self.agent
        for word, debug in [("PUSH", True), ("POP", False)]:
            agent.proc.send_signal(signal.SIGUSR2)
            kov.wait_for(lambda: agent.ping() and f"Log level {word} (DEBUG)\n" in agent.log(), word)
            before = len(agent.log())
            self.assertEqual(agent.ping(), answer(204))
            self.assertEqual("(DBG)" in agent.log()[before:], debug)
        agent.wait_log(r"\(NRM\)  \S+  T-DBG SIG\(12\)$", 2)
        agent.wait_log("now all DEBUG messages will be recorded$")

    def test_levels_come_back_before_the_line(self):
        agent = self.run_agent(log={"level": "norm"})
        for count in 1, 2:
            agent.proc.send_signal(signal.SIGUSR2)
            agent.wait_log("T-DBG SIG", count)
            agent.ping()
        self.assertIn("Log level PUSH (DEBUG)\n", agent.log())
        self.assertNotIn("Log level POP", agent.log())


if __name__ == "__main__":
    unittest.main()
