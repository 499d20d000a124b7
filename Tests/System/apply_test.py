"""ostrelctl watch, wait and apply with the real daemon: hosts that have no address but what the daemon learnt."""
import json
import os
import pathlib
import signal
import subprocess
import sys

import lab
import peers

OSTRELCTL = os.environ.get("OSTRELCTL", str(pathlib.Path(lab.OSTRELD).with_name("ostrelctl")))
SERVER = {"interface": "eth0", "mode": "server", "ipv4Address": peers.SERVER, "ipv4Subnet": "255.255.255.0",
          "ipv4Router": peers.SERVER, "dnsServers": peers.DNS_SERVERS, "domainName": peers.DOMAIN,
          "ipv4RangeStart": "192.0.2.100", "maxLeases": 20}
RESOLVCONF = """#!/bin/sh
case $1 in
    -a) cat >"${0%/*}/$2" ;;
    -d) rm "${0%/*}/$2" ;;
esac
"""
FORGED = "203.0.113.9"


class Applying(lab.LabTest):
    hosts = ("one", "two", "server")

    def serve(self, lease):
        self.lab.ip("server", f"addr add {peers.SERVER}/24 dev eth0")
        server = self.daemon(host="server")
        server.must("/", "interfaceInitialize", **SERVER, leaseTime=lease)
        return server

    def tool(self, host, *words, wrapper=(), path=None):
        """Starts the tool; its output goes to a file of its own."""
        output = self.lab.directory / f"{words[0]}.{len(list(self.lab.directory.iterdir()))}"
        environment = {**os.environ, "PATH": f"{path}:{os.environ['PATH']}" if path else os.environ["PATH"]}
        self.addCleanup(lambda: self.assertNotRegex(output.read_text(), "Sanitizer|runtime error"))
        return self.peer(host, *wrapper, OSTRELCTL, *words, output=output, env=environment)

    def recorder(self, host):
        """A directory with a resolvconf that keeps there what it is given."""
        directory = self.lab.directory / f"resolv.{host}"
        directory.mkdir()
        (directory / "resolvconf").write_text(RESOLVCONF)
        (directory / "resolvconf").chmod(0o755)
        return directory

    def see(self, process, text, timeout=40):
        lab.eventually(lambda: text in process.output.read_text(), timeout, f"{text!r} in {self.said(process)!r}")

    @staticmethod
    def said(process):
        return process.output.read_text()

    def kernel(self, host, what):
        return json.loads(subprocess.run(["ip", "-n", f"{self.lab.prefix}-{host}", "-j", "-4", *what.split()],
                                         check=True, capture_output=True).stdout or "[]")

    def addresses(self, host):
        """What eth0 has, and nothing while there is no eth0."""
        return {entry["local"]: entry for link in self.kernel(host, "addr show") if link["ifname"] == "eth0"
                for entry in link["addr_info"]}

    def default_routes(self, host):
        return self.kernel(host, "route show default")

    def address(self, host, timeout=40):
        return next(iter(lab.eventually(lambda: self.addresses(host), timeout, f"an address on {host}")))

    def ping(self, host, address):
        done = subprocess.run([lab.SCRIPT, "run", self.lab.directory, host, "ping", "-c", "3", "-W", "5", address],
                              capture_output=True, text=True)
        self.assertEqual(done.returncode, 0, done.stdout)

    def ended(self, process, status, timeout=20):
        self.assertEqual(process.wait(timeout), status, self.said(process))
        return self.said(process)


class Network(Applying):
    def test_hosts_reach_each_other_by_what_was_leased_and_only_as_long(self):
        server = self.serve(lease=10)
        records = {host: self.recorder(host) for host in ("one", "two")}
        appliers = {host: self.tool(host, "apply", "eth0", path=records[host]) for host in records}
        seen = {host: self.peer(host, "ip", "monitor", "address") for host in records}
        table = self.tool("server", "watch")
        clients = {host: self.daemon(host=host) for host in records}
        for client in clients.values():
            client.become_client()

        address = {host: self.address(host) for host in records}
        for host in records:
            self.see(appliers[host], "by resolvconf")
            entry = self.addresses(host)[address[host]]
            self.assertEqual((entry["prefixlen"], entry["broadcast"], entry["scope"]), (24, "192.0.2.255", "global"))
            self.assertLessEqual(entry["valid_life_time"], 10)
            (route,) = self.default_routes(host)
            self.assertEqual((route["gateway"], route["prefsrc"], route["protocol"], route["metric"]),
                             (peers.SERVER, address[host], "dhcp", 100))
            self.assertEqual((records[host] / "eth0.ostrel").read_text(),
                             "".join(f"nameserver {name}\n" for name in peers.DNS_SERVERS) +
                             f"search {peers.DOMAIN}\n")
            self.see(table, f"+ {address[host]} ")
        self.ping("one", address["two"])
        self.ping("two", address["one"])

        for host in records:
            self.see(appliers[host], "renewed until")
            self.assertNotIn("Deleted", self.said(seen[host]))
        self.see(table, ", renewed until")

        lab.stop(appliers["two"], signal.SIGKILL)
        lab.stop(server.process)
        self.see(table, "daemon gone")
        for host in records:
            lab.eventually(lambda: not self.addresses(host), 40, f"the end of the lease on {host}")
            # The kernel takes away the routes of an address right after it has taken it from the list.
            lab.eventually(lambda: not self.default_routes(host), 1, f"the end of the route on {host}")
        self.see(appliers["one"], f"- default route via {peers.SERVER}, - address {address['one']}/24")
        self.assertFalse((records["one"] / "eth0.ostrel").exists())


class Restart(Applying):
    def forge(self, host):
        """What the daemon and the bus itself might send, from a stranger, to everybody on the bus."""
        post = json.dumps({"returnValue": True, "interfaceList": [
            {"interface": "eth0", "managed": True, "linkLocal": {"state": "HELD", "ipv4Address": FORGED, "held": True}}]})
        names = subprocess.run([lab.SCRIPT, "run", self.lab.directory, host, "busctl", "list", "--unique",
                                "--no-legend"], check=True, capture_output=True, text=True).stdout
        receivers = [line.split()[0] for line in names.splitlines()]
        self.assertGreaterEqual(len(receivers), 3)
        for receiver in receivers:
            for signal_words in (
                    ["/", lab.SERVICE, "interfaceStateUpdate", "s", post],
                    ["/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged", "sss", lab.SERVICE, "",
                     ":1.999"]):
                subprocess.run([lab.SCRIPT, "run", self.lab.directory, host, "busctl", "emit",
                                f"--destination={receiver}", *signal_words], check=True, capture_output=True)

    def test_a_restart_keeps_the_address_and_a_stranger_changes_nothing(self):
        self.serve(lease=60)
        applier, watch = self.tool("one", "apply", "eth0"), self.tool("one", "watch", "eth0")
        waiting = self.tool("one", "wait", "eth0", "--timeout", "60")
        seen = self.peer("one", "ip", "monitor", "address")
        self.see(watch, "no daemon yet")
        client = self.daemon(host="one")
        client.become_client()
        address = self.address("one")
        told = self.ended(waiting, 0)
        self.assertEqual(told.splitlines()[-1], f"{address}/24")
        self.assertIn("there is no daemon yet\n  waiting; 'ostrelctl client IFACE'", told)
        self.see(watch, f"+ address {address}/24, router {peers.SERVER}, DNS {', '.join(peers.DNS_SERVERS)}, domain "
                        f"{peers.DOMAIN}, until ")

        lab.stop(applier, signal.SIGKILL)
        applier = self.tool("one", "apply", "eth0")
        self.see(applier, f"+ address {address}/24 until")

        self.forge("one")
        client.close()
        self.see(watch, "- daemon gone")
        self.assertEqual(self.said(watch).count("daemon back"), 1)
        again = self.daemon(host="one")
        lab.eventually(lambda: self.said(watch).count("daemon back") == 2, 20, "a look at the new daemon")
        again.become_client()
        again.publication(20)
        self.see(applier, "renewed until")
        self.assertNotIn("Deleted", self.said(seen))

        again.close()
        idle = self.daemon(host="one")  # which is not told of the interface
        self.see(applier, "'eth0' is not managed yet\n  waiting; 'ostrelctl client eth0' hands it over")
        self.assertEqual(set(self.addresses("one")), {address})
        lab.eventually(lambda: not self.addresses("one"), 40, "address given up")
        hasty = ("wait", "eth0", "--timeout", "1")
        self.assertIn("has had no address for 1 s", self.ended(self.tool("one", *hasty), 1))
        for process in (applier, watch, seen):
            self.assertNotIn(FORGED, self.said(process))

        self.lab.kill_bus("one")
        self.assertIn("the system bus is lost", self.ended(applier, 3))
        self.assertIn("the system bus is lost", self.ended(watch, 3))
        self.assertEqual(idle.process.wait(20), 212)


class Static(Applying):
    FOREIGN = "198.51.100.77"

    def configure(self, daemon, address):
        daemon.request("/", "interfaceFinalize", interface="eth0")
        daemon.must("/", "interfaceInitialize", **{
            **lab.CLIENT_REQUEST, "ipv4Config": "static", "ipv4Address": address, "ipv4Subnet": "255.255.255.0",
            "ipv4Router": "203.0.113.1", "dnsServers": ["192.0.2.3"], "domainName": "no name"})

    def test_the_address_moves_and_comes_back_and_nothing_else_is_touched(self):
        resolved = self.peer("one", sys.executable, pathlib.Path(__file__).with_name("fake_resolved.py"))
        self.see(resolved, "ready")
        self.lab.ip("one", f"addr add {self.FOREIGN}/24 dev eth0")
        self.lab.ip("one", "route append default dev eth0 metric 100")
        daemon = self.daemon(host="one")
        powerless = self.tool("one", "apply", "eth0",
                              wrapper=("setpriv", "--bounding-set=-net_admin", "--inh-caps=-net_admin"))
        self.configure(daemon, "198.51.100.5")
        self.assertIn("needs CAP_NET_ADMIN: run as root", self.ended(powerless, 1))
        applier = self.tool("one", "apply", "eth0")
        self.see(applier, "+ DNS 192.0.2.3 by systemd-resolved")
        self.assertEqual(set(self.addresses("one")), {self.FOREIGN, "198.51.100.5"})
        self.see(applier, "it is no domain name: 'no name'")
        index = self.kernel("one", "addr show dev eth0")[0]["ifindex"]
        self.assertIn(f"SetLinkDNS ({index}, [(2, [0xc0, 0x00, 0x02, 0x03])])\nSetLinkDomains ({index}, [])\n",
                      self.said(resolved))

        self.configure(daemon, "198.51.100.6")
        self.see(applier, "+ address 198.51.100.6/24 for ever")
        self.see(applier, "- address 198.51.100.5/24")
        self.assertEqual(set(self.addresses("one")), {self.FOREIGN, "198.51.100.6"})
        self.lab.ip("one", "link set eth0 down")
        self.lab.ip("one", "link set eth0 up")
        (route,) = lab.eventually(lambda: self.default_routes("one"), 20, "the route again")
        self.assertEqual((route["gateway"], route["flags"], route["prefsrc"]),
                         ("203.0.113.1", ["onlink"], "198.51.100.6"))

        self.lab.ip("one", "link del eth0")
        self.see(applier, "the interface is not there")
        self.lab.plug("one", 1)
        lab.eventually(lambda: set(self.addresses("one")) == {"198.51.100.6"}, 20, "the address again")
        index = self.kernel("one", "addr show dev eth0")[0]["ifindex"]
        self.see(resolved, f"SetLinkDNS ({index}, ")

        self.configure(daemon, "198.51.100.7")
        self.see(applier, "+ address 198.51.100.7/24")
        self.assertEqual(set(self.addresses("one")), {"198.51.100.7"})
        self.assertEqual([route["prefsrc"] for route in self.default_routes("one")], ["198.51.100.7"])
        self.lab.ip("one", "addr add 198.18.0.7/24 dev eth0")
        self.lab.ip("one", "route append default dev eth0 metric 100")
        self.assertEqual(lab.stop(applier), 0)
        self.see(resolved, f"RevertLink ({index},)")
        self.assertEqual(set(self.addresses("one")), {"198.18.0.7"})
        self.assertEqual([route.get("gateway") for route in self.default_routes("one")], [None])
        self.configure(daemon, "198.18.0.7")
        self.assertIn("was there already, and is left as it is",
                      self.ended(self.tool("one", "apply", "eth0", "--once"), 0))
        self.assertEqual([route.get("gateway") for route in self.default_routes("one")], [None, "203.0.113.1"])


class Options(Applying):
    """What dnsmasq says beyond the usual, and comes back off the interface with the lease."""
    hosts = ("one", "server")
    WANTED = [26, 42, 119, 121]

    def dnsmasq(self):
        return [*peers.dnsmasq(self.lab), "--dhcp-option=option:mtu,1400",
                "--dhcp-option=option:domain-search,a.example,b.a.example",
                "--dhcp-option=option:classless-static-route,198.51.100.0/24,192.0.2.9,0.0.0.0/0,192.0.2.2",
                "--dhcp-option=option:ntp-server,192.0.2.7"]

    def routes(self):
        return sorted((route["dst"], route.get("gateway")) for route in self.kernel("one", "route show")
                      if route["protocol"] == "dhcp")

    def mtu(self):
        return self.kernel("one", "link show dev eth0")[0]["mtu"]

    def test_routes_mtu_and_domains_come_and_go_with_the_lease(self):
        peers.start(self, self.dnsmasq())
        record = self.recorder("one")
        rehearsal = self.tool("one", "apply", "eth0", "--dry-run", path=record)
        daemon = self.daemon(host="one")
        daemon.become_client(requestOptions=self.WANTED)
        for command in ("ip link set eth0 mtu 1400", "ip route append 198.51.100.0/24 via 192.0.2.9 dev eth0 src ",
                        "search a.example b.a.example", "# not used: ntpServers"):
            self.see(rehearsal, command)
        applier = self.tool("one", "apply", "eth0", path=record)
        self.see(applier, "by resolvconf")
        lease = daemon.lease()
        self.assertEqual(lease["searchDomains"], ["a.example", "b.a.example"])
        self.assertNotIn("ipv4Router", lease)
        self.assertEqual(self.routes(), [("198.51.100.0/24", "192.0.2.9"), ("default", "192.0.2.2")])
        self.assertEqual(self.mtu(), 1400)
        self.assertIn("search a.example b.a.example\n", (record / "eth0.ostrel").read_text())
        self.see(applier, "not used: ntpServers")

        daemon.must("/client", "leaseAction", interface="eth0", leaseAction="halt")
        self.see(applier, "- route to 198.51.100.0/24 via 192.0.2.9")
        lab.eventually(lambda: self.mtu() == 1500, 20, "the former MTU")
        self.assertEqual((self.routes(), self.addresses("one")), ([], {}))
        self.assertFalse((record / "eth0.ostrel").exists())
        self.assertEqual(self.said(applier).count("not used"), 1)
        self.assertEqual(lab.stop(applier), 0)


class LinkLocal(Applying):
    hosts = ("one", "two")

    def test_without_a_server_a_link_local_address_is_applied(self):
        rehearsal = self.tool("one", "apply", "eth0", "--dry-run")
        applier = self.tool("two", "apply", "eth0", "--keep")
        for host in self.hosts:
            daemon = self.daemon(host=host)
            daemon.must("/", "interfaceInitialize", **{**lab.CLIENT_REQUEST, "ipv4LinkLocal": True})
            daemon.must("/client", "leaseAction", interface="eth0", leaseAction="init")
        address = self.address("two", 60)
        entry = self.addresses("two")[address]
        self.assertEqual((entry["prefixlen"], entry["scope"], entry["broadcast"]), (16, "link", "169.254.255.255"))
        self.assertEqual(self.default_routes("two"), [])

        self.see(rehearsal, "ip address add 169.254.")
        self.assertEqual(self.addresses("one"), {})
        self.assertEqual(lab.stop(rehearsal), 0)
        command, undo = [line for line in self.said(rehearsal).splitlines() if line.startswith("ip ")]
        self.assertEqual(undo, command.replace(" add ", " del "))
        self.lab.ip("one", command.removeprefix("ip "))  # it is a command that does it
        self.ping("one", address)
        self.assertEqual(lab.stop(applier), 0)
        self.assertEqual(set(self.addresses("two")), {address})


if __name__ == "__main__":
    lab.main()
