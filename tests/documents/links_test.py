#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""usage: links_test.py SOURCE_DIRECTORY

Does each link of the documents lead to a file or a folder that is there, and to a heading of it? Are the files there that
those for developers name as `folder/file`, and do they name each fuzzer?
"""

import re
import sys
from pathlib import Path

LINK = re.compile(r"\[[^\]]*\]\(([^)#]*)(?:#([^)]*))?\)")


def lines_outside_code(text):
    code = False
    for number, line in enumerate(text.splitlines(), 1):
        code ^= line.startswith("```")
        if not code and not line.startswith("    "):
            yield number, line


def anchors(file):
    headings = (re.match(r"#+ (.*)", line) for _, line in lines_outside_code(file.read_text()))
    return {re.sub(r"[^\w -]", "", each.group(1).lower()).replace(" ", "-") for each in headings if each}


def problems(source, documents):
    links = 0
    for document in documents:
        for number, line in lines_outside_code(document.read_text()):
            for target, anchor in LINK.findall(line):
                if target.startswith(("http:", "https:", "mailto:")):
                    continue
                links += 1
                file = (document.parent / target).resolve() if target else document
                if not file.exists():
                    yield f"{document.relative_to(source)}:{number}: there is no {target}"
                elif anchor and (file.suffix != ".md" or anchor not in anchors(file)):
                    yield f"{document.relative_to(source)}:{number}: {target} has no heading {anchor}"
    if links < 20:
        yield f"only {links} links: they are not understood"


def missing_files(source, names):
    for name in names:
        text = (source / name).read_text()
        paths = [each.rstrip("/") for each in re.findall(r"`([\w.*-]+/[\w.*-][\w./*-]*)`", text)]
        if not paths:
            yield f"{name} names no file"
        yield from (f"{name}: there is no {path}" for path in paths if not any(source.glob(path)))


def missing_fuzzers(source):
    named = set(re.findall(r"`(fuzz_\w+)`", (source / "SECURITY.md").read_text()))
    there = {file.stem for file in source.glob("fuzz/fuzz_*.cc")}
    yield from (f"SECURITY.md and fuzz/ differ about {each}" for each in sorted(named ^ there))


if __name__ == "__main__":
    top = Path(sys.argv[1]).resolve()
    found = list(problems(top, [*top.glob("*.md"), *top.glob("docs/*.md"), *top.glob("examples/*.md")]))
    found += [*missing_files(top, ("CONTRIBUTING.md", "SECURITY.md")), *missing_fuzzers(top)]
    print("\n".join(found))
    sys.exit(1 if found else 0)
