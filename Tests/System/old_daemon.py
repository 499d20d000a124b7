"""A daemon on the bus that is older than the tool: it manages what it is given, and knows no key beside the usual ones.
What it is asked is printed.
"""
import json

from gi.repository import Gio, GLib

SERVICE = "org.ostrel.dhcp"
METHODS = {"/": ("interfaceInitialize", "interfaceFinalize", "interfaceConfigDump"), "/client": ("leaseAction",),
           "/server": ("leaseInformation",)}
USUAL = ("interface", "mode", "ipv4Config", "ipv4Address", "ipv4Subnet", "ipv4Router", "ipv4RangeStart", "maxLeases",
         "ipv4LinkLocal", "clientIdentifier")
managed = {}


def answer(_connection, _sender, _path, _interface, method, arguments, invocation):
    request = json.loads(arguments[0])
    print(method, arguments[0], flush=True)
    reply = {"returnValue": True}
    if method == "interfaceInitialize":
        managed[request["interface"]] = {key: request[key] for key in USUAL if key in request}
    elif method == "interfaceFinalize":
        managed.pop(request["interface"])
    elif method == "interfaceConfigDump":
        reply["interfaceList"] = list(managed.values())
    return invocation.return_value(GLib.Variant("(s)", (json.dumps(reply),)))


bus = Gio.bus_get_sync(Gio.BusType.SYSTEM)
for path, methods in METHODS.items():
    described = "".join(f'<method name="{name}"><arg type="s" direction="in"/><arg type="s" direction="out"/></method>'
                        for name in methods)
    node = f'<node><interface name="{SERVICE}{path.replace("/", ".").rstrip(".")}">{described}</interface></node>'
    bus.register_object(path, Gio.DBusNodeInfo.new_for_xml(node).interfaces[0], answer)
Gio.bus_own_name_on_connection(bus, SERVICE, Gio.BusNameOwnerFlags.NONE, None, None)
GLib.MainLoop().run()
