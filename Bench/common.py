"""What the measurements share: the labs of the system tests, and runs of the load generator in them."""
import collections
import os
import pathlib
import re
import subprocess
import sys

sys.dont_write_bytecode = True
ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "Tests" / "System"))
os.environ.setdefault("OSTRELD", str(ROOT / "build/release/ostreld"))

import lab  # noqa: E402  (after the path and the program are known)

Outcome = collections.namedtuple("Outcome", "rate complete text")


def run_load(place, *options):
    """Runs dhcpload on the lab's host `client`."""
    # The last processor, if there are several: a server may be kept on the first.
    command = [lab.SCRIPT, "run", str(place.directory), "client", "taskset", "-c", str(os.cpu_count() - 1),
               str(ROOT / "build/release/dhcpload"), *map(str, options), "eth0"]
    done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=300)
    rate = re.search(r"(\d+) a second", done.stdout)
    if rate is None:
        raise RuntimeError(f"no load was made: {done.stdout}{done.stderr}")
    return Outcome(float(rate[1]), done.returncode == 0, done.stdout + done.stderr)


def server_request(address, first, slots):
    return {"interface": "eth0", "mode": "server", "ipv4Address": address, "ipv4Subnet": "255.255.0.0",
            "ipv4Router": address, "ipv4RangeStart": first, "maxLeases": slots, "leaseTime": 3600}


__all__ = ["ROOT", "Outcome", "lab", "run_load", "server_request"]
