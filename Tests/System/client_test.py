"""The client on a real wire: leases from servers that others wrote, kept, lost, and contested."""
import time

import lab
import peers
from wire import ACK, BROADCAST, DECLINE, DISCOVER, REQUEST

CLIENT_MAC, SERVER_MAC = "02:00:00:00:00:01", "02:00:00:00:00:02"
FROM_CLIENT = f"eth.src == {CLIENT_MAC}"


def clock(text):
    return time.mktime(time.strptime(text, "%a %b %d %H:%M:%S %Y"))


class ServerStory:
    """What must happen with any server; `serve` names the function of peers that starts it."""

    serve, lease_seconds, renewal_seconds = None, None, None

    def test_a_lease_is_published_as_configured_and_renewed(self):
        peers.start(self, type(self).serve(self.lab))
        wire, client = self.capture(), self.daemon()
        client.become_client()
        lease = client.publication(20)
        published = time.monotonic()
        self.assert_as_configured(lease)
        self.assertEqual(lab.timeless(client.lease()), lab.timeless(lease))

        acknowledged = wire.wait_dhcp(ACK, 5)
        probe = wire.wait("ARP probe", lambda frame: frame.arp == 1 and frame.source == CLIENT_MAC, 5)
        self.assertEqual(acknowledged.yiaddr, lease["ipv4Address"])
        self.assertEqual((probe.sender, probe.target), ("0.0.0.0", lease["ipv4Address"]))
        self.assertGreater(published - probe.when, 1.9)

        renewal = wire.wait_dhcp(REQUEST, self.renewal_seconds + 10, after=probe, destination=SERVER_MAC,
                                 ip_source=lease["ipv4Address"], ip_destination=peers.SERVER, ciaddr="0.0.0.0")
        self.assertGreater(renewal.when - probe.when, 1.9 + self.renewal_seconds)
        wire.wait_dhcp(ACK, 5, after=renewal)
        renewed = client.publication(10)
        self.assertEqual(renewed["ipv4Address"], lease["ipv4Address"])
        self.assertGreater(clock(renewed["leaseTimeString"]), clock(lease["leaseTimeString"]))
        self.assert_well_formed(wire, lease["ipv4Address"])

    def assert_as_configured(self, lease):
        begun, ends = clock(lease["leaseTimeString"]), clock(lease["leaseExpiryString"])
        self.assertEqual(ends - begun, self.lease_seconds)
        self.assertLess(abs(time.time() - begun), 30)
        network, host = lease["ipv4Address"].rsplit(".", 1)
        self.assertEqual(network, "192.0.2")
        self.assertIn(int(host), range(peers.FIRST, peers.LAST + 1))
        self.assertEqual(lab.timeless(lease), {
            "interface": "eth0", "ipv4Address": lease["ipv4Address"], "ipv4Subnet": "255.255.255.0",
            "ipv4Router": peers.ROUTERS, "dnsServers": peers.DNS_SERVERS, "domainName": peers.DOMAIN,
            "leaseTime": self.lease_seconds})

    def assert_well_formed(self, wire, address):
        """The client's frames as tshark sees them, which shows the end option as 0 in its list of option types."""
        fields = ("ip.checksum.status", "udp.checksum.status", "dhcp.ip.client", "dhcp.option.requested_ip_address",
                  "dhcp.option.type", "dhcp.option.request_list_item", "_ws.expert.message", "_ws.malformed")
        asked = "1,28,2,3,6,15"
        for which, row in (
                ("dhcp.option.dhcp == 1", ["1", "1", "0.0.0.0", "", "53,55,57,61,0", asked, "", ""]),
                ("dhcp.option.dhcp_server_id", ["1", "1", "0.0.0.0", address, "53,55,57,61,50,54,0", asked, "", ""]),
                (f"eth.dst == {SERVER_MAC}", ["1", "1", "0.0.0.0", address, "53,55,57,61,50,0", asked, "", ""])):
            rows = wire.dissect(f"dhcp && {FROM_CLIENT} && {which}", *fields)
            self.assertGreaterEqual(len(rows), 1, which)
            self.assertEqual(rows, [row] * len(rows), which)
        self.assertEqual(wire.dissect(f"{FROM_CLIENT} && (_ws.malformed || _ws.expert.severity >= 0x600000)",
                                      "frame.number", "_ws.expert.message"), [])


class Dnsmasq(ServerStory, lab.LabTest):
    serve, lease_seconds, renewal_seconds = peers.dnsmasq, 120, 4


class Udhcpd(ServerStory, lab.LabTest):
    serve, lease_seconds, renewal_seconds = peers.udhcpd, 10, 5


class Dhcpd(ServerStory, lab.LabTest):
    serve, lease_seconds, renewal_seconds = peers.dhcpd, 10, 5


class Timers(lab.LabTest):
    """A server that goes away. With 20 seconds T1 is 10 and T2 is 17."""

    def test_without_its_server_the_client_rebinds_then_starts_over(self):
        server = peers.start(self, peers.dhcpd(self.lab, lease=20))
        wire, client = self.capture(), self.daemon()
        client.become_client()
        lease = client.publication(20)
        lab.stop(server)
        checked = wire.wait_dhcp(ACK, 5).when + 2  # the end of the ARP check, from where the times count

        renewal = wire.wait_dhcp(REQUEST, 15, destination=SERVER_MAC)
        rebinding = wire.wait_dhcp(REQUEST, 12, after=renewal, destination=BROADCAST, ip_source="0.0.0.0",
                                   ip_destination="255.255.255.255", ciaddr="0.0.0.0")
        self.assertEqual(int.from_bytes(rebinding.xid, "little"), int.from_bytes(renewal.xid, "little") + 1)
        self.assertGreater(rebinding.when - checked, 16.9)
        over = wire.wait_dhcp(DISCOVER, 10, after=rebinding)
        self.assertGreater(over.when - checked, 19.9)
        self.assertEqual(client.lease(), {"interface": "eth0", "ipv4Address": "0.0.0.0"})
        self.assertIsNone(client.bus.next_post("/client", "leaseInformation", 0.1), "losing a lease publishes nothing")

        peers.start(self, peers.dhcpd_again(self.lab))
        self.assertEqual(client.publication(20)["ipv4Address"], lease["ipv4Address"])



class Conflict(lab.LabTest):
    hosts = ("client", "server", "other")

    def test_an_address_that_somebody_has_is_declined_until_he_leaves(self):
        address = f"192.0.2.{peers.FIRST}"
        peers.start(self, peers.dhcpd(self.lab, last=peers.FIRST))  # this address and no other
        self.lab.ip("other", f"addr add {address}/24 dev eth0")
        wire, client = self.capture(), self.daemon()
        client.become_client()

        taken = wire.wait("ARP reply", lambda frame: frame.arp == 2 and frame.sender == address, 20)
        declined = wire.wait_dhcp(DECLINE, 2, after=taken, destination=SERVER_MAC, ciaddr=address, ip_source=address,
                                  ip_destination=peers.SERVER)
        again = wire.wait_dhcp(DISCOVER, 5, after=declined)
        self.assertNotEqual(again.xid, declined.xid)
        self.assertIsNone(client.bus.next_post("/client", "leaseInformation", 3))

        # Of any ten seconds the first ten as they come, further ones at one a second.
        for kind in (DISCOVER, DECLINE):
            sent = [frame.when for frame in wire.frames if frame.dhcp == kind and frame.source == CLIENT_MAC]
            for before, last, now in zip(sent, sent[9:], sent[10:]):
                self.assertTrue(now - before > 9.9 or now - last > 0.9, (kind, sent))

        self.lab.ip("other", f"addr del {address}/24 dev eth0")
        self.assertEqual(client.publication(60)["ipv4Address"], address)
        options = wire.dissect(f"{FROM_CLIENT} && dhcp.option.dhcp == {DECLINE}", "dhcp.option.type",
                               "udp.checksum.status", "_ws.expert.message")
        self.assertEqual(options[0], ["53,61,0", "1", ""])


if __name__ == "__main__":
    lab.main()
