#!/usr/bin/python3
"""Docs/bus.md has every state, reason, verdict, counter and event that the code has, in its order, and no other."""
import pathlib
import re
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
DOCUMENT = (ROOT / "Docs/bus.md").read_text()


def source(path):
    return (ROOT / path).read_text()


def table(heading):
    """The rows of the table with that first column: each the first word, and the last cell."""
    rows = re.search(rf"^\| {re.escape(heading)} \|.*\n\|[-|]+\n((?:\|.*\n)+)", DOCUMENT, re.M)[1].splitlines()
    cells = [[cell.strip().strip("`") for cell in row.strip("|").split(" | ")] for row in rows]
    return [(row[0], *row[1:]) for row in cells]


def words(text):
    return re.findall(r'"([^"]*)"', text)


def body(path, pattern):
    return re.search(pattern, source(path), re.S)[1]


class News(unittest.TestCase):
    def test_counters(self):
        for key, name in (("client", "Client"), ("server", "Server"), ("arp", "ARP")):
            listed = body("Include/Ostrel/Counters.h", rf"k{name}Counters{{{{(.*?)}}}};")
            rows = re.findall(r'{"(\w+)", &\w+::(\w+),\s*"([^"]+)"}', listed)
            self.assertGreater(len(rows), 4)
            self.assertEqual([key for key, _, _ in rows], [field for _, field, _ in rows], "a key of another name")
            self.assertEqual(table(f"Counter of `{key}`"), [(key, help) for key, _, help in rows])

    def test_reasons_verdicts_and_events(self):
        reasons = words(body("Src/Ostrel/Reason.cpp", r"kReasons{(.*?)};"))
        self.assertEqual([row[0] for row in table("Reason")], reasons)
        verdicts = re.findall(r'{"(\w+)", "([^"]+)"}', body("Src/Ostrel/Reason.cpp", r"kVerdicts{{(.*?)}};"))
        self.assertEqual([row[:2] for row in table("Verdict")], verdicts)
        events = words(body("Src/OstrelVoroBus/LeaseEvents.cpp", r"kNames{(.*?)};"))
        self.assertEqual([row[0] for row in table("Event")], events)

    def test_states(self):
        client = body("Src/DHCPClient/StateMachine.cpp", r"\nconst char\* Ostrel_ClientStateString\((.*?)\n}")
        shown = body("Src/DHCPClient/Story.cpp", r"\nconst char\* Ostrel_DHCPClientShownState\((.*?)\n}")
        self.assertEqual({row[0] for row in table("State of a client")}, {*words(client), *words(shown)} - {"UNKNOWN"})
        selector = body("Src/LinkLocal/LinkLocal.cpp", r"\nconst char\* Ostrel_LinkLocalStateString\((.*?)\n}")
        shown = body("Src/LinkLocal/Shown.cpp", r"\nconst char\* Ostrel_LinkLocalShownState\((.*?)\n}")
        self.assertEqual({row[0] for row in table("State of a selector")}, {*words(selector), *words(shown)} - {"UNKNOWN"})

    def test_keys_stand_as_they_are_sent(self):
        writer = source("Src/OstrelVoroBus/InterfaceState.cpp")
        example = re.search(r"^## interfaceState\n.*?(?=^A post)", DOCUMENT, re.S | re.M)[0]
        for role, function in (("client", "ClientOf"), ("linkLocal", "LinkLocalOf")):
            keys = re.findall(r'object(?:\.put\(|, )"(\w+)"', re.search(rf"JValue {function}\((.*?)\n}}", writer, re.S)[1])
            shown = re.search(rf'"{role}":{{(.*?)}}', example, re.S)[1]
            self.assertEqual(re.findall(r'"(\w+)":', shown), keys, role)


if __name__ == "__main__":
    unittest.main()
