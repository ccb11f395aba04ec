"""The case class. Each test has its own directory and source, and ends with the same questions: did the agents live, do
they quit within a second with status 0, is no unfinished file, no descriptor and no bad word left behind?"""

import os
import re
import shutil
import signal
import subprocess
import tempfile
import unittest

from .agent import MODES, SLOW, Agent, read, run
from .services import Redis
from .source import Origin

BAD_WORDS = re.compile(r"\(PNC\)|ASSERT|AddressSanitizer|LeakSanitizer|runtime error")


def cases(name, **values):
    """The rows of a table of the black box, "input => what is said" with escapes; {name} stands for a value."""
    for line in read(f"{os.path.dirname(__file__)}/../blackbox/cases/{name}.txt").splitlines():
        if line and not line.startswith("# "):
            row = line.encode().decode("unicode_escape")
            for key, value in values.items():
                row = row.replace(f"{{{key}}}", value)
            yield row.split(" => ")


def needs_namespaces(test):
    """For tests that change the network or the mounts for their agent alone, or destroy a socket."""
    can = subprocess.run(["unshare", "-n", "-m", "true"], stderr=subprocess.DEVNULL, check=False).returncode == 0
    return unittest.skipUnless(can, "no namespaces can be made here")(test)


class KovTest(unittest.TestCase):
    longMessage = True
    is_open = False  # whether agents of another user may run in their directories

    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="k", dir="/tmp")
        os.chmod(self.root, 0o755)  # the workers of a source have another user
        self.agents = []
        self.roots = 0
        self.origin = Origin()

    def start(self, *args, must_run=True, **kwargs):
        agent = Agent(self.new_root(), *args, **kwargs)
        if must_run:
            agent.wait_ready()
            self.agents.append(agent)
        else:  # the test asks for the status itself
            self.addCleanup(agent.kill)
        return agent

    def fails_to_start(self, status, messages, *args, **kwargs):
        agent = self.start(*args, must_run=False, **kwargs)
        self.assertEqual(agent.proc.wait(20), status, messages)
        for message in messages:
            self.assertIn(message, agent.log() + agent.stderr())
        return agent

    def end(self, agent, status=0, signo=signal.SIGTERM):
        """Ends an agent, or meets its end, before the test's; returns how long that took."""
        found, seconds = agent.stop(signo)
        self.assertEqual(found, status)
        agent.kill()
        self.agents.remove(agent)
        return seconds

    def ends_by_itself(self, agent, status):
        agent.proc.wait(10)
        self.end(agent, status)

    def service(self, kind, *args):
        service = kind(self.new_root(), *args)
        self.addCleanup(service.stop)
        return service

    def in_both_modes(self, settings="", **kwargs):
        """An agent that maps its bodies, then one that writes them."""
        return (self.start(mode + settings, **kwargs) for mode in MODES)

    def fifo(self, path):
        """The reader's end of a new one."""
        os.mkfifo(path)
        reader = os.open(path, os.O_RDWR)
        self.addCleanup(os.close, reader)
        return reader

    def redis(self):
        return self.service(Redis)

    def new_root(self):
        root = self.next_root()
        os.makedirs(f"{root}/d")
        for path in (root, f"{root}/d") if self.is_open else ():
            os.chmod(path, 0o777)
        self.roots += 1
        return root

    def next_root(self):
        return f"{self.root}/{self.roots}"

    def check_agent(self, agent):
        if agent.proc.poll() is None:
            agent.at_base_line()
        self.assertIsNone(agent.proc.poll(), "the agent ended by itself")
        status, seconds = agent.stop()
        self.assertEqual(status, 0)
        self.assertLess(seconds, SLOW)
        self.assertNotRegex(agent.log() + agent.stderr(), BAD_WORDS)
        self.assertEqual(agent.unfinished(), [])

    def tearDown(self):
        try:
            for agent in self.agents:
                self.check_agent(agent)
        except AssertionError:
            for agent in self.agents:
                print(agent.config, agent.log()[-4000:], agent.stderr()[-4000:], sep="\n----\n")
            raise
        finally:
            for agent in self.agents:
                agent.kill()
                if agent.mounted:
                    run("umount", agent.data)
            self.origin.close()
            shutil.rmtree(self.root, ignore_errors=True)
