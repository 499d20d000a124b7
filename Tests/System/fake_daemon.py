"""A daemon on the bus whose answers about a lease fail in every way, one after the other: a refusal, no JSON, a reply
that is false. Its eth0 holds a static address all the while, and each line of its input is a renewal, which is posted.
Its subscribers are told of what they have subscribed to, as often as they have. What it is asked is printed.
"""
import collections
import json
import sys

from gi.repository import Gio, GLib

SERVICE = "org.ostrel.dhcp"
INTERFACE = """<node><interface name="%s"><method name="%s"><arg type="s" direction="in"/><arg type="s" direction="out"/>
</method></interface></node>"""
LEASE = {"interface": "eth0", "ipv4Address": "198.51.100.5", "ipv4Subnet": "255.255.255.0", "leaseTime": 4294967295,
         "leaseTimeString": "Mon Nov 16 11:40:22 2026", "leaseExpiryString": "Mon Nov 16 11:40:22 2026"}
asked = collections.Counter()
subscribers = []
renewals = 0


def listing(*interfaces):
    return json.dumps({"returnValue": True, "interfaceList": interfaces})


def state():
    client = {"state": "BOUND", "since": 1795410237, "reason": "ack", "ipv4Address": LEASE["ipv4Address"], "held": True,
              "server": "198.51.100.1", "renews": 4000000000 + renewals, "rebinds": None, "expires": None, "nextTry": None,
              "tries": 0, "refusals": 0, "conflict": None}
    return listing({"interface": "eth0", "managed": True, "macAddress": "02:00:00:00:00:01", "link": "up",
                    "rules": "rfc", "client": client})


def answer(_connection, sender, path, _interface, method, arguments, invocation):
    print(path, method, *arguments, flush=True)
    reply = listing()
    if method == "interfaceState":
        wish = json.loads(arguments[0]).get("subscribe")
        subscribers.extend([sender] if wish else [])
        if wish is False:
            subscribers[:] = [other for other in subscribers if other != sender]
        reply = state()
    elif path == "/client":
        asked[sender] += 1
        turn = asked[sender]
        if turn in (2, 3):
            return invocation.return_dbus_error("org.freedesktop.DBus.Error.Failed", "not now")
        reply = ("rubbish" if turn == 4 else '{"returnValue":false}' if turn == 5 else
                 listing(LEASE if turn == 1 else {**LEASE, "ipv4Router": ["198.51.100.1"]}))
    return invocation.return_value(GLib.Variant("(s)", (reply,)))


def renew(source, _condition):
    global renewals
    if not source.readline():
        return False
    renewals += 1
    for subscriber in subscribers:
        bus.emit_signal(subscriber, "/", SERVICE, "interfaceStateUpdate", GLib.Variant("(s)", (state(),)))
    return True


bus = Gio.bus_get_sync(Gio.BusType.SYSTEM)
for path, suffix, method in (("/", "", "interfaceState"), ("/client", ".client", "leaseInformation"),
                             ("/server", ".server", "leaseEvents")):
    bus.register_object(path, Gio.DBusNodeInfo.new_for_xml(INTERFACE % (SERVICE + suffix, method)).interfaces[0], answer)
Gio.bus_own_name_on_connection(bus, SERVICE, Gio.BusNameOwnerFlags.NONE, None, None)
GLib.io_add_watch(sys.stdin, GLib.IO_IN | GLib.IO_HUP, renew)
GLib.MainLoop().run()
