"""The programs of Docs/examples: each gets its lease from the daemon, and bears what happens to the daemon."""
import json
import os
import pathlib
import re
import subprocess

import lab
from wire import ScriptedServer

EXAMPLES = lab.ROOT / "Docs" / "examples"
SUBSCRIBER = pathlib.Path(lab.OSTRELD).parent / "subscriber"
ADDRESS, OTHER = "192.0.2.50", "192.0.2.60"
FORGED = json.dumps({"returnValue": True, "interfaceList": [
    {"interface": "eth0", "managed": True,
     "client": {"state": "BOUND", "ipv4Address": "192.0.2.66", "held": True, "expires": 4102444800}}]})
LEASED = r"eth0: {} is leased until \d{{4}}-\d\d-\d\d \d\d:\d\d:\d\d"


class Examples(lab.LabTest):
    def setUp(self):
        super().setUp()
        self.server = ScriptedServer(self.lab.namespace("server"), address=ADDRESS, mutes=lambda _: self.is_mute)
        self.addCleanup(self.server.close)
        self.is_mute = False

    def run_to_end(self, name, *arguments, timeout=60):
        """Exit status and both outputs of an example."""
        ended = subprocess.run([lab.SCRIPT, "run", self.lab.directory, "client", EXAMPLES / name, *arguments],
                               capture_output=True, text=True, timeout=timeout)
        return ended.returncode, ended.stdout, ended.stderr

    def lines_of(self, process, number, timeout=20):
        """The lines that an example has printed; fewer than that many within the time are a failure."""
        def enough():
            lines = process.output.read_text().splitlines()
            return lines if len(lines) >= number else None

        return lab.eventually(enough, timeout, f"{number} lines: {process.output.read_text()}")

    def forge(self, bus_address):
        """A stranger sends every connection of the bus a state of its own making."""
        busctl = ["busctl", f"--address={bus_address}"]
        listed = subprocess.run([*busctl, "list", "--unique", "--no-legend"], check=True, capture_output=True, text=True)
        for name in (line.split()[0] for line in listed.stdout.splitlines()):
            subprocess.run([*busctl, "emit", f"--destination={name}", "/", lab.SERVICE, "interfaceStateUpdate", "s",
                            FORGED], check=True)

    def test_the_shell_example_prints_a_lease_or_says_why_not(self):
        self.assertEqual(self.run_to_end("get-lease.sh")[0], 2)
        self.assertEqual(self.run_to_end("get-lease.sh", "eth0")[0], 3)  # no daemon
        daemon = self.daemon()
        status, lease, complaint = self.run_to_end("get-lease.sh", "eth0")
        self.assertEqual((status, complaint), (0, ""))
        (lease,) = json.loads(lease)["interfaceList"]
        self.assertEqual(lab.timeless(lease), lab.timeless(daemon.lease()))
        self.assertEqual(lease["ipv4Address"], ADDRESS)
        self.assertEqual(self.run_to_end("get-lease.sh", "eth9")[0], 1)
        self.is_mute = True
        daemon.must("/client", "leaseAction", interface="eth0", leaseAction="init")
        self.assertEqual(self.run_to_end("get-lease.sh", "eth0", "5")[0], 1)

    def test_the_subscribers_survive_the_daemon(self):
        """Started before it; it comes, is told to release, is replaced by another one, and a stranger interferes."""
        python = self.peer("client", EXAMPLES / "lease.py", "eth0", output=self.lab.directory / "python")
        cpp = self.peer("client", SUBSCRIBER, output=self.lab.directory / "cpp")
        for process, name in ((python, "lease.py"), (cpp, "subscriber")):
            self.assertEqual(self.lines_of(process, 1)[0], f"{name}: waiting for the daemon")

        first = self.daemon()
        lease = json.loads(self.lines_of(python, 2)[1])
        self.assertEqual(lab.timeless(lease), lab.timeless(first.lease()))
        self.assertRegex(self.lines_of(cpp, 2)[1], LEASED.format(ADDRESS))
        self.is_mute = True
        first.must("/client", "leaseAction", interface="eth0", leaseAction="init")
        for process in (python, cpp):
            self.assertEqual(self.lines_of(process, 3)[2], f"eth0: {ADDRESS} is gone")

        first.close()
        for process, name in ((python, "lease.py"), (cpp, "subscriber")):
            self.assertEqual(self.lines_of(process, 4)[3], f"{name}: waiting for the daemon")
        self.forge(self.lab.bus_address("client"))
        self.server.address, self.is_mute = OTHER, False
        self.daemon()  # the Python example tells it what to do
        self.assertEqual(json.loads(self.lines_of(python, 5)[4])["ipv4Address"], OTHER)
        self.assertRegex(self.lines_of(cpp, 5)[4], LEASED.format(OTHER))
        self.forge(self.lab.bus_address("client"))
        late = self.lab.start("client", SUBSCRIBER, "1", output=self.lab.directory / "late")  # after the post
        self.assertEqual(late.wait(20), 0)
        self.assertRegex(late.output.read_text(), LEASED.format(OTHER))
        for process in (python, cpp):
            self.assertEqual(len(self.lines_of(process, 5)), 5, "a stranger's signal counted")
        self.assertEqual(re.findall(r".*(?:GetJsonString: interface|Src/OstrelVoroBus).*", self.lab.log("client")), [])

    def test_what_is_refused_ends_the_python_example(self):
        self.daemon()
        status, _, complaint = self.run_to_end("lease.py", "eth9")
        self.assertEqual((status, complaint),
                         (1, "lease.py: eth9: interfaceInitialize was refused; the daemon's log says why\n"))


if __name__ == "__main__":
    os.environ.setdefault("LC_ALL", "C.UTF-8")
    lab.main()
