# SPDX-License-Identifier: Apache-2.0
"""The contract blocks of public headers, as data.

How a header is read:

- The first comment of a header speaks for all of it; a dashed line begins a section; a comment that stands alone speaks
  for all functions behind it, up to the next such comment or section. A comment directly in front of prototypes is the
  contract block of these prototypes.
- "Threads:", "Blocks:", "Owns:", "Results:", "Cost:" and "Debug lines:" begin an attribute, "Threads, Blocks:" both.
  What a block does not say of one, the comment that stands alone says, and else the header's first.
- Indented lines that begin with the names of arguments and two blanks describe these arguments.
- A block that begins with "The same", or that says "as above", belongs to the block before it.

What must be there, else ContractError: a first sentence; a result of each function that has one (the attribute, or a
first sentence that names the result, or that asks, which is answered by 1 and 0); something about each argument.
"""

import re
from dataclasses import dataclass, field

ATTRIBUTES = ("Threads", "Blocks", "Owns", "Results", "Cost", "Debug lines", "Error text")
_NAMES = "|".join(ATTRIBUTES)
_TAG = re.compile(rf"(?:^|(?<=[.;:!?)] ))((?:{_NAMES})(?:, (?:{_NAMES}))*):(?= |$)")
_SECTION = re.compile(r"^// -{5,} *(.*)$")
_PROTOTYPE = re.compile(r"^(?!typedef|static|struct [^()]*\{|#|extern )[A-Za-z_][\w ]*[ *]\**(\w+)\(")
_ROW = re.compile(r"^((?:[\w.]+)(?:(?:, | \.\. )\w+)*)  +(\S.*)$")
_RESULT_SENTENCE = re.compile(r"^(The|Number of|How many|What|By which|On which|Which|Size in)\b")


class ContractError(Exception):
    """What a header does not say; its text begins with file and line."""


@dataclass
class Text:
    """A comment: its parts in their order, and its attributes."""

    line: int = 0
    parts: list = field(default_factory=list)  # ("text", str), ("code", [str]) or ("rows", [(names, str)])
    attributes: dict = field(default_factory=dict)  # tuple of names -> text

    @property
    def arguments(self):
        return [row for kind, value in self.parts if kind == "rows" for row in value]

    def attribute(self, name):
        return next((text for names, text in self.attributes.items() if name in names), None)

    def prose(self):
        return " ".join(text for kind, text in self.parts if kind == "text")

    def everything(self):
        rows = [f"{' '.join(names)} {text}" for names, text in self.arguments]
        return " ".join([self.prose(), *rows, *self.attributes.values()])


@dataclass
class Function:
    name: str
    result: str
    arguments: list  # of declarations
    names: list  # of arguments
    header: str
    line: int


@dataclass
class Contract:
    """A block, with those that belong to it, and what holds for it from around."""

    section: str
    header: str
    blocks: list  # of (Text, [Function])
    group: Text
    top: Text

    def functions(self):
        return [function for _, functions in self.blocks for function in functions]


def first_sentence(text):
    match = re.match(r".*?(?<!\.)[.?!](?= |$)", text)
    return match.group(0) if match else text


def sentence_case(text):
    """With a capital letter first, unless a name stands there."""
    return text if re.match(r"[a-z]*[_(]", text) else text[0].upper() + text[1:]


def is_question(text):
    return first_sentence(text).endswith("?")


def _split_attributes(text, logical):
    """One paragraph of prose: what stands in front of the first attribute, and the attributes."""
    pieces = _TAG.split(logical)
    said = re.sub(r"(?:^| )[AF][lo]\w* [\w ]+:$", "", pieces[0].strip())  # "All of them:", "For all calls:"
    if said:
        text.parts.append(("text", said))
    for names, value in zip(pieces[1::2], pieces[2::2]):
        key = tuple(names.split(", "))
        text.attributes[key] = f"{text.attributes.get(key, '')} {value.strip()}".strip()
    return pieces[-2] if len(pieces) > 1 else None


def _row_names(text):
    """"addr, c1 .. c3" are addr, c1, c2 and c3."""
    names = []
    for part in text.split(", "):
        first, _, last = part.partition(" .. ")
        if not last:
            names.append(first)
        elif first[:-1] == last[:-1] and first[-1].isalpha():
            names += [first[:-1] + chr(each) for each in range(ord(first[-1]), ord(last[-1]) + 1)]
        else:
            stem = first.rstrip("0123456789")
            names += [f"{stem}{each}" for each in range(int(first[len(stem):]), int(last[len(stem):]) + 1)]
    return names


def parse_comment(lines, line):
    """lines: without the slashes. line: number of the first."""
    text = Text(line=line)
    prose = ""

    def flush():
        nonlocal prose
        if prose:
            _split_attributes(text, prose)
        prose = ""

    where = None  # of the last line: "prose", "tag" (its attribute may go on indented), "row", "code"
    in_table = False  # code whose first line, the heads of its columns, stands deeper than its lines
    for raw in lines:
        content = raw.strip()
        indent = len(raw) - len(raw.lstrip())
        if not content:
            flush()
            where, in_table = None, False
            if text.parts and text.parts[-1][0] == "code":
                text.parts[-1][1].append("")
        elif indent < 3:
            prose = f"{prose} {content}".strip()
            where = "tag" if _TAG.search(prose) else "prose"
        elif where == "row" and indent > 3:
            names, value = text.parts[-1][1][-1]
            text.parts[-1][1][-1] = (names, f"{value} {content}")
        elif (row := _ROW.match(content)) and indent == 3 and not in_table:
            flush()
            if where != "row":
                text.parts.append(("rows", []))
            text.parts[-1][1].append((_row_names(row.group(1)), row.group(2)))
            where = "row"
        elif where == "tag" and not (prose.endswith(":") and prose.count("(") == prose.count(")")):
            prose = f"{prose} {content}"
        else:
            flush()
            if not text.parts or text.parts[-1][0] != "code":
                text.parts.append(("code", []))
                in_table = indent > 3
            text.parts[-1][1].append(raw[3:])
            where = "code"
    flush()
    return text


def _split_arguments(declaration):
    parts, depth = [""], 0
    for character in declaration:
        if character == "," and depth == 0:
            parts.append("")
            continue
        depth += (character == "(") - (character == ")")
        parts[-1] += character
    parts = [part.strip() for part in parts]
    return [] if parts == ["void"] else parts


def _argument_name(declaration):
    match = re.search(r"\(\*(\w+)\)", declaration) or re.search(r"(\w+|\.\.\.)(?:\[\w*\])?$", declaration)
    return match.group(1)


def parse_prototype(text, header, line):
    text = re.sub(r" RSW_PRINTF\(.*\);$", ";", " ".join(text.split()))
    match = re.match(r"^(.*?)(\w+)\((.*)\);$", text)
    if not match:
        raise ContractError(f"{header}:{line}: not understood: {text}")
    arguments = _split_arguments(match.group(3))
    names = [_argument_name(argument) for argument in arguments]
    return Function(match.group(2), match.group(1).strip(), arguments, names, header, line)


def parse_header(source, header):
    """The contracts of a header, in its order, and its first comment. header: its name, for messages."""
    lines = source.splitlines()
    contracts, top, group, section = [], None, Text(), ""
    comment, comment_line = [], 0
    attached = None  # the comment in front of this line, or the block whose prototypes follow each other
    i = 0

    def stands_alone():
        nonlocal group, top, comment, attached
        if comment:
            text = parse_comment(comment, comment_line)
            if top is None:
                top = text
            else:
                group = text
        comment, attached = [], None

    while i < len(lines):
        line = lines[i]
        if dashed := _SECTION.match(line):
            stands_alone()
            section, group = dashed.group(1), Text()
            # Where the section's name would not fit, clang-format leaves it to a second line.
            if not section:
                raise ContractError(f"{header}:{i + 1}: a section without a name on its line")
        elif line.startswith("//"):
            if attached:
                attached = None
            if not line.startswith("// SPDX"):
                comment_line = comment_line if comment else i + 1
                comment.append(line[2:])
        elif not line.strip():
            stands_alone()
        elif line.startswith("#"):
            if top is None:
                stands_alone()
            while lines[i].endswith("\\"):
                i += 1
            if not line.startswith("#if") and not line.startswith("#e"):
                comment, attached = [], None
        elif _PROTOTYPE.match(line):
            start = i
            while not lines[i].rstrip().endswith(";"):
                i += 1
            function = parse_prototype(" ".join(lines[start : i + 1]), header, start + 1)
            if comment:
                block = parse_comment(comment, comment_line)
                comment = []
                attached = (block, [])
                joins = block.prose().startswith("The same") or re.search(r"\bas above\b", block.everything())
                if joins and contracts and contracts[-1].section == section:
                    contracts[-1].blocks.append(attached)
                else:
                    contracts.append(Contract(section, header, [attached], group, top))
            elif attached is None:
                raise ContractError(f"{header}:{start + 1}: {function.name} has no contract block")
            attached[1].append(function)
        else:
            if re.match(r"^(typedef )?(struct|enum)\b.*\{$", line):
                while not lines[i].startswith("}"):
                    i += 1
            comment, attached = [], None
        i += 1
    return contracts, top


def result_of(contract, block):
    """What the function of this block answers, or None where nothing says it."""
    if re.search(r"\b[Rr]esults as above", block.prose()):
        block = contract.blocks[0][0]
    own = block.attribute("Results")
    group = contract.group.attribute("Results")
    if own is not None:
        return own
    prose = block.prose()
    sentence = first_sentence(prose)
    if sentence.startswith("The same"):
        return result_of(contract, contract.blocks[0][0])
    said = None
    if is_question(prose):
        said = "1: yes. 0: no."
    elif _RESULT_SENTENCE.match(sentence):
        said = sentence
    if said is None and group is None:
        return contract.top.attribute("Results")
    return " ".join(each for each in (said, group) if each)


def argument_rows(contract, words):
    """Rows for the arguments of a contract: (names, text), each once, those of the glossary last."""
    rows, seen = [], {}
    names = {name for function in contract.functions() for name in function.names}
    for block, functions in contract.blocks + [(contract.group, [])]:
        for row_names, text in block.arguments:
            wanted = [name for name in row_names if name in names and name not in seen]
            again = [name for name in row_names if functions and seen.get(name, text) != text]
            if wanted:
                rows.append((wanted, text))
                seen |= {name: text for name in wanted}
            if again and not text.startswith("as above"):
                rows.append((again, f"of {functions[0].name}(): {text}"))
    for row_names, text in words:
        wanted = [name for name in row_names if name in names - seen.keys()]
        if wanted:
            rows.append((wanted, text))
            seen |= {name: text for name in wanted}
    return rows


def check(contract, words):
    """Raises ContractError for what a reader would look for in vain."""
    listed = {name for row_names, _ in argument_rows(contract, words) for name in row_names}
    said = " ".join([block.everything() for block, _ in contract.blocks] + [contract.group.everything()])
    for block, functions in contract.blocks:
        where = f"{contract.header}:{block.line}"
        if not block.prose():
            raise ContractError(f"{where}: {functions[0].name}: the block does not say what the function does")
        for function in functions:
            if function.result != "void" and not result_of(contract, block):
                raise ContractError(f"{where}: {function.name}: no result: a block needs \"Results:\"")
            for name in function.names:
                if name not in listed and not re.search(rf"\b{re.escape(name)}\b", said):
                    raise ContractError(f"{where}: {function.name}: nothing about its argument {name}")
            around = (block, contract.blocks[0][0], contract.group, contract.top)
            if not any(source.attribute("Threads") for source in around):
                raise ContractError(f"{where}: {function.name}: which threads may call it? \"Threads:\" is missing")
