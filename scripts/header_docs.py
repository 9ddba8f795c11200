"""Reads the library's headers: what each declares, under which comment. Used by scripts/manpages and its test."""
import dataclasses
import pathlib
import re


@dataclasses.dataclass
class Call:
    """A function, or a macro with arguments."""
    name: str
    text: str  # the prototype as it is shown, or the macro's head
    is_macro: bool = False
    is_inline: bool = False


@dataclasses.dataclass
class Group:
    """The calls under one comment."""
    comment: str
    calls: list
    header: str = ""

    @property
    def name(self):
        return next((c.name for c in self.calls if not c.is_macro), self.calls[0].name)

    @property
    def names(self):
        return [self.name] + [c.name for c in self.calls if c.name != self.name]


@dataclasses.dataclass
class Page:
    """What stands on one page of the manual: a group, or a section of inline accessors with its heading."""
    header: str
    heading: str  # the section's comment, empty for a single group
    groups: list

    @property
    def name(self):
        return self.groups[0].name

    @property
    def names(self):
        return [name for group in self.groups for name in group.names]

    @property
    def calls(self):
        return [call for group in self.groups for call in group.calls]


@dataclasses.dataclass
class Header:
    name: str  # without the ending
    opening: str
    pages: list


def comment_text(raw):
    """A comment without its stars: paragraphs divided by an empty line; a list or a snippet keeps its lines."""
    lines = [re.sub(r"^\s*\* ?", "", line).rstrip() for line in raw[2:-2].strip("\n").split("\n")]
    return "\n".join(lines).strip()


def tokens(code):
    """The header in pieces: ("comment" | "macro" | "code", text)."""
    at = 0
    while at < len(code):
        if code.startswith("/*", at):
            end = code.index("*/", at) + 2
            yield "comment", code[at:end]
        elif code[at] == "#":
            end = directive_end(code, at)
            yield "macro", code[at:end]
        elif code[at].isspace():
            end = at + 1
        elif bracket := re.compile(r"MV_(BEGIN|END)_DECLS\b").match(code, at):
            end = bracket.end()
        else:
            end = declaration_end(code, at)
            yield "code", code[at:end]
        at = end


def directive_end(code, at):
    """The line end of a directive, behind lines that a backslash continues."""
    while True:
        end = code.find("\n", at)
        if end < 0 or code[end - 1] != "\\":
            return len(code) if end < 0 else end
        at = end + 1


def declaration_end(code, at):
    """Behind the semicolon of a declaration, or the brace that ends a function's body."""
    depth = 0
    while at < len(code):
        if code.startswith("/*", at):
            at = code.index("*/", at) + 2
            continue
        char = code[at]
        depth += {"{": 1, "}": -1}.get(char, 0)
        at += 1
        if depth == 0 and char == ";":
            return at
        if depth == 0 and char == "}" and not re.match(r"\s*(\w+\s*)?;", code[at:]):
            return at
    return at


def strip_attributes(text):
    text = re.sub(r"\bMV_\w+\([^()]*\)", "", text)
    text = re.sub(r"__attribute__\s*\(\((?:[^()]|\([^()]*\))*\)\)", "", text)
    text = re.sub(r"__asm__\s*\((?:[^()]|\([^()]*\))*\)|\bMV_\w+\b(?!\()", "", text)
    return re.sub(r"\s+", " ", text).strip()


def as_function(code):
    """The function that a declaration declares or defines, or None."""
    if re.match(r"(typedef|enum|struct\s+\w+\s*\{|union\s+\w+\s*\{|extern\b(?!\s+\"C\"))", code):
        return None
    is_inline = bool(re.match(r"static\s+(__\w+__\s+)?(inline|__inline__)\b", code))
    head = strip_attributes(re.sub(r"/\*.*?\*/", " ", code.split("{")[0] if is_inline else code, flags=re.S))
    match = re.match(r"([\w\s*]+?)\b(\w+)\s*\((.*)\)\s*;?$", head)
    if not match:
        return None
    result = re.sub(r"^static (__\w+__ )?(inline|__inline__) ", "", match.group(1)).strip()
    blank = "" if result.endswith("*") else " "
    return Call(match.group(2), f"{result}{blank}{match.group(2)}({match.group(3).strip()});", is_inline=is_inline)


def as_macro(line):
    match = re.match(r"#\s*define\s+(\w+)\(([^)]*)\)", line)
    if not match:
        return None
    return Call(match.group(1), f"{match.group(1)}({match.group(2)})", is_macro=True)


def read_groups(pieces, header):
    """Each comment with the calls that follow it; a comment without any stays, as the heading of a section."""
    groups = []
    for kind, text in pieces:
        if kind == "comment":
            groups.append(Group(comment_text(text), [], header))
            continue
        call = as_macro(text) if kind == "macro" else as_function(text)
        if call and groups and not call.name.endswith("_") and call.name not in (c.name for c in groups[-1].calls):
            groups[-1].calls.append(call)
    return groups


def as_pages(groups, header):
    """A group is a page; inline accessors of one section share theirs."""
    pages = []
    heading = ""
    for group in groups:
        if not group.calls:
            heading = group.comment
        elif heading and all(call.is_inline for call in group.calls):
            if pages and pages[-1].heading == heading:
                pages[-1].groups.append(group)
            else:
                pages.append(Page(header, heading, [group]))
        else:
            pages.append(Page(header, "", [group]))
    return pages


def read_header(path):
    pieces = list(tokens(path.read_text(encoding="utf-8")))
    opening = next(comment_text(text) for kind, text in pieces if kind == "comment")
    return Header(path.stem, opening, as_pages(read_groups(pieces[1:], path.stem), path.stem))


PRIVATE = {"mvtypes"}  # brackets and attributes: nothing that is called


def read_headers(folder):
    paths = (p for p in sorted(pathlib.Path(folder).glob("*.h")) if p.stem not in PRIVATE)
    return [read_header(path) for path in paths]
