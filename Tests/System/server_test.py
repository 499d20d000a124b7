"""The server by the rfc rules, with clients and a relay that others wrote: a host that sits on an address of the range, an
address that is kept for one client, a daemon that is killed and given back its table, and clients behind a relay.
"""
import os
import re
import signal

import lab
import peers
from roles_test import OWN_STATE, SCRIPT
from wire import ACK, DECLINE, NAK, OFFER, REQUEST

LEASE_SECONDS = 20
FIRST, NEXT, KEPT = "192.0.2.100", "192.0.2.101", "192.0.2.200"


class ServerTest(lab.LabTest):
    def setUp(self):
        super().setUp()
        self.script = self.lab.file("script", SCRIPT)
        os.chmod(self.script, 0o755)
        self.lab.file("given", "")

    def serve(self, **keys):
        server = self.daemon(host="server")
        server.must("/", "interfaceInitialize", **{
            "interface": "eth0", "mode": "server", "ipv4Address": peers.SERVER, "ipv4Subnet": "255.255.255.0",
            "ipv4Router": "0.0.0.0", "ipv4RangeStart": FIRST, "maxLeases": 20, "leaseTime": LEASE_SECONDS, "rfc": True,
            **keys})
        return server

    def table(self, server):
        (entry,) = server.request("/server", "leaseInformation")["interfaceList"]
        return {row["mac"]: row["ipv4Address"] for row in entry["leases"]}

    def udhcpc(self, host, *options, interface="eth0"):
        return self.peer(host, "udhcpc", "-f", "-i", interface, "-s", self.script, *options)

    def mac(self, host):
        return f"02:00:00:00:00:{self.hosts.index(host) + 1:02x}"

    def given(self):
        return (self.lab.directory / "given").read_text()


class Restart(ServerTest):
    hosts = ("server", "squatter", "udhcpc", "dhclient", "dhcpcd")

    def test_nobody_notices(self):
        self.lab.ip("server", f"addr add {peers.SERVER}/24 dev eth0")
        self.lab.ip("squatter", f"addr add {FIRST}/24 dev eth0")
        wire = self.capture("server")
        fixed = [{"macAddress": self.mac("udhcpc"), "ipv4Address": KEPT, "hostName": "printer"}]
        server = self.serve(fixed=fixed)
        udhcpc = self.udhcpc("udhcpc")
        self.peer("dhclient", "dhclient", "-4", "-d", "-sf", self.script, "-lf", self.lab.file("leases", ""), "-pf",
                  f"{self.lab.directory}/dhclient.pid", "eth0")
        self.peer("dhcpcd", *OWN_STATE, "dhcpcd", "-B", "-4", "-c", self.script, "-f", self.lab.file(
            "dhcpcd.conf", "duid\noption domain_name_servers, routers\n"), "eth0")
        clients = [self.mac(host) for host in self.hosts[2:]]
        lab.eventually(lambda: len(re.findall(r"(?mi)^bound 192", self.given())) == 3, 30, "three leases")
        self.assertEqual(sorted(self.table(server)), clients)
        before = self.table(server)
        self.assertEqual(before[self.mac("udhcpc")], KEPT)
        self.assertEqual(len(set(before.values())), 3)
        self.assertNotIn(FIRST, before.values())
        self.assertIn(f"Address {FIRST} is held for 600 s: in use, {self.mac('squatter')}", self.lab.log("server"))

        shown = server.request("/server", "leaseInformation")["interfaceList"]
        lab.stop(server.process, signal.SIGKILL)
        again = self.serve(fixed=fixed, leases=shown)
        self.assertEqual(self.table(again), before)
        killed = len(wire.frames)
        udhcpc.send_signal(signal.SIGUSR1)  # left alone, it renews no sooner than after a minute
        for client in clients:  # in time, by unicast
            asked = wire.wait_dhcp(REQUEST, LEASE_SECONDS, after=wire.frames[killed - 1], source=client,
                                   ciaddr=before[client])
            wire.wait_dhcp(ACK, 5, after=asked, yiaddr=before[client])
        self.assertEqual(wire.count(dhcp=NAK), 0)
        self.assertEqual(self.table(again), before)


# systemd-networkd alone: a device without udev, with files of its own, and no bus to wait for.
NETWORKD = r"""
mount -t tmpfs tmpfs /run && mount -o remount,ro,bind /sys
mkdir -p /run/systemd/network /run/systemd/netif/leases /run/systemd/netif/links
chown -R systemd-network /run/systemd/netif
printf '[Match]\nName=eth0\n[Network]\nDHCP=ipv4\n[DHCPv4]\nClientIdentifier=duid\nDUIDType=link-layer\n' \
    >/run/systemd/network/1.network
exec env DBUS_SYSTEM_BUS_ADDRESS=unix:path=/run/none SYSTEMD_LOG_TARGET=console /lib/systemd/systemd-networkd"""


class Networkd(ServerTest):
    """A client whose identifier is no text: an address is kept for its MAC, and its lease survives the daemon."""

    hosts = ("server", "networkd")

    def test_a_binary_identifier_is_given_back(self):
        self.lab.ip("server", f"addr add {peers.SERVER}/24 dev eth0")
        wire, mac = self.capture("server"), self.mac("networkd")
        keys = {"fixed": [{"macAddress": mac, "ipv4Address": KEPT}], "ipv4Router": peers.SERVER}
        server = self.serve(**keys)
        self.peer("networkd", "sh", "-c", NETWORKD)
        wire.wait_dhcp(ACK, 20, yiaddr=KEPT)
        shown = server.request("/server", "leaseInformation")["interfaceList"]
        identifier = wire.wait_dhcp(REQUEST, 0, source=mac).options[61]
        self.assertEqual(identifier[0], 255)  # RFC 4361
        self.assertEqual(shown[0]["leases"][0]["clientIdentifierHex"], identifier.hex())
        lab.stop(server.process, signal.SIGKILL)
        again = self.serve(leases=shown, **keys)
        killed = wire.frames[-1]
        asked = wire.wait_dhcp(REQUEST, LEASE_SECONDS, after=killed, source=mac, ciaddr=KEPT)
        wire.wait_dhcp(ACK, 5, after=asked, yiaddr=KEPT)
        self.assertEqual(self.table(again), {mac: KEPT})


class Declined(ServerTest):
    hosts = ("server", "squatter", "udhcpc")

    def test_the_next_address_comes(self):
        self.lab.ip("server", f"addr add {peers.SERVER}/24 dev eth0")
        self.lab.ip("squatter", f"addr add {FIRST}/24 dev eth0")
        wire, server = self.capture("server"), self.serve(probe=0)
        self.udhcpc("udhcpc", "-a", "-A", "1")
        declined = wire.wait_dhcp(DECLINE, 10)
        self.assertEqual(wire.wait_dhcp(OFFER, 30, after=declined).yiaddr, NEXT)
        lab.eventually(lambda: self.table(server) == {self.mac("udhcpc"): NEXT}, 10, "the next address leased")


class Relay(ServerTest):
    """The relay has a second interface, with a client on a wire of their own; its address there is of the server's
    subnet, and it reaches the server by its first one."""

    hosts = ("server", "relay", "far")
    GATE = "192.0.2.3"

    def setUp(self):
        super().setUp()
        self.lab.ip("server", f"addr add {peers.SERVER}/24 dev eth0")
        self.lab.ip("server", f"route add {self.GATE} dev eth0")
        self.lab.ip("relay", "addr add 198.51.100.3/24 dev eth0")  # it hears nothing there without one
        self.lab.ip("relay", f"link add down0 type veth peer name up0 netns {self.lab.prefix}-far")
        self.lab.ip("relay", f"addr add {self.GATE}/24 dev down0")
        self.lab.ip("relay", "link set down0 up")
        self.lab.ip("far", "link set up0 up")
        self.lab.ip("relay", f"route add {peers.SERVER} dev eth0 src {self.GATE}")

    def test_its_client_has_a_lease_and_what_it_adds_comes_back(self):
        wire, server = self.capture("server"), self.serve(probe=0)
        self.peer("relay", "dhcrelay", "-4", "-d", "-a", "-id", "down0", "-iu", "eth0", peers.SERVER)
        self.udhcpc("far", interface="up0")
        lab.eventually(lambda: f"bound {FIRST}" in self.given(), 20, "a lease through the relay")
        self.assertEqual(list(self.table(server).values()), [FIRST])
        ack = wire.wait_dhcp(ACK, 0)
        self.assertEqual((ack.ip_destination, ack.octets[36:38]), (self.GATE, b"\x00\x43"))
        asked = wire.wait_dhcp(REQUEST, 0)
        self.assertEqual(ack.options[82], asked.options[82])
        self.assertGreaterEqual(len(ack.bootp), 300)
        malformed = wire.dissect("dhcp.type == 2", "ip.checksum.status", "udp.checksum.status", "_ws.expert.message")
        self.assertEqual({tuple(row) for row in malformed}, {("1", "1", "")})


if __name__ == "__main__":
    lab.main()
