"""A daemon on the bus whose answers about a lease fail in every way, one after the other: a refusal, no JSON, a reply
that is false; and in between, and from then on, the static lease of eth0. At the end the lease has a router.
"""
import collections
import json

from gi.repository import Gio, GLib

SERVICE = "org.ostrel.dhcp"
INTERFACE = """<node><interface name="%s"><method name="%s"><arg type="s" direction="in"/><arg type="s" direction="out"/>
</method></interface></node>"""
LEASE = {"interface": "eth0", "ipv4Address": "198.51.100.5", "ipv4Subnet": "255.255.255.0", "leaseTime": 0,
         "leaseTimeString": "Mon Nov 16 11:40:22 2026", "leaseExpiryString": "Mon Nov 16 11:40:22 2026"}
asked = collections.Counter()


def listing(*interfaces):
    return json.dumps({"returnValue": True, "interfaceList": interfaces})


def answer(_connection, sender, path, _interface, method, arguments, invocation):
    print(path, *arguments, flush=True)
    asked[sender] += path == "/client"
    turn = asked[sender]
    if method == "interfaceConfigDump":
        reply = listing({"interface": "eth0", "mode": "client", "ipv4Config": "static"})
    elif path == "/server":
        reply = listing()
    elif turn in (2, 3):
        return invocation.return_dbus_error("org.freedesktop.DBus.Error.Failed", "not now")
    elif turn == 4:
        reply = "rubbish"
    elif turn == 5:
        reply = '{"returnValue":false}'
    else:
        reply = listing(LEASE if turn == 1 else {**LEASE, "ipv4Router": ["198.51.100.1"]})
    return invocation.return_value(GLib.Variant("(s)", (reply,)))


bus = Gio.bus_get_sync(Gio.BusType.SYSTEM)
for path, suffix, method in (("/", "", "interfaceConfigDump"), ("/client", ".client", "leaseInformation"),
                             ("/server", ".server", "leaseInformation")):
    bus.register_object(path, Gio.DBusNodeInfo.new_for_xml(INTERFACE % (SERVICE + suffix, method)).interfaces[0], answer)
Gio.bus_own_name_on_connection(bus, SERVICE, Gio.BusNameOwnerFlags.NONE, None, None)
GLib.MainLoop().run()
