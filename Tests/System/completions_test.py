"""The completions offer what ostrelctl takes, by its own help.

bash and fish are asked what they would offer. zsh completes only for a terminal: its file is checked, and read.
"""
import pathlib
import re
import subprocess
import unittest

import lab

OSTRELCTL = str(pathlib.Path(lab.OSTRELD).parent / "ostrelctl")
FILES = lab.ROOT / "Data" / "completions"
BASH = 'source "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _ostrelctl; printf "%s\\n" "${COMPREPLY[@]}"'
FISH = 'source $argv[1]; complete --do-complete "$argv[2..]"'


def output(*command):
    return subprocess.run(command, check=True, text=True, stdout=subprocess.PIPE).stdout


def help_of(*command):
    """The options, and the commands, that a help page lists."""
    text = output(OSTRELCTL, *command, "--help")
    listed = re.search(r"^Subcommands:\n((?:  .*\n)+)", text, re.MULTILINE)
    return (set(re.findall(r"^  (?:-\w,)?(--[\w-]+)", text, re.MULTILINE)),
            set(re.findall(r"^  (\w+)", listed[1], re.MULTILINE)) if listed else set())


def levels():
    return set(re.search(r"One of: (.*)", output(OSTRELCTL, "debug", "--help"))[1].split())


def bash(*words):
    return set(output("bash", "-c", BASH, str(FILES / "ostrelctl"), "ostrelctl", *words).split())


def fish(*words):
    lines = output("fish", "--no-config", "-c", FISH, str(FILES / "ostrelctl.fish"), "ostrelctl", *words).splitlines()
    return {line.split("\t")[0] for line in lines}


def zsh_options(command):
    """The options in the file's branch for a command, and those that it has for all and for some."""
    text = (FILES / "_ostrelctl").read_text()
    branch = re.search(rf"^        (?:[\w |]+ )?{command}(?: [\w |]+)?\)(.*?);;", text, re.MULTILINE | re.DOTALL)[1]
    for group in re.findall(r"\$(common|told)", branch):
        branch += re.search(rf"local -a {group}=\((.*?)\)\n", text, re.DOTALL)[1]
    return set(re.findall(r"(?<=[)'\"*])(--[\w-]+)(?==?\[)", branch))


class Completions(unittest.TestCase):
    def test_every_option_of_every_command_is_offered_and_no_other(self):
        for command in sorted(help_of()[1]):
            options, _ = help_of(command)
            for shell, offered in (("bash", bash(command, "--")), ("fish", fish(command, "--")),
                                   ("zsh", zsh_options(command))):
                with self.subTest(command=command, shell=shell):
                    self.assertEqual(offered, options)

    def test_commands_levels_interfaces_and_orders_are_offered_where_they_belong(self):
        options, commands = help_of()
        interfaces = {path.name for path in pathlib.Path("/sys/class/net").iterdir()} - {"lo"}
        self.assertEqual(bash(""), commands | options)
        self.assertEqual(fish(""), commands)
        self.assertEqual(fish("--"), options)
        for shell in (bash, fish):
            with self.subTest(shell=shell.__name__):
                self.assertEqual(shell("sta"), {"status", "stats"})
                self.assertEqual(shell("debug", ""), levels())
                self.assertEqual(shell("client", ""), interfaces)
                self.assertEqual(shell("leases", "--sort", ""), {"address", "expiry", "name", "mac"})
                self.assertEqual(shell("server", "--range", ""), set())
                for several in (("wait", "--timeout", "5"), ("apply", "eth7")):
                    self.assertEqual(shell(*several, ""), interfaces)
        self.assertEqual(bash("leases", "--sort", "=", "e"), {"expiry"})
        text = (FILES / "_ostrelctl").read_text()
        subprocess.run(["zsh", "-n", FILES / "_ostrelctl"], check=True)
        self.assertEqual(set(re.findall(r"^        '(\w+):", text, re.MULTILINE)), commands)
        self.assertEqual(set(re.search(r":level:\(([^)]*)\)", text)[1].split()), levels())


if __name__ == "__main__":
    lab.main()
