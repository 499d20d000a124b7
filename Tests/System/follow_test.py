"""What ostrelctl's followers make of what the daemon tells: what is lost, what fails, and what is quiet."""
import pathlib
import re
import signal
import socket
import subprocess
import time

import lab
import peers
import wire
from apply_test import SERVER, Applying


class Losses(Applying):
    """What is lost goes out of the kernel at once, and says why; what is extended stays."""
    hosts = ("one", "server")
    SERVER = bytes([192, 0, 2, 1])

    def bound(self, client, *watches):
        """The address that the client has got, with everything that comes of it."""
        address = self.address("one")
        self.see(watches[0], f"+ address {address}/24")
        return address

    def lose(self, process, words, cause):
        """Carries out `cause`; gives the milliseconds until the kernel has no address any more."""
        before = self.said(process).count(words)
        start = time.monotonic()
        cause()
        while self.addresses("one"):
            self.assertLess(time.monotonic() - start, 20, "the address stays")
        passed = 1000 * (time.monotonic() - start)
        lab.eventually(lambda: self.said(process).count(words) == before + 1, 5, words)
        print(f"{words}: {passed:.0f} ms", flush=True)
        return passed

    def nak(self, socket, request):
        """A refusal of a REQUEST, by the server."""
        bootp = (b"\x02\x01\x06\x00" + request.xid + bytes(20) + request.bootp[28:44] + bytes(192)
                 + b"\x63\x82\x53\x63" + wire.option(53, bytes([wire.NAK])) + wire.option(54, self.SERVER) + b"\xff")
        socket.send(wire.udp_frame("02:00:00:00:00:02", "02:00:00:00:00:01", peers.SERVER, "255.255.255.255", (67, 68), bootp))

    def test_what_is_lost_is_gone_at_once_and_what_is_extended_stays(self):
        server = self.serve(lease=600)
        client = self.daemon(host="one")
        applier, watch = self.tool("one", "apply", "eth0"), self.tool("one", "watch", "eth0")
        seen = self.peer("one", "ip", "monitor", "address", "route")
        client.become_client(rfc=True)
        address = self.bound(client, applier)
        again = self.ended(self.tool("one", "apply", "eth0"), 1)
        holder = re.search(r"are applied already, by process (\d+)\n  'kill \1' ends it", again)
        self.assertIn("ostrelctl\0apply", pathlib.Path(f"/proc/{holder[1]}/cmdline").read_text())
        time.sleep(3)  # a lease that ends as much later is another
        client.must("/client", "leaseAction", interface="eth0", leaseAction="renew")
        self.see(applier, "renewed until")
        self.assertNotIn("Deleted", self.said(seen))

        init = {"interface": "eth0", "leaseAction": "init"}
        forger = wire.packet_socket(self.lab.namespace("server"), "eth0")
        self.addCleanup(forger.close)
        claim = (bytes.fromhex("ffffffffffff020000000099" "0806" "0001080006040001" "020000000099")
                 + socket.inet_aton(address) + bytes(6) + socket.inet_aton(address))
        capture = self.capture("one")
        taken = []

        def conflict():  # the first is defended (RFC 5227 section 2.4)
            forger.send(claim)
            time.sleep(0.2)
            taken.append(time.monotonic())
            forger.send(claim)

        self.lose(watch, "lost: another host has the address", conflict)
        self.assertLess(time.monotonic() - taken[0], 2)
        client.must("/client", "leaseAction", **init)
        self.bound(client, applier)

        server.must("/", "interfaceFinalize", interface="eth0")  # nobody else answers from now on
        latest = capture.frames[-1]
        client.must("/client", "leaseAction", interface="eth0", leaseAction="renew")
        request = capture.wait_dhcp(wire.REQUEST, 10, after=latest)
        figures = [self.lose(watch, "lost: refused (NAK)", lambda: self.nak(forger, request))]
        server.must("/", "interfaceInitialize", **SERVER, leaseTime=600)
        client.must("/client", "leaseAction", **init)
        self.bound(client, applier)
        figures.append(self.lose(watch, "lost: the link", lambda: self.lab.ip("switch", "link set to-one down")))
        self.lab.ip("switch", "link set to-one up")
        self.bound(client, applier)
        figures.append(self.lose(watch, "lost: as told", lambda: client.must(
            "/client", "leaseAction", interface="eth0", leaseAction="halt")))

        server.must("/", "interfaceFinalize", interface="eth0")
        server.must("/", "interfaceInitialize", **SERVER, leaseTime=5)
        client.must("/", "interfaceFinalize", interface="eth0")  # after such setbacks it would wait a while
        client.become_client(rfc=True)
        self.bound(client, applier)
        server.must("/", "interfaceFinalize", interface="eth0")
        (state,) = client.request("/", "interfaceState", interface="eth0")["interfaceList"]
        self.lose(watch, "lost: the lease has expired", lambda: None)
        self.assertLess(time.time() - state["client"]["expires"], 1.5)
        self.assertLess(max(figures), 1000)


class Answers(Applying):
    """What followers ask, and what they make of answers that fail."""

    def errors_in(self, host):
        """Lines about questions that did not name what is managed, or failed."""
        return re.findall(r".*(?:GetJsonString: interface|Src/OstrelVoroBus|### VoroBus).*", self.lab.log(host))

    @staticmethod
    def wakings(process):
        """How often a process has gone to sleep so far."""
        status = pathlib.Path(f"/proc/{process.pid}/status").read_text()
        return int(re.search(r"\nvoluntary_ctxt_switches:\s+(\d+)", status)[1])

    def test_followers_sleep_while_nothing_happens_and_ask_nothing_that_is_an_error(self):
        """To the daemon a look at leases that names no interface is one; a look at all that is managed names none."""
        self.serve(lease=600)
        client = self.daemon(host="one")
        client.must("/", "interfaceInitialize", **lab.CLIENT_REQUEST)
        followers = [self.tool("one", *line.split()) for line in
                     ("apply --all", "watch", "log -f", "wait --any --timeout 40", "wait eth0", "trace eth0")]
        followers.append(self.tool("server", "watch"))
        for line in ("status eth0", "config eth0", "init eth0"):
            self.ended(self.tool("one", *line.split()), 0)
        for line in ("status eth0", "leases eth0", "config eth0", "stats"):
            self.ended(self.tool("server", *line.split()), 0)
        self.see(followers[0], "+ address")
        self.see(followers[1], "+ address")
        self.see(followers[2], "in use")
        self.assertIn(f"eth0 {self.address('one')}/24\n", self.ended(followers.pop(3), 0))
        self.assertIn(f"{self.address('one')}/24\n", self.ended(followers.pop(3), 0))
        self.see(followers[4], "+ 192.0.2.1")
        time.sleep(2)  # the announcements go out
        before = [self.wakings(process) for process in followers]
        time.sleep(8)
        self.assertEqual([self.wakings(process) for process in followers], before)
        for host in ("one", "server"):
            self.assertEqual(self.errors_in(host), [])

    def test_a_lease_outlives_answers_that_fail(self):
        """A daemon that refuses, answers rubbish, then nothing, then answers again."""
        daemon = self.peer("one", "/usr/bin/python3", "-u", pathlib.Path(__file__).with_name("fake_daemon.py"),
                           stdin=subprocess.PIPE)
        applier = self.tool("one", "apply", "eth0")
        self.see(applier, "+ address 198.51.100.5/24")
        seen = self.peer("one", "ip", "monitor", "address")
        daemon.stdin.write(b"\n")
        daemon.stdin.flush()
        self.see(applier, "the bus refused the call: not now\n  asking again")
        self.see(applier, "the daemon's reply is not understood\n  asking again")
        self.see(applier, "198.51.100.1")
        self.assertEqual(self.said(applier).count("not now"), 1)
        self.assertNotIn("Deleted", self.said(seen))
        self.assertEqual(set(self.addresses("one")), {"198.51.100.5"})

        subscribed = self.said(daemon).count('"subscribe":true')
        applier.send_signal(signal.SIGSTOP)  # a daemon may have given it up meanwhile
        applier.send_signal(signal.SIGCONT)
        lab.eventually(lambda: self.said(daemon).count('"subscribe":true') == subscribed + 1, 5, "a new subscription")
        self.assertEqual(self.said(daemon).count('"subscribe":false'), 1)


if __name__ == "__main__":
    lab.main()
