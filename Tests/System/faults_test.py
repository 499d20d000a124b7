"""What a device does to the daemon: interfaces that go and come, missing rights, a system log that hangs.

In all of it the daemon stays, answers, and spends no processor time on waiting.
"""
import pathlib
import socket
import time

import lab
from wire import ACK, BROADCAST, DISCOVER, REQUEST, ScriptedServer, option, seconds

NOTHING = {"returnValue": True, "interfaceList": []}


class Faults(lab.LabTest):
    def serve(self, **keys):
        server = ScriptedServer(self.lab.namespace("server"), **keys)
        self.addCleanup(server.close)
        return server

    def assert_rests(self, daemon, during=2.0):
        """No busy loop: an idle daemon's processor time stands still but for a few milliseconds."""
        before = daemon.cpu_seconds()
        time.sleep(during)
        self.assertLess(daemon.cpu_seconds() - before, 0.02 * during, "processor time used by waiting")

    def test_an_interface_removed_while_managed_can_come_back(self):
        self.serve()
        daemon = self.daemon()
        daemon.become_client()
        daemon.publication(20)
        self.lab.ip("client", "link del eth0")
        self.assert_rests(daemon)
        self.assertEqual(daemon.lease()["ipv4Address"], "192.0.2.50")
        daemon.must("/client", "leaseAction", interface="eth0", leaseAction="init")
        self.assert_rests(daemon)
        daemon.must("/", "interfaceFinalize", interface="eth0")
        self.assertEqual(daemon.request("/client", "leaseInformation"), NOTHING)

        self.lab.plug("client", 1)
        daemon.become_client()
        self.assertEqual(daemon.publication(20)["ipv4Address"], "192.0.2.50")

    def test_a_link_that_was_down_at_t1_renews_at_t2(self):
        self.serve(extra=option(58, seconds(3)) + option(59, seconds(8)))
        wire, daemon = self.capture(), self.daemon()
        daemon.become_client()
        daemon.publication(20)
        bound = wire.wait_dhcp(ACK, 5)
        self.lab.ip("client", "link set eth0 down")
        self.assert_rests(daemon, during=5.0)
        self.lab.ip("client", "link set eth0 up")
        rebinding = wire.wait_dhcp(REQUEST, 10, after=bound, destination=BROADCAST)
        wire.wait_dhcp(ACK, 5, after=rebinding)
        daemon.publication(10)

    def test_a_cable_without_carrier_only_costs_the_frames(self):
        self.serve()
        wire, daemon = self.capture(), self.daemon()
        self.lab.ip("switch", "link set to-client down")
        daemon.become_client()
        self.assert_rests(daemon)
        self.lab.ip("switch", "link set to-client up")
        self.assertEqual(daemon.publication(30)["ipv4Address"], "192.0.2.50")
        self.assertGreaterEqual(wire.count(dhcp=DISCOVER), 1)

    def test_without_the_right_to_raw_sockets(self):
        daemon = self.daemon(wrapper=["setpriv", "--bounding-set=-net_raw"])
        reply = daemon.request("/", "interfaceInitialize", **lab.CLIENT_REQUEST)
        self.assertEqual(reply, {"returnValue": False, "errorCode": -1, "errorText": "Failed"})
        self.assertEqual(daemon.request("/", "interfaceConfigDump"), NOTHING)
        self.assertIn("-6728", self.lab.log("client"), "the log tells that a socket could not be opened")
        self.assert_rests(daemon, during=1.0)

    def test_managing_and_letting_go_leaves_nothing_behind(self):
        self.serve()
        daemon = self.daemon("-z")
        process = pathlib.Path(f"/proc/{daemon.pid}")
        roles = ({**lab.CLIENT_REQUEST, "ipv4LinkLocal": True},
                 {**lab.CLIENT_REQUEST, "ipv4LinkLocal": True, "mode": "server", "ipv4Address": "192.0.2.2",
                  "ipv4Subnet": "255.255.255.0", "ipv4Router": "192.0.2.1", "ipv4RangeStart": "192.0.2.100",
                  "maxLeases": 100})
        held = []  # descriptors and resident KiB
        for cycle in range(220):
            daemon.must("/", "interfaceInitialize", **roles[cycle % 2])
            daemon.must("/client", "leaseAction", interface="eth0", leaseAction="init")
            daemon.must("/", "interfaceFinalize", interface="eth0")
            if cycle in (19, 219):  # by the first, everything that is kept for the next time has been used
                resident = int((process / "status").read_text().split("VmRSS:")[1].split()[0])
                held.append((len(list((process / "fd").iterdir())), 0 if lab.SANITIZED else resident))
        self.assertEqual(held[0][0], held[1][0])
        self.assertLessEqual(held[1][1], held[0][1] + 16, "a few pages are the allocator's, 80 bytes a cycle are not")

    def talk(self, daemon, calls):
        """Some hundred calls that each cost the daemon several log lines; the time they took."""
        begun = time.monotonic()
        for _ in range(calls):
            daemon.request("/client", "leaseAction", interface="eth0", leaseAction="Nonsense")
        return time.monotonic() - begun

    def test_a_log_daemon_that_hangs_costs_lines_and_no_time(self):
        stuck = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(stuck.close)
        stuck.bind(str(self.lab.directory / "log" / "client" / "socket"))
        self.serve()
        daemon = self.daemon("-l", "chatty")
        daemon.become_client()
        daemon.publication(20)
        self.assertLess(self.talk(daemon, 300), 5)
        self.assert_rests(daemon)

        lines = self.drain(stuck)
        self.assertTrue(any("OSTREL STARTED" in line for line in lines), lines)
        self.assertLess(len(lines), 900, "this log daemon took every line, so nothing was tried")
        self.assertGreater(len(lines), 400, "what had waited for it came behind the few that the kernel keeps")
        self.assertRegex(lines[-1], r"\d+ lines lost")
        daemon.request("/client", "leaseAction", interface="eth0", leaseAction="Afterwards")
        lines = self.drain(stuck)
        self.assertTrue(any("Afterwards" in line for line in lines), lines)

    @staticmethod
    def drain(stuck):
        stuck.settimeout(0.5)
        lines = []
        try:
            while True:
                lines.append(stuck.recv(65536).decode(errors="replace"))
        except TimeoutError:
            return lines

    def test_without_a_log_daemon_the_lines_are_in_the_file(self):
        self.serve()
        daemon = self.daemon("-l", "chatty")
        daemon.become_client()
        daemon.publication(20)
        self.assertLess(self.talk(daemon, 300), 5)
        self.assertIn("Accept Lease from IPv4 192.0.2.1 on MAC 02:00:00:00:00:02", self.lab.log("client"))
        self.assertIn("unknown action request <Nonsense>", self.lab.log("client"))


if __name__ == "__main__":
    lab.main()
