#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""usage: manual_pages_test.py SOURCE_DIRECTORY PROGRAM_DIRECTORY CASE

Do the manual pages that are written by hand say what the programs take, all of it and nothing else?
"""

import re
import subprocess
import sys
from pathlib import Path


def help_of(program, *words):
    return subprocess.run([program, *words, "--help"], check=True, capture_output=True, text=True).stdout


def options_in(help_text):
    """The long options that a help lists: those at the beginning of its lines."""
    return set(re.findall(r"^ +(?:-\w,)?--([\w-]+)", help_text, flags=re.M))


def differences(what, program, page):
    return [f"{what}: the page has no {each}" for each in sorted(program - page)] + \
           [f"{what}: the program has no {each}, but the page" for each in sorted(page - program)]


def ipd_options(source, programs):
    help_text = help_of(programs / "ipd")
    page = (source / "packaging/man/ipd.8").read_text()
    listed = set(re.findall(r"^\.It Fl (?:\w , )?-([\w-]+)", page, flags=re.M))
    short = set(re.findall(r"^ +-(\w),--", help_text, flags=re.M))
    found = differences("ipd options", options_in(help_text), listed)
    return found + differences("ipd short options", short, set(re.findall(r"^\.It Fl (\w) ,", page, flags=re.M)))


def configuration_keys(source, programs):
    """By the lists of keys that the parser allows in each kind of object."""
    code = "".join((source / file).read_text() for file in ("ipd/config.cc", "ipd/config_routes.cc"))
    lists = re.findall(r"(?:JsonObject(?: object)?|read_list)\([^;{}]*\{((?:\s*\"\w+\",?)+)\}", code)
    known = {key for keys in lists for key in re.findall(r"\w+", keys)}
    page = (source / "packaging/man/ipd.conf.5").read_text()
    lines = [line for line in page.splitlines() if line.startswith(".It Cm")]
    found = [] if len(lists) >= 8 else [f"only {len(lists)} lists of keys: the parser is not understood"]
    return found + differences("keys", known, set(re.findall(r"Cm (\w+)", " ".join(lines))))


def commands_of(ipsh, path=()):
    """(words, options) of each command that does something."""
    text = help_of(ipsh, *path)
    options, _, rest = text.partition("\nSubcommands:\n")
    names = re.findall(r"^  ([\w-]+) ", rest.split("\n\n")[0], flags=re.M)
    if not names:
        yield path, set(re.findall(r"^ +(?:-(\w),)?--([\w-]+)", options, flags=re.M))
    for name in names:
        yield from commands_of(ipsh, (*path, name))


def ipsh_commands(source, programs):
    page = (source / "packaging/man/ipsh.1").read_text()
    entries = {}
    for entry in re.split(r"^(?=\.It |\.Sh |\.Ss )", page, flags=re.M):
        if match := re.match(r"\.It Cm (.+?)(?: Ar .*)?$", entry, flags=re.M):
            entries[match.group(1)] = entry
    # "show vips | groups" of the synopsis stands for both.
    synopsis = page[page.index(".Sh SYNOPSIS"):page.index(".Sh DESCRIPTION")]
    for use in synopsis.split("\n.Nm\n"):
        if match := re.match(r"\.Cm (.*)$", use, flags=re.M):
            *before, first = match.group(1).split(" | ")[0].split()
            for last in [first, *match.group(1).split(" | ")[1:]]:
                path = " ".join([*before, last])
                if path in entries:
                    entries[path] += use
    general = options_in(help_of(programs / "ipsh"))
    found = [f"ipsh: the page has no --{each}" for each in sorted(general) if f"Fl -{each}" not in page]
    commands = {" ".join(path): options for path, options in commands_of(programs / "ipsh")}
    found += differences("ipsh commands", set(commands), set(entries))
    for path, options in commands.items():
        found += [f"ipsh {path}: the page has no --{name}" for short, name in sorted(options)
                  if name != "help" and not re.search(rf"Fl (-{name}|{short or name})\b", entries.get(path, ""))]
    return found


CASES = {"ipd_options": ipd_options, "configuration_keys": configuration_keys, "ipsh_commands": ipsh_commands}

if __name__ == "__main__":
    problems = CASES[sys.argv[3]](Path(sys.argv[1]), Path(sys.argv[2]))
    print("\n".join(problems))
    sys.exit(1 if problems else 0)
