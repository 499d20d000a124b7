"""The bus as a caller meets it: introspection, and requests that are wrong, long or deep."""
import itertools
import json
import os
import pathlib
import resource
import signal
import subprocess
import sys
import time

import lab
from bus import Bus, BusError
from wire import BROADCAST, ScriptedServer, option, packet_socket, udp_frame

FAILED = {"returnValue": False, "errorCode": -1, "errorText": "Failed"}
REFUSED = {"returnValue": False}

# What every method answers to a text that is no JSON object.
METHODS = {
    ("/", "setDebugLevel"): REFUSED,
    ("/", "interfaceInitialize"): FAILED,
    ("/", "interfaceFinalize"): FAILED,
    ("/", "interfaceConfigDump"): {"returnValue": False, "interfaceList": []},
    ("/", "interfaceState"): REFUSED,
    ("/", "trace"): REFUSED,
    ("/client", "leaseAction"): REFUSED,
    ("/client", "leaseInformation"): {**FAILED, "interfaceList": []},
    ("/server", "leaseAction"): REFUSED,
    ("/server", "leaseInformation"): {**FAILED, "interfaceList": []},
    ("/server", "leaseEvents"): REFUSED,
    ("/server", "giveLeases"): REFUSED,
}
NO_OBJECTS = ["", " ", "not JSON at all", "{", "{}}", "[]", '["interface", "eth0"]', "42", "null", '"interface"',
              "{'interface': 'eth0'}", '{"interface": "eth0",}', "\u00ff\U0001f600", "[" * 65000,
              '{"interface":' * 5000]

WRONG_KEYS = [
    ("/", "setDebugLevel", {"debugLevel": 3}, REFUSED),
    ("/", "interfaceFinalize", {"interface": "eth"}, FAILED),
    ("/", "interfaceInitialize", lab.CLIENT_REQUEST, FAILED),  # managed already
    ("/", "interfaceInitialize", dict(lab.CLIENT_REQUEST, interface="eth1"), FAILED),  # no such interface
    ("/client", "leaseAction", {"interface": "eth0", "leaseAction": "Init"}, REFUSED),
    ("/client", "leaseAction", {"interface": "eth9", "leaseAction": "init"}, REFUSED),
]


# Valid UTF-8, and yet no bus library takes it: U+FFFF, U+FDD0, U+1FFFE.
NONCHARACTERS = (b"\xef\xbf\xbf", b"\xef\xb7\x90", b"\xf0\x9f\xbf\xbe")
SERVER_REQUEST = dict(lab.CLIENT_REQUEST, mode="server", ipv4Address="192.0.2.1", ipv4Subnet="255.255.255.0",
                      ipv4Router="192.0.2.1", ipv4RangeStart="192.0.2.100", maxLeases=100)
READER = """
import sys; sys.path.insert(0, sys.argv[1])
from bus import Bus
bus = Bus(sys.argv[2])
bus.request("/server", "leaseInformation", subscribe=True)
print("ready", flush=True)
while bus.next_signal(1000): pass
"""


def request_frame(number, extra=b""):
    """A broadcast DHCPREQUEST of the station with that number for the server's address of that number."""
    mac = bytes([2, 0, 0, 0, 9, number])
    bootp = (b"\x01\x01\x06\x00" + bytes([0, 0, 1, number]) + bytes(20) + mac + bytes(202) + b"\x63\x82\x53\x63"
             + option(53, b"\x03") + option(50, bytes([192, 0, 2, 100 + number])) + extra + b"\xff")
    return udp_frame(mac.hex(":"), BROADCAST, "0.0.0.0", "255.255.255.255", (68, 67), bootp)


def resident_megabytes(pid):
    return int(pathlib.Path(f"/proc/{pid}/status").read_text().split("VmRSS:")[1].split()[0]) / 1024


class Limits(lab.LabTest):
    def station(self):
        talker = packet_socket(self.lab.namespace("client"), "eth0")
        self.addCleanup(talker.close)
        return talker

    def serve(self, *options):
        daemon = self.daemon(*options, host="server")
        daemon.must("/", "interfaceInitialize", **SERVER_REQUEST)
        return daemon

    def test_noncharacters_from_anywhere_break_no_answer_and_no_post(self):
        server, talker = self.serve(), self.station()
        server.must("/server", "leaseInformation", subscribe=True)
        for number, text in enumerate(NONCHARACTERS):
            talker.send(request_frame(number, option(12, text) + option(61, b"\0" + text)))
            post = server.bus.next_post("/server", "leaseInformation", 10)
            lease = post["leases"][0]["leases"][number]
            self.assertEqual((lease["hostName"], lease["clientIdentifier"]), ("\ufffd", "\ufffd"))
        self.assertEqual(len(server.must("/server", "leaseInformation")["interfaceList"][0]["leases"]), 3)
        server.must("/", "interfaceFinalize", interface="eth0")
        server.must("/", "interfaceInitialize", **dict(SERVER_REQUEST, domainName="\uffff"))
        self.assertEqual(server.must("/", "interfaceConfigDump")["interfaceList"][0]["domainName"], "\ufffd")
        server.must("/", "interfaceFinalize", interface="eth0")

        with_domain = ScriptedServer(self.lab.namespace("server"), extra=option(15, b"lab." + NONCHARACTERS[0]))
        self.addCleanup(with_domain.close)
        client = self.daemon()
        client.become_client()
        self.assertEqual(client.publication(20)["domainName"], "lab.\ufffd")
        self.assertEqual(client.lease()["domainName"], "lab.\ufffd")

    def test_a_subscriber_that_stops_reading_costs_nobody_anything(self):
        server, talker = self.serve("-z", "-l", "notice"), self.station()
        address = self.lab.bus_address("server")
        bus_pid = int((self.lab.directory / "bus" / "server.pid").read_text())
        stopped = subprocess.Popen([sys.executable, "-c", READER, str(pathlib.Path(__file__).parent), address],
                                   stdout=subprocess.PIPE, text=True)
        self.addCleanup(stopped.wait)
        self.addCleanup(stopped.kill)
        self.assertEqual(stopped.stdout.readline(), "ready\n")
        server.must("/server", "leaseInformation", subscribe=True)
        stopped.send_signal(signal.SIGSTOP)
        name = option(12, b"\x01" * 200)
        for number in range(100):
            talker.send(request_frame(number, name))
        lab.eventually(lambda: self.leases(server) == 100, 10, "a lease for everybody")
        before = [resident_megabytes(pid) for pid in (server.pid, bus_pid)]
        for _ in range(30):  # 3,000 tables of 140 KB
            for number in range(100):
                talker.send(request_frame(number, name))
            begun = time.monotonic()
            server.must("/", "interfaceConfigDump")
            self.assertLess(time.monotonic() - begun, 5, "an answer")
        talker.send(request_frame(7, option(12, b"the last")))
        lab.eventually(lambda: self.is_last(server), 10, "the last state posted")
        if not lab.SANITIZED:
            grown = [resident_megabytes(pid) - was for pid, was in zip((server.pid, bus_pid), before)]
            self.assertLess(max(grown), 16, grown)

    def leases(self, server):
        return len(server.must("/server", "leaseInformation")["interfaceList"][0]["leases"])

    def is_last(self, server):
        post = server.bus.next_post("/server", "leaseInformation", 5)
        return post and any(lease["hostName"] == "the last" for lease in post["leases"][0]["leases"])

    def test_a_message_that_finds_no_memory_is_not_a_lost_bus(self):
        if lab.SANITIZED:
            self.skipTest("address space is what the sanitizer is made of")
        server = self.serve()
        resource.prlimit(server.pid, resource.RLIMIT_AS, (24 << 20, resource.RLIM_INFINITY))
        with self.assertRaises(BusError):
            other = Bus(self.lab.bus_address("server"))
            self.addCleanup(other.close)
            other.call("/", "interfaceConfigDump", " " * (20 << 20), timeout=2)
        before = server.cpu_seconds()
        time.sleep(1)
        self.assertLess(server.cpu_seconds() - before, 0.1, "processor time used by waiting")
        resource.prlimit(server.pid, resource.RLIMIT_AS, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
        self.assertEqual(len(server.must("/", "interfaceConfigDump")["interfaceList"]), 1)


class News(lab.LabTest):
    def subscriber(self, category, method, **keys):
        bus = Bus(self.lab.bus_address("client"))
        self.addCleanup(bus.close)
        self.assertIs(bus.request(category, method, subscribe=True, **keys)["subscribed"], True)
        return bus

    def states(self, bus, enough):
        """What is posted of eth0, without the counters, up to the post that is enough."""
        states = []
        while not (states and enough(states[-1])):
            post = bus.next_post("/", "interfaceState", 15)
            self.assertIsNotNone(post, states)
            (state,) = post["interfaceList"]
            state.pop("counters", None)
            states.append(state)
        return states

    def test_a_lease_a_cable_and_the_end_are_told_as_they_happen(self):
        self.addCleanup(ScriptedServer(self.lab.namespace("server")).close)
        daemon = self.daemon()
        watcher = self.subscriber("/", "interfaceState", interface="eth0")
        other = self.subscriber("/", "interfaceState", interface="eth9")
        tracer = self.subscriber("/", "trace")
        daemon.become_client(rfc=True)
        states = self.states(watcher, lambda state: state["client"]["held"])
        self.assertEqual([key for key, _ in itertools.groupby(state["client"]["state"] for state in states)],
                         ["INIT-REBOOT", "INIT", "SELECTING", "REQUESTING", "BOUND"])
        frames = [json.loads(tracer.next_signal(5, "traceUpdate")[2]) for _ in range(4)]
        self.assertEqual([(frame["direction"], frame["type"], frame["verdict"]) for frame in frames],
                         [("out", "DHCPDISCOVER", "taken"), ("in", "DHCPOFFER", "taken"),
                          ("out", "DHCPREQUEST", "taken"), ("in", "DHCPACK", "taken")])
        self.assertEqual(len({frame["xid"] for frame in frames}), 1)
        self.assertLess(abs(frames[0]["time"] / 1e6 - time.time()), 60)

        self.lab.ip("switch", "link set to-client down")
        (*_, lost) = self.states(watcher, lambda state: not state["client"]["held"])
        self.assertEqual((lost["link"], lost["client"]["reason"]), ("down", "link"))
        self.lab.ip("switch", "link set to-client up")
        (*_, back) = self.states(watcher, lambda state: state["client"]["held"])
        self.assertEqual(back["client"]["ipv4Address"], states[-1]["client"]["ipv4Address"])
        (asked,) = daemon.request("/", "interfaceState")["interfaceList"]
        asked.pop("counters")
        self.assertEqual(asked, back)

        daemon.must("/", "interfaceFinalize", interface="eth0")
        gone = {"interface": "eth0", "managed": False, "reason": "finalised"}
        self.assertEqual(self.states(watcher, lambda state: not state["managed"]), [gone])
        self.assertEqual(daemon.request("/", "interfaceState", interface="eth0")["interfaceList"], [])
        self.assertIsNone(other.next_signal(0.2, "interfaceStateUpdate"))

    def test_a_server_tells_what_happens_to_its_leases(self):
        daemon = self.daemon()
        daemon.must("/", "interfaceInitialize", **dict(SERVER_REQUEST, leaseTime=2))
        events = self.subscriber("/server", "leaseEvents")
        with packet_socket(self.lab.namespace("server"), "eth0") as talker:
            talker.send(request_frame(5, option(12, b"camera")))
            told = [json.loads(events.next_signal(10, "leaseEventsUpdate")[2]) for _ in range(2)]
        lease = {"returnValue": True, "interface": "eth0", "ipv4Address": "192.0.2.105",
                 "macAddress": "02:00:00:00:09:05", "hostName": "camera"}
        self.assertEqual([event.pop("event") for event in told], ["granted", "expired"])
        self.assertLess(abs(told[0].pop("expires") - time.time()), 30)
        told[1].pop("expires")
        self.assertEqual(told, [lease, lease])


class Requests(lab.LabTest):
    def test_wrong_requests_are_refused_and_change_nothing(self):
        with_lease = ScriptedServer(self.lab.namespace("server"))
        self.addCleanup(with_lease.close)
        daemon = self.daemon()
        daemon.become_client()
        lease = daemon.publication(20)
        configuration = daemon.request("/", "interfaceConfigDump")
        self.assertEqual([entry["interface"] for entry in configuration["interfaceList"]], ["eth0"])

        for (category, method), expected in METHODS.items():
            for text in NO_OBJECTS:
                with self.subTest(method=method, text=text[:40]):
                    self.assertEqual(json.loads(daemon.bus.call(category, method, text)), expected)
        for category, method, keys, expected in WRONG_KEYS:
            with self.subTest(method=method, keys=keys):
                self.assertEqual(daemon.request(category, method, **keys), expected)

        self.assertEqual(daemon.request("/", "interfaceConfigDump"), configuration)
        self.assertEqual(lab.timeless(daemon.lease()), lab.timeless(lease))

    def test_sizes_depths_and_signatures_at_and_beyond_the_limits(self):
        daemon = self.daemon()
        room = 64 * 1024 - len('{"x":""}')
        self.assertEqual(json.loads(daemon.bus.call("/", "interfaceConfigDump", f'{{"x":"{"y" * room}"}}')),
                         {"returnValue": True, "interfaceList": []})
        with self.assertRaises(BusError) as refused:
            daemon.bus.call("/", "interfaceConfigDump", f'{{"x":"{"y" * (room + 1)}"}}')
        self.assertEqual(refused.exception.name, "org.freedesktop.DBus.Error.LimitsExceeded")
        deep = f'{{"x":{"[" * 30000}{"]" * 30000}}}'
        self.assertIn("returnValue", json.loads(daemon.bus.call("/", "interfaceConfigDump", deep)))
        for texts in ([], ["{}", "{}"]):
            with self.assertRaises(BusError):
                daemon.bus.raw_call(lab.SERVICE, "/", lab.SERVICE, "interfaceConfigDump", *texts)
        with self.assertRaises(BusError) as unknown:
            daemon.bus.call("/server", "interfaceFinalize", "{}")
        self.assertEqual(unknown.exception.name, "org.freedesktop.DBus.Error.UnknownMethod")
        self.assertEqual(daemon.request("/", "interfaceConfigDump"), {"returnValue": True, "interfaceList": []})

    def test_introspection_shows_methods_and_signals(self):
        self.daemon()
        text = ("method", "s", "s")
        signal = ("signal", "s", "-")
        expected = {
            "/": {".setDebugLevel": text, ".interfaceInitialize": text, ".interfaceFinalize": text,
                  ".interfaceConfigDump": text, ".interfaceState": text, ".interfaceStateUpdate": signal, ".trace": text,
                  ".traceUpdate": signal},
            "/client": {".leaseAction": text, ".leaseInformation": text, ".leaseInformationUpdate": signal},
            "/server": {".leaseAction": text, ".leaseInformation": text, ".leaseInformationUpdate": signal,
                        ".leaseEvents": text, ".leaseEventsUpdate": signal, ".giveLeases": text},
        }
        for path, members in expected.items():
            interface = lab.SERVICE if path == "/" else f"{lab.SERVICE}.{path[1:]}"
            shown = subprocess.run(["busctl", f"--address={self.lab.bus_address('client')}", "introspect",
                                    "--no-legend", lab.SERVICE, path, interface], check=True, capture_output=True, text=True).stdout
            rows = {fields[0]: tuple(fields[1:4]) for fields in map(str.split, shown.splitlines())}
            self.assertEqual(rows, members, path)



if __name__ == "__main__":
    os.environ.setdefault("LC_ALL", "C.UTF-8")
    lab.main()
