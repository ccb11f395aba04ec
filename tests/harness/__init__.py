"""What all tests and measurements of the real program share: agent, sources, services, one case class."""

from .agent import (ANSWERS, ASAN, BIN, KOV, MODES, OK, QUICK, SLOW, Agent, adopt_orphans, age, free_port, read,
                    read_all, request, reset, run, sized, strace, unshare, wait_for, within_reach, write)
from .case import KovTest, cases, needs_namespaces
from .services import NameServer, Nginx, Redis, ScriptedDatabase
from .source import HEAD, Origin
