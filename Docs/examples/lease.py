#!/usr/bin/python3
"""Hands an interface to the daemon, and prints its lease when it is new or renewed, and when it is gone.

    lease.py IFACE [COUNT]

Runs until COUNT leases have been printed, or until stopped. The daemon posts a lease when its address has passed the
ARP check. It doesn't post the loss of one, so this program also asks, every two seconds. A daemon that is restarted
knows nothing any more and is told everything again; a lease that the one before it gave stands until it ends.

Any process may send a signal to any other, with any contents: only what the owner of the daemon's name sends counts.

The bus is spoken through GLib (package python3-gi): it brings the event loop that a subscriber needs, it follows the
owner of a bus name, and most Python programs of Debian that speak D-Bus have it installed already.
"""
import json
import math
import sys
import time

from gi.repository import Gio, GLib

SERVICE = "org.ostrel.dhcp"
ASK_SECONDS = 2
CHECK_SECONDS = 3  # the ARP check takes two; meanwhile replies show the lease already
ENDLESS = (0, 4294967295)  # a configured address, and a lease without an end
UNSET = {"ipv4Address": "0.0.0.0", "ipv4Subnet": "0.0.0.0", "ipv4Router": "0.0.0.0", "ipv4RangeStart": "0.0.0.0"}


class Refused(Exception):
    pass


def seconds_left(lease):
    """Read at once and kept on the monotonic clock: the text is local time, and the device's clock may be set."""
    if lease["leaseTime"] in ENDLESS:
        return math.inf
    end = time.mktime(time.strptime(lease["leaseExpiryString"], "%a %b %d %H:%M:%S %Y"))
    return min(end - time.time(), lease["leaseTime"])


class Subscriber:
    def __init__(self, bus, interface, count):
        self.bus, self.interface, self.left = bus, interface, count
        self.loop, self.failure = GLib.MainLoop(), None
        self.lease, self.end = None, math.inf  # what was printed last, and when it ends
        self.owner, self.is_from_this_daemon = None, False
        self.shown, self.shown_since = None, 0  # the address that replies show
        bus.signal_subscribe(SERVICE, f"{SERVICE}.client", "leaseInformationUpdate", "/client", None,
                             Gio.DBusSignalFlags.NONE, self.on_post)
        Gio.bus_watch_name_on_connection(bus, SERVICE, Gio.BusNameWatcherFlags.NONE, self.on_daemon, self.on_no_daemon)
        GLib.timeout_add_seconds(ASK_SECONDS, self.on_time_to_ask)

    def request(self, path, method, **keys):
        interface = SERVICE if path == "/" else f"{SERVICE}.{path[1:]}"
        reply = self.bus.call_sync(SERVICE, path, interface, method, GLib.Variant("(s)", (json.dumps(keys),)),
                                   GLib.VariantType("(s)"), Gio.DBusCallFlags.NO_AUTO_START, 5000, None)
        answer = json.loads(reply.unpack()[0])
        if answer["returnValue"] is not True:
            raise Refused(f"{method} was refused; the daemon's log says why")
        return answer

    def on_daemon(self, _bus, _name, owner):
        """It is there: it was before us, or it has been started, for the first time or again."""
        self.owner, self.is_from_this_daemon = owner, False
        try:
            managed = self.request("/", "interfaceConfigDump", interface=self.interface)["interfaceList"]
            is_new = all(entry["interface"] != self.interface for entry in managed)
            if is_new:
                self.request("/", "interfaceInitialize", interface=self.interface, mode="client", **UNSET)
            self.request("/client", "leaseInformation", interface=self.interface, subscribe=True)
            if is_new:
                self.request("/client", "leaseAction", interface=self.interface, leaseAction="init")
        except (Refused, GLib.Error) as error:
            self.on_error(error)

    def on_no_daemon(self, *_):
        self.owner = None
        print("lease.py: waiting for the daemon", file=sys.stderr, flush=True)

    def on_post(self, _bus, sender, _path, _interface, _member, parameters):
        lease = sender == self.owner and self.lease_in(json.loads(parameters.unpack()[0]))
        if lease:
            self.take(lease)

    def on_time_to_ask(self):
        now = time.monotonic()
        if self.lease and now > self.end:
            self.lose()
        try:
            lease = self.lease_in(self.request("/client", "leaseInformation", interface=self.interface))
        except (Refused, GLib.Error) as error:
            self.on_error(error)
            return GLib.SOURCE_CONTINUE
        address = lease and lease["ipv4Address"]
        if address != self.shown:
            self.shown, self.shown_since = address, now
        if self.lease and self.is_from_this_daemon and address != self.lease["ipv4Address"]:
            self.lose()
        if lease and now - self.shown_since >= CHECK_SECONDS and not self.is_from_this_daemon:
            self.take(lease)  # given before we listened
        return GLib.SOURCE_CONTINUE

    def lease_in(self, message):
        """This interface's lease. An address without "leaseTime" is link-local, one without a subnet only a wish."""
        for lease in message["interfaceList"]:
            if lease["interface"] == self.interface and "leaseTime" in lease and lease["ipv4Subnet"] != "0.0.0.0":
                return lease
        return None

    def take(self, lease):
        self.lease, self.end, self.is_from_this_daemon = lease, time.monotonic() + seconds_left(lease), True
        print(json.dumps(lease), flush=True)
        self.left -= 1
        if self.left == 0:
            self.loop.quit()

    def lose(self):
        print(f"{self.interface}: {self.lease['ipv4Address']} is gone", flush=True)
        self.lease, self.is_from_this_daemon = None, False

    def on_error(self, error):
        """A daemon that is not there comes again; what is refused now is refused the next time."""
        if isinstance(error, Refused):
            self.fail(f"{self.interface}: {error}")
        elif Gio.DBusError.get_remote_error(error) == "org.freedesktop.DBus.Error.AccessDenied":
            self.fail("the bus refuses: only root and the group ostrel may talk to the daemon")

    def fail(self, words):
        self.failure = f"lease.py: {words}"
        self.loop.quit()


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit("usage: lease.py IFACE [COUNT]")
    try:
        bus = Gio.bus_get_sync(Gio.BusType.SYSTEM)
    except GLib.Error as error:
        sys.exit(f"lease.py: no bus: {error.message}")
    subscriber = Subscriber(bus, sys.argv[1], int(sys.argv[2]) if len(sys.argv) == 3 else 0)
    subscriber.loop.run()
    sys.exit(subscriber.failure)


if __name__ == "__main__":
    main()
