"""The packages on booted machines: from power on to the first ping, and through every kill."""
import json
import time

import booted
import lab

CLIENT = "[eth0]\nrole = 'client'\n"
SERVER = "[eth0]\nrole = 'server'\naddress = '192.0.2.1/24'\nrange = '192.0.2.50-192.0.2.59'\nlease = '1h'\n"
UNITS = ("ostreld", "ostrel")
BACK = 3  # seconds, after which everything is as the files say


class Boot(booted.BootedTest):
    hosts = ("client", "server", "third")

    def on(self, host, *command):
        return self.machines[host].run(*command)

    def addresses(self, host):
        links = json.loads(self.on(host, "ip", "-j", "-4", "address", "show", "eth0")[1] or "[]")
        return [entry["local"] for link in links for entry in link.get("addr_info", [])]

    def table(self):
        return [line.split()[:2] for line in self.on("server", "ostrelctl", "leases")[1].splitlines()[1:]]

    def is_as_the_files_say(self):
        self.found = [self.on("client", "ostrelctl", "--json", "status", "eth0")[1], self.table(),
                      self.running("client"), self.running("server")]
        return '"held":true' in self.found[0] and self.found[1:] == [self.first, True, True]

    def running(self, host):
        return self.on(host, "systemctl", "is-active", *UNITS)[1].split() == ["active", "active"]

    def kill(self, host, units):
        for unit in units:
            self.assertEqual(self.on(host, "systemctl", "kill", "--kill-whom=main", "--signal=KILL", unit), (0, ""))

    def test_from_power_on_to_the_first_ping_and_through_every_kill(self):
        began = time.monotonic()
        self.boot("server", SERVER)
        self.boot("client", CLIENT)
        lab.eventually(lambda: self.on("client", "ping", "-c1", "-W1", "192.0.2.1")[0] == 0, 60, self.words)
        print(f"power on to first ping: {time.monotonic() - began:.1f} s", flush=True)
        for host in ("client", "server"):
            status = self.on(host, "systemctl", "show", "-P", "StatusText", "ostrel")[1]
            self.assertRegex(status, "eth0 (192.0.2.50|serves 1)")
            self.assertIn("0 loaded units", self.on(host, "systemctl", "--failed", "--no-pager")[1])
        lab.eventually(lambda: '"mac"' in self.on("server", "cat", "/var/lib/ostrel/state.json")[1], 5, self.words)
        self.first = self.table()
        self.assertEqual(self.on("client", "systemctl", "start", "ostrel-wait-online"), (0, ""))
        for host in ("client", "server"):
            for units in (["ostreld"], ["ostrel"], ["ostreld", "ostrel"], ["dbus"]):
                with self.subTest(host=host, killed=units):
                    self.kill(host, units)
                    began = time.monotonic()
                    self.assertEqual((self.addresses("client"), self.addresses("server")),
                                     (["192.0.2.50"], ["192.0.2.1"]))
                    lab.eventually(self.is_as_the_files_say, BACK, lambda: f"{self.found} {self.words()}")
                    print(f"{host}, {' and '.join(units)}: {time.monotonic() - began:.1f} s", flush=True)
                    self.assertEqual((self.addresses("client"), self.addresses("server")),
                                     (["192.0.2.50"], ["192.0.2.1"]))
        third = self.daemon(host="third")
        third.become_client()
        self.assertEqual(third.publication(20)["ipv4Address"], "192.0.2.51", "not one that a station has")


if __name__ == "__main__":
    lab.main()
