#!/usr/bin/env python3
"""The checks of the source tree that need no compiler. `./dev lint` and `./dev test` run them.

Each check yields lines "file:line: what is wrong"; any line fails the run. Nothing is repaired.
"""

import pathlib
import re
import sys

THIS = pathlib.Path(__file__).resolve()
TOP = THIS.parents[2]
SRC = TOP / "src"
ROAD = TOP / "docs" / "road-of-a-call.md"
EXPORTS = TOP / "abi" / "exports.list"
UPWARD = TOP / "tools" / "lint" / "upward.txt"

# Includes run from right to left: a folder may include itself and those before it.
FOLDERS = ["runtime", "wire", "session", "calls", "tx", "queue", "buffers", "fields", "kmq"]

LONGEST_FILE = 800
LONGEST_FUNCTION = 80

# They write without a bound, keep state between threads, or end a process that isn't ours.
BANNED_CALLS = ["strcpy", "strcat", "sprintf", "vsprintf", "gets", "strtok", "alloca", "abort", "exit",
                "_exit", "quick_exit"]
# The fatal levels of the error log are meant to end the process; a forked child that finds no shell ends itself.
ALLOWED_CALLS = {("runtime/errlog.cpp", "abort"), ("runtime/errlog.cpp", "exit"), ("runtime/common.cpp", "_exit")}

NOT_OURS = {".git", "build", ".cache", "compile_commands.json"}

# A reader has this repository and nothing else: no text may send him elsewhere.
ELSEWHERE = re.compile(r"\b[Ss]pec(ification)?s?\b|\bParts? ?[0-9]|shared/(s[p]ec|design)|\b[Ii]ssue #?[0-9]")
NOT_ELSEWHERE = re.compile(r"_get_spec|\bspec->|char \*spec\b")


def sources(folder, *suffixes):
    return sorted(path for path in folder.rglob("*") if path.suffix in suffixes and path.is_file())


def shown(path):
    return path.relative_to(TOP)


def code_lines(path):
    """The lines of a source with comments, strings and characters blanked out."""
    def blank(match):
        text = match.group(0)
        return " " + "\n" * text.count("\n") if text[0] == "/" else text[0] * 2
    text = path.read_text(encoding="utf-8")
    text = re.sub(r"//[^\n]*|/\*.*?\*/|\"(?:\\.|[^\"\\\n])*\"|'(?:\\.|[^'\\\n])+'", blank, text, flags=re.S)
    return text.split("\n")


def check_banned_calls():
    call = re.compile(r"(?<![\w.>:])(" + "|".join(BANNED_CALLS) + r")\s*\(")
    for path in sources(SRC, ".cpp", ".h"):
        for number, line in enumerate(code_lines(path), 1):
            for name in call.findall(line):
                if (str(path.relative_to(SRC)), name) not in ALLOWED_CALLS:
                    yield f"{shown(path)}:{number}: {name} must not be called here"


def check_lengths():
    for path in sources(SRC, ".cpp", ".h"):
        lines = code_lines(path)
        if len(lines) - 1 > LONGEST_FILE:
            yield f"{shown(path)}:1: {len(lines) - 1} lines; a file of more than {LONGEST_FILE} holds two things"
        begin = None
        for number, line in enumerate(lines, 1):
            # A function's braces stand alone at the left edge.
            if line.rstrip() == "{":
                begin = number
            elif line.startswith("}") and begin is not None:
                if number - begin + 1 > LONGEST_FUNCTION:
                    yield (f"{shown(path)}:{begin}: a function of {number - begin + 1} lines; "
                           f"more than {LONGEST_FUNCTION} hold two things")
                begin = None


def upward_includes():
    """(including file, included header, line) of each include against the order of the folders."""
    include = re.compile(r'^\s*#\s*include\s+"(\w+)/(\w+\.h)"')
    for path in sources(SRC, ".cpp", ".h"):
        own = path.relative_to(SRC).parts[0]
        for number, line in enumerate(path.read_text(encoding="utf-8").split("\n"), 1):
            match = include.match(line)
            if match and match.group(1) in FOLDERS and FOLDERS.index(match.group(1)) > FOLDERS.index(own):
                yield str(path.relative_to(SRC)), f"{match.group(1)}/{match.group(2)}", number


def check_include_direction():
    reviewed = {}
    for number, line in enumerate(UPWARD.read_text(encoding="utf-8").split("\n"), 1):
        if not line.strip() or line.startswith("#"):
            continue
        match = re.fullmatch(r"(\S+)\s+->\s+(\S+)\s+# (\S.*)", line)
        if match:
            reviewed[match.group(1), match.group(2)] = number
        else:
            yield f"{shown(UPWARD)}:{number}: a line reads: folder/file -> folder/header  # reason"
    found = set()
    for includer, header, number in upward_includes():
        found.add((includer, header))
        if (includer, header) not in reviewed:
            yield f"src/{includer}:{number}: includes {header} upward; not in {shown(UPWARD)}"
    for pair in sorted(reviewed.keys() - found):
        yield f"{shown(UPWARD)}:{reviewed[pair]}: {pair[0]} doesn't include {pair[1]} any more"
    road = ROAD.read_text(encoding="utf-8")
    for header in sorted({header for _, header in found}):
        if f"`{header}`" not in road:
            yield f"{shown(ROAD)}:1: doesn't tell of the calls upward through `{header}`"


def defines(path, function):
    """True if the source has a definition, not only a declaration, of the function."""
    text = "\n".join(code_lines(path))
    return re.search(rf"^(?!return\b)[A-Za-z_][\w \t*:<>,]*?\b{function}\s*\([^;{{}}]*\)\s*\{{", text, re.M) is not None


def check_road():
    stops = 0
    for number, line in enumerate(ROAD.read_text(encoding="utf-8").split("\n"), 1):
        for folder, file, function in re.findall(r"`(\w+)/(\w+): (\w+)`", line):
            stops += 1
            path = SRC / folder / f"{file}.cpp"
            if not path.is_file():
                yield f"{shown(ROAD)}:{number}: there is no {shown(path)}"
            elif not defines(path, function):
                yield f"{shown(ROAD)}:{number}: {function} isn't defined in {shown(path)}"
    if stops < 10:
        yield f"{shown(ROAD)}:1: {stops} stops; a road of a call has some ten"


def check_words():
    for path in sorted(TOP.rglob("*")):
        name = str(shown(path))
        if path.relative_to(TOP).parts[0] in NOT_OURS or not path.is_file() or path == THIS:
            continue
        if re.search(r"s[p]ec(ification)?([._-]|$)|part[0-9]", name, re.I):
            yield f"{name}:1: the name sends a reader elsewhere"
        try:
            text = path.read_text(encoding="utf-8")
        except UnicodeDecodeError:
            continue
        for number, line in enumerate(text.split("\n"), 1):
            if ELSEWHERE.search(line) and not NOT_ELSEWHERE.search(line):
                yield f"{name}:{number}: sends a reader elsewhere: {line.strip()[:80]}"


def check_export_list():
    names = [line for line in EXPORTS.read_text(encoding="utf-8").split("\n")
             if line and not line.startswith("#")]
    for before, after in zip(names, names[1:]):
        if before >= after:
            yield f"{shown(EXPORTS)}:1: {after} doesn't stand behind {before}"
    for name in names:
        if not re.fullmatch(r"[A-Za-z_]\w*", name):
            yield f"{shown(EXPORTS)}:1: {name!r} is no name"


CHECKS = [check_banned_calls, check_lengths, check_include_direction, check_road, check_words, check_export_list]


def main():
    wrong = 0
    for check in CHECKS:
        for line in check():
            print(line)
            wrong += 1
    print(f"lint: {len(CHECKS)} checks, {wrong or 'nothing'} wrong")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
