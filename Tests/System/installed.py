"""A lab whose hosts have the packages installed.

Their files lie over /usr, in the mount namespace of what runs there; the accounts are those of the machine, those of the
packages, and the users `stranger` and `member`, of whom the second is in the group that may call. The bus is configured
as on any machine, with the policies and activation files of /usr, and found in the usual place.
"""
import collections
import contextlib
import os
import pathlib
import re
import shutil
import subprocess
import sys

import lab

BUILD = pathlib.Path(lab.OSTRELD).parent
OVERLAY = """mount -t overlay overlay -o "lowerdir=$0/usr:/usr" /usr
mount --bind "$0/etc/passwd" /etc/passwd
mount --bind "$0/etc/group" /etc/group
mount -t tmpfs -o mode=755 tmpfs /run
mkdir /run/dbus
ln -s "${DBUS_SYSTEM_BUS_ADDRESS#unix:path=}" /run/dbus/system_bus_socket
exec "$@" """
USERS = "u stranger - - -\nu member - - -\nm member ostrel\n"

# Lets the process make the calls named before "--", and no others from its next program on; one more is its end.
FILTER = """import ctypes, os, sys
KILL_PROCESS, ALLOW = 0x80000000, 0x7fff0000
seccomp = ctypes.CDLL("libseccomp.so.2")
seccomp.seccomp_init.restype = ctypes.c_void_p
context = ctypes.c_void_p(seccomp.seccomp_init(ctypes.c_uint32(KILL_PROCESS)))
end = sys.argv.index("--")
numbers = [seccomp.seccomp_syscall_resolve_name(name.encode()) for name in sys.argv[1:end]]
for number in numbers:  # negative: not a call of this architecture
    if number >= 0 and seccomp.seccomp_rule_add(context, ctypes.c_uint32(ALLOW), number, 0) != 0:
        sys.exit("a call cannot be allowed")
if seccomp.seccomp_load(context) != 0:
    sys.exit("no filter")
os.execv(sys.argv[end + 1], sys.argv[end + 1:])
"""


def install(root):
    """Makes the packages and unpacks them; the accounts that they ask for are in root/etc."""
    made = subprocess.run(["cpack", "-G", "DEB", "--config", str(BUILD / "CPackConfig.cmake"),
                           "-B", str(root / "made")], capture_output=True, text=True)
    if made.returncode != 0:
        raise RuntimeError(made.stdout + made.stderr)
    for package in ("ostreld", "ostrelctl"):
        (archive,) = (root / "made").glob(f"{package}_*.deb")
        subprocess.run(["dpkg-deb", "-x", str(archive), str(root)], check=True)
    (root / "etc").mkdir(exist_ok=True)
    for accounts in ("passwd", "group"):
        shutil.copy(f"/etc/{accounts}", root / "etc")
    (root / "usr/lib/sysusers.d/test.conf").write_text(USERS)
    subprocess.run(["systemd-sysusers", f"--root={root}"], check=True, stderr=subprocess.DEVNULL)


class Unit:
    """The settings of a unit file; each is the list of its values, in order."""

    def __init__(self, path):
        self.settings = collections.defaultdict(list)
        for key, value in re.findall(r"^(\w+)=(.*)$", path.read_text(), re.MULTILINE):
            self.settings[key].append(value)

    def __getitem__(self, key):
        (value,) = self.settings[key]
        return value

    def system_calls(self):
        """The calls that the unit's filter lets pass."""
        allowed = set()
        for line in self.settings["SystemCallFilter"]:
            calls = {call for word in line.lstrip("~").split() for call in members(word)}
            allowed = allowed - calls if line.startswith("~") else allowed | calls
        return sorted(allowed)


def members(word):
    """A system call, or the calls of a group with those of the groups in it."""
    if not word.startswith("@"):
        return {word}
    listing = subprocess.run(["systemd-analyze", "syscall-filter", "--no-pager", word], check=True, text=True,
                             stdout=subprocess.PIPE).stdout
    words = re.findall(r"^ +([@\w-]+)$", listing, re.MULTILINE)
    return {call for member in words for call in members(member)}


class InstalledTest(lab.LabTest):
    def setUp(self):
        super().setUp()
        self.root = self.lab.directory / "installed"
        self.root.mkdir()
        install(self.root)
        self.unit = Unit(self.root / "usr/lib/systemd/system/ostreld.service")
        self.lab.parent.chmod(0o711)  # other users have to reach the bus
        for host in self.hosts:
            self.start_bus(host)

    def start_bus(self, host):
        """The bus of a machine instead of the lab's, which lets everybody do everything."""
        self.lab.kill_bus(host)
        lab.eventually(lambda: not self.answers(host), 5, "end of the lab's bus")
        (self.lab.directory / "bus" / f"{host}.socket").unlink(missing_ok=True)
        self.peer(host, *self.on_it("dbus-daemon", "--system", "--nofork", "--nopidfile",
                                    f"--address={self.lab.bus_address(host)}"))
        lab.eventually(lambda: self.answers(host), 10, "bus of a machine")

    def answers(self, host):
        try:
            lab.Bus(self.lab.bus_address(host)).owner()
        except lab.BusError:
            return False
        return True

    def on_it(self, *command):
        """A command where the package is installed."""
        return ["sh", "-ec", OVERLAY, str(self.root), *command]

    def run_on(self, host, *command):
        done = subprocess.run([lab.SCRIPT, "run", str(self.lab.directory), host, *self.on_it(*command)], text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        return done.returncode, done.stdout

    def ids(self, user):
        """A user's id, group id and further groups."""
        entries = [line.split(":") for line in (self.root / "etc/passwd").read_text().splitlines()]
        (uid, gid), = [(int(entry[2]), int(entry[3])) for entry in entries if entry[0] == user]
        groups = [line.split(":") for line in (self.root / "etc/group").read_text().splitlines()]
        return uid, gid, [int(group[2]) for group in groups if user in group[3].split(",")]

    def bus_as(self, user, host="client"):
        """A connection of a user: the bus asks the kernel who opened the socket."""
        uid, gid, groups = self.ids(user)
        with contextlib.ExitStack() as restored:
            restored.callback(os.setgroups, os.getgroups())
            os.setgroups(groups)
            restored.callback(os.setegid, os.getegid())
            os.setegid(gid)
            restored.callback(os.seteuid, os.geteuid())
            os.seteuid(uid)
            bus = lab.Bus(self.lab.bus_address(host))
        self.addCleanup(bus.close)
        return bus

    def confined(self):
        """What makes a program of the package run as the unit has it: user, capabilities, system calls."""
        uid, gid, _ = self.ids(self.unit["User"])
        rights = {key: ",".join(["-all"] + [f"+{name.removeprefix('CAP_').lower()}" for name in self.unit[key].split()])
                  for key in ("CapabilityBoundingSet", "AmbientCapabilities")}
        return self.on_it("setpriv", f"--reuid={uid}", f"--regid={gid}", "--clear-groups", "--no-new-privs",
                          f"--bounding-set={rights['CapabilityBoundingSet']}",
                          f"--inh-caps={rights['AmbientCapabilities']}",
                          f"--ambient-caps={rights['AmbientCapabilities']}",
                          sys.executable, "-c", FILTER, *self.unit.system_calls(), "--")
