"""Labs for Scripts/torture: hosts whose programs are started again whenever they end, and what must hold of them.

A Site is a lab with one server and some clients, each a Station: ostreld with `ostrelctl run`, or a program that others
wrote. A station's `problems` are what is wrong with it now; while it is tormented some are to be expected.
"""
import collections
import json
import os
import pathlib
import re
import signal
import subprocess
import threading
import time

import lab
import peers
import roles_test
import wire

OSTRELCTL = str(pathlib.Path(lab.OSTRELD).parent / "ostrelctl")
NETWORK = "192.0.2."
CLIENT = '["eth*"]\nrole = "client"\n'
SERVER = '[eth0]\nrole = "server"\naddress = "192.0.2.1/24"\nrange = "192.0.2.20-192.0.2.250"\nlease = "{lease}"\n'
SCRIPT = """#!/bin/sh
address=${ip:-$new_ip_address}
ip -4 addr show dev eth0 | grep -q " $address/" || ip -4 addr flush dev eth0
[ -z "$address" ] || ip addr replace "$address/24" dev eth0
"""
BUS_LOST = (3, 212)  # how ostrelctl run and ostreld end with their bus
LOGGED = re.compile(r"\] client ([A-Z-]+), (\w+)|\] client gives up \S+, (\w+)|(OSTREL STARTED)")


class Program:
    """A program on a host. It is started again a second after it has ended."""

    def __init__(self, station, name, command, mortal=True, ends=()):
        self.station, self.name, self.command, self.mortal, self.ends = station, name, command, mortal, ends
        self.process, self.killed, self.again, self.stopped = None, False, 0.0, False
        self.sizes = []  # of the process that runs now, at each rest: resident KiB, descriptors

    def start(self):
        site = self.station.site
        self.process = site.lab.start(self.station.name, *self.command(), output=site.output(self))
        self.killed = self.stopped = False
        self.sizes = []

    def pid(self):
        """The process itself, and not the one that gives it a clock of its own."""
        pid = self.process.pid
        while "unshare" in pathlib.Path(f"/proc/{pid}/comm").read_text():
            pid = int(pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()[0])
        return pid

    def send(self, number):
        """Whether it could be sent: a process may end at this moment, or have ended."""
        if self.process is None:
            return False
        try:
            os.kill(self.pid(), number)
        except (OSError, IndexError):
            return False
        return True

    def kill(self, number=signal.SIGKILL):
        self.killed = True
        self.send(number)

    def watch(self):
        """Starts it again if it has ended; gives what is wrong about the end."""
        if self.process is None:
            if time.monotonic() >= self.again:
                self.start()
            return None
        status = self.process.poll()
        if status is None:
            return None
        self.process, self.again = None, time.monotonic() + 1
        ours = self.name in ("ostreld", "run")
        expected = self.killed or not ours or status in self.ends and self.station.bus_was_lost
        return None if expected else f"{self.name} ended with {status}"

    def measure(self):
        process = pathlib.Path(f"/proc/{self.pid()}")
        resident = int(re.search(r"VmRSS:\s+(\d+)", (process / "status").read_text())[1])
        self.sizes.append((resident, len(list((process / "fd").iterdir()))))


class Listener(threading.Thread):
    """Subscribes to each daemon that comes to the station's bus, and keeps what each posts: a list of posts a daemon."""

    def __init__(self, address):
        super().__init__(daemon=True)
        self.address, self.heard, self.ended = address, [], False
        self.start()

    def run(self):
        while not self.ended:
            try:
                bus = lab.Bus(self.address)
                self.listen(bus)
                bus.close()
            except (lab.BusError, ValueError, OSError):
                time.sleep(0.1)

    def listen(self, bus):
        bus.watch_name()
        owner = None
        while not self.ended:
            if owner is None and (owner := bus.owner()):
                reply = bus.request("/", "interfaceState", subscribe=True)
                self.heard.append([])
                self.take(reply)
            got = bus.next_signal(0.5)
            if got and got[1] == "NameOwnerChanged":
                owner = None
            elif got and got[1] == "interfaceStateUpdate":
                self.take(json.loads(got[2]))

    def take(self, told):
        for entry in told.get("interfaceList", []):
            if "client" in entry:
                step = entry["client"]["state"], entry["client"]["reason"]
                if self.heard[-1][-1:] != [step]:
                    self.heard[-1].append(step)


class Station:
    """A host with programs. `kind` is ours, or the name of who wrote its only program."""

    def __init__(self, site, name, kind, role="client", mortal=True, lease="10m", plain=False):
        self.site, self.name, self.kind, self.role, self.mortal = site, name, kind, role, mortal
        self.busy, self.bus_was_lost, self.listener, self.plain = set(), False, None, plain
        self.state = site.lab.directory / f"state-{name}"
        if kind != "ours":
            self.programs = [Program(self, kind, lambda: site.others[self.kind](self), True)]
            return
        self.state.mkdir()
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "tmpfs", self.state], check=True)
        text = SERVER.format(lease=lease) if role == "server" else CLIENT + ("plain = true\n" if plain else "")
        self.file = pathlib.Path(site.lab.file(f"{name}.toml", text))
        self.programs = [Program(self, "ostreld", self.daemon, mortal, BUS_LOST),
                         Program(self, "run", self.run, mortal, BUS_LOST)]
        if role == "client":
            self.listener = Listener(site.lab.bus_address(name))

    def daemon(self):
        """With a clock of its own, which may be about to pass a power of two of milliseconds."""
        seconds = self.site.rng.choice([0, 0, 2 ** 31 // 1000 - 100, 2 ** 32 // 1000 - 100, 2 ** 31 - 100])
        clock = ["unshare", "--time", f"--monotonic={seconds}", f"--boottime={seconds}", "--fork", "--kill-child=KILL"]
        return [*(clock if seconds else []), lab.OSTRELD, "-z", "-l", "info"]

    def run(self):
        return [OSTRELCTL, "run", self.file, "--state", self.state]

    def mac(self):
        return f"02:00:00:00:00:{self.site.names.index(self.name) + 1:02x}"

    def addresses(self):
        shown = self.site.ip(self.name, "-j -4 address show")
        return [entry["local"] for link in json.loads(shown or "[]") for entry in link.get("addr_info", [])
                if entry["local"].startswith(NETWORK)]

    def ask(self, category, method, **keys):
        bus = lab.Bus(self.site.lab.bus_address(self.name))
        try:
            return bus.request(category, method, **keys)["interfaceList"]
        finally:
            bus.close()

    def table(self):
        """The server's leases: MAC to address."""
        return {row["mac"]: row["ipv4Address"] for entry in self.ask("/server", "leaseInformation")
                for row in entry["leases"]}

    def problems(self):
        """What is not as it should be, in words."""
        try:
            addresses = self.addresses()
            if self.kind != "ours":
                return [] if len(addresses) == 1 else [f"has addresses {addresses}"]
            pictures = self.ask("/", "interfaceState")
            if len(pictures) != 1:
                return [f"manages {[picture['interface'] for picture in pictures]}"]
            if self.role == "server":
                return self.server_problems(addresses)
            client = pictures[0]["client"]
            if self.plain and not addresses and (client["nextTry"] or 0) > time.time():
                return []  # by these rules it waits up to 512 seconds, whatever the link does
            if not client["held"] or addresses != [client["ipv4Address"]]:
                return [f"kernel has {addresses}, daemon {client}"]
        except (lab.BusError, KeyError, ValueError) as error:
            return [f"does not answer: {error!r}"]
        return []

    def server_problems(self, addresses):
        found = [] if addresses == ["192.0.2.1"] else [f"has addresses {addresses}"]
        table = self.table()
        for other in self.site.stations:
            has = other.addresses() if other is not self else []
            if has and [table.get(other.mac())] != has:
                found.append(f"{other.name} has {has}, the table {table.get(other.mac())}")
        state = self.state / "state.json"
        kept = state.read_text() if state.exists() else ""
        return found + [f"{mac} is not on the disk" for mac in table if mac not in kept]

    def log(self):
        return self.site.lab.log(self.name)

    def untrue(self):
        """How the steps of the log and those of the posts differ, daemon by daemon."""
        lives = []  # of each, its steps, and whether another may have come at the same moment, with which it was posted
        for state, reason, given_up, started in LOGGED.findall(self.log()):
            if started:
                lives.append([])
            elif lives and lives[-1] and given_up:
                lives[-1].append(((lives[-1][-1][0][0], given_up), True))
            elif lives and state:
                lives[-1].append(((state, reason), False))
        at = 0
        for number, heard in enumerate(list(self.listener.heard) if self.listener else []):
            while at < len(lives) and not tells(heard, lives[at]):
                at += 1
            if at == len(lives):
                return [f"posts of its daemon {number} are in no log: {heard[-30:]}"]
        return []


def tells(heard, logged):
    """Whether what was heard was logged, without a gap, from anywhere on."""
    return any(goes_along(heard, logged[start:]) for start in range(len(logged) + 1 - bool(heard)))


def goes_along(heard, logged):
    before, left = None, list(heard)
    for step, may_be_missing in logged:
        if not left:
            return True
        if step == left[0]:
            before = left.pop(0)
        elif step != before and not may_be_missing:
            return False
    return not left


class Site:
    """A lab, with a place for a stranger."""

    def __init__(self, name, rng, stations):
        self.name, self.rng, self.names = name, rng, [*(words["name"] for words in stations), "stranger"]
        self.lab = lab.Lab(*self.names)
        script = pathlib.Path(self.lab.file("script", SCRIPT))
        script.chmod(0o755)
        self.others = {
            "udhcpc": lambda _: ["udhcpc", "-f", "-i", "eth0", "-s", script],
            "dhclient": lambda station: ["dhclient", "-4", "-d", "-sf", script, "-lf", self.kept(station), "-pf",
                                         f"{self.lab.directory}/{station.name}.pid", "-cf", "/dev/null", "eth0"],
            "dhcpcd": lambda station: [*roles_test.OWN_STATE, "dhcpcd", "-B", "-4", "-A", "-c", script, "-f",
                                       self.lab.file("dhcpcd.conf", ""), "eth0"],
            "dnsmasq": lambda _: self.serve(peers.dnsmasq), "dhcpd": lambda _: self.serve(peers.dhcpd, 30),
            "udhcpd": lambda _: self.serve(peers.udhcpd, 30)}
        self.stations = [Station(self, **words) for words in stations]
        self.server = self.stations[0]
        self.stranger = wire.packet_socket(self.lab.namespace("stranger"), "eth0")
        self.stranger.setblocking(False)
        self.frames = collections.deque(maxlen=200)

    def kept(self, station):
        path = self.lab.directory / f"{station.name}.leases"
        path.touch()
        return path

    def serve(self, make, *lease):
        self.ip("server", "addr flush dev eth0")
        return make(self.lab, *lease)

    def output(self, program):
        return self.lab.directory / "log" / program.station.name / f"{program.name}.out"

    def ip(self, host, arguments):
        """What ip says; it may fail, as what it should change may be away for now."""
        return subprocess.run(["ip", "-n", f"{self.lab.prefix}-{host}", *arguments.split()], stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, text=True).stdout

    def start_bus(self, host):
        path = self.lab.directory / "bus" / host
        path.with_suffix(".socket").unlink(missing_ok=True)
        subprocess.run(["ip", "netns", "exec", f"{self.lab.prefix}-{host}", "sh", "-c",
                        'exec dbus-daemon --config-file="$0.conf" --fork --print-pid=3 3>"$0.pid"', path], check=True,
                       stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def hear(self):
        """Takes the frames that the stranger has heard."""
        try:
            while True:
                self.frames.append(self.stranger.recv(65535))
        except OSError:
            pass

    def problems(self):
        found = [f"{self.name} {station.name}: {problem}" for station in self.stations for problem in station.problems()]
        holders = collections.defaultdict(list)
        for station in self.stations:
            for address in station.addresses():
                holders[address].append(station.name)
        return found + [f"{self.name}: {address} is of {names}" for address, names in holders.items() if len(names) > 1]

    def close(self):
        for station in self.stations:
            if station.listener:
                station.listener.ended = True
            for program in station.programs:
                if program.process:
                    program.kill()
                    program.process.wait()
            if station.kind == "ours":
                subprocess.run(["umount", station.state])
        self.stranger.close()
        self.lab.close()
