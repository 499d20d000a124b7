"""ostrelctl as people type it, against the real daemon.

The tool is the daemon's neighbour in the build directory, or what the environment variable OSTRELCTL names.
"""
import fcntl
import json
import os
import pathlib
import pty
import re
import signal
import struct
import subprocess
import termios
import time

import lab
import peers
from wire import BROADCAST, DISCOVER, OFFER, REQUEST, option, packet_socket, udp_frame

OSTRELCTL = os.environ.get("OSTRELCTL", str(pathlib.Path(lab.OSTRELD).with_name("ostrelctl")))
SERVER = ("server eth0 --address 192.0.2.1/24 --range 192.0.2.100 --count 20 --lease 1h --router 192.0.2.1 "
          "--dns 192.0.2.3,192.0.2.4 --domain lab.example")
GREEN, FULL, REST = "\033[32m", "\u2501", "\u2500"
HOSTILE = b"cam\x1b]0;owned\x07\xc2\x9b2J\xe2\x80\xae\xff\x7fera"


class Result:
    def __init__(self, status, output, errors):
        self.status, self.output, self.errors = status, output, errors


class Tool(lab.LabTest):
    def run_tool(self, host, line, **environment):
        """The tool with its output in a pipe."""
        done = subprocess.run(self.command(host, line), capture_output=True, text=True, timeout=30,
                              env={**os.environ, "LC_ALL": "C.UTF-8", **environment})
        return Result(done.returncode, done.stdout, done.stderr)

    def show(self, host, line, columns=80, **environment):
        """What the tool shows on a terminal."""
        child, terminal = pty.fork()
        if child == 0:
            fcntl.ioctl(1, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
            os.execve(lab.SCRIPT, self.command(host, line),
                      {**os.environ, "LC_ALL": "C.UTF-8", "TERM": "xterm", **environment})
        shown = b""
        try:
            while octets := os.read(terminal, 4096):
                shown += octets
        except OSError:  # the other end is closed
            pass
        os.close(terminal)
        self.assertEqual(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]), 0, shown)
        return shown.decode().replace("\r\n", "\n")

    def command(self, host, line):
        words = line if isinstance(line, list) else line.split()
        return [lab.SCRIPT, "run", str(self.lab.directory), host, OSTRELCTL, *words]

    def type(self, host, line, status=0, errors=""):
        """Types a line; gives its output. `errors`: a pattern for what it says on standard error, if anything."""
        result = self.run_tool(host, line)
        self.assertEqual(result.status, status, f"{line}: {result.errors}")
        self.assertRegex(result.errors, errors or "\\A\\Z", line)
        return result.output


class Story(Tool):
    """Somebody sets up a server and a client, looks at both, and takes them away again."""

    def test_server_and_client(self):
        daemons = {host: self.daemon(host=host) for host in self.hosts}
        self.assertIn("nothing is managed", self.type("client", "status"))
        self.assertIn("server of 20 addresses, 192.0.2.100 to 192.0.2.119, for 1 h each",
                      self.type("server", SERVER, errors="ip addr add 192.0.2.1/24 dev eth0"))
        self.lab.ip("server", f"addr add {peers.SERVER}/24 dev eth0")
        daemons["client"].must("/client", "leaseInformation", subscribe=True)
        self.type("client", "client eth0 --client-id panel-7 --host-name panel")
        address = daemons["client"].publication(20)["ipv4Address"]

        status = self.type("client", "status")
        self.assertRegex(status, rf"\Aeth0  client by DHCP\n  state +bound, renews in (?:29|28) min \d+ s\n  address +{address}/24 by DHCP, not set: 'ostrelctl apply eth0' sets it\n"
                                 r"  router +192\.0\.2\.1\n  DNS +192\.0\.2\.3, 192\.0\.2\.4\n  domain +lab\.example\n"
                                 r"  expires +[-0-9: ]+, in (?:59 min(?: \d+ s)?|1 h)\n  age +\d+ s of 1 h\n  rules +rfc\n\Z")
        self.lab.ip("client", f"addr add {address}/24 dev eth0")
        self.assertIn(f"{address}/24 by DHCP\n", self.type("client", "status eth0"))
        table = self.type("server", "leases --sort expiry")
        self.assertRegex(table, rf"\AADDRESS +MAC +NAME +CLIENT ID +LEFT +ENDS\n"
                                rf"{address}  02:00:00:00:00:01  panel +panel-7 +(?:59 min(?: \d+ s)?|1 h) +[-0-9: ]+\n\Z")
        self.assertRegex(self.type("server", "status"), r"leases +1 of 20\n  next ends +[-0-9: ]+, in (?:59 min(?: \d+ s)?|1 h)\n")
        self.assertRegex(self.type("server", "config"), r"range +192\.0\.2\.100 to 192\.0\.2\.119\n(.*\n)*  lease time 1 h")
        self.check_json(daemons)
        self.check_lines(daemons, address)
        self.check_terminal(address)
        self.check_actions(daemons["client"], address)

    def check_json(self, daemons):
        """Every line is the daemon's own reply."""
        for host, line, asked in (("client", "config", [("/", "interfaceConfigDump")]),
                                  ("client", "status", [("/", "interfaceConfigDump"), ("/", "interfaceState"),
                                                        ("/client", "leaseInformation")]),
                                  ("server", "leases eth0", [("/server", "leaseInformation")])):
            printed = self.type(host, f"{line} --json").splitlines()
            replies = [json.loads(daemons[host].bus.call(*method, "{}")) for method in asked]
            self.assertEqual([self.without_times(json.loads(text)) for text in printed],
                             [self.without_times(reply) for reply in replies])

    def check_lines(self, daemons, address):
        """An object a line, with times that need no zone."""
        for line in ("status --json=lines", "--json=lines status eth0"):
            (told,) = map(json.loads, self.type("client", line).splitlines())
            self.assertEqual(told["state"]["client"]["held"], True)
            self.assertRegex(told.pop("situation"), r"\Abound, renews in (29|28) min \d+ s\Z")
            self.assertEqual({**told, "time": 0, "began": 0, "expires": told["expires"] - told["began"], "state": 0},
                             {"time": 0, "event": "status", "state": 0, "interface": "eth0", "link": "running", "rules": "rfc", "ipv4Config": "dhcp",
                              "role": "client", "ipv4Address": address, "prefixLength": 24, "linkLocal": False,
                              "ipv4Router": [peers.SERVER], "dnsServers": ["192.0.2.3", "192.0.2.4"],
                              "domainName": "lab.example", "began": 0, "expires": 3600, "set": True})
            self.assertLessEqual(abs(told["time"] - time.time()), 2)
            self.assertLessEqual(told["began"], told["time"])
        (served,) = map(json.loads, self.type("server", "status --json=lines").splitlines())
        self.assertEqual((served["role"], served["used"], served["maxLeases"]), ("server", 1, 20))
        self.type("client", "status -j")
        watches = {host: self.lab.start(host, OSTRELCTL, "watch", "--json=lines", "--count", count,
                                        output=self.lab.directory / f"lines.{host}") for host, count in (("client", "2"), ("server", "1"))}
        lab.eventually(lambda: all("present" in watch.output.read_text() for watch in watches.values()), 20, "a look")
        self.assertIn("eth0: halted", self.type("client", "halt eth0"))
        lab.eventually(lambda: "lost" in watches["client"].output.read_text(), 20, "a loss")
        self.assertIn("eth0: started", self.type("client", "init eth0"))
        self.assertEqual(watches["client"].wait(20), 0)
        self.assertEqual(daemons["client"].publication(20)["ipv4Address"], address)
        lost = [json.loads(text) for text in watches["client"].output.read_text().splitlines()]
        self.assertEqual([(line["event"], line["ipv4Address"]) for line in lost],
                         [("present", address), ("lost", address), ("acquired", address)])
        self.assertEqual(watches["server"].wait(20), 0)
        table = [json.loads(text) for text in watches["server"].output.read_text().splitlines()]
        self.assertEqual([(line["event"], line["mac"]) for line in table],
                         [("present", "02:00:00:00:00:01"), ("renewed", "02:00:00:00:00:01")])

    def without_times(self, value):
        if isinstance(value, list):
            return [self.without_times(element) for element in value]
        if not isinstance(value, dict):
            return value
        return {key: self.without_times(element) for key, element in lab.timeless(value).items() if key != "counters"}

    def check_terminal(self, address):
        """Colours and bars are for a terminal, which no line is too long for."""
        self.assertIn(f"{GREEN}{FULL}\033[0m\033[2m{REST * 23}\033[0m  1 of 20", self.show("server", "status"))
        self.assertNotIn("\033", self.show("client", "status", NO_COLOR="1"))
        self.assertIn("-" * 23, self.show("client", "status", LC_ALL="C", NO_COLOR="1"))
        self.assertIn(address, self.show("server", "leases", columns=24))
        for columns in (16, 24, 40, 63):
            for host, line in (("client", "status"), ("server", "status"), ("server", "leases"), ("server", "config")):
                lines = self.show(host, line, columns, NO_COLOR="1").splitlines()
                self.assertLessEqual(max(map(len, lines)), columns, f"{line} {lines}")

    def check_actions(self, client, address):
        refused = "'eth0' is managed already: client by DHCP\n.*release eth0"
        self.type("client", "client eth0 --static 192.0.2.9/24", status=1, errors=refused)
        self.type("client", "halt eth0")
        self.assertEqual(client.lease()["ipv4Address"], "0.0.0.0")
        self.assertRegex(self.type("client", "status"), "state +halted: 'ostrelctl init eth0' starts it again\n  address +none")
        self.type("client", "init eth0")
        self.assertEqual(client.publication(20)["ipv4Address"], address)
        self.type("server", "renew eth0", errors="server, so this did nothing")
        self.type("client", "leases eth0", status=1, errors="'eth0' has no server")
        self.type("client", "release eth0")
        self.type("client", "release eth0", status=1, errors="'eth0' is not managed\n  so there is nothing to release")
        for line in ("renew eth0", "status eth0", "config eth0"):
            self.type("client", line, status=1, errors="'eth0' is not managed\n.*ostrelctl client eth0")
        self.type("client", "status eth9", status=1, errors="no such interface")

        self.type("client", "client eth0 --static 192.0.2.9/24 --router 192.0.2.1 --dns 192.0.2.3 --domain here.example")
        self.assertEqual(client.publication(10)["ipv4Address"], "192.0.2.9")
        self.assertIn("192.0.2.9/24 static", self.type("client", "status"))
        self.assertRegex(self.type("client", "config"), r"(?s)router +192\.0\.2\.1\n.*domain +here\.example\n")
        self.assertIsNone(client.bus.next_post("/client", "leaseInformation", 3), "published twice")

    def test_names_from_the_network_are_only_text(self):
        self.daemon(host="server")
        self.lab.ip("server", f"addr add {peers.SERVER}/24 dev eth0")
        self.type("server", SERVER.replace("192.0.2.100 --count 20", "192.0.2.9-192.0.2.10"))
        self.ask_for_lease("02:00:00:00:00:11", HOSTILE)
        self.ask_for_lease("02:00:00:00:00:12", b"Camera")
        lab.eventually(lambda: self.type("server", "leases").count("02:00:00:00:00:1") == 2, 10, "two leases")
        # A lease that ends tomorrow is shown with the date, and leaves less of 80 columns for the name.
        wide = self.show("server", "leases", columns=120, NO_COLOR="1")
        self.assertIn("cam?]0;owned??2J?\ufffd?era", wide)
        for shown in (self.type("server", "leases"), wide):
            self.assertIn("cam?]0;owned??2J?", shown)
            self.assertEqual(re.findall("[\x00-\x09\x0b-\x1f\x7f-\x9f\u202e]", shown), [])
        self.assertRegex(shown, r"(?s)\n192\.0\.2\.9 .*\n192\.0\.2\.10 ")
        raw, escaped = self.type("server", "leases --json"), self.show("server", "leases --json")
        self.assertIn("\u009b2J\u202e", raw)
        self.assertIn("\\u009b2J\\u202e", escaped)
        self.assertEqual(re.findall("[\x00-\x09\x0b-\x1f\x7f-\x9f\u202e]", escaped), [])
        self.assertEqual([self.without_times(json.loads(text)) for text in (raw, escaped)],
                         [self.without_times(json.loads(raw))] * 2)
        by_name = self.type("server", "leases --sort name").splitlines()
        self.assertIn("Camera", by_name[1])
        self.assertIn("02:00:00:00:00:11", self.type("server", "leases --sort mac").splitlines()[1])

        self.lab.ip("server", "link add eth1 type veth peer name nobody")
        self.type("server", "server eth1 --address 10.0.0.1/8 --range 10.0.0.2 --count 9", errors="'eth1' is down")
        self.assertRegex(self.type("server", "leases"), r"\AIFACE +ADDRESS .*\neth0 +192\.0\.2\.9 ")
        self.assertEqual(self.type("server", "leases eth1").split(), ["ADDRESS", "MAC", "NAME", "LEFT", "ENDS"])
        self.assertRegex(self.type("server", "status eth1"), "\\Aeth1  server, leases for 1 d, down\n")

    def ask_for_lease(self, mac, name):
        """What a client says to get a lease: it asks for an address, and takes whichever it is offered."""
        socket = packet_socket(self.lab.namespace("client"), "eth0")
        hardware = bytes.fromhex(mac.replace(":", ""))
        offered = b""
        deadline = time.monotonic() + 10
        while not offered and time.monotonic() < deadline:
            self.say(socket, mac, hardware, DISCOVER, option(12, name))
            socket.settimeout(0.5)
            try:
                while not offered:
                    frame = socket.recv(65535)
                    if frame[36:38] == b"\x00\x44" and frame[70:76] == hardware and frame[284] == OFFER:
                        offered = frame[58:62]
            except TimeoutError:
                continue
        self.assertTrue(offered, "no offer")
        self.say(socket, mac, hardware, REQUEST,
                 option(12, name) + option(50, offered) + option(54, bytes([192, 0, 2, 1])))
        socket.close()

    @staticmethod
    def say(socket, mac, hardware, kind, options):
        bootp = (b"\x01\x01\x06\x00" + hardware[2:] + bytes(4) + bytes(16) + hardware + bytes(10 + 192)
                 + b"\x63\x82\x53\x63" + option(53, bytes([kind])) + options + b"\xff")
        socket.send(udp_frame(mac, BROADCAST, "0.0.0.0", "255.255.255.255", (68, 67), bootp))


class Rules(Tool):
    """What the tool asks for beside the usual, and what comes of it."""

    serving = ["server", "eth0", "--address", "192.0.2.1/24", "--range", "192.0.2.100", "--count", "20", "--lease", "1h"]

    def configured(self, daemon):
        (interface,) = daemon.request("/", "interfaceConfigDump")["interfaceList"]
        return interface

    def test_a_server_gives_back_what_it_kept(self):
        server, client = self.daemon(host="server"), self.daemon(host="client")
        self.lab.ip("server", f"addr add {peers.SERVER}/24 dev eth0")
        kept = self.lab.directory / "leases.json"
        keeper = self.peer("server", OSTRELCTL, *self.serving, "--fixed", "02:00:00:00:00:01=192.0.2.77,panel",
                           "--option", "ntp=192.0.2.9", "--keep", str(kept))
        lab.eventually(kept.exists, 10, "the file")
        client.must("/client", "leaseInformation", subscribe=True)
        self.type("client", "client eth0 --host-name camera")
        lease = client.publication(10)
        self.assertEqual(lease["ipv4Address"], "192.0.2.77")
        self.assertEqual(lease.get("ipv4Router", []), [], "none was named")
        self.assertEqual(lease["options"], {"42": "c0000209"})
        self.assertEqual(self.configured(client)["hostName"], "camera")
        self.ask_for_lease("02:00:00:00:00:11", b"printer")
        lab.eventually(lambda: all(text in kept.read_text() for text in ("192.0.2.77", "printer")), 10, "both leases")
        before = self.type("server", "leases --sort address")
        self.assertIn("printer", before)

        lab.stop(server.process, signal.SIGKILL)
        self.daemon(host="server")
        lab.eventually(lambda: "02:00:00:00:00:11" in self.run_tool("server", "leases").output, 10, "what was kept")
        self.assertEqual([line.split()[:3] for line in self.type("server", "leases --sort address").splitlines()],
                         [line.split()[:3] for line in before.splitlines()])
        self.type("server", "release eth0")
        self.assertEqual(keeper.wait(10), 0)
        self.assertEqual(len(json.loads(kept.read_text())["leases"]), 2)
        kept.write_text("rubbish")
        self.type("server", [*self.serving, "--keep", str(kept)], status=1, errors="does not hold leases\n.*move it away")
        self.assertIn("nothing is managed", self.type("server", "status"))

    ask_for_lease, say = Story.ask_for_lease, staticmethod(Story.say)

    def test_words_reach_the_daemon(self):
        server, client = self.daemon(host="server"), self.daemon(host="client")
        self.lab.ip("server", f"addr add {peers.SERVER}/24 dev eth0")
        self.type("server", SERVER)
        usual = {"interface": "eth0", "mode": "client", "ipv4Config": "dhcp"}
        self.type("client", "client eth0 --plain --no-start")
        self.assertEqual({**self.configured(client), **usual, "clientIdentifier": ""},
                         {**usual, "clientIdentifier": "", "ipv4LinkLocal": False})
        self.assertRegex(self.type("client", "config"), r"rules +plain\n")
        self.assertIn("acquiring anew", self.type("client", "renew eth0"))
        self.type("client", "release eth0")
        for words in ("--link-local fallback", "--link-local=fallback"):
            self.type("client", f"client {words} eth0 --host-name none --no-start")
            asked = self.configured(client)
            self.assertEqual((asked["rfc"], asked["linkLocal"], asked.get("hostName")), (True, "fallback", None))
            self.type("client", "release eth0")
        self.type("client", "client eth0 --host-name not/a/name", status=1, errors="the daemon refused: .*hostName")

        client.must("/client", "leaseInformation", subscribe=True)
        self.type("client", "client eth0 --no-start")
        self.type("client", "init eth0 --address 192.0.2.111")
        self.assertEqual(client.publication(10)["ipv4Address"], "192.0.2.111")
        self.assertIn("the address stays", self.type("client", "renew eth0"))
        self.assertIn("192.0.2.111", self.type("server", "leases"))
        time.sleep(4)  # the announcements go out; of more frames in a second some would be left out
        self.type("client", "halt eth0 --release")
        lab.eventually(lambda: "192.0.2.111" not in self.type("server", "leases"), 10, "the release")
        self.type("client", "release eth0 --release")
        self.type("server", "release eth0")
        self.type("server", "server eth0 --address 192.0.2.1/30 --range 192.0.2.2 --count 1 --option 53=hex:01", status=1,
                  errors="the daemon refused: .*code")
        self.type("server", "server eth0 --address 192.0.2.1/30 --range 192.0.2.2 --count 1", errors=".*")
        self.assertIs(self.configured(server)["rfc"], True)

    def test_the_past_is_read_from_the_file_and_the_journal_and_nothing_else_is_made_of_them(self):
        """Both in the order of time, with whatever strangers have made the daemon write."""
        log = self.lab.directory / "log" / "client" / "ostrel.log"
        log.write_text("2026-11-22 10:00:00.250 [eth0] client SELECTING, action\n"
                       "2026-11-22 10:00:02.000 [eth0] client holds 192.0.2.50\n"
                       "2026-11-22 10:00:03 [eth0] client holds 192.0.2.51\nrubbish\n\n"
                       "2026-11-22 10:00:04.1 [eth1] The link is lost.\n")
        journal = self.lab.file("journalctl", "#!/bin/sh\ncat <<'END'\n" + "\n".join(json.dumps(entry) for entry in (
            {"__REALTIME_TIMESTAMP": "1795341601500000", "MESSAGE": "[eth0] client BOUND, ack, 192.0.2.50 of 192.0.2.1"},
            {"__REALTIME_TIMESTAMP": 7, "MESSAGE": [27, 91, 50, 74]}, {"MESSAGE": "[eth0] \x1b[2J"},
            {"__REALTIME_TIMESTAMP": "1795341605000000", "MESSAGE": "[eth0] client gives up 192.0.2.50, \x1b[2J"})) + "\nEND\n")
        os.chmod(journal, 0o755)
        environment = {"PATH": f"{self.lab.directory}:{os.environ['PATH']}", "TZ": "UTC"}
        shown = self.run_tool("client", "log eth0", **environment)
        self.assertEqual((shown.status, shown.errors), (0, ""))
        self.assertEqual(re.sub(r"(?m)^2026-11-22 10:00(\.\d+) eth0     ", r"\1 ", shown.output),
                         ".250   client asks who offers an address\n.500   client is granted 192.0.2.50 by 192.0.2.1\n"
                         ".000 + address 192.0.2.50 in use\n.000 - address 192.0.2.50 no longer in use: ?[2J\n")
        (last,) = map(json.loads, self.run_tool("client", "log -n 1 --json=lines", **environment).output.splitlines())
        self.assertEqual((last["event"], last["time"], last["ipv4Address"]), ("lost", 1795341605, "192.0.2.50"))

    def test_an_older_daemon_is_asked_for_what_it_knows(self):
        old = self.peer("client", "/usr/bin/python3", pathlib.Path(__file__).with_name("old_daemon.py"),
                        output=self.lab.directory / "old")
        lab.eventually(lambda: self.run_tool("client", "status").status == 0, 10, "the old daemon")
        for line in ("watch", "wait eth0", "apply eth0 --dry-run", "trace", "log -f -n 0", "stats"):
            self.assertEqual(self.type("client", line, status=1, errors="the daemon is older than this command, and does not tell"), "")
        self.type("client", "client eth0 --link-local fallback")
        self.type("client", "release eth0")
        self.assertIn("server of 20 addresses",
                      self.type("client", self.serving, errors="the daemon is older than this command"))
        asked = [json.loads(line.split(" ", 1)[1]) for line in old.output.read_text().splitlines()
                 if line.startswith("interfaceInitialize")]
        self.assertEqual([request["ipv4Router"] for request in asked], ["0.0.0.0", "0.0.0.0", "192.0.2.1"])


class Usage(Tool):
    """What is wrong is said in words, with what to do next, and with the right exit status."""

    hosts = ("client",)
    server = "server eth0 --address 192.0.2.1/24 "
    wrong = (
        ("", "Usage: ostrelctl COMMAND"),
        ("frob", "no command 'frob'\n  the commands are client, server"),
        ("stauts", "did you mean 'status'"),
        ("hlt", "did you mean 'help'"),
        ("help frob", "no command 'frob'"),
        *((word, f"no command '{word}'\n  the commands are client") for word in
          ("rnew", "reneww", "relese", "ini", "rebnd", "aply", "clinet", "sever", "debg")),
        ("--frob", "no option '--frob'"),
        ("--hlep", "did you mean '--help'"),
        ("client eth0 --sttic 192.0.2.7/24", "'client' has no option '--sttic'\n  did you mean '--static'?"),
        ("client eth0 --dhcp=maybe", "--dhcp = maybe: it takes no value"),
        ("apply", "IFACE is required, or --all"),
        ("apply eth0 --all", "excludes"),
        ("wait --any --all", "excludes"),
        ("log eth0 --json", "the past is no reply of the daemon's"),
        ("trace --count 0", "'0' is not a number above 0"),
        ("apply eth0 --metric x", "'x' is not a number"),
        ("wait eth0 --timeout 5y", "'5y' is not a time from 1 s to 365 d"),
        ("watch --count 0", "'0' is not a number above 0"),
        ("status --json=xml", "'xml' is neither raw nor lines"),
        ("config --json=lines", "--json=lines is for 'status', 'watch' and what else tells"),
        ("status eth0 eth1", "not expected: eth1"),
        ("release", "IFACE is required\n  'ostrelctl release --help'"),
        ("debug loud", "'loud' is no level"),
        ("client eth0 --address", "--address needs a value"),
        ("client eth0 --client-id a --client-id b", "--client-id is there more than once"),
        ("client eth9", "no interface 'eth9'\n  'ip link'"),
        ("client lo", "'lo' is not an Ethernet interface"),
        ("client a-very-long-name", "1 to 15 characters, not 'a-very-long-name'"),
        ("client eth0 --dhcp --static 192.0.2.7/24", "excludes"),
        ("client eth0 --router 192.0.2.1", "--router requires --static"),
        ("client eth0 --static 192.0.2.7", "'192.0.2.7' is not an address with its prefix"),
        ("client eth0 --static 192.0.2.255/24", "192.0.2.255, the broadcast address of 192.0.2.0/24"),
        ("client eth0 --address 127.0.0.1", "no interface can have the address 127.0.0.1"),
        ("client eth0 --static 192.0.2.7/24 --dns 10.1", "'10.1' is not an address"),
        ("client eth0 --static 192.0.2.7/24 --dns 10.0.0.1,10.0.0.2 --dns 10.0.0.3,10.0.0.4", "three DNS servers, not 4"),
        (["client", "eth0", "--client-id", "x" * 255], "--client-id: 1 to 254 bytes are possible, these are 255"),
        (["client", "eth0", "--client-id", ""], "1 to 254 bytes"),
        (["client", "eth0", "--client-id", b"caf\xe9"], "not UTF-8"),
        (server, "--range is required"),
        (server + "--range 192.0.2.100", "--range has no end"),
        (server + "--range 192.0.2.100-192.0.2.110 --count 5", "--count goes with the first address only"),
        (server + "--range 192.0.2.110-192.0.2.100", "ends at 192.0.2.100, before it begins at 192.0.2.110"),
        (server + "--range 192.0.3.100-192.0.3.110", "begins at 192.0.3.100, outside 192.0.2.0/24"),
        (server + "--range 192.0.2.200 --count 100", "ends at 192.0.3.43, outside 192.0.2.0/24"),
        (server + "--range 192.0.2.200-192.0.2.255", "ends at 192.0.2.255, the broadcast address"),
        (server + "--range 192.0.2.1-192.0.2.9", "own address 192.0.2.1 is in the range"),
        (server + "--range 192.0.2.9-192.0.2.19 --router 192.0.2.11", "router 192.0.2.11 is in the range"),
        (server + "--range 192.0.2.9-192.0.2.19 --router 192.0.3.1", "router 192.0.3.1 is outside 192.0.2.0/24"),
        (server + "--range 192.0.2.9-192.0.2.19 --lease 68y", "'68y' is not a time"),
        (server + "--range 192.0.2.9-192.0.2.19 --lease 24856d", "1 to 2147483647 seconds, not 2147558400"),
        ("server eth0 --address 192.0.2.1/25 --range 192.0.2.9-192.0.2.19 --plain",
         "can only serve subnets of /24 and larger, not 192.0.2.0/25"),
        ("server eth0 --address 192.0.2.1/31 --range 192.0.2.0-192.0.2.0", "subnets of /30 and larger, not 192.0.2.0/31"),
        (server + "--range 192.0.2.9-192.0.2.19 --fixed 02:00:00:00:00:1=192.0.2.7", "02:00:00:00:00:1=192.0.2.7' is not such as"),
        (server + "--range 192.0.2.9-192.0.2.19 --option ntp=pool", "'ntp=pool' is not such as ntp=192.0.2.3"),
        (server + "--range 192.0.2.9-192.0.2.19 --option nopt=192.0.2.3", "the names are log, mtu, ntp"),
        ("client eth0 --link-local=never", "'never' is not 'fallback'"),
        ("client eth0 --static 192.0.2.7/24 --host-name camera", "excludes"),
        ("init eth0 --address there", "'there' is not an address"),
        ("renew eth0 --release", "'renew' has no option '--release'"),
        ("server eth0 --address 10.0.0.1/8 --range 10.1.0.0 --count 1048577", "more than 1048576 addresses"),
        ("leases --sort size", "'size' is none of address, expiry, name and mac"),
    )

    def test_wrong_lines_are_refused_before_anybody_is_asked(self):
        for line, said in self.wrong:
            with self.subTest(line):
                result = self.run_tool("client", line)
                self.assertEqual((result.status, result.output), (2, ""), result.errors)
                self.assertRegex(result.errors, "\\A(ostrelctl|Usage): ")
                self.assertIn(said, result.errors)

    def test_what_the_daemon_takes_is_not_refused(self):
        daemon = self.daemon(host="client")
        for line in ("server eth0 --address 10.0.0.1/8 --range 10.1.0.0 --count 1048576 --lease 2147483647",
                     self.server + "--range 192.0.2.2-192.0.2.254 --lease 24855d",
                     self.server + "--range 192.0.2.2-192.0.2.2 --dns 10.0.0.1 --dns 10.0.0.2,10.0.0.3 --router 192.0.2.9",
                     ["client", "eth0", "--client-id", "x" * 254, "--no-start"], "client eth0 --address 192.0.2.7"):
            self.type("client", line, errors=".*")
            self.assertEqual(len(daemon.request("/", "interfaceConfigDump")["interfaceList"]), 1, line)
            self.type("client", "release eth0")

    def test_nobody_there(self):
        for line in ("status", "client eth0", "release eth0", "leases", "debug info"):
            result = self.run_tool("client", line)
            self.assertEqual((result.status, result.output), (3, ""), line)
            self.assertRegex(result.errors, "\\Aostrelctl: the daemon does not answer.*\n  start it with ")
        self.lab.kill_bus("client")
        lab.eventually(lambda: self.run_tool("client", "status").errors.startswith("ostrelctl: the system bus"), 5, "no bus")
        self.assertEqual(self.run_tool("client", "status").status, 3)

    def test_help_and_version(self):
        for command in re.findall("^  ([a-z]+) ", self.run_tool("client", "").errors, re.M):
            self.assertRegex(self.type("client", f"{command} --help"), rf"\nExamples:\n  [a-z ]*ostrelctl {command}")
            self.assertEqual(self.type("client", f"help {command}"), self.type("client", f"{command} -h"))
        self.assertEqual(self.type("client", "help"), self.type("client", "--help"))
        for word in ("--version", "-V", "version"):
            self.assertRegex(self.type("client", word), r"\Aostrelctl \d+\.\d+")


if __name__ == "__main__":
    lab.main()
