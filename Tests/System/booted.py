"""Machines of a lab that are booted: systemd as process 1, on this machine's own files with the packages over them.

Nothing of this machine is changed: what a booted one writes goes into memory. It has namespaces of its own, and the
network of its host in the lab. Its root is a mount that pivot_root(2) has made the root, as the units' sandboxes want it.
"""
import pathlib
import subprocess

import installed
import lab

# What a machine does at boot that a container has no use for, or that this machine has and the booted one shall not.
MASKED = ("systemd-udevd systemd-udev-trigger systemd-timesyncd systemd-logind systemd-networkd systemd-resolved "
          "systemd-random-seed systemd-remount-fs systemd-sysctl systemd-modules-load kmod-static-nodes systemd-firstboot "
          "systemd-machine-id-commit systemd-binfmt systemd-update-utmp systemd-update-utmp-runlevel systemd-user-sessions "
          "systemd-pstore systemd-hwdb-update apt-daily console-getty")
BOOT = """mount --make-rprivate /
root="$1/root"
mount -t tmpfs -o mode=755 tmpfs "$1"
mkdir "$1/upper" "$1/work" "$1/packages" "$root"
cp -a "$2/etc" "$2/usr" "$1/packages"
mount -t overlay overlay -o "lowerdir=$1/packages:/,upperdir=$1/upper,workdir=$1/work" "$root"
cp "$3" "$1/table.toml"
mount -t proc proc "$root/proc"
mount -t sysfs -o ro sysfs "$root/sys"
mount -t cgroup2 cgroup2 "$root/sys/fs/cgroup"
for path in dev run tmp; do mount -t tmpfs -o mode=755 tmpfs "$root/$path"; done
for name in null zero full random urandom tty; do
    touch "$root/dev/$name"
    mount --bind "/dev/$name" "$root/dev/$name"
done
mkdir "$root/dev/pts" "$root/dev/shm"
mount -t devpts -o newinstance,ptmxmode=0666,mode=620 devpts "$root/dev/pts"
ln -s pts/ptmx "$root/dev/ptmx"
ln -s /proc/self/fd "$root/dev/fd"
units="$root/etc/systemd/system"
rm -rf "$units" "$root"/etc/rc?.d "$root"/var/lib/ostrel "$root"/etc/ostrel/*
mkdir -p "$units" "$root/etc/ostrel" "$root/mnt"
: >"$root/etc/fstab"
for unit in $4; do ln -s /dev/null "$units/$unit.service"; done
for unit in systemd-udevd-control systemd-udevd-kernel systemd-networkd; do ln -s /dev/null "$units/$unit.socket"; done
mv "$1/table.toml" "$root/etc/ostrel/device.toml"
systemctl --quiet --root="$root" enable ostrel
cd "$root"
pivot_root . mnt
umount -l /mnt
exec env -i container=lab PATH="$PATH" "$5" --unit=multi-user.target """
SYSTEMD = "/lib/systemd/systemd"
PATH = "/usr/sbin:/usr/bin:/sbin:/bin"


class Machine:
    """A host of the lab that has been switched on, and is switched off with close()."""

    def __init__(self, made, host, packages, table, program=SYSTEMD):
        directory = made.directory / f"machine-{host}"
        directory.mkdir()
        self.said = made.directory / f"machine-{host}.out"
        with open(self.said, "wb") as sink:
            self.process = subprocess.Popen(
                ["ip", "netns", "exec", f"{made.prefix}-{host}", "unshare", "--mount", "--pid", "--fork", "--ipc", "--uts",
                 "--cgroup", "--kill-child", "sh", "-euc", BOOT, "boot", str(directory), str(packages),
                 made.file(f"{host}.toml", table), MASKED, program],
                stdin=subprocess.DEVNULL, stdout=sink, stderr=sink, env={"PATH": PATH})

    def run(self, *command):
        """Runs a command on it; gives its exit status and what it prints."""
        pid = self.process.pid
        children = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
        done = subprocess.run(["nsenter", "-t", children[0], "--all", *command], text=True, env={"PATH": PATH}, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT) if children else None
        return (done.returncode, done.stdout) if done else (-1, "")

    def journal(self):
        return self.said.read_text() + self.run("journalctl", "--no-pager", "-n", "60", "-o", "short-monotonic")[1]

    def close(self):
        self.process.kill()
        self.process.wait()


class BootedTest(lab.LabTest):
    """Its machines are switched on by the test."""

    def setUp(self):
        super().setUp()
        self.root = self.lab.directory / "installed"
        self.root.mkdir()
        installed.install(self.root)
        self.machines = {}
        probe = Machine(self.lab, self.hosts[0], self.root, "", program="/bin/true")
        if probe.process.wait() != 0 or not pathlib.Path(SYSTEMD).exists():
            self.skipTest("THIS MACHINE CAN BOOT NO CONTAINER; the package tests alone run what is installed: "
                          + probe.said.read_text())
        (self.lab.directory / f"machine-{self.hosts[0]}").rmdir()

    def boot(self, host, table):
        self.machines[host] = Machine(self.lab, host, self.root, table)
        self.addCleanup(self.machines[host].close)

    def words(self):
        return "\n".join(f"--- {host}:\n{machine.journal()}" for host, machine in self.machines.items())
