#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""usage: filter.py FILE

Writes FILE as doxygen wants to read it. Of a header: each contract block as a comment in doxygen's words in front of
each of its functions, sections as groups, other comments in front of what they describe. Of a document: headings that
links find, and links to what is no page of the reference as mere text.
"""

import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "packaging/man"))
import contracts  # noqa: E402

DECLARATION = re.compile(r"^\s*(typedef|struct|enum|extern (?!\")|#define|static inline|template|RSW_|\w[\w ]*;)")


def escape(text):
    text = text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;")
    text = re.sub(r"([\\@#%*`~|\[\]])", r"\\\1", text)
    return re.sub(r"(?<!\w)_+\w+", lambda match: f"<tt>{match.group(0).replace('_', '&#95;')}</tt>", text)


def in_comment(lines):
    return ["/**", *lines, "*/"]


def body(text, with_rows=True):
    out = []
    for kind, value in text.parts:
        if kind == "text":
            out += ["", escape(value)]
        elif kind == "code":
            out += ["", "@verbatim", *(line.replace("*/", "* /") for line in value), "@endverbatim"]
        elif with_rows:
            out += [""]
            out += [f"- <tt>{', '.join(names)}</tt>: {escape(said)}" for names, said in value]
    return out


def attributes(pairs):
    pairs = [(name if isinstance(name, str) else ", ".join(name), said) for name, said in pairs]
    return [line for name, said in pairs for line in ("", f"@par {name}", escape(contracts.sentence_case(said)))]


def function_comment(function, block, contract, words):
    brief = contracts.first_sentence(block.prose())
    out = [f"@brief {escape(brief)}"]
    out += [line.removeprefix(escape(brief)).lstrip() for line in body(block, with_rows=False)]
    sources = [block.arguments, *(each.arguments for each, _ in contract.blocks), contract.group.arguments, words]
    described = [(name, said) for rows in sources for names, said in rows for name in names]
    for name in function.names:
        if said := next((said for each, said in described if each == name), None):
            out.append(f"@param {name} {escape(said)}")
    if function.result != "void" and (said := contracts.result_of(contract, block)):
        out.append(f"@return {escape(said)}")
    pairs = []
    for name in contracts.ATTRIBUTES:
        for source in (block, contract.blocks[0][0], contract.group, contract.top):
            if name != "Results" and (said := source.attribute(name)) is not None:
                pairs.append((name, re.sub(r", unless a function says otherwise.*", ".", said)))
                break
    return in_comment(out + attributes(pairs))


def header(source, name):
    all_contracts, top = contracts.parse_header(source, name)
    words = top.arguments if top else []
    functions = {function.line: (function, block, contract)
                 for contract in all_contracts for block, of in contract.blocks for function in of}
    stem = name.removesuffix(".h")
    out = in_comment([f"@file {name}", *body(top), *attributes(top.attributes.items())])
    comment, section, depth, begun = [], 0, 0, False
    for number, line in enumerate(source.splitlines(), 1):
        if match := re.match(r"^// -{5,} (.*)$", line):
            out += ["/** @} */"] if section else []
            section += 1
            title = match.group(1)
            out += in_comment([f"@defgroup {stem}_{section} {name}: {title}", "@{"])
            comment = []
            continue
        if section and re.match(r"^(#pragma GCC visibility pop|#ifdef __cplusplus|#endif)", line) and depth == 0:
            if line.startswith("#pragma") or "visibility pop" not in source:
                out.append("/** @} */")
                section = 0
        if line.lstrip().startswith("//"):
            comment.append(line.lstrip()[2:])
            continue
        if comment:
            said = contracts.parse_comment(comment, number)
            if line.strip() and DECLARATION.match(line) and number not in functions and begun:
                out += in_comment(body(said) + attributes(said.attributes.items()))
            elif not line.strip() and section and begun:
                out += ["/** @} */", *in_comment([f"@addtogroup {stem}_{section}", *body(said), "@{"])]
            comment = []
        begun = begun or line.startswith("#")
        if number in functions:
            out += function_comment(*functions[number], words)
        depth += line.count("{") - line.count("}") if not line.startswith("extern") else 0
        out.append(re.sub(r"(?<=[;,{\w)\"\\])  ?// (.*)$", lambda match: f" /**< {escape(match.group(1))} */", line)
                   if "http" not in line else line)
    return out


def link(match, path):
    """A link as it is where it leads to another page, else its words."""
    target = (path.parent / match.group(2)).resolve()
    pages = {ROOT: ".md", ROOT / "docs": ".md", ROOT / "routing/ip/include": ".h", ROOT / "platform/include": ".h"}
    if target.suffix != pages.get(target.parent):
        return match.group(1)
    return f"[{match.group(1)}](#{target.stem.lower()}-{match.group(3)})" if match.group(3) else match.group(0)


def document(source, path):
    stem = path.stem.lower()
    out, code = [], False
    for line in source.splitlines():
        code ^= line.startswith("```")
        if not code and (heading := re.match(r"^(#{2,6}) (.*)$", line)):
            slug = re.sub(r"[^\w -]", "", heading.group(2).lower()).replace(" ", "-")
            line = f"{heading.group(1)} {heading.group(2)} {{#{stem}-{slug}}}"
        elif not code and not line.startswith("    "):
            line = re.sub(r"\]\(#", f"](#{stem}-", line)
            line = re.sub(r"!?\[([^\]]*)\]\((?!#|http)([^)#]*)(?:#([^)]*))?\)", lambda match: link(match, path), line)
        out.append(line)
    return out


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    file = Path(sys.argv[1])
    text = file.read_text()
    print("\n".join(header(text, file.name) if file.suffix == ".h" else document(text, file)))
