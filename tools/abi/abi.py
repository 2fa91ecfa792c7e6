#!/usr/bin/env python3
"""Holds the library and its public headers against the lists of abi/, and renews the lists.

    abi.py check [LIST...]    names every line that is gone, changed or new; fails if there is one
    abi.py write [LIST...]    the same, and writes the lists; `./dev abi` runs this. It fails only over what it
                              can't write: names that belong in exports.list, or must not be

Nothing that is looked at is found by a name that somebody has to add here: the symbols are those of the built
library, functions come from the compiler's own report of declarations, records and enumerators from its debug
information, macros from its preprocessor. Those count that stand in a file of the headers' folder.
"""

import argparse
import os
import pathlib
import re
import subprocess
import sys
import tempfile

TOP = pathlib.Path(__file__).resolve().parents[2]

HEADINGS = {
    "functions": """\
Every function that the library exports, sorted, with its type if a public header declares it. A change of a
type breaks callers, even where the name stays.""",
    "variables": """\
Every variable that the library exports and its size in bytes, sorted; all other exported names are functions.
A size is copied into the programs that use the variable: it never changes.""",
    "records": """\
Every record and named type of the public headers, sorted; below a record its fields, as they lie in memory,
with offset and size in bytes. Programs have these compiled in: no line goes or changes.""",
    "constants": """\
Every macro and enumerator of the public headers that has a value, sorted: numbers in decimal, anything else
as it is written. Programs have these compiled in: no line goes or changes.""",
}
RENEW = "Made by ./dev abi."


class Trouble(Exception):
    """A tool failed; the text is what it said."""


def run(*words, cwd=None):
    words = [str(word) for word in words]
    try:
        done = subprocess.run(words, cwd=cwd, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False,
                              env={**os.environ, "LC_ALL": "C"})
    except OSError as error:  # most likely it isn't installed
        raise Trouble(f"{words[0]}: {error.strerror}\n") from None
    if done.returncode != 0:
        raise Trouble(f"{' '.join(words)}\n{done.stderr}")
    return done.stdout


# The library.


def symbols(options):
    """Every defined dynamic symbol: (name, version, kind, binding, size)."""
    for line in run(options.readelf, "--wide", "--dyn-syms", options.library).splitlines():
        words = line.split()
        if len(words) < 8 or not words[0].rstrip(":").isdigit() or words[6] == "UND":
            continue
        name, _, version = words[7].partition("@")
        if words[6] == "ABS" and name.startswith("VORNTHR_"):  # the version nodes themselves
            continue
        yield name, version.lstrip("@"), words[3], words[4], int(words[2], 0)


def exported_names(options):
    return [symbol[0] for symbol in symbols(options)]


def variables(options):
    return [f"{name}  {size}" for name, _, kind, _, size in symbols(options) if kind == "OBJECT"]


def odd_symbols(options):
    """What an exported name must not be, whatever the list says."""
    for name, version, kind, binding, _ in symbols(options):
        node = "VORNTHR_PRIVATE" if name.startswith("_") else "VORNTHR_5.0"
        if version != node:
            yield f"{name}: is in the version node {version or '(none)'}, not in {node}"
        if binding != "GLOBAL":
            yield f"{name}: has the binding {binding}, not GLOBAL"
        if kind not in ("FUNC", "OBJECT"):
            yield f"{name}: is {kind}, neither function nor object"
        if name.startswith("_Z"):
            yield f"{name}: has no linkage to C"


# The headers.


def header_files(options):
    return sorted(path.relative_to(options.headers) for path in options.headers.rglob("*.h"))


def variants(options):
    """The options for each way the headers can be read: plainly, and with each switch that they ask for."""
    condition = re.compile(r"^[ \t]*#[ \t]*(?:ifn?def|if|elif)\b(.*)", re.M)
    asked = set()
    for header in header_files(options):
        for words in condition.findall((options.headers / header).read_text(encoding="utf-8")):
            asked.update(re.findall(r"\bVORN_\w+", words))
    return [[]] + [["-D" + name] for name in sorted(asked) if not name.endswith("_H")]


def all_included(options):
    return "".join(f"#include <{header}>\n" for header in header_files(options))


def compiling(options, extra, *words):
    """A command that compiles C against the headers and nothing else of ours."""
    return [options.compiler, "-std=c99", "-w", "-I", options.headers, *extra, *words]


def is_public(path, options):
    return pathlib.Path(os.path.realpath(path)).is_relative_to(options.headers)


def declarations(options):
    """The type of each function that the public headers declare, by its name."""
    found = {}
    for extra in variants(options):
        with tempfile.TemporaryDirectory() as folder:
            report = pathlib.Path(folder, "report")
            pathlib.Path(folder, "all.c").write_text(all_included(options), encoding="utf-8")
            run(*compiling(options, extra, "-fsyntax-only", "-aux-info", report, "all.c"), cwd=folder)
            for line in report.read_text(encoding="utf-8").splitlines():
                match = re.fullmatch(r"/\* (.*):\d+:\w+ \*/ (?:extern )?(.*);.*", line)
                if match and is_public(match.group(1), options):
                    # Behind the name stand its parameters; "(*" would make a pointer of what is before it.
                    name = re.search(r"(\w+) \((?!\*)", match.group(2)).group(1)
                    found[name] = match.group(2)
    return found


def functions(options):
    declared = declarations(options)
    exported = {name: "(in no public header)" for name, _, kind, _, _ in symbols(options) if kind == "FUNC"}
    return [f"{name}  {kind}" for name, kind in {**exported, **declared}.items()]


def unlisted_declarations(options):
    """Programs that call such a function don't link."""
    listed = set(read_list("exports", options))
    for name in sorted(declarations(options).keys() - listed):
        yield f"{name}: declared in a public header, but not in exports.list"


def macros(options, extra):
    """(name with its parameters, body) of each definition in the public headers that has a body."""
    with tempfile.TemporaryDirectory() as folder:
        pathlib.Path(folder, "all.c").write_text(all_included(options), encoding="utf-8")
        text = run(*compiling(options, extra, "-E", "-dD", "all.c"), cwd=folder)
    public = False
    for line in text.splitlines():
        marker = re.match(r'# \d+ "(.*?)"', line)
        if marker:
            public = is_public(marker.group(1), options)
        match = re.fullmatch(r"#define (\w+(?:\([^)]*\))?) (.+)", line)
        if public and match:
            yield match.group(1), match.group(2).strip()


# A whole number written out: numbers, operators and the words of plain types, of which a cast is made.
NUMBER = r"(?:0[xX][0-9a-fA-F]+|\d+)[uUlL]*|'(?:\\.|[^'\\])+'"
ARITHMETIC = re.compile(rf"(?:{NUMBER}|\b(?:int|long|short|char|unsigned|signed)\b|[-+*/%()~!<>=&|^?:\s])+")


def values(bodies, options, extra):
    """The number that each of the bodies stands for, where it stands for one."""
    with tempfile.TemporaryDirectory() as folder:
        lines = "".join(f"@@{index} {body}\n" for index, body in enumerate(bodies))
        pathlib.Path(folder, "all.c").write_text(all_included(options) + lines, encoding="utf-8")
        text = run(*compiling(options, extra, "-E", "-P", "all.c"), cwd=folder)
        program = "#include <stdio.h>\nint main(void)\n{\n"
        for index, body in re.findall(r"@@(\d+) (.*)", text):
            if ARITHMETIC.fullmatch(body) and re.search(r"\d|'", body):
                program += f'    printf("%d %lld\\n", {index}, (long long)({body}));\n'
        pathlib.Path(folder, "values.c").write_text(program + "    return 0;\n}\n", encoding="utf-8")
        run(*compiling(options, [], "values.c", "-o", "values"), cwd=folder)
        pairs = (line.split() for line in run(pathlib.Path(folder, "values")).splitlines())
        return {int(index): value for index, value in pairs}


def constants(options):
    lines = set()
    for extra in variants(options):
        found = list(macros(options, extra))
        numbers = values([body for _, body in found], options, extra)
        for index, (name, body) in enumerate(found):
            lines.add(f"{name}  {numbers.get(index, body)}")
        for entry in public_entries(debug_information(options, extra), options):
            if entry.tag == "enumeration_type":
                lines.update(f"{child.name}  {child.number('const_value')}" for child in entry.children)
    return lines


# Debug information, as readelf prints it.


class Entry:
    """One entry: its tag, its attributes as text, the entries below it."""

    def __init__(self, tag):
        self.tag = tag
        self.attributes = {}
        self.children = []
        self.entries = None
        self.file = None

    @property
    def name(self):
        return self.attributes.get("name")

    def number(self, attribute, otherwise=None):
        text = self.attributes.get(attribute)
        return otherwise if text is None else int(re.split(r"[\s,]", text)[0], 0)

    @property
    def type(self):
        """The entry that this one is of; None stands for void."""
        match = re.match(r"<(?:0x)?([0-9a-f]+)>", self.attributes.get("type", ""))
        return self.entries[int(match.group(1), 16)] if match else None


def debug_information(options, extra):
    """Entry by offset. What no code uses is kept, too, since there is no code here."""
    with tempfile.TemporaryDirectory() as folder:
        pathlib.Path(folder, "all.c").write_text(all_included(options), encoding="utf-8")
        extra = [*extra, "-g", "-gdwarf-4", "-fno-eliminate-unused-debug-types"]
        run(*compiling(options, extra, "-c", "all.c"), cwd=folder)
        text = run(options.readelf, "--wide", "--debug-dump=info", "all.o", cwd=folder)
        table = run(options.readelf, "--wide", "--debug-dump=rawline", "all.o", cwd=folder)
    entries, open_entries, entry = {}, {}, None
    for line in text.splitlines():
        head = re.match(r"\s*<([0-9a-f]+)><([0-9a-f]+)>: Abbrev Number: (?:0|\d+ \(DW_TAG_(\w+)\))", line)
        if head:
            entry = None
            if head.group(3):
                depth, entry = int(head.group(1), 16), Entry(head.group(3))
                entry.entries = entries
                entries[int(head.group(2), 16)] = open_entries[depth] = entry
                if depth > 0:
                    open_entries[depth - 1].children.append(entry)
            continue
        attribute = re.match(r"\s+<[0-9a-f]+>\s+DW_AT_(\w+)\s*:\s?(.*)", line)
        if attribute and entry is not None:
            # Before the value stand its form, and where a text lies: "(strp) (offset: 0x70): size_t".
            value = re.sub(r"^(\([^()]*\):?\s*)+", "", attribute.group(2))
            entry.attributes[attribute.group(1)] = value.strip()
    files = file_table(table)
    for entry in entries.values():
        entry.file = files.get(entry.number("decl_file"))
    return entries


def file_table(text):
    """Path by number, as entries name the file that they stand in."""
    folders, files = {}, {}
    for line in text.splitlines():
        folder = re.fullmatch(r"\s+(\d+)\t(\S+)", line)
        file = re.fullmatch(r"\s+(\d+)\t(\d+)\t\d+\t\d+\t(\S+)", line)
        if file:
            files[int(file.group(1))] = os.path.join(folders.get(int(file.group(2)), ""), file.group(3))
        elif folder:
            folders[int(folder.group(1))] = folder.group(2)
    if not files:
        raise Trouble("readelf shows no table of files\n")
    return files


def public_entries(entries, options):
    return [entry for entry in entries.values() if entry.file and is_public(entry.file, options)]


RECORDS = {"structure_type": "struct", "union_type": "union", "enumeration_type": "enum", "class_type": "class"}


def type_size(entry):
    """Bytes; 0 for what has none, such as a function."""
    if entry is None:
        return 0
    if entry.tag == "pointer_type":
        return entry.number("byte_size", 8)
    if entry.tag == "array_type":
        size = type_size(entry.type)
        for length in array_lengths(entry):
            size *= length or 0
        return size
    return entry.number("byte_size") if "byte_size" in entry.attributes else type_size(entry.type)


def array_lengths(entry):
    """Of each dimension; None for one without end."""
    for child in entry.children:
        if child.tag == "subrange_type":
            bound = child.number("upper_bound")
            yield child.number("count") if bound is None else bound + 1


def type_name(entry, options):
    """As C writes it, nearly. Names of the system's types are looked through: their sizes are what counts."""
    if entry is None:
        return "void"
    inner = lambda: type_name(entry.type, options)
    if entry.tag == "typedef":
        return entry.name if entry.file and is_public(entry.file, options) or entry.type is None else inner()
    if entry.tag == "pointer_type":
        return inner() + " *"
    if entry.tag in ("const_type", "volatile_type", "restrict_type"):
        return entry.tag[:-len("_type")] + " " + inner()
    if entry.tag == "array_type":
        return inner() + "".join(f"[{'' if length is None else length}]" for length in array_lengths(entry))
    if entry.tag == "subroutine_type":
        parameters = ["..." if child.tag == "unspecified_parameters" else type_name(child.type, options)
                      for child in entry.children]
        return f"{inner()} ({', '.join(parameters) or 'void'})"
    if entry.tag in RECORDS:
        return f"{RECORDS[entry.tag]} {entry.name or '(unnamed)'}"
    return entry.name


def field_lines(owner, record, start, options):
    for field in record.children:
        if field.tag != "member":
            continue
        offset = start + field.number("data_member_location", 0)
        name = f"{owner}.{field.name or '(unnamed)'}"
        bits = "".join(f"  {attribute} {field.number(attribute)}"
                       for attribute in ("bit_size", "bit_offset", "data_bit_offset", "alignment")
                       if attribute in field.attributes)
        yield f"{name}  offset {offset}  size {type_size(field.type)}{bits}  {type_name(field.type, options)}"
        if field.type.tag in ("structure_type", "union_type") and field.type.name is None:
            yield from field_lines(name, field.type, offset, options)


def record_lines(name, record, options):
    alignment = f"  alignment {record.number('alignment')}" if "alignment" in record.attributes else ""
    return [f"{name}  size {type_size(record)}{alignment}", *field_lines(name, record, 0, options)]


def records(options):
    """Each record with its fields behind it: the order within a record is that of the memory."""
    blocks = {}
    for extra in variants(options):
        for entry in public_entries(debug_information(options, extra), options):
            if entry.tag == "typedef":
                name = f"typedef {entry.name}"
                if entry.type is not None and entry.type.tag in RECORDS and entry.type.name is None:
                    blocks[name] = record_lines(name, entry.type, options)
                else:
                    blocks[name] = [f"{name}  {type_name(entry.type, options)}"]
            elif entry.tag in RECORDS and entry.name and "declaration" not in entry.attributes:
                name = type_name(entry, options)
                blocks[name] = record_lines(name, entry, options)
    return [line for name in sorted(blocks) for line in blocks[name]]


# The lists.

# How a difference reads in a check, and where the lists are renewed: what breaks programs stands out there.
CHECKED = {"changed": "changed: ", "gone": "missing: ", "new": "too many: "}
WRITTEN = {"changed": "CHANGED: ", "gone": "GONE: ", "new": "new: "}


def list_path(name, options):
    return options.lists / f"{name}.list"


def read_list(name, options):
    path = list_path(name, options)
    text = path.read_text(encoding="utf-8") if path.is_file() else ""
    return [line for line in text.split("\n") if line and not line.startswith("#")]


def list_text(name, lines):
    heading = "".join(f"# {line}\n" for line in (HEADINGS[name] + "\n" + RENEW).split("\n"))
    return heading + "".join(line + "\n" for line in lines)


def key(line):
    return line.split("  ")[0]


def differences(name, lines, options):
    """(kind, line) for each line that the list has and the library or the headers haven't, and the reverse."""
    listed = read_list(name, options)
    gone = [line for line in listed if line not in set(lines)]
    new = [line for line in lines if line not in set(listed)]
    for line in gone:
        other = [candidate for candidate in new if key(candidate) == key(line)]
        if len(other) == 1:
            new.remove(other[0])
            yield "changed", f"{line}  ->  {other[0][len(key(line)):].strip()}"
        else:
            yield "gone", line
    for line in new:
        yield "new", line
    if not gone and not new and listed != lines:
        yield "order", "isn't sorted, or holds a line twice"


COLLECT = {"exports": exported_names, "variables": variables, "functions": functions, "constants": constants,
           "records": records}
BEYOND = {"exports": odd_symbols, "functions": unlisted_declarations}  # what no list can allow


def compare(name, options):
    lines = COLLECT[name](options)
    lines = lines if name == "records" else sorted(lines)
    found = list(differences(name, lines, options))
    writes = options.action == "write" and name in HEADINGS
    if writes:
        list_path(name, options).write_text(list_text(name, lines), encoding="utf-8")
    words = WRITTEN if writes else CHECKED
    complaints = [(kind, f"{name}.list: {words.get(kind, '')}{text}") for kind, text in found]
    return complaints, [f"{name}: {text}" for text in BEYOND.get(name, lambda _: [])(options)]


def arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("action", choices=["check", "write"])
    parser.add_argument("names", nargs="*", metavar="LIST", help=", ".join(COLLECT))
    parser.add_argument("--library", type=pathlib.Path, default=TOP / "build/release/lib/libvornthr.so")
    parser.add_argument("--headers", type=pathlib.Path, default=TOP / "include")
    parser.add_argument("--lists", type=pathlib.Path, default=TOP / "abi")
    parser.add_argument("--compiler", default="gcc")
    parser.add_argument("--readelf", default="readelf")
    options = parser.parse_args()
    for name in options.names:
        if name not in COLLECT:
            parser.error(f"no such list: {name}")
    options.headers = options.headers.resolve()
    # Only GCC reports declarations; the types are the same with either compiler.
    if "clang" in run(options.compiler, "--version"):
        options.compiler = "gcc"
    return options


def main():
    try:
        options = arguments()
        differing, wrong = [], []
        for name in options.names or COLLECT:
            complaints, beyond = compare(name, options)
            differing += complaints
            wrong += beyond
    except Trouble as trouble:
        print(f"abi: {trouble}", end="")
        return 1
    for line in [line for _, line in differing] + wrong:
        print(line)
    if options.action == "write":
        # The list of exports is what the build goes by: whoever adds a function writes its name there.
        wrong += [line for _, line in differing if line.startswith("exports.")]
        breaks = sum(kind in ("gone", "changed") for kind, _ in differing)
        if breaks:
            print(f"abi: {breaks} lines went or changed, which breaks programs that are built already; undo it, unless "
                  "no program can have used them")
        print(f"abi: {len(differing) or 'no'} differences")
        return 1 if wrong else 0
    print(f"abi: {len(differing) + len(wrong) or 'nothing'} wrong")
    return 1 if differing or wrong else 0


if __name__ == "__main__":
    sys.exit(main())
