"""The rfc rules on a real wire: servers, relays and hosts that others wrote honour what is sent by them."""
import re
import time

import lab
import peers
import wire
from wire import ACK, BROADCAST, DECLINE, DISCOVER, RELEASE, REQUEST

CLIENT_MAC, SERVER_MAC, OTHER_MAC = "02:00:00:00:00:01", "02:00:00:00:00:02", "02:00:00:00:00:03"
NOBODY = "0.0.0.0"


class WithServer:
    """What any server must understand; `serve` names the function of peers that starts it."""

    hosts = ("client", "server", "other")
    serve, declined, released = None, None, None  # and what it writes of a DECLINE and a RELEASE; {} is the address

    def setUp(self):
        super().setUp()
        self.server = peers.start(self, type(self).serve(self.lab))
        self.wire, self.client = self.capture(), self.daemon()
        self.client.must("/", "interfaceInitialize", **lab.CLIENT_REQUEST, rfc=True)
        self.client.must("/client", "leaseInformation", subscribe=True)

    def act(self, action, **keys):
        self.client.must("/client", "leaseAction", interface="eth0", leaseAction=action, **keys)

    def see(self, text, address):
        if text is None:  # it writes nothing of it: that another address comes is what shows
            return
        pattern = re.compile(text.replace("{}", re.escape(address)))
        lab.eventually(lambda: pattern.search(self.server.output.read_text(errors="replace")), 10,
                       f"{pattern.pattern!r} in {self.server.output.read_text(errors='replace')[-3000:]}")

    def sent(self, kind):
        return [frame for frame in self.wire.frames if frame.dhcp == kind and frame.source == CLIENT_MAC]

    def test_a_lease_is_acquired_at_once_renewed_confirmed_and_released(self):
        self.act("init")
        begun = time.monotonic()
        address = self.client.publication(20)["ipv4Address"]
        self.assertLess(time.monotonic() - begun, 4.5)
        self.lab.ip("client", f"addr add {address}/24 dev eth0")  # where answers to a renewal go
        acknowledged = self.wire.wait_dhcp(ACK, 1)

        renewal = self.wire.wait_dhcp(REQUEST, 15, after=acknowledged)
        self.assertEqual((renewal.destination, renewal.ip_source, renewal.ip_destination, renewal.ciaddr),
                         (SERVER_MAC, address, peers.SERVER, address))
        self.assertNotIn(50, renewal.options)
        self.assertNotIn(54, renewal.options)
        self.wire.wait_dhcp(ACK, 5, after=renewal)
        self.assertEqual(self.client.publication(10)["ipv4Address"], address)

        self.act("halt")  # as after a restart of the device, the lease is asked for by its address
        self.lab.ip("client", f"addr del {address}/24 dev eth0")
        asked = len(self.sent(DISCOVER))
        self.act("init", address=address)
        reboot = self.wire.wait_dhcp(REQUEST, 3, after=renewal, destination=BROADCAST, ciaddr=NOBODY)
        self.assertNotIn(54, reboot.options)
        self.assertEqual(self.client.publication(10)["ipv4Address"], address)
        self.assertEqual(len(self.sent(DISCOVER)), asked)

        self.act("halt", release=True)
        release = self.wire.wait_dhcp(RELEASE, 3, destination=SERVER_MAC, ciaddr=address, ip_destination=peers.SERVER)
        self.assertNotIn(50, release.options)
        self.see(self.released, address)
        self.assert_well_formed()
        self.assertEqual(self.wire.dissect(f"icmp && eth.src == {CLIENT_MAC}", "frame.number"), [],
                         "the kernel takes the port for nobody's")

    def assert_well_formed(self):
        self.assertEqual(self.wire.dissect(f"eth.src == {CLIENT_MAC} && (_ws.malformed || _ws.expert.severity >= 0x600000)",
                                           "frame.number", "_ws.expert.message"), [])
        sums = self.wire.dissect(f"dhcp && !icmp && eth.src == {CLIENT_MAC}", "ip.checksum.status", "udp.checksum.status")
        self.assertEqual(sums, [["1", "1"]] * len(sums))

    def test_a_declined_address_does_not_come_again(self):
        self.act("init")
        taken = self.client.publication(20)["ipv4Address"]
        self.act("halt")
        self.lab.ip("other", f"addr add {taken}/24 dev eth0")
        self.act("init")
        declined = self.wire.wait_dhcp(DECLINE, 20, destination=BROADCAST, ip_source=NOBODY, ciaddr=NOBODY)
        self.assertEqual(declined.options[50], bytes(map(int, taken.split("."))))
        self.assertIn(54, declined.options)
        self.see(self.declined, taken)
        again = self.wire.wait_dhcp(DISCOVER, 20, after=declined)
        self.assertGreater(again.when - declined.when, 8.9)  # ten seconds, and a second less or more
        self.assertNotEqual(self.client.publication(20)["ipv4Address"], taken)


class Dnsmasq(WithServer, lab.LabTest):
    serve, declined, released = peers.dnsmasq, r"DHCPDECLINE\(eth0\) {} ", r"DHCPRELEASE\(eth0\) {} "


class PingingServer(lab.LabTest):
    """dnsmasq as it is by default: it pings an address for 3 s before it offers it."""

    def test_its_first_offer_is_not_missed(self):
        command = [word for word in peers.dnsmasq(self.lab) if word != "--no-ping"]
        peers.start(self, command)
        capture, client = self.capture(), self.daemon()
        client.become_client(rfc=True)
        begun = time.monotonic()
        client.publication(20)
        self.assertLess(time.monotonic() - begun, 4.5)
        self.assertLessEqual(capture.count(dhcp=DISCOVER), 2)


class Udhcpd(WithServer, lab.LabTest):
    serve, declined, released = peers.udhcpd, None, None


class Dhcpd(WithServer, lab.LabTest):
    serve, declined, released = peers.dhcpd, r"DHCPDECLINE of {} .*: abandoned", r"DHCPRELEASE of {} .*\(found\)"


class Kea(WithServer, lab.LabTest):
    serve, declined, released = peers.kea, r"DHCP4_DECLINE_LEASE .* {} ", r"DHCP4_RELEASE .* {} "


class Relay(lab.LabTest):
    """A relay between two LANs: the client's, and a cable to a server that serves the client's. server_test.py has our
    server behind one."""

    hosts = ("client", "relay", "server")
    RELAY = "192.0.2.254"

    def setUp(self):
        super().setUp()
        self.lab.ip("server", "link set eth0 down")
        self.lab.ip("relay", f"addr add {self.RELAY}/24 dev eth0")
        self.lab.ip("relay", f"link add eth1 type veth peer name eth1 netns {self.lab.prefix}-server")
        for host in ("relay", "server"):
            self.lab.ip(host, "link set eth1 up")
        self.lab.ip("relay", "addr add 198.51.100.1/32 dev eth1")
        self.lab.ip("relay", f"route add {peers.SERVER}/32 dev eth1")
        self.lab.ip("server", f"addr add {peers.SERVER}/32 dev eth1")
        self.lab.ip("server", "route add 192.0.2.0/24 dev eth1")

    def start_relay(self):
        relay = self.peer("relay", "dhcrelay", "-4", "-d", "-a", "-iu", "eth1", "-id", "eth0", "--no-pid", peers.SERVER)
        lab.eventually(lambda: "Sending on" in relay.output.read_text(), 10, "the relay ready")

    def test_our_client_behind_it(self):
        self.lab.file("leases", "")
        command = peers.dhcpd(self.lab, lease=10)[:-1] + ["eth1"]
        self.lab.ip("server", f"addr del {peers.SERVER}/24 dev eth0")
        peers.start(self, command)
        self.start_relay()
        capture, daemon = self.capture(), self.daemon()
        daemon.become_client(rfc=True)
        lease = daemon.publication(20)
        self.lab.ip("client", f"addr add {lease['ipv4Address']}/24 dev eth0")
        first = capture.wait_dhcp(ACK, 1)
        renewal = capture.wait_dhcp(REQUEST, 15, after=first, ciaddr=lease["ipv4Address"], ip_destination=peers.SERVER)
        self.assertNotEqual(renewal.destination, BROADCAST)
        self.assertEqual(daemon.publication(15)["ipv4Address"], lease["ipv4Address"])


class TwoInterfaces(lab.LabTest):
    """A device with two interfaces on one LAN, whose kernel answers on each for the address of the other."""

    def test_a_device_does_not_contest_its_own_address(self):
        peers.start(self, peers.dhcpd(self.lab, lease=6))
        self.lab.ip("switch", f"link add second type veth peer name eth1 netns {self.lab.prefix}-client")
        self.lab.ip("switch", "link set second master br0 up")
        self.lab.ip("client", "link set eth1 up")
        capture, daemon = self.capture(), self.daemon()
        daemon.become_client(rfc=True)
        lease = daemon.publication(20)
        self.lab.ip("client", f"addr add {lease['ipv4Address']}/24 dev eth0")
        for _ in range(10):
            self.assertEqual(daemon.publication(20)["ipv4Address"], lease["ipv4Address"])
        self.assertEqual([frame for frame in capture.frames if frame.dhcp == DECLINE], [])
        answers = [frame for frame in capture.frames if frame.arp == 2 and frame.sender == lease["ipv4Address"]]
        self.assertNotEqual(answers, [])  # the scene is what it should be


class Strangers(lab.LabTest):
    """Datagrams that a host behind a router can forge: they come from everywhere, by unicast, and say NAK or ACK."""

    def test_a_lease_outlives_them(self):
        server = wire.ScriptedServer(self.lab.namespace("server"), lease=10)
        self.addCleanup(server.close)
        daemon = self.daemon()
        daemon.become_client(rfc=True)
        lease = daemon.publication(20)
        socket = wire.packet_socket(self.lab.namespace("server"), "eth0")
        self.addCleanup(socket.close)
        deadline = time.monotonic() + 30
        number = 0
        while time.monotonic() < deadline:
            for _ in range(20):
                number += 1
                socket.send(self.forged(number))
            time.sleep(0.01)
        self.assertEqual(daemon.lease()["ipv4Address"], lease["ipv4Address"])
        while post := daemon.bus.next_post("/client", "leaseInformation", 0.1):
            self.assertEqual([entry["ipv4Address"] for entry in post["interfaceList"]], [lease["ipv4Address"]])

    @staticmethod
    def forged(number):
        """What a router passes on: any source, any transaction id, the server's own identifier or another."""
        kind = (wire.NAK, ACK)[number % 2]
        server = (bytes([192, 0, 2, 1]), bytes([203, 0, 113, 9]))[number // 2 % 2]
        bootp = (b"\x02\x01\x06\x00" + (number * 2654435761 % 2**32).to_bytes(4, "big") + bytes(8)
                 + bytes([203, 0, 113, 80]) + bytes(8) + bytes.fromhex(CLIENT_MAC.replace(":", "")) + bytes(202)
                 + b"\x63\x82\x53\x63" + wire.option(53, bytes([kind])) + wire.option(54, server)
                 + wire.option(51, wire.seconds(3600)) + wire.option(1, bytes([255, 255, 255, 0])) + b"\xff")
        return wire.udp_frame(OTHER_MAC, CLIENT_MAC, "198.51.100.7", "192.0.2.50", (67, 68), bootp)


if __name__ == "__main__":
    lab.main()
