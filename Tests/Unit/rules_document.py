#!/usr/bin/python3
"""Docs/rfc.md shows every rule of Include/Ostrel/Rules.h, with the values of both rows, and no other."""
import pathlib
import re
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
ROLES = {"interface": "Interface", "client": "Client", "linkLocal": "Link-local", "server": "Server"}


def without_comments(text):
    return re.sub(r"//.*", "", text)


def fields_of(header, role):
    """The fields of a role's record, in order."""
    body = re.search(rf"struct Ostrel_{role[0].upper()}{role[1:]}Rules {{(.*?)\n}};", header, re.S)[1]
    return re.findall(r"^\s*[\w:]+ (\w+);", body, re.M)


def row_of(header, name, role):
    """What a row says of each field of a role."""
    row = re.search(rf"constexpr Ostrel_Rules {name}{{(.*?)\n}};", header, re.S)[1]
    values = re.search(rf"\.{role}\s*=?\s*{{(.*?)}}", row, re.S)[1]
    return dict(re.findall(r"\.(\w+)\s*=\s*([^,}]+?)\s*(?:,|$)", values.replace("\n", " ").replace("'", "")))


def table_of(document, heading):
    chapter = re.search(rf"^## {heading}\n(.*?)(?=^## |\Z)", document, re.S | re.M)[1]
    return re.findall(r"^\| `(\w+)` \| ([^|]+?) \| ([^|]+?) \| ([^|]+?) \|$", chapter, re.M)


class Rules(unittest.TestCase):
    def setUp(self):
        self.header = without_comments((ROOT / "Include/Ostrel/Rules.h").read_text())
        self.document = (ROOT / "Docs/rfc.md").read_text()

    def test_the_document_shows_each_rule_as_the_header_has_it(self):
        for role, heading in ROLES.items():
            plain, rfc = (row_of(self.header, name, role) for name in ("kPlainRules", "kRFCRules"))
            fields = fields_of(self.header, role)
            self.assertGreater(len(fields), 0, role)
            self.assertEqual((list(plain), list(rfc)), (fields, fields), role)
            shown = [(name, *(value.replace(",", "") for value in values))
                     for name, *values, _ in table_of(self.document, heading)]
            self.assertEqual(shown, [(name, plain[name], rfc[name]) for name in fields], role)

    def test_only_what_differs_is_a_rule(self):
        for role in ROLES:
            plain, rfc = (row_of(self.header, name, role) for name in ("kPlainRules", "kRFCRules"))
            self.assertEqual([name for name in plain if plain[name] == rfc[name]], [], role)


if __name__ == "__main__":
    unittest.main()
