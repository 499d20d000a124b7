"""DHCP servers to compare, each set as its users set it for speed, and loads on them.

Each function starts one on the lab's host `server`, on the first processor, with so many addresses from FIRST on, and
gives what ends it. Its first line of text says how it is set. None probes an address before it offers it, none writes
more than errors, and what insists on a file for its leases has it on a tmpfs. All lease for an hour.
"""
import collections
import json
import pathlib
import re
import subprocess
import time

from common import ROOT, lab, run_load, server_request

ADDRESS, FIRST = "10.0.0.1", 0x0A000100  # of a /16
KNOWN = 0.95  # of the addresses are leased
ONE_PROCESSOR = ["taskset", "-c", "0"]  # the load has the last one
# A program that keeps files gets a tmpfs for them, at its first argument.
IN_MEMORY = ["sh", "-c", 'mount -t tmpfs tmpfs "$0" && exec "$@"']


def dotted(number):
    return ".".join(str(number >> shift & 255) for shift in (24, 16, 8, 0))


def last_of(slots):
    return dotted(FIRST + slots - 1)


def mac_of(client):
    """The address of dhcpload's client of that number."""
    return "02:c0:00:" + ":".join(f"{client + 1 >> shift & 255:02x}" for shift in (16, 8, 0))


def start(place, *command):
    process = place.start("server", *ONE_PROCESSOR, *command, output=place.directory / "server.out")
    return lambda: (process.kill(), process.wait())  # some would write down sixty thousand leases first


def start_with_files(place, *command):
    files = place.directory / "memory"
    files.mkdir()
    return start(place, *IN_MEMORY, files, *command)


def known_of(slots):
    return int(slots * KNOWN)


def leases_of(known, line):
    """The text of a lease file in which dhcpload's first clients have the first addresses for an hour."""
    ends = int(time.time()) + 3600
    return "".join(line.format(ends=ends, mac=mac_of(i), address=dotted(FIRST + i)) for i in range(known))


def responder(place, _slots, _known):
    """answers each frame with a frame, and keeps nothing"""
    return start(place, ROOT / "build/release/responder", "eth0")


def ostreld(place, slots, _known):
    """as installed, by the plain rules; its log, at notice, is the lab's file"""
    daemon = lab.Daemon(place, "server", "-z", "-l", "notice", wrapper=ONE_PROCESSOR)
    daemon.must("/", "interfaceInitialize", **server_request(ADDRESS, dotted(FIRST), slots))
    return daemon.close


def networkd(place, slots, _known):
    """systemd-networkd, its leases in memory; a larger pool, as it has no address for some where it is nearly full"""
    place.ip("server", "addr flush dev eth0")  # it wants to set it by itself
    network = place.file("1.network", f"""
[Match]
Name=eth0
[Network]
Address={ADDRESS}/16
LinkLocalAddressing=no
DHCPServer=yes
[DHCPServer]
PoolOffset=256
PoolSize={min(4 * slots, 65000)}
DefaultLeaseTimeSec=1h
EmitDNS=no
EmitNTP=no
""")
    return start(place, "sh", "-c", f"""
mount -t tmpfs tmpfs /run && mount -o remount,ro,bind /sys
mkdir -p /run/systemd/network /run/systemd/netif/leases /run/systemd/netif/links
cp {network} /run/systemd/network && chmod 644 /run/systemd/network/1.network && chown -R systemd-network /run/systemd/netif
exec env DBUS_SYSTEM_BUS_ADDRESS=unix:path=/run/none SYSTEMD_LOG_TARGET=console SYSTEMD_LOG_LEVEL=err \\
    /lib/systemd/systemd-networkd""")


def kea(place, slots, _known):
    """raw sockets, leases in memory, no reservations looked for, errors only"""
    settings = {"Dhcp4": {
        "interfaces-config": {"interfaces": ["eth0"], "dhcp-socket-type": "raw"},
        "lease-database": {"type": "memfile", "persist": False},
        "valid-lifetime": 3600, "authoritative": True, "reservations-in-subnet": False,
        "subnet4": [{"subnet": "10.0.0.0/16", "pools": [{"pool": f"{dotted(FIRST)} - {last_of(slots)}"}],
                     "option-data": [{"name": "routers", "data": ADDRESS}]}],
        "loggers": [{"name": "kea-dhcp4", "severity": "ERROR", "output_options": [{"output": "stdout"}]}]}}
    return start(place, "env", f"KEA_PIDFILE_DIR={place.directory}", f"KEA_LOCKFILE_DIR={place.directory}", "kea-dhcp4",
                 "-c", place.file("kea.conf", json.dumps(settings)))


def dnsmasq(place, slots, known):
    """--no-ping --quiet-dhcp --dhcp-authoritative, lease file on tmpfs"""
    memory = place.directory / "memory"
    leases = place.file("leases", leases_of(known, "{ends} {mac} {address} * *\n"))
    return start_with_files(place, "sh", "-c", f'cp {leases} {memory} && exec "$0" "$@"', "dnsmasq", "--no-daemon",
                            "--conf-file=/dev/null", "--port=0", "--interface=eth0", "--bind-interfaces", "--user=root",
                            "--no-ping", "--quiet-dhcp", f"--dhcp-lease-max={slots + 1}", "--dhcp-authoritative",
                            f"--dhcp-leasefile={memory}/leases", f"--pid-file={memory}/pid",
                            f"--dhcp-range={dotted(FIRST)},{last_of(slots)},255.255.0.0,1h")


def dhcpd(place, slots, known):
    """ping-check false, quiet, lease file on tmpfs"""
    configuration = place.file("dhcpd.conf", f"""
authoritative;
ping-check false;
default-lease-time 3600;
subnet 10.0.0.0 netmask 255.255.0.0 {{ range {dotted(FIRST)} {last_of(slots)}; option routers {ADDRESS}; }}
""")
    memory = place.directory / "memory"
    leases = place.file("leases", leases_of(known, "lease {address} {{ starts epoch 1; ends epoch {ends}; binding state "
                                                   "active; hardware ethernet {mac}; }}\n"))
    return start_with_files(place, "sh", "-c", f"cp {leases} {memory} && exec dhcpd -4 -f -q --no-pid -lf "
                                               f"{memory}/leases -cf {configuration} eth0")


def udhcpd(place, slots, _known):
    """one millisecond for its ARP check, lease file on tmpfs"""
    memory = place.directory / "memory"
    configuration = place.file("udhcpd.conf", f"""
start {dotted(FIRST)}
end {last_of(slots)}
max_leases {slots}
interface eth0
lease_file {memory}/leases
pidfile {memory}/pid
option subnet 255.255.0.0
option lease 3600
""")
    return start_with_files(place, "udhcpd", "-f", "-a", "1", configuration)


SERVERS = {one.__name__: one for one in (responder, ostreld, networkd, kea, dnsmasq, dhcpd, udhcpd)}
SLOW = {"udhcpd"}  # some ten exchanges a second: it opens and closes sockets for each frame
PATIENCE = 90  # seconds that one may take to read its leases
READS_LEASES = {"dnsmasq", "dhcpd"}  # to fill a large table takes them minutes: they begin with a full one


Measured = collections.namedtuple("Measured", "rate cost complete text")  # a second; microseconds of processor


class Lab:
    """A lab in which one server runs, ready to answer. `full`: nearly all its addresses are leased, to dhcpload's first
    clients; `filled` then tells how that went, where it was done with exchanges."""

    def __init__(self, name, slots, full=True):
        self.name, self.slots, self.filled = name, slots, None
        self.place = lab.Lab("client", "server")
        self.end = lambda: None
        known = known_of(slots) if full else 0
        try:
            self.place.ip("server", f"addr add {ADDRESS}/16 dev eth0")
            self.end = SERVERS[name](self.place, slots, known)
            lab.eventually(lambda: run_load(self.place, "-c", 1, "-n", 1, "-w", 1, "-t", 1).complete, PATIENCE,
                           f"{name} serves")
            if known and name not in READS_LEASES:
                self.filled = self.run(known, known, 4 if name in SLOW else 32)
        except BaseException:
            self.close()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        try:
            self.end()
        finally:
            self.place.close()

    def processor_seconds(self):
        """Of all programs of the server's host but the message bus."""
        bus = (self.place.directory / "bus" / "server.pid").read_text().strip()
        pids = subprocess.run(["ip", "netns", "pids", f"{self.place.prefix}-server"], check=True, capture_output=True,
                              text=True)
        tasks = [task for pid in pids.stdout.split() if pid != bus
                 for task in pathlib.Path(f"/proc/{pid}/task").iterdir()]
        return sum(int((task / "schedstat").read_text().split()[0]) for task in tasks) / 1e9

    def run(self, clients, exchanges, window, *more, seconds=120):
        before = self.processor_seconds()
        done = run_load(self.place, "-c", clients, "-n", exchanges, "-w", min(window, clients), "-t", seconds, *more)
        cost = (self.processor_seconds() - before) / exchanges * 1e6
        return Measured(done.rate, cost, done.complete, done.text)

    def known(self, seconds, window=32, clients=190, renewing=False):
        """Clients that come back in turns, for so many seconds or nearly."""
        clients, window = (10, min(window, 4)) if self.name in SLOW else (clients, window)
        exchanges = clients
        while True:
            got = self.run(clients, exchanges, window)
            if exchanges >= 0.2 * got.rate * seconds:
                break
            exchanges = max(clients, int(0.25 * got.rate * seconds))
        if not renewing:
            return self.run(clients, max(clients, int(got.rate * seconds)), window)
        number = max(4 * clients, int(got.rate * seconds * 1.8))  # half the messages, somewhat less than half the work
        renewed = self.run(clients, number, window, "-r")
        return renewed._replace(cost=renewed.cost - got.cost * clients / number)  # their first exchanges aren't counted


def waits_of(text):
    """Microseconds: medians and 99th percentiles of DISCOVER to OFFER, and of REQUEST to ACK."""
    return [float(wait) for wait in re.findall(r"(?:median|99 %) ([\d.]+)", text)]


def trouble_of(text):
    """The counts of what should not happen, without those that are zero."""
    done, of = re.search(r"exchanges (\d+) of (\d+)", text).groups()
    counts = re.findall(r"(sent again|given up|refused|acknowledged twice) (\d+)", text)
    missing = [] if done == of else [f"{done} of {of}"]
    return ", ".join(missing + [" ".join(each) for each in counts if each[1] != "0"])
