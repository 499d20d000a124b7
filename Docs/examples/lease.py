#!/usr/bin/python3
"""Hands an interface to the daemon, and prints its lease when it is new or renewed, and when it is gone.

    lease.py IFACE [COUNT]

Runs until COUNT leases have been printed, or until stopped. The daemon tells when the address may be used and when no
longer; what else the lease has is asked for then. A daemon that is restarted knows nothing any more and is told
everything again; a lease that the one before it gave stands until it ends.

Any process may send a signal to any other, with any contents: only what the owner of the daemon's name sends counts.

The bus is spoken through GLib (package python3-gi): it brings the event loop that a subscriber needs, it follows the
owner of a bus name, and most Python programs of Debian that speak D-Bus have it installed already.
"""
import json
import sys
import time

from gi.repository import Gio, GLib

SERVICE = "org.ostrel.dhcp"
UNSET = {"ipv4Address": "0.0.0.0", "ipv4Subnet": "0.0.0.0", "ipv4Router": "0.0.0.0", "ipv4RangeStart": "0.0.0.0"}


class Refused(Exception):
    pass


class Subscriber:
    def __init__(self, bus, interface, count):
        self.bus, self.interface, self.left = bus, interface, count
        self.loop, self.failure = GLib.MainLoop(), None
        self.owner = None
        self.held = None  # address and end of the lease printed last; its timer ends one of a daemon that went away
        self.is_from_this_daemon, self.timer = False, 0
        bus.signal_subscribe(SERVICE, SERVICE, "interfaceStateUpdate", "/", None, Gio.DBusSignalFlags.NONE, self.on_post)
        Gio.bus_watch_name_on_connection(bus, SERVICE, Gio.BusNameWatcherFlags.NONE, self.on_daemon, self.on_no_daemon)

    def request(self, path, method, **keys):
        interface = SERVICE if path == "/" else f"{SERVICE}.{path[1:]}"
        reply = self.bus.call_sync(SERVICE, path, interface, method, GLib.Variant("(s)", (json.dumps(keys),)),
                                   GLib.VariantType("(s)"), Gio.DBusCallFlags.NO_AUTO_START, 5000, None)
        answer = json.loads(reply.unpack()[0])
        if answer["returnValue"] is not True:
            raise Refused(f"{method} was refused; the daemon's log says why")
        return answer["interfaceList"] if "interfaceList" in answer else None

    def on_daemon(self, _bus, _name, owner):
        """It is there: it was before us, or it has been started, for the first time or again."""
        self.owner, self.is_from_this_daemon = owner, False
        try:
            states = self.request("/", "interfaceState", interface=self.interface, subscribe=True)
            if not states:
                self.request("/", "interfaceInitialize", interface=self.interface, mode="client", **UNSET)
                self.request("/client", "leaseAction", interface=self.interface, leaseAction="init")
            for state in states:
                self.take(state)
        except (Refused, GLib.Error) as error:
            self.on_error(error)

    def on_no_daemon(self, *_):
        self.owner = None
        print("lease.py: waiting for the daemon", file=sys.stderr, flush=True)

    def on_post(self, _bus, sender, _path, _interface, _member, parameters):
        if sender != self.owner:
            return
        try:
            self.take(json.loads(parameters.unpack()[0])["interfaceList"][0])
        except (Refused, GLib.Error) as error:
            self.on_error(error)

    def take(self, state):
        client = state.get("client", {"held": False})  # none in the state of an interface that was finalised
        if client["held"]:
            self.show(client["ipv4Address"], client["expires"])
        elif self.is_from_this_daemon:
            self.lose()

    def show(self, address, expires):
        self.is_from_this_daemon = True
        if (address, expires) == self.held:
            return
        leases = self.request("/client", "leaseInformation", interface=self.interface)
        self.hold((address, expires))
        print(json.dumps(leases[0]), flush=True)
        self.left -= 1
        if self.left == 0:
            self.loop.quit()

    def hold(self, held):
        if self.timer:
            GLib.source_remove(self.timer)
        self.held, self.timer = held, 0
        if held and held[1]:
            self.timer = GLib.timeout_add_seconds(max(held[1] - int(time.time()), 0), self.on_end)

    def on_end(self):
        self.timer = 0
        self.lose()
        return GLib.SOURCE_REMOVE

    def lose(self):
        if self.held:
            print(f"{self.interface}: {self.held[0]} is gone", flush=True)
        self.hold(None)

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
