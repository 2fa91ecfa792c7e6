#!/usr/bin/env python3
"""Shows a public header to doxygen: filter.py HEADER prints it with its plain comments in doxygen's form.

The headers are written for whoever opens them, without markup. What stands where tells what is meant:

  at the top of the file            the introduction of the family
  above declarations                belongs to each of them, up to the next empty line or comment
  above several #defines            a heading; each #define has its own line behind it
  behind a declaration or a member  belongs to that one; it comes first where there is one above, too
  "--- Title. Text"                 a heading, from here to the next one; its text joins the introduction
  by itself, an empty line below    joins the introduction
  lines indented by two more        a list: a term, two blanks or more, and what it is

`name` in a text is code. Everything else is text: nothing in it is a command of doxygen's or of Markdown.
Names that some header declares become links.
"""

import pathlib
import re
import sys

HEADERS = pathlib.Path(__file__).resolve().parents[2] / "include"
GUARD = re.compile(r"#ifndef VORN(_[A-Z]+)?_H$")
TITLE = re.compile(r"-{3,4} ([^.]+)\.\s*(.*)$", re.S)
FIRST_SENTENCE = re.compile(r"(.+?)[.:;](?:\s+(.*))?$", re.S)
BEHIND = re.compile(r"^(.*\S)\s*/\*\s?(.*?)\s*\*/$")
DECLARED = re.compile(r"^#define (\w+)|^\} (\w+);|^(?:[\w* ]+?[ *])?(?!static_assert)(\w+)\("
                      r"|^extern [^;\"{]*?(\w+)(?:\[\w+\])?;|^typedef [^;({]*?(\w+)(?:\(|;)", re.M)


def declared_names():
    text = "".join(path.read_text() for path in sorted(HEADERS.rglob("*.h")))
    text = re.sub(r"/\*.*?\*/", "", text, flags=re.S)
    return {name for match in DECLARED.finditer(text) for name in match.groups() if name}


NAMES = declared_names()


def typedef_only(text):
    """Records that C knows by the name of a typedef alone, because their tag is another one, or missing."""
    found = re.findall(r"^typedef (?:struct|union)(?: (\w+))? \{$.*?^\} (\w+);", text, re.M | re.S)
    return {name for tag, name in found if tag != name}


# --- Texts.

def escaped(text):
    return re.sub(r"([\\@&$#<>%\"])", r"\\\1", text).replace("::", r"\::")


def linked(text):
    """Escaped text with links; what is quoted, or part of a path or a word, is none."""
    def link(match):
        name = match.group()
        return f'\\ref {name} "{name}"' if name in NAMES else name
    return re.sub(r"(?<![\w/.*-])[A-Za-z_]\w+(?![\w/*]|[.]\w|-\w)", link, escaped(text))


def prose(text):
    pieces = re.split(r'(`[^`]*`|"[^"\n]*")', text)
    for i, piece in enumerate(pieces):
        if i % 2 and piece[0] == "`":
            pieces[i] = f"<tt>{escaped(piece[1:-1])}</tt>"
        else:
            pieces[i] = escaped(piece) if i % 2 else linked(piece)
    return "".join(pieces)


def term_list(lines):
    rows = []
    for line in lines:
        term, _, rest = line.strip().partition("  ")
        if len(line) - len(line.lstrip()) > 2:
            rows[-1][1] += " " + line.strip()
        else:
            rows.append([term, rest.strip()])
    return "<dl>" + "".join(f"<dt>{prose(term)}</dt><dd>{prose(rest)}</dd>" for term, rest in rows) + "</dl>"


def body(text):
    """A comment in doxygen's form: paragraphs of prose, and lists."""
    out = []
    for paragraph in re.split(r"\n\s*\n", text.strip("\n")):
        lines = paragraph.split("\n")
        first = next((i for i, line in enumerate(lines) if line.startswith("  ")), len(lines))
        if lines[:first]:
            out.append(prose("\n".join(lines[:first])))
        if lines[first:]:
            out.append(term_list(lines[first:]))
    return "\n\n".join(out)


def sentence(text):
    """A line from behind a declaration; its first word may be a name, and stays as it is then."""
    first = re.match(r"[a-z]+\b(?!_)", text)
    if first and first.group() not in NAMES:
        text = text[0].upper() + text[1:]
    return text if text[-1] in ".!?" else text + "."


def paragraph_titled(title, text):
    return [f"\\par {escaped(title)}\n{body(sentence(text))}"] if text else []


# --- The pieces of a header.

def comment_text(lines):
    text = [re.sub(r"^\s*\* ?", "", line) for line in lines]
    text[0] = re.sub(r"^\s*/\* ?", "", lines[0])
    text[-1] = re.sub(r"\s*\*/$", "", text[-1])
    return "\n".join(line.rstrip() for line in text)


def depth_of(line):
    """What a line adds to the depth of braces; the braces of extern "C" don't count."""
    code = re.sub(r"/\*.*?\*/", "", line)
    return 0 if code.startswith(('extern "C"', "}\n")) or code == "}" else code.count("{") - code.count("}")


def pieces(lines):
    """Yields ("comment", text) for one with lines of its own, ("code", lines) up to an empty line or a comment."""
    run, depth, i = [], 0, 0
    while i < len(lines):
        line, end = lines[i], i + 1
        if depth == 0 and line.lstrip().startswith("/*"):
            while "*/" not in lines[end - 1]:
                end += 1
        if run and (end > i + 1 or not line.strip() or (depth == 0 and line.startswith("/*"))):
            yield "code", run
            run = []
        if depth == 0 and line.startswith("/*"):
            yield "comment", comment_text(lines[i:end])
            if end < len(lines) and not lines[end].strip():
                yield "blank", None
        elif line.strip():
            run.append(line)
            depth += depth_of(line)
        i = end
    if run:
        yield "code", run


def declarations(lines):
    """Joins the lines of code into declarations, a record's members with it."""
    part, depth = [], 0
    for line in lines:
        part.append(line)
        depth += depth_of(line)
        code = re.sub(r"/\*.*?\*/", "", line).rstrip()
        if depth == 0 and (code.endswith((";", "}", '{')) or code.startswith("#")):
            yield part
            part = []
    if part:
        yield part


def name_of(declaration):
    match = re.match(r"[\w* ]*?(\w+)\(", declaration[0])
    return match.group(1) if match else ""


def members(lines):
    """A record with the comments behind its members in front of them."""
    out, start = [], 0
    for line in single(lines):
        match = BEHIND.match(line)
        if match:
            out.insert(start, f"/** {body(sentence(match.group(2)))} */")
            line = match.group(1)
        elif line.lstrip().startswith("/*"):
            line = line.replace("/*", "/**", 1)
        out.append(line)
        if line.rstrip().endswith((";", "{")):
            start = len(out)
    return out


def single(lines):
    """A line with `a *b, *c;` as two: doxygen gives a comment to the first declarator alone."""
    for line in lines:
        match = re.match(r"(\s+[\w ]*\w )(\**\w+(?:, \**\w+)+);(\s*/\*.*)?$", line)
        declarators = match.group(2).split(", ") if match else []
        yield from [f"{match.group(1)}{one};{match.group(3) or ''}" for one in declarators] or [line]


def documented(declaration, texts):
    """A declaration below its comment: what stands behind it, then `texts`."""
    lines = list(declaration)
    if any("{" in line for line in lines):
        lines = members(lines)
    else:
        match = BEHIND.match(lines[-1])
        if match:
            lines[-1] = match.group(1)
            texts = [sentence(match.group(2)), *texts]
    if texts:
        lines.insert(0, "/** " + "\n\n".join(body(text) for text in texts) + " */")
    return lines


class Page:
    """What comes out: the introduction, and the code with headings."""

    def __init__(self):
        self.introduction, self.code = [], []
        self.section, self.open = "", False

    def heading(self, title):
        """Opened when the first declaration comes, so that no heading stands over nothing."""
        self.close()
        self.section = title

    def close(self):
        if self.open:
            self.code.append("/** @} */")
        self.open = False

    def declare(self, lines):
        if self.section and not self.open:
            self.code += [f"/** \\name {escaped(self.section)} */", "/** @{ */"]
            self.open = True
        self.code += lines


def put_run(page, run, above):
    """One run of code with the comment above it, which may be empty."""
    is_define = [line.startswith("#define") for line in run]
    outer = page.section
    defines = above and len(run) > 1 and all(is_define)
    if defines:
        title, rest = FIRST_SENTENCE.match(above).groups()
        page.heading(title.replace("\n", " "))
        page.introduction += paragraph_titled(title.replace("\n", " "), rest)
        above = ""
    parts = list(declarations(run))
    family = [name_of(part) for part in parts if name_of(part)]
    texts = [above] if above else []
    if above and len(family) > 1:
        texts.append(f"This text is for {', '.join(family[:-1])} and {family[-1]}.")
    for part in parts:
        directive = part[0].startswith("#") and not part[0].startswith("#define")
        if directive or depth_of(part[0]) == 0 and part[0].startswith(('extern "C"', "}")):
            page.code += part
        else:
            page.declare(documented(part, texts))
    page.code.append("")
    if defines:
        page.heading(outer)


def put_text(page, text):
    """A comment that stands by itself, or begins a section. True if it is used up by that."""
    match = TITLE.match(text)
    if match:
        page.heading(match.group(1).replace("\n", " "))
        page.introduction += paragraph_titled(*match.groups())
    return bool(match)


def shown(path):
    page, above = Page(), ""
    for kind, value in pieces(path.read_text().split("\n")):
        if kind == "comment":
            above = "" if put_text(page, value) else value
        elif kind == "blank":
            page.introduction += [body(above)] if above else []
            above = ""
        else:
            if GUARD.match(value[0]):
                page.introduction += [body(above)] if above else []
                above = ""
            put_run(page, value, above)
            above = ""
    page.close()
    intro = "\n\n".join(page.introduction)
    return f"/** \\file {path.relative_to(HEADERS)}\n{intro} */\n" + "\n".join(page.code)


if __name__ == "__main__":
    print(shown(pathlib.Path(sys.argv[1]).resolve()))
