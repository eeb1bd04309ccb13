#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""usage: troubleshooting_test.py SOURCE_DIRECTORY

Can the sources print each text that heads a paragraph of docs/troubleshooting.md? What stands there between "..." has to
stand in this order in one place of the code: in a text, or in texts that are put together within a few lines. And has
each warning and error of ipd and the platform, and each reason for which ipsh cannot do something, such a heading?
"""

import re
import sys
from pathlib import Path

FOLDERS = ("ipd", "ipsh", "platform/linux", "routing/ip", "examples")
TEXT = re.compile(r'"((?:[^"\\]|\\.)*)"')
CONVERSION = re.compile(r"%[-+ #0]*\d*(?:\.\d+)?(?:ll|l|z|h)?[diouxXcsp]|\{\}|\\n")


def texts_of(file):
    """The texts of each statement of a file, what is put in between marked by a NUL."""
    source = re.sub(r"^\s*//.*$|^\s*#include.*$", "", file.read_text(), flags=re.M)
    for statement in re.split(r"[;{]\s*\n", source):
        found = TEXT.findall(re.sub(r'"\s*\n\s*"', "", statement))
        if found:
            yield "\0".join(["", *found, ""])


def errors_of(source):
    """The texts that log lines of at least a warning and failures of ipsh have in the code."""
    line = re.compile(rf"log_line\(\s*(?:LOG_CRIT|LOG_ERR|LOG_WARNING|3),\s*{TEXT.pattern}")
    failure = re.compile(rf"ExitCode::(?:unavailable|permission),\s*(?:fmt::format\()?{TEXT.pattern}")
    for folder, pattern in (("ipd", line), ("platform/linux", line), ("ipsh", failure)):
        for file in (source / folder).rglob("*.cc"):
            yield from pattern.findall(re.sub(r'"\s*\n\s*"', "", file.read_text()))


def letters(text):
    return len(re.sub(r"[^A-Za-z]", "", text))


def is_headed(error, headings):
    """More than half of the text, so that a reader who has one finds it."""
    text = CONVERSION.sub("\0", error.replace('\\"', '"'))
    return any(2 * letters(heading) > letters(text) and is_printable(heading, [text]) for heading in headings)


def is_printable(heading, statements):
    parts = [re.escape(part) for part in re.split(r"\.\.\.", heading) if part.strip()]
    pattern = re.compile("[^\n]*?".join(parts))
    return any(pattern.search(statement) for statement in statements)


if __name__ == "__main__":
    source = Path(sys.argv[1])
    files = [file for folder in FOLDERS for suffix in ("*.cc", "*.c", "*.h") for file in (source / folder).rglob(suffix)]
    known = [CONVERSION.sub("\0", statement.replace('\\"', '"')) for file in files for statement in texts_of(file)]
    headings = re.findall(r"^### `(.*)`$", (source / "docs/troubleshooting.md").read_text(), flags=re.M)
    problems = [f"nothing in the sources prints: {heading}" for heading in headings if not is_printable(heading, known)]
    if len(headings) < 40 or len(headings) != len(set(headings)):
        problems.append(f"{len(headings)} headings, some of them twice or not understood")
    errors = [error for error in set(errors_of(source)) if letters(CONVERSION.sub("", error)) > 0]
    problems += [f"nothing is said about: {error}" for error in errors if not is_headed(error, headings)]
    if len(errors) < 50:
        problems.append(f"only {len(errors)} errors in the sources: they are not understood")
    if is_printable("no text that ... anybody prints", known):
        problems.append("everything is found")
    print("\n".join(problems))
    sys.exit(1 if problems else 0)
