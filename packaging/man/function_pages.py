#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""usage: function_pages.py HEADERS CATALOGUE OUTPUT

Writes the section 3 pages of libip to the directory OUTPUT, from nothing but the contract blocks of the headers in the
directory HEADERS and the message table CATALOGUE: a page for each contract, named after its first function, and a page
that sources it for each other one; libip.3, which says what all of them share and lists them; libip_variables.3;
libip_messages.3, the system log messages. A block that lacks something ends it with status 1 and the block's line.
"""

import re
import sys
from pathlib import Path

import contracts

HEADERS = ("ip_api.h", "ip_packet.h", "ip_packet_util.h")
DATE = "November 22, 2026"  # of the last change to what is made here
LINK = "cc client.c $(pkg-config --cflags --libs libip)"
DOCUMENTS = "docs/design.md, docs/messages.md and docs/packet-words.md in the sources"
SHOWN = ("Threads", "Blocks", "Owns", "Cost", "Error text", "Debug lines")


def section(name):
    """The C library's manual has a page of its own about the one name that both have."""
    return "3ip" if name == "inet_ntoa" else "3"


def escape(text):
    """Text as roff takes it, wherever it stands in a line."""
    text = re.sub(r"(?<!\w)-(?=[\w-])", r"\\-", text.replace("\\", "\\e"))
    return text.replace("'", "\\(aq").replace("`", "\\(ga").replace("\"", "\\(dq")


def prose(text):
    """One sentence per line, as mdoc pages are written; no line begins with a control character."""
    lines = re.sub(r"(?<=[\w)\]][.?!]) (?=[A-Z0-9])", "\n", escape(text)).splitlines()
    return [("\\&" + line) if line.startswith((".", "\\(aq")) else line for line in lines]


def literal(lines):
    while lines and not lines[-1]:
        lines = lines[:-1]
    lines = [("\\&" if line.startswith((".", "'")) else "") + escape(line).replace(" - ", " \\- ") for line in lines]
    return [".Bd -literal -offset indent", *lines, ".Ed"]


def rows(pairs, label):
    out = [".Bl -tag -width Ds"]
    for names, text in pairs:
        out.append(".It " + label(names))
        out += prose(re.sub(r"\b([Ss])ee the top\b", r"\1ee libip(3)", text))
    return out + [".El"]


def macro_words(text):
    """Text as arguments of a macro: one that is also a macro's name is not to be taken for it."""
    return " ".join(f"\\&{word}" if re.fullmatch(r"[A-Z][a-z]|[%A-Za-z][A-Za-z]?|[.,:;()\[\]?!|]", word) else word
                    for word in escape(text).split())


def argument_label(names):
    return "Fa " + " , ".join(macro_words(name) for name in names)


def paragraphs(text, with_rows=False):
    out = []
    for kind, value in text.parts:
        if kind == "text":
            out += [".Pp"] if out else []
            out += prose(value)
        elif kind == "code":
            out += literal(value)
        elif with_rows:
            out += rows(value, lambda names: "Sy " + macro_words(" ".join(names)))
    return out


def list_of(functions):
    return [f".Fn {function.name}" + (" ," if function is not functions[-1] else " :") for function in functions]


def one_line(contract):
    """What the first function does, without what only goes on about it."""
    whole = contracts.first_sentence(contract.blocks[0][0].prose())
    sentence = re.split(r"(?<=[a-z)]{2})[:;] ", whole)[0]
    sentence = (sentence if len(sentence.split()) > 2 else whole).rstrip(".?")
    if not re.match(r"(IPv4|IP|URIB|UDP|[A-Z]{2,})\b", sentence):
        sentence = sentence[0].lower() + sentence[1:]
    return sentence.rstrip(":")


def head(title):
    return ['.\\" Made from the headers: change it there.', f".Dd {DATE}", f".Dt {title.upper()} 3", ".Os"]


def synopsis(functions):
    out = [".Sh SYNOPSIS", ".In ip_api.h"]
    for function in functions:
        out += [f".Ft {function.result}", f".Fo {function.name}"]
        # A pointer to a function has arguments of its own: the line may break between them, too.
        out += [f".Fa \"{part}\"" for argument in function.arguments or ["void"] for part in argument.split(", ")]
        out.append(".Fc")
    return out + [".Pp", "Built with", ".Dl " + escape(LINK)]


def attribute_text(contract, name):
    """What holds for the whole contract; what single blocks say differently stands with them."""
    for source in (contract.blocks[0][0], contract.group):
        if (text := source.attribute(name)) is not None:
            return text
    if (text := contract.top.attribute(name)) is None:
        return None
    return re.sub(r", unless a function says otherwise.*", ".", contracts.first_sentence(text))


def function_page(contract, everything, words):
    functions = contract.functions()
    out = head(functions[0].name)
    out += [".Sh NAME"]
    out += [f".Nm {function.name}" + (" ," if function is not functions[-1] else "") for function in functions]
    out += [f".Nd {escape(one_line(contract))}"]
    out += synopsis(functions)

    out.append(".Sh DESCRIPTION")
    for number, (block, of) in enumerate(contract.blocks):
        if number:
            out += [".Pp"]
        if len(contract.blocks) > 1:
            out += list_of(of)
        out += paragraphs(block)
    if contract.group.parts:
        out += [".Pp", "What goes for this group of functions:"]
        out += paragraphs(contract.group)

    arguments = contracts.argument_rows(contract, words)
    if arguments:
        out.append(".Sh ARGUMENTS")
        out += rows(arguments, argument_label)

    results = []
    for block, of in contract.blocks:
        answering = [function for function in of if function.result != "void"]
        text = contracts.result_of(contract, block) if answering else None
        if text and results and results[-1][1] == text:
            results[-1][0].extend(answering)
        elif text:
            results.append((answering, text))
    if results:
        out.append(".Sh RETURN VALUES")
    for answering, text in results:
        if len(results) > 1:
            if answering is not results[0][0]:
                out.append(".Pp")
            out += list_of(answering)
        out += prose(contracts.sentence_case(text))

    shown = []
    for name in SHOWN:
        if text := attribute_text(contract, name):
            shown.append((name, text))
        for block, of in contract.blocks[1:]:
            if (own := block.attribute(name)) is not None and own != text:
                shown.append((f"{name}, {of[0].name}()", own))
    if shown:
        out.append(".Sh ATTRIBUTES")
        out += rows([(name, contracts.sentence_case(text)) for name, text in shown], macro_words)

    out.append(".Sh SEE ALSO")
    mine = {function.name for function in functions}
    text = " ".join(block.everything() for block, _ in contract.blocks)
    known = {function.name for each in everything for function in each.functions()}
    near = {each.functions()[0].name for each in everything if each.section == contract.section}
    near |= known & set(re.findall(r"\w+", text)) | {"libip"}
    references = [f"{name} {section(name)}" for name in sorted(near - mine, key=lambda name: (section(name), name))]
    references.append("ipd 8")
    out += [f".Xr {reference} ," for reference in references[:-1]] + [f".Xr {references[-1]}"]
    out += [".Pp", DOCUMENTS]
    return out


def overview_page(everything, tops):
    out = head("libip")
    out += [".Sh NAME", ".Nm libip", ".Nd IPv4 state of this system for every process that speaks IPv4"]
    out += [".Sh SYNOPSIS", ".In ip_api.h", ".Pp", "Built with", ".Dl " + escape(LINK), ".Sh DESCRIPTION"]
    for number, (header, top) in enumerate(tops):
        if number:
            out += [f".Ss Of {header}"]
        out += paragraphs(top, with_rows=True)
        if top.attributes:
            out += rows([(" , ".join(names), text) for names, text in top.attributes.items()], macro_words)
    out.append(".Sh FUNCTIONS")
    titles = list(dict.fromkeys(contract.section for contract in everything))
    for title in titles:
        out.append(f".Ss {escape(title[0].upper() + title[1:])}")
        out.append(".Bl -tag -width Ds -compact")
        for contract in everything:
            if contract.section == title:
                for function in contract.functions():
                    out.append(f".It Xr {function.name} {section(function.name)}")
                out.append(escape(one_line(contract)))
        out.append(".El")
    return out + [".Sh SEE ALSO", ".Xr ipsh 1 ,", ".Xr libip_messages 3 ,", ".Xr libip_variables 3 ,",
                  ".Xr ipd.conf 5 ,", ".Xr ipd 8", ".Pp", DOCUMENTS]


def variables(source, header):
    """(declaration, names, text) of each extern declaration of a header, with the comment above or beside it."""
    found, comment, new = [], [], True
    for line in re.sub(r",\n +", ", ", source).splitlines():
        if line.startswith("//"):
            comment = [line[3:]] if new else [*comment, line[3:]]
            new = False
            continue
        new = True
        if match := re.match(r"^extern (?!\"C\")([^;()]*);(?: *// *(.*))?$", line):
            names = [re.search(r"(\w+)(?:\[\d*\])*$", part.strip()).group(1) for part in match.group(1).split(",")]
            said = match.group(2) or " ".join(comment)
            if not said:
                raise contracts.ContractError(f"{header}: nothing about the variable {names[0]}")
            found.append((f"extern {match.group(1)};", names, said))
        else:
            comment = []
    return found


def variables_page(found):
    out = head("libip_variables")
    out += [".Sh NAME", ".Nm libip_variables", ".Nd state of the process, as libip keeps it"]
    out += [".Sh SYNOPSIS", ".In ip_api.h", ".Sh DESCRIPTION",
            "A program that links the library may read these variables.", ".Bl -tag -width Ds"]
    for declaration, _, text in found:
        out.append(f".It Vt {macro_words(declaration)}")
        out += prose(text)
    return out + [".El", ".Sh SEE ALSO", ".Xr libip 3 ,", ".Xr libip_messages 3"]


def messages_page(table):
    out = head("libip_messages")
    out += [".Sh NAME", ".Nm libip_messages", ".Nd what libip says in the system log"]
    out += [".Sh SYNOPSIS", ".In ip_api.h", ".Vt extern struct syslog_msg_rec syslog_msg_IP_NAME;",
            ".Vt extern struct msg_error_rec msg_error_IP_NAME;", ".Sh DESCRIPTION",
            "Each message of the library has a severity, 0 being the most severe, and a limit: how many of it are",
            "shown within ten seconds, 0 being no limit.",
            "What stands in it for a conversion is told when it is shown.", ".Bl -tag -width Ds"]
    for name, severity, rate, _, text in table:
        out.append(f".It Sy {name} , No severity {severity} , limit {rate}")
        out += prose(text.removesuffix("\\n"))
    return out + [".El", ".Sh SEE ALSO", ".Xr libip 3 ,", ".Xr libip_variables 3"]


def message_table(source):
    joined = re.sub(r"\"\s*\\\n\s*\"", "", source)
    return re.findall(r"X\((\w+), +(\d+), +(\d+), +(\d+), +\"((?:[^\"\\]|\\.)*)\"\)", joined)


def main(headers, catalogue, output):
    everything, tops, found = [], [], []
    for header in HEADERS:
        source = (headers / header).read_text()
        of_header, top = contracts.parse_header(source, header)
        everything += of_header
        tops.append((header, top))
        found += variables(source, header)
    words = tops[0][1].arguments
    for contract in everything:
        contracts.check(contract, words)

    pages = {"libip": overview_page(everything, tops), "libip_variables": variables_page(found)}
    table = message_table(catalogue.read_text())
    pages["libip_messages"] = messages_page(table)
    for contract in everything:
        first, *others = [function.name for function in contract.functions()]
        pages[first] = function_page(contract, everything, words)
        pages |= {name: [f".so man3/{first}.3"] for name in others}
    pages |= {name: [".so man3/libip_variables.3"] for _, names, _ in found for name in names}
    pages |= {f"{family}_IP_{name}": [".so man3/libip_messages.3"]
              for family in ("syslog_msg", "msg_error") for name, *_ in table}

    output.mkdir(parents=True, exist_ok=True)
    for old in output.glob("*.3*"):
        old.unlink()
    for name, lines in pages.items():
        (output / f"{name}.{section(name)}").write_text("\n".join(lines) + "\n")


if __name__ == "__main__":
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    try:
        main(Path(sys.argv[1]), Path(sys.argv[2]), Path(sys.argv[3]))
    except contracts.ContractError as error:
        sys.exit(str(error))
