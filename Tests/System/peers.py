"""DHCP servers that others wrote, told to hand out one and the same network.

Each function gives the command of a server for the host `server`, whose own address is SERVER. The lease is short where
the program allows it: dnsmasq gives none under two minutes, so it is told when its leases are to be renewed.
"""
from lab import eventually

SERVER = "192.0.2.1"
ROUTERS = ["192.0.2.1", "192.0.2.2"]
DNS_SERVERS = ["192.0.2.3", "192.0.2.4"]
DOMAIN = "lab.example"
FIRST, LAST = 50, 60
READY = {"dnsmasq": "sockets bound", "udhcpd": "started", "dhcpd": "Server starting service"}


def start(test, command):
    """Starts a server on its host for the rest of the test, and waits until it serves."""
    output = test.lab.directory / f"{command[0]}.server.out"
    before = output.read_text() if output.exists() else ""
    process = test.peer("server", *command)
    eventually(lambda: READY[command[0]] in output.read_text()[len(before):], 20, f"{command[0]} ready")
    return process


def dnsmasq(lab, lease=120):
    lab.ip("server", f"addr add {SERVER}/24 dev eth0")
    return ["dnsmasq", "--no-daemon", "--conf-file=/dev/null", "--port=0", "--interface=eth0", "--bind-interfaces",
            "--user=root", "--no-ping", "--log-dhcp", f"--dhcp-leasefile={lab.directory}/leases",
            f"--pid-file={lab.directory}/dnsmasq.pid",
            f"--dhcp-range=192.0.2.{FIRST},192.0.2.{LAST},255.255.255.0,{lease}",
            f"--dhcp-option=option:router,{','.join(ROUTERS)}",
            f"--dhcp-option=option:dns-server,{','.join(DNS_SERVERS)}", f"--dhcp-option=option:domain-name,{DOMAIN}",
            "--dhcp-option-force=option:T1,4", "--dhcp-option-force=option:T2,100"]


def udhcpd(lab, lease=10):
    lab.ip("server", f"addr add {SERVER}/24 dev eth0")
    leases = lab.file("leases", "")
    return ["udhcpd", "-f", lab.file("udhcpd.conf", f"""
start 192.0.2.{FIRST}
end 192.0.2.{LAST}
max_leases {LAST - FIRST + 1}
interface eth0
lease_file {leases}
pidfile {lab.directory}/udhcpd.pid
min_lease 5
option subnet 255.255.255.0
option router {' '.join(ROUTERS)}
option dns {' '.join(DNS_SERVERS)}
option domain {DOMAIN}
option lease {lease}
""")]


def dhcpd(lab, lease=10, last=LAST):
    lab.ip("server", f"addr add {SERVER}/24 dev eth0")
    leases = lab.file("leases", "")
    return ["dhcpd", "-4", "-f", "-d", "--no-pid", "-lf", leases, "-cf", lab.file("dhcpd.conf", f"""
authoritative;
ping-check false;
min-lease-time 5;
default-lease-time {lease};
max-lease-time {lease};
subnet 192.0.2.0 netmask 255.255.255.0 {{
    range 192.0.2.{FIRST} 192.0.2.{last};
    option routers {', '.join(ROUTERS)};
    option domain-name-servers {', '.join(DNS_SERVERS)};
    option domain-name "{DOMAIN}";
}}
"""), "eth0"]


def dhcpd_again(lab):
    """The same server once more, with the leases it knew."""
    return ["dhcpd", "-4", "-f", "-d", "--no-pid", "-lf", lab.directory / "leases", "-cf",
            lab.directory / "dhcpd.conf", "eth0"]
