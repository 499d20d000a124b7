"""The bus as a caller meets it: introspection, and requests that are wrong, long or deep."""
import json
import os
import subprocess

import lab
from bus import BusError
from wire import ScriptedServer

FAILED = {"returnValue": False, "errorCode": -1, "errorText": "Failed"}
REFUSED = {"returnValue": False}

# What every method answers to a text that is no JSON object.
METHODS = {
    ("/", "setDebugLevel"): REFUSED,
    ("/", "interfaceInitialize"): FAILED,
    ("/", "interfaceFinalize"): FAILED,
    ("/", "interfaceConfigDump"): {"returnValue": False, "interfaceList": []},
    ("/client", "leaseAction"): REFUSED,
    ("/client", "leaseInformation"): {**FAILED, "interfaceList": []},
    ("/server", "leaseInformation"): {**FAILED, "interfaceList": []},
}
NO_OBJECTS = ["", " ", "not JSON at all", "{", "{}}", "[]", '["interface", "eth0"]', "42", "null", '"interface"',
              "{'interface': 'eth0'}", '{"interface": "eth0",}', "\u00ff\U0001f600", "[" * 65000,
              '{"interface":' * 5000]

WRONG_KEYS = [
    ("/", "setDebugLevel", {"debugLevel": 3}, REFUSED),
    ("/", "interfaceFinalize", {"interface": "eth"}, FAILED),
    ("/", "interfaceInitialize", lab.CLIENT_REQUEST, FAILED),  # managed already
    ("/", "interfaceInitialize", dict(lab.CLIENT_REQUEST, interface="eth1"), FAILED),  # no such interface
    ("/client", "leaseAction", {"interface": "eth0", "leaseAction": "Init"}, REFUSED),
    ("/client", "leaseAction", {"interface": "eth9", "leaseAction": "init"}, REFUSED),
]


class Requests(lab.LabTest):
    def test_wrong_requests_are_refused_and_change_nothing(self):
        with_lease = ScriptedServer(self.lab.namespace("server"))
        self.addCleanup(with_lease.close)
        daemon = self.daemon()
        daemon.become_client()
        lease = daemon.publication(20)
        configuration = daemon.request("/", "interfaceConfigDump")
        self.assertEqual([entry["interface"] for entry in configuration["interfaceList"]], ["eth0"])

        for (category, method), expected in METHODS.items():
            for text in NO_OBJECTS:
                with self.subTest(method=method, text=text[:40]):
                    self.assertEqual(json.loads(daemon.bus.call(category, method, text)), expected)
        for category, method, keys, expected in WRONG_KEYS:
            with self.subTest(method=method, keys=keys):
                self.assertEqual(daemon.request(category, method, **keys), expected)

        self.assertEqual(daemon.request("/", "interfaceConfigDump"), configuration)
        self.assertEqual(lab.timeless(daemon.lease()), lab.timeless(lease))

    def test_sizes_depths_and_signatures_at_and_beyond_the_limits(self):
        daemon = self.daemon()
        room = 64 * 1024 - len('{"x":""}')
        self.assertEqual(json.loads(daemon.bus.call("/", "interfaceConfigDump", f'{{"x":"{"y" * room}"}}')),
                         {"returnValue": True, "interfaceList": []})
        with self.assertRaises(BusError) as refused:
            daemon.bus.call("/", "interfaceConfigDump", f'{{"x":"{"y" * (room + 1)}"}}')
        self.assertEqual(refused.exception.name, "org.freedesktop.DBus.Error.LimitsExceeded")
        deep = f'{{"x":{"[" * 30000}{"]" * 30000}}}'
        self.assertIn("returnValue", json.loads(daemon.bus.call("/", "interfaceConfigDump", deep)))
        for texts in ([], ["{}", "{}"]):
            with self.assertRaises(BusError):
                daemon.bus.raw_call(lab.SERVICE, "/", lab.SERVICE, "interfaceConfigDump", *texts)
        with self.assertRaises(BusError) as unknown:
            daemon.bus.call("/server", "leaseAction", "{}")
        self.assertEqual(unknown.exception.name, "org.freedesktop.DBus.Error.UnknownMethod")
        self.assertEqual(daemon.request("/", "interfaceConfigDump"), {"returnValue": True, "interfaceList": []})

    def test_introspection_shows_methods_and_signals(self):
        self.daemon()
        text = ("method", "s", "s")
        signal = ("signal", "s", "-")
        expected = {
            "/": {".setDebugLevel": text, ".interfaceInitialize": text, ".interfaceFinalize": text,
                  ".interfaceConfigDump": text},
            "/client": {".leaseAction": text, ".leaseInformation": text, ".leaseInformationUpdate": signal},
            "/server": {".leaseInformation": text, ".leaseInformationUpdate": signal},
        }
        for path, members in expected.items():
            interface = lab.SERVICE if path == "/" else f"{lab.SERVICE}.{path[1:]}"
            shown = subprocess.run(["busctl", f"--address={self.lab.bus_address('client')}", "introspect",
                                    "--no-legend", lab.SERVICE, path, interface], check=True, capture_output=True, text=True).stdout
            rows = {fields[0]: tuple(fields[1:4]) for fields in map(str.split, shown.splitlines())}
            self.assertEqual(rows, members, path)



if __name__ == "__main__":
    os.environ.setdefault("LC_ALL", "C.UTF-8")
    lab.main()
