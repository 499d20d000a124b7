"""The other two roles: the server with clients that others wrote, the link-local selector with a neighbour.

Those programs keep their state under /run and /var/lib; here they see empty ones of their own.
"""
import os
import re
import signal
import subprocess

import lab
import peers
from wire import RELEASE, REQUEST

CLIENT_MAC, SERVER_MAC = "02:00:00:00:00:01", "02:00:00:00:00:02"
LEASE_SECONDS = 20  # dhcpcd takes none for less
SERVER_REQUEST = {"interface": "eth0", "mode": "server", "ipv4Address": peers.SERVER, "ipv4Subnet": "255.255.255.0",
                  "ipv4Router": peers.SERVER, "dnsServers": peers.DNS_SERVERS, "domainName": peers.DOMAIN,
                  "ipv4RangeStart": "192.0.2.100", "maxLeases": 20, "leaseTime": LEASE_SECONDS}
OWN_STATE = ["sh", "-c", 'mount -t tmpfs tmpfs /run && mount -t tmpfs tmpfs /var/lib && exec "$0" "$@"']

# What udhcpc, dhclient and dhcpcd run when something changes: takes the address, and writes down what was given.
SCRIPT = """#!/bin/sh
address=${ip:-$new_ip_address}
[ -z "$address" ] || ip addr replace "$address/24" dev eth0
echo "$reason$1 $address ${subnet:-$new_subnet_mask} ${router:-$new_routers} ${dns:-$new_domain_name_servers}" \\
    "${domain:-$new_domain_name} ${lease:-$new_dhcp_lease_time}" >>"${0%/*}/given"
"""


class Fleet(lab.LabTest):
    """Everybody at once on one bridge: three clients that others wrote, and our own."""

    hosts = ("client", "server", "udhcpc", "dhclient", "dhcpcd")
    said = {  # host name and identifier that each sends
        "client": (None, "panel-7"), "udhcpc": ("printer", None), "dhclient": ("scanner", "scanner-7"),
        "dhcpcd": ("camera", None)}

    def setUp(self):
        super().setUp()
        self.lab.ip("server", f"addr add {peers.SERVER}/24 dev eth0")
        self.wire, self.server = self.capture("server"), self.daemon(host="server")
        self.server.must("/", "interfaceInitialize", **SERVER_REQUEST)
        script = self.lab.file("script", SCRIPT)
        os.chmod(script, 0o755)
        self.dhclient = ["dhclient", "-4", "-d", "-sf", script, "-lf", self.lab.file("dhclient.leases", ""), "-pf",
                         f"{self.lab.directory}/dhclient.pid", "-cf", self.lab.file("dhclient.conf", (
                             'send host-name "scanner"; send dhcp-client-identifier 00:73:63:61:6e:6e:65:72:2d:37;'))]
        self.commands = {
            "udhcpc": ["udhcpc", "-f", "-R", "-i", "eth0", "-s", script, "-x", "hostname:printer"],
            "dhclient": [*self.dhclient, "eth0"],
            "dhcpcd": [*OWN_STATE, "dhcpcd", "-B", "-4", "-A", "-c", script, "-h", "camera", "-f", self.lab.file(
                "dhcpcd.conf", "option domain_name_servers, domain_name, routers\n"), "eth0"]}

    def table(self):
        (entry,) = self.server.request("/server", "leaseInformation")["interfaceList"]
        return {row["mac"]: row for row in entry["leases"]}

    def mac(self, host):
        return f"02:00:00:00:00:{self.hosts.index(host) + 1:02x}"

    def assert_given(self, reason, address):
        line = (f"{reason} {address} 255.255.255.0 {peers.SERVER} {' '.join(peers.DNS_SERVERS)} {peers.DOMAIN} "
                f"{LEASE_SECONDS}")
        path = self.lab.directory / "given"
        lab.eventually(lambda: line in path.read_text().splitlines(), LEASE_SECONDS, line)

    def test_each_has_its_own_lease_and_keeps_it(self):
        others = {host: self.peer(host, *command) for host, command in self.commands.items()}
        own = self.daemon()
        own.become_client(clientIdentifier="panel-7")
        lease = own.publication(20)
        lab.eventually(lambda: len(self.table()) == 4, 10, f"four leases: {self.table()}")
        addresses = {host: self.table()[self.mac(host)]["ipv4Address"] for host in self.said}
        self.assertEqual(len(set(addresses.values())), 4)
        self.assertEqual(lease["ipv4Address"], addresses["client"])
        for host, words in self.said.items():
            row = self.table()[self.mac(host)]
            self.assertEqual((row.get("hostName"), row.get("clientIdentifier")), words, host)
            self.assertEqual(row["leaseTime"], LEASE_SECONDS)
        for host, reason in (("udhcpc", "bound"), ("dhclient", "BOUND"), ("dhcpcd", "BOUND")):
            self.assert_given(reason, addresses[host])

        others["udhcpc"].send_signal(signal.SIGUSR1)  # left alone, it renews no sooner than after a minute
        for host, reason in (("udhcpc", "renew"), ("dhclient", "RENEW"), ("dhcpcd", "RENEW")):
            self.assert_given(reason, addresses[host])
            self.wire.wait_dhcp(REQUEST, 0, source=self.mac(host), ciaddr=addresses[host])
        self.assertEqual(own.publication(LEASE_SECONDS)["ipv4Address"], lease["ipv4Address"])
        self.assertEqual({mac: row["ipv4Address"] for mac, row in self.table().items()},
                         {self.mac(host): address for host, address in addresses.items()})

        lab.stop(others["udhcpc"])
        others["dhcpcd"].send_signal(signal.SIGALRM)
        subprocess.run([lab.SCRIPT, "run", self.lab.directory, "dhclient", *self.dhclient, "-r"], check=True,
                       capture_output=True)
        for host in others:
            self.wire.wait_dhcp(RELEASE, 5, source=self.mac(host), ciaddr=addresses[host])
        lab.eventually(lambda: list(self.table()) == [CLIENT_MAC], 1, "slots free after the release")
        replies = self.wire.dissect(f"dhcp.type == 2 && eth.src == {SERVER_MAC}", "ip.checksum.status",
                                    "udp.checksum.status", "_ws.expert.message")
        self.assertGreaterEqual(len(replies), 12)  # an offer and two acknowledgements each
        self.assertEqual({tuple(row) for row in replies}, {("1", "1", "")})


class LinkLocal(lab.LabTest):
    hosts = ("client", "other")

    def test_a_neighbour_that_takes_the_address_gets_it(self):
        wire, daemon = self.capture(), self.daemon()
        daemon.must("/", "interfaceInitialize", **dict(lab.CLIENT_REQUEST, ipv4LinkLocal=True))
        daemon.must("/client", "leaseAction", interface="eth0", leaseAction="init")
        lab.eventually(lambda: "IPv4 Link Local Address \n" in self.lab.log("client"), 20, "address held")
        first = daemon.lease()
        self.assertRegex(first["ipv4Address"], r"^169\.254\.([1-9]\d*)\.([1-9]\d*)$")
        self.assertEqual(first, {"interface": "eth0", "ipv4Address": first["ipv4Address"], "ipv4Subnet": "255.255.0.0"})
        own = [frame for frame in wire.frames if frame.arp and frame.source == CLIENT_MAC]
        self.assertEqual([(frame.sender, frame.target) for frame in own],
                         [("0.0.0.0", first["ipv4Address"])] * 3 + [(first["ipv4Address"],) * 2] * 2)
        malformed = wire.dissect(f"arp && eth.src == {CLIENT_MAC} && (_ws.malformed || frame.len < 42)", "frame.number")
        self.assertEqual(malformed, [])

        self.peer("other", *OWN_STATE, "avahi-autoipd", "--no-drop-root", "--no-chroot", "-S", first["ipv4Address"],
                  "eth0", output=self.lab.directory / "autoipd.out")
        lab.eventually(lambda: daemon.lease()["ipv4Address"] != first["ipv4Address"], 30, "another address chosen")
        second = daemon.lease()["ipv4Address"]
        self.assertRegex(second, r"^169\.254\.")
        conflict = re.search(r"Conflicting MAC Address : (\S+)", self.lab.log("client"))
        self.assertEqual(conflict.group(1), "02:00:00:00:00:02")
        self.assertIn(first["ipv4Address"], (self.lab.directory / "autoipd.out").read_text())


if __name__ == "__main__":
    lab.main()
