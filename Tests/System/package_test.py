"""The package: who may talk to the daemon, and the daemon as its unit runs it."""
import os
import pathlib
import re
import sys

import installed
import lab

METHODS = (("/", "interfaceInitialize"), ("/", "interfaceFinalize"), ("/", "interfaceConfigDump"),
           ("/", "setDebugLevel"), ("/client", "leaseAction"), ("/client", "leaseInformation"),
           ("/server", "leaseInformation"), ("/", "interfaceState"), ("/", "trace"), ("/server", "leaseEvents"),
           ("/server", "giveLeases"))
HIGHEST_EXPOSURE = {"ostreld.service": 15, "ostrel.service": 17, "ostrel-wait-online.service": 20}  # tenths
SERVER = "[eth0]\nrole = 'server'\naddress = '192.0.2.1/24'\nrange = '192.0.2.50-192.0.2.59'\n"
LOG_LIMIT = 10 << 20
CAPABILITIES = 1 << 10 | 1 << 13 | 1 << 35  # CAP_NET_BIND_SERVICE, CAP_NET_RAW, CAP_WAKE_ALARM


class Policy(installed.InstalledTest):
    hosts = ("client",)

    def assert_refused(self, bus, category, method, to=lab.SERVICE):
        with self.assertRaises(lab.BusError) as caught:
            bus.raw_call(to, category, lab.interface_of(category), method, '{"subscribe":true}')
        self.assertEqual(caught.exception.name, "org.freedesktop.DBus.Error.AccessDenied")

    def test_only_root_and_the_group_may_call_and_their_call_starts_the_daemon(self):
        stranger, member, root = map(self.bus_as, ("stranger", "member", "root"))
        self.assert_refused(stranger, *METHODS[0])
        self.assertIsNone(root.owner())
        self.assertTrue(member.request("/", "interfaceConfigDump")["returnValue"])
        for category, method in METHODS:
            with self.subTest(category=category, method=method):
                self.assert_refused(stranger, category, method)
                self.assert_refused(stranger, category, method, to=root.owner())
                self.assertIn("returnValue", member.request(category, method))
                self.assertIn("returnValue", root.request(category, method))

    def test_only_subscribers_hear_the_daemon_and_nobody_else_speaks_for_it(self):
        stranger, member, root = map(self.bus_as, ("stranger", "member", "root"))
        try:
            stranger.raw_call("org.freedesktop.DBus", "/", "org.freedesktop.DBus", "AddMatch",
                              "type='signal',interface='org.ostrel.dhcp.client',eavesdrop='true'")
        except lab.BusError as error:
            self.assertEqual(error.name, "org.freedesktop.DBus.Error.AccessDenied")
        for subscriber in (member, root):
            self.assertTrue(subscriber.request("/client", "leaseInformation", subscribe=True)["subscribed"])
        initialized = root.request("/", "interfaceInitialize", interface="eth0", mode="client", ipv4Config="static",
                                   ipv4Address="192.0.2.9", ipv4Subnet="255.255.255.0", ipv4Router="192.0.2.1",
                                   ipv4RangeStart="0.0.0.0")
        self.assertTrue(initialized["returnValue"])
        for subscriber in (member, root):
            (lease,) = subscriber.next_post("/client", "leaseInformation", 10)["interfaceList"]
            self.assertEqual(lease["ipv4Address"], "192.0.2.9")

        posts = ("/client", "leaseInformation"), ("/", "interfaceState"), ("/server", "leaseEvents")
        for speaker in (stranger, member):
            for category, method in posts:
                speaker.post(root.name(), category, method, "{}")
            speaker.owner()  # once it is answered, the bus has dealt with what came before
        for bus in (stranger, root):
            bus.owner()
            while heard := bus.next_signal(0.2):
                self.assertFalse(heard[1].endswith("Update"), heard)

    def test_only_root_and_the_daemons_user_may_be_the_daemon(self):
        for user, may in (("stranger", False), ("member", False), ("ostreld", True), ("root", True)):
            with self.subTest(user=user):
                self.assertEqual(self.bus_as(user).may_own(), may)


class Unit(installed.InstalledTest):
    def test_the_unit_is_sound_and_closed(self):
        for unit, highest in HIGHEST_EXPOSURE.items():
            with self.subTest(unit=unit):
                status, words = self.run_on("client", "systemd-analyze", "verify", "--man=no", unit)
                self.assertEqual((status, words), (0, ""))
                status, words = self.run_on("client", "systemd-analyze", "security", "--offline=yes", "--no-pager",
                                            f"--threshold={highest}", unit)
                self.assertEqual(status, 0, words)

    def confined_daemon(self, host):
        """The daemon as the unit runs it, with the log files that systemd-tmpfiles makes, the first one full."""
        self.assertEqual(self.run_on(host, "systemd-tmpfiles", "--create", "ostreld.conf"), (0, ""))
        self.log_file(host).write_text("\n" * LOG_LIMIT)
        program, *options = self.unit["ExecStart"].split()
        return self.daemon(*options, host=host, program=program, wrapper=self.confined())

    def log_file(self, host, kept=""):
        return self.lab.directory / "log" / host / f"ostrel.log{kept}"

    def assert_log_is_kept(self, host):
        self.assertIn("OSTREL STARTED", self.lab.log(host))
        self.assertLess(self.log_file(host).stat().st_size, LOG_LIMIT)
        self.assertEqual(self.log_file(host, ".1").stat().st_size, LOG_LIMIT)
        for status in (self.log_file(host).stat(), self.log_file(host, ".1").stat()):
            self.assertEqual((status.st_uid, status.st_mode & 0o777), (self.ids("ostreld")[0], 0o640))

    def assert_confined(self, daemon):
        status = dict(re.findall(r"(\w+):\s*(\w+)", pathlib.Path(f"/proc/{daemon.pid}/status").read_text()))
        self.assertEqual(int(status["Uid"]), self.ids("ostreld")[0])
        self.assertEqual([int(status[name], 16) for name in ("CapPrm", "CapEff", "CapBnd", "CapAmb")],
                         [CAPABILITIES] * 4)
        self.assertEqual((status["NoNewPrivs"], status["Seccomp"]), ("1", "2"))

    def test_run_as_the_unit_runs_it_it_does_all_of_its_work(self):
        client, server = map(self.confined_daemon, ("client", "server"))
        self.assert_confined(client)
        server.must("/server", "leaseInformation", subscribe=True)
        server.must("/", "interfaceInitialize", interface="eth0", mode="server", ipv4Address="192.0.2.1",
                    ipv4Subnet="255.255.255.0", ipv4Router="192.0.2.1", ipv4RangeStart="192.0.2.50", maxLeases=10,
                    leaseTime=6)
        client.become_client(ipv4LinkLocal=True)
        for _ in ("taken", "renewed"):
            self.assertEqual(client.publication(20)["ipv4Address"], "192.0.2.50")
            self.assertIsNotNone(server.bus.next_post("/server", "leaseInformation", 5))
        for daemon in (client, server):
            daemon.must("/", "interfaceFinalize", interface="eth0")
            self.assert_log_is_kept(daemon.host)

    def test_run_with_the_rights_of_its_unit_the_files_come_true(self):
        unit = installed.Unit(self.root / "usr/lib/systemd/system/ostrel.service")
        for host, table in (("server", SERVER), ("client", "[eth0]\nrole = 'client'\n")):
            state = self.lab.directory / f"state-{host}"
            state.mkdir()
            self.confined_daemon(host)
            self.peer(host, *self.on_it("setpriv", "--no-new-privs", "--bounding-set=-all,+net_admin", sys.executable,
                                        "-c", installed.FILTER, *unit.system_calls(), "--", "/usr/bin/ostrelctl", "run",
                                        self.lab.file(f"{host}.toml", table), "--state", state))
        lab.eventually(lambda: self.run_on("client", "ostrelctl", "wait", "eth0", "--timeout", "9")[0] == 0,
                       10, "address")
        lab.eventually(lambda: "192.0.2.50" in self.run_on("client", "ip", "-4", "address", "show", "eth0")[1], 5,
                       "address in the kernel")


if __name__ == "__main__":
    lab.main()
