"""Why there is no lease: what ostrelctl says to somebody who does not know, in ten situations with the real daemon."""
import re
import types

import ctl_test
import lab
import peers
import wire

CLIENT_MAC, SERVER_MAC, ADDRESS = "02:00:00:00:00:01", "02:00:00:00:00:02", "192.0.2.50"
ARP = bytes.fromhex("ffffffffffff 020000000002 0806 0001080006040001 020000000002 c0000201 000000000000 c0000202")
METRIC = re.compile(r"(?:# HELP (\w+) [^\n]+\n# TYPE (\w+) (counter|gauge)\n((?:\w+\{[^\n]*\} [^\n]*\n)+))")
SAMPLE = re.compile(r'(\w+)\{((?:[a-z]+="(?:[^"\\\n]|\\["\\n])*",?)+)\} (\d+)\n')


class RefusingServer(wire.ScriptedServer):
    """Offers, and then refuses what it has offered."""

    def _answer(self, frame, kind):
        return super()._answer(frame, wire.NAK if kind == wire.ACK else kind)


class Why(ctl_test.Tool):
    hosts = ("client", "server", "other")

    def server(self, kind=wire.ScriptedServer, **keys):
        server = kind(self.lab.namespace("server"), address=ADDRESS, **keys)
        self.ending.append(server.close)

    def speak(self, frame):
        """Frames from a neighbour, until the situation is over."""
        socket = wire.packet_socket(self.lab.namespace("server"), "eth0")
        self.ending.append(socket.close)
        return lambda: socket.send(frame)

    # Each enters a situation and gives what is to be done again and again while it lasts, if anything is.

    def no_server(self):
        return self.speak(ARP)

    def silent_server(self):
        self.server(mutes=lambda frame: frame.dhcp == wire.REQUEST)

    def refusing_server(self):
        self.server(RefusingServer)

    def address_in_use(self):
        self.lab.ip("server", f"addr add {ADDRESS}/24 dev eth0")
        self.ending.append(lambda: self.lab.ip("server", f"addr del {ADDRESS}/24 dev eth0"))
        self.server()

    def wrong_vlan(self):
        """There is life in VLAN 10."""
        return self.speak(ARP[:12] + bytes.fromhex("8100000a") + ARP[12:])

    def exhausted_pool(self):
        self.lab.ip("server", f"addr add {peers.SERVER}/24 dev eth0")
        self.daemon(host="server")
        self.type("server", f"server eth0 --address {peers.SERVER}/24 --range {ADDRESS} --count 1")
        self.ending.append(lambda: self.type("server", "release eth0"))
        other = self.daemon(host="other")
        other.become_client()
        other.publication(20)

    def halted(self):
        self.type("client", "halt eth0")

    def cable_out(self):
        self.lab.ip("switch", "link set to-client down")
        self.ending.append(lambda: self.lab.ip("switch", "link set to-client up"))

    def interface_gone(self):
        self.lab.ip("client", "link del eth0")
        self.ending.append(lambda: self.lab.plug("client", 1))

    # What status says on a host, and what else tells: a command on a host, and a line of it.
    situations = (
        (no_server, "client", r"acquiring: no offer yet, [3-9](rd|th) try (in \d+ s|now)\n",
         ("client", "trace", r"-> everybody +DHCPDISCOVER name panel\n")),
        (silent_server, "client",
         rf"192\.0\.2\.1 has offered {ADDRESS} and does not answer the REQUEST, [3-9](rd|th) try (in \d+ s|now)\n",
         ("client", "trace", rf"<- {SERVER_MAC}  DHCPOFFER +{ADDRESS} of 192\.0\.2\.1, lease 3600 s, for {CLIENT_MAC}\n")),
        (refusing_server, "client", r"refused by 192\.0\.2\.1 \(NAK\) (once|twice|\d+ times), next try (in \d+ s|now)\n",
         ("client", "log", r"! refused \(NAK\) by 192\.0\.2\.1: client pauses before it asks\n")),
        (address_in_use, "client", rf"conflict: {SERVER_MAC} has {ADDRESS}, declined, next try (in \d+ s|now)\n",
         ("client", "log", rf"! {SERVER_MAC} has {ADDRESS}\n")),
        (wrong_vlan, "client", r"no offer yet, .*; nothing at all is heard: is it the right cable, port and VLAN\?\n", None),
        (exhausted_pool, "server", r"state +pool exhausted: 1 active, none is free\n",
         ("server", "trace", rf"<- {CLIENT_MAC}  DHCPDISCOVER name panel  \[dropped: no address is free\]\n")),
        (halted, "client", r"state +halted: 'ostrelctl init eth0' starts it again\n",
         ("client", "log", r"  client is halted\n")),
        (cable_out, "client", r"state +link down: waiting for the cable\n", ("client", "log", r"- link down\n")),
        (interface_gone, "client", r"state +interface gone: waiting for it to come back\n", None),
    )

    def told(self, host, command, traces):
        return traces[host].output.read_text() if command == "trace" else self.type(host, [command, "eth0"])

    def see(self, host, pattern, again):
        def said():
            again()
            return re.search(pattern, self.run_tool(host, "status").output)

        lab.eventually(said, 30, f"{pattern!r} in {self.run_tool(host, 'status').output}")

    def test_status_log_and_trace_say_why_there_is_no_lease(self):
        self.daemon(host="client")
        capture = self.lab.directory / "client.trace.pcap"
        traces = {host: self.peer(host, ctl_test.OSTRELCTL, "trace", "eth0", *words,
                                  output=self.lab.directory / f"trace.{host}")
                  for host, words in (("client", ("--pcap", str(capture))), ("server", ()))}
        for enter, host, status, also in self.situations:
            with self.subTest(enter.__name__):
                self.ending = [lambda: self.type("client", "release eth0")]
                self.type("client", "client eth0 --host-name panel")
                try:
                    again = enter(self) or (lambda: None)
                    self.see(host, status, again)
                    if also:
                        lab.eventually(lambda: re.search(also[2], self.told(*also[:2], traces)), 20,
                                       f"{also[2]!r} in {self.told(*also[:2], traces)}")
                finally:
                    for end in reversed(self.ending):
                        end()
        self.check_capture(capture, traces["client"].output.read_text())
        self.check_metrics()
        lab.stop(traces["client"])

    def check_capture(self, path, shown):
        """tshark reads each frame that was shown, while the file is still being written."""
        dissected = wire.Capture.dissect(types.SimpleNamespace(path=path), "dhcp", "dhcp.option.dhcp", "dhcp.hw.mac_addr")
        kinds = [int(kind) for kind, _ in dissected]
        names = {"DHCPDISCOVER": wire.DISCOVER, "DHCPOFFER": wire.OFFER, "DHCPNAK": wire.NAK, "DHCPDECLINE": wire.DECLINE}
        for name, kind in names.items():
            lines = [line for line in shown.splitlines() if f"  {name} " in line and "[not sent" not in line]
            self.assertGreater(len(lines), 0, name)
            self.assertEqual(len(lines), kinds.count(kind), name)

    def check_metrics(self):
        """The grammar of Prometheus' text format: each metric once, with help and type, then its samples."""
        self.type("client", "client eth0 --link-local --no-start")
        text = self.type("client", "stats --prometheus")
        metrics = list(METRIC.finditer(text))
        self.assertEqual("".join(metric.group() for metric in metrics), text)
        names = [metric[1] for metric in metrics]
        self.assertEqual(len(set(names)), len(names))
        for name, again, kind, samples in (metric.groups() for metric in metrics):
            self.assertEqual((name, name.endswith("_total")), (again, kind == "counter"))
            self.assertEqual("".join(sample.group() for sample in SAMPLE.finditer(samples)), samples)
            self.assertEqual({sample[1] for sample in SAMPLE.finditer(samples)}, {name})
        self.assertIn('ostrel_client_discover_sent_total{interface="eth0"} 0\n', text)
        self.assertIn('ostrel_arp_dropped_total{interface="eth0",reason="malformed"} 0\n', text)

    def test_a_daemon_that_is_not_there_is_said_to_be_absent(self):
        result = self.run_tool("client", "status eth0")
        self.assertEqual((result.status, result.output), (3, ""))
        self.assertRegex(result.errors, "the daemon does not answer.*\n  start it with 'systemctl start ostreld'")


if __name__ == "__main__":
    lab.main()
