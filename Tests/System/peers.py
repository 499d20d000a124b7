"""DHCP servers that others wrote, told to hand out one and the same network.

Each function gives the command of a server for the host `server`, whose own address is SERVER. The lease is short where
the program allows it: dnsmasq gives none under two minutes, so it is told when its leases are to be renewed.
"""
import json

from lab import eventually

SERVER = "192.0.2.1"
ROUTERS = ["192.0.2.1", "192.0.2.2"]
DNS_SERVERS = ["192.0.2.3", "192.0.2.4"]
DOMAIN = "lab.example"
FIRST, LAST = 50, 60
READY = {"dnsmasq": "sockets bound", "udhcpd": "started", "dhcpd": "Server starting service",
         "kea-dhcp4": "DHCP4_STARTED", "dhcrelay": "Sending on"}


def start(test, command):
    """Starts a server on its host for the rest of the test, and waits until it serves."""
    name = next(word for word in command if word in READY)
    output = test.lab.directory / f"{name}.server.out"
    before = output.read_text() if output.exists() else ""
    process = test.peer("server", *command, output=output)
    eventually(lambda: READY[name] in output.read_text()[len(before):], 20, f"{name} ready")
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


def kea(lab, lease=10):
    lab.ip("server", f"addr add {SERVER}/24 dev eth0")
    options = {"routers": ROUTERS, "domain-name-servers": DNS_SERVERS, "domain-name": [DOMAIN]}
    settings = {"Dhcp4": {
        "interfaces-config": {"interfaces": ["eth0"], "dhcp-socket-type": "raw"},
        "lease-database": {"type": "memfile", "persist": False},
        "valid-lifetime": lease, "min-valid-lifetime": 5, "renew-timer": lease // 2, "rebind-timer": lease * 7 // 8,
        "authoritative": True,
        "subnet4": [{"subnet": "192.0.2.0/24", "pools": [{"pool": f"192.0.2.{FIRST} - 192.0.2.{LAST}"}],
                     "option-data": [{"name": name, "data": ", ".join(data)} for name, data in options.items()]}],
        "loggers": [{"name": "kea-dhcp4", "severity": "DEBUG", "debuglevel": 50,
                     "output_options": [{"output": "stdout"}]}]}}
    return ["env", f"KEA_PIDFILE_DIR={lab.directory}", f"KEA_LOCKFILE_DIR={lab.directory}", "kea-dhcp4", "-c",
            lab.file("kea.conf", json.dumps(settings))]


def dhcpd_again(lab):
    """The same server once more, with the leases it knew."""
    return ["dhcpd", "-4", "-f", "-d", "--no-pid", "-lf", lab.directory / "leases", "-cf",
            lab.directory / "dhcpd.conf", "eth0"]
