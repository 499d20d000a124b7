"""A keeper of DNS servers on the bus, under the name of systemd-resolved: prints each call and says yes."""
from gi.repository import Gio, GLib

INTERFACE = """<node><interface name="org.freedesktop.resolve1.Manager">
<method name="SetLinkDNS"><arg type="i" direction="in"/><arg type="a(iay)" direction="in"/></method>
<method name="SetLinkDomains"><arg type="i" direction="in"/><arg type="a(sb)" direction="in"/></method>
<method name="RevertLink"><arg type="i" direction="in"/></method>
</interface></node>"""


def answer(_connection, _sender, _path, _interface, method, arguments, invocation):
    print(method, arguments.print_(False), flush=True)
    invocation.return_value(None)


bus = Gio.bus_get_sync(Gio.BusType.SYSTEM)
bus.register_object("/org/freedesktop/resolve1", Gio.DBusNodeInfo.new_for_xml(INTERFACE).interfaces[0], answer)
Gio.bus_own_name_on_connection(bus, "org.freedesktop.resolve1", Gio.BusNameOwnerFlags.NONE,
                               lambda *_: print("ready", flush=True), None)
GLib.MainLoop().run()
