"""Labs, and the daemon in them.

A Lab is what Scripts/lab makes: hosts on one Ethernet, each with a message bus. A Daemon is the daemon under test on
one of the hosts; the path of its program is in the environment variable OSTRELD. A LabTest is a test with a lab of its
own: whatever it started is ended after it, and a daemon that does not end with status 0 then, or whose log holds a
sanitizer's report, fails the test.
"""
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

from bus import SERVICE, Bus, BusError, interface_of
from wire import Capture

ROOT = pathlib.Path(__file__).resolve().parents[2]
SCRIPT = str(ROOT / "Scripts" / "lab")
OSTRELD = os.environ.get("OSTRELD", str(ROOT / "build" / "release" / "ostreld"))
SANITIZED = "asan" in OSTRELD

CLIENT_REQUEST = {"interface": "eth0", "mode": "client", "ipv4Config": "dhcp", "ipv4Address": "0.0.0.0",
                  "ipv4Subnet": "0.0.0.0", "ipv4Router": "0.0.0.0", "ipv4RangeStart": "0.0.0.0"}


def eventually(condition, timeout, what):
    """Waits for a condition and gives its value; past the timeout the test fails with `what`, a text or what makes one."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"not within {timeout} s: {what() if callable(what) else what}")
        time.sleep(0.01)


def timeless(lease):
    """A lease without its two times, which are told from two clocks in whole seconds and so may differ by one."""
    return {key: value for key, value in lease.items() if key not in ("leaseTimeString", "leaseExpiryString")}


class Lab:
    def __init__(self, *hosts):
        subprocess.run([SCRIPT, "sweep"], check=True)
        self.parent = pathlib.Path(tempfile.mkdtemp(prefix="ostrel-"))
        self.directory = self.parent / "lab"
        made = subprocess.run([SCRIPT, "up", str(self.directory), *hosts], stderr=subprocess.PIPE, text=True)
        if made.returncode != 0:
            shutil.rmtree(self.parent)
            raise RuntimeError(f"no lab, and so no test (root and network namespaces are needed): {made.stderr}")
        self.prefix = (self.directory / "prefix").read_text().strip()

    def close(self):
        subprocess.run([SCRIPT, "down", str(self.directory)], check=True)
        shutil.rmtree(self.parent)

    def namespace(self, host):
        return f"/run/netns/{self.prefix}-{host}"

    def bus_address(self, host):
        return f"unix:path={self.directory}/bus/{host}.socket"

    def file(self, name, text):
        path = self.directory / name
        path.write_text(text)
        return str(path)

    def log(self, host):
        path = self.directory / "log" / host / "ostrel.log"
        return path.read_text(errors="replace") if path.exists() else ""

    def start(self, host, *command, output=None, **options):
        """Starts a program on a host; its output goes to `output`, by default a file named after the program."""
        name = output or self.directory / f"{pathlib.Path(command[0]).name}.{host}.out"
        with open(name, "ab") as sink:
            process = subprocess.Popen([SCRIPT, "run", str(self.directory), host, *map(str, command)],
                                       **{"stdin": subprocess.DEVNULL, "stdout": sink, "stderr": sink, **options})
        process.output = pathlib.Path(name)
        return process

    def ip(self, host, arguments):
        subprocess.run(["ip", "-n", f"{self.prefix}-{host}", *arguments.split()], check=True)

    def plug(self, host, number):
        """Gives the Nth host a new eth0, after its old one was removed."""
        subprocess.run([SCRIPT, "plug", str(self.directory), host, str(number)], check=True)

    def kill_bus(self, host):
        os.kill(int((self.directory / "bus" / f"{host}.pid").read_text()), signal.SIGTERM)


def stop(process, number=signal.SIGTERM, timeout=10):
    """Signals a process and gives its exit status."""
    if process.poll() is None:
        process.send_signal(number)
    try:
        return process.wait(timeout)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()
        raise AssertionError(f"still runs {timeout} s after signal {number}") from None


class Daemon:
    def __init__(self, lab, host, *options, wrapper=(), program=OSTRELD, environment=None,
                 expect_name=True):
        self.lab, self.host = lab, host
        self.bus = Bus(lab.bus_address(host))
        self.process = lab.start(host, *wrapper, program, *options, env={**os.environ, **(environment or {})})
        if expect_name:
            eventually(lambda: self.bus.owner() or self.process.poll() is not None, 20, "name on the bus")
            if self.process.poll() is not None:
                raise AssertionError(f"ended with {self.process.returncode} at its start: {self.words()}")

    @property
    def pid(self):
        return self.process.pid

    def request(self, category, method, **keys):
        return self.bus.request(category, method, **keys)

    def become_client(self, **keys):
        """Takes charge of eth0 as a DHCP client, subscribes this connection, and starts acquiring."""
        self.must("/", "interfaceInitialize", **{**CLIENT_REQUEST, **keys})
        self.must("/client", "leaseInformation", subscribe=True)
        self.must("/client", "leaseAction", interface="eth0", leaseAction="init")

    def must(self, category, method, **keys):
        reply = self.request(category, method, **keys)
        if reply["returnValue"] is not True:
            raise AssertionError(f"{method} {keys}: {reply}\n{self.words()}")
        return reply

    def publication(self, timeout):
        """The lease of the next publication within the time; none is a failure."""
        post = self.bus.next_post("/client", "leaseInformation", timeout)
        if post is None:
            raise AssertionError(f"no publication within {timeout} s\n{self.words()}")
        (lease,) = post["interfaceList"]
        return lease

    def lease(self):
        (lease,) = self.request("/client", "leaseInformation", interface="eth0")["interfaceList"]
        return lease

    def cpu_seconds(self):
        """Time on a processor so far, as the scheduler counts it."""
        return int(pathlib.Path(f"/proc/{self.pid}/schedstat").read_text().split()[0]) / 1e9

    def words(self):
        return f"--- the daemon's last words:\n{self.lab.log(self.host)[-3000:]}"

    def close(self):
        """Ends the daemon; anything but a clean end is a failure."""
        self.bus.close()
        if self.process.poll() is None:
            status = stop(self.process)
            if status != 0:
                raise AssertionError(f"ended with {status} when told to stop\n{self.words()}")
        found = re.search(r"(ERROR: \w+Sanitizer|runtime error:).*", self.lab.log(self.host))
        if found:
            raise AssertionError(f"{found.group()}\n{self.words()}")


class LabTest(unittest.TestCase):
    hosts = ("client", "server")
    maxDiff = None

    def setUp(self):
        self.lab = Lab(*self.hosts)
        self.addCleanup(self.lab.close)

    def daemon(self, *options, host="client", **keys):
        daemon = Daemon(self.lab, host, *(options or ("-z", "-l", "info")), **keys)
        self.addCleanup(daemon.close)
        return daemon

    def peer(self, host, *command, **options):
        """Starts a program that runs until the test is over."""
        process = self.lab.start(host, *command, **options)
        self.addCleanup(stop, process)
        return process

    def capture(self, host="client"):
        """Everything that passes the host's cable from now on."""
        capture = Capture(self.lab.namespace("switch"), f"to-{host}", str(self.lab.directory / f"{host}.pcap"))
        self.addCleanup(capture.close)
        return capture


def main():
    os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=/nonexistent"  # nothing here may reach the machine's own bus
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    unittest.main(verbosity=2)


__all__ = ["CLIENT_REQUEST", "OSTRELD", "SANITIZED", "SCRIPT", "SERVICE", "Bus", "BusError", "Daemon", "Lab", "LabTest",
           "eventually", "interface_of", "main", "stop", "timeless"]
