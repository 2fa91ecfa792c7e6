#!/usr/bin/env python3
"""Walks through README.md as a new user would, in a fresh clone. `./dev walk` runs it.

What is run is what the readme says: its command blocks, its first program, the commands in its running text, in
their order. All of that is taken out of the file, so a command, program or call in it that doesn't work ends the
walk. Two things are other than for a user, and each is shown: ports (a free one) and places outside the clone
(folders beside it). Afterwards the paths, links, headers, calls and variables that it names are looked for.

  --tree    walk through the files of the working tree, instead of what is committed
  --tests   run ./dev test, too
  --keep    leave the clone where it is
"""

import argparse
import os
import pathlib
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import threading

TOP = pathlib.Path(__file__).resolve().parents[2]

# It takes ten times as long as all the rest, and whoever walks has mostly just run it.
LONG = "./dev test"

# Programs that are run where the running text names them; all other words in backquotes are no commands.
COMMANDS = {"./dev", "cmake", "cc", "clhsim", "fdlc", "sdlc", "pkg-config"}

# Of ./dev these are run wherever they are named. The others have to be in its help.
SHORT = {"demo", "install", "package"}

# Variables of the library would lead the user's programs elsewhere.
OURS = re.compile(r"VORN|ULOG|SDLFILE|FDLFILE|KEXCLI|LD_LIBRARY_PATH|DESTDIR|PKG_CONFIG_PATH|CMAKE_")

START_LIMIT = 60  # seconds that the server may take until it listens
RUN_LIMIT = 3600  # and a command, which may have to build everything on a slow machine
LONG_LIMIT = 4 * RUN_LIMIT


class Failure(Exception):
    pass


def say(text):
    print(f"\n== {text}", flush=True)


def shown(text):
    print("".join(f"   {line}\n" for line in text.splitlines()), end="", flush=True)


# --- Reading the readme.

def blocks(text):
    """(kind, content, line number) of each fenced block ("c"), indented block ("commands") and the lines between
    ("text")."""
    found, kind, content, first = [], None, [], 0

    def flush():
        nonlocal kind, content
        if kind is not None and any(line.strip() for line in content):
            found.append((kind, "\n".join(content), first))
        kind, content = None, []

    fenced = False
    for number, line in enumerate(text.split("\n"), 1):
        if line.startswith("```"):
            flush()
            fenced = not fenced
            kind, first = (line[3:].strip() or "commands", number + 1) if fenced else (None, number)
            continue
        wanted = kind if fenced else "commands" if line.startswith("    ") else "text"
        if kind == "commands" and not line.strip():
            wanted = kind  # an empty line doesn't end an indented block
        if wanted != kind:
            flush()
            kind, first = wanted, number
        content.append(line[4:] if wanted == "commands" and not fenced else line)
    flush()
    return found


def code_spans(text):
    return [re.sub(r"\s+", " ", span) for span in re.findall(r"`([^`]+)`", text)]


def without_programs(text):
    return re.sub(r"```.*?```", "", text, flags=re.S)


def command_lines(block):
    """The commands of a block, joined at backslashes, and the comments behind them."""
    commands, comments = [], []
    for line in re.sub(r"\\\n\s*", " ", block).split("\n"):
        command, _, comment = re.sub(r"(^|\s{2,})# ", "\0", line, count=1).partition("\0")
        if command.strip():
            commands.append(command.strip())
        if comment:
            comments.append(comment)
    return commands, " ".join(comments)


def table_rows(text):
    """The rows of all tables, as lists of cells; a bar behind a backslash divides nothing."""
    return [[cell.strip() for cell in re.split(r"(?<!\\)\|", line)[1:-1]]
            for line in text.split("\n") if line.startswith("|") and not line.startswith("|---")]


# --- The walk.

class Walk:
    def __init__(self, root, arguments):
        self.root, self.arguments = root, arguments
        self.home = root / "libvornthr"
        self.environment = {name: value for name, value in os.environ.items() if not OURS.match(name)}
        self.server = self.reader = None
        self.ports = {}  # of the readme, and what stands for them
        self.done = set()  # commands that have been run
        self.usage = ""

    def clone(self):
        is_repository = subprocess.run(["git", "-C", TOP, "rev-parse", "--verify", "-q", "HEAD"],
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 0
        if is_repository and not self.arguments.tree:
            say(f"git clone {TOP}")
            subprocess.run(["git", "clone", "-q", "--no-hardlinks", TOP, self.home], check=True)
            return
        say(f"copying the files of {TOP}" + ("" if is_repository else ", which is no repository"))
        if not is_repository:
            shutil.copytree(TOP, self.home, symlinks=True, ignore=shutil.ignore_patterns("build", ".git"))
            return
        listed = subprocess.run(["git", "-C", TOP, "ls-files", "-zco", "--exclude-standard"], check=True,
                                stdout=subprocess.PIPE).stdout.decode().split("\0")
        for name in filter(None, listed):
            if os.path.lexists(TOP / name):
                (self.home / name).parent.mkdir(parents=True, exist_ok=True)
                shutil.copy2(TOP / name, self.home / name, follow_symlinks=False)

    def run(self, command):
        """Runs a line in the clone and gives what it wrote; what fails ends the walk."""
        say(command)
        limit = LONG_LIMIT if command == LONG else RUN_LIMIT
        process = subprocess.Popen(["bash", "-c", command], cwd=self.home, env=self.environment, start_new_session=True,
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        try:
            output = process.communicate(timeout=limit)[0].decode(errors="replace")
        except subprocess.TimeoutExpired:
            raise Failure(f"not done in {limit} seconds: {command}") from None
        finally:
            if process.poll() is None:  # with all that it has started, also where the walk itself is ended
                os.killpg(process.pid, signal.SIGKILL)
                process.communicate()
        if process.returncode != 0:
            shown(output)
            raise Failure(f"exit status {process.returncode}: {command}")
        lines = output.splitlines()
        shown("\n".join(lines if len(lines) <= 12 else ["..."] + lines[-10:]))
        return output

    def start_server(self, command):
        """In place of the other terminal."""
        words = shlex.split(command)
        wanted = words[words.index("--port") + 1] if "--port" in words else None
        if wanted is not None:
            words[words.index("--port") + 1] = "0"
        self.stop_server()
        say(f"in another terminal: {shlex.join(words)}")
        self.server = subprocess.Popen(words, cwd=self.home, env=self.environment, stdin=subprocess.DEVNULL,
                                       stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)
        signal.alarm(START_LIMIT)
        for line in self.server.stdout:
            shown(line.decode())
            listening = re.match(rb"clhsim: listening on [\d.]+:(\d+)", line)
            if listening:
                signal.alarm(0)
                if wanted is not None:
                    self.ports[wanted] = listening.group(1).decode()
                # What it says from now on nobody asks for, but it must not wait for somebody who reads it.
                self.reader = threading.Thread(target=self.server.stdout.readlines, daemon=True)
                self.reader.start()
                return
        signal.alarm(0)
        raise Failure(f"the server doesn't start: {command}")

    def stop_server(self):
        if self.server is not None:
            self.server.kill()
            self.server.wait()
            if self.reader is not None:
                self.reader.join()
            self.server.stdout.close()
            self.server = self.reader = None

    # A user has a place of his own where the readme has one of the system's.
    def in_own_places(self, command):
        for port, free in self.ports.items():
            command = re.sub(rf":{port}\b", f":{free}", command)
        return command.replace("/path/to/", f"{self.root}/")

    def line(self, command):
        """A command of the readme."""
        program = shlex.split(command)[0]
        if program.endswith("/clhsim") and "--help" not in command and "--keygen" not in command:
            return self.start_server(command)
        if command == LONG and not self.arguments.tests:
            say(f"{command}: with --tests only")
            return ""
        own = self.in_own_places(command)
        if own != command:
            print(f"\n-- {command}, with ports and places of its own:", flush=True)
        return self.run(own)

    def is_short(self, words):
        """./dev as the running text names it: its help has to know what it is told to do."""
        if not self.usage:
            self.usage = self.run("./dev help")
        if not re.search(rf"^  {re.escape(words[1])}\b", self.usage, re.M):
            raise Failure(f"./dev help doesn't know: {' '.join(words)}")
        return words[1] in SHORT

    def span(self, span):
        """A word in backquotes; run if it is a command."""
        words = span.split()
        if span in self.done or words[0] not in COMMANDS or len(words) < 2:
            return
        self.done.add(span)
        if words[0] == "./dev" and not self.is_short(words):
            return
        if words[0] in ("clhsim", "fdlc", "sdlc"):
            span = f"build/release/bin/{span}"
        self.line(span)

    def demos(self, comment):
        """The other examples, which the comments of a block list."""
        listed = re.search(r"other examples: demo ([^)]*)\)", comment)
        for name in re.findall(r"\w+", listed.group(1)) if listed else []:
            self.span(f"./dev demo {name}")

    def block(self, text):
        commands, comments = command_lines(text)
        for command in commands:
            self.done.add(command)
            output = self.line(command)
            if command == "./dev demo" and "HELLO, WORLD" not in output:
                raise Failure("./dev demo doesn't show the reply")
            if command.endswith("./first") and output.strip() != "HELLO, WORLD":
                raise Failure("the first program doesn't print the reply")
        self.demos(comments)

    def walk(self):
        readme = (self.home / "README.md").read_text(encoding="utf-8")
        for kind, text, number in blocks(readme):
            try:
                if kind == "commands":
                    self.block(text)
                elif kind == "c":
                    say(f"first.c, from line {number} of README.md")
                    (self.home / "first.c").write_text(text + "\n", encoding="utf-8")
                elif kind == "text":
                    for span in code_spans(text):
                        self.span(span)
            except Failure as failure:
                raise Failure(f"README.md:{number}: {failure}") from None
        if not (self.home / "first").exists():
            raise Failure("README.md has no first program, or doesn't say how to build it")
        self.look(readme)

    # --- What the readme names.

    def look(self, readme):
        say("the links, paths, headers, calls and variables of README.md")
        missing = list(self.missing_paths(readme)) + list(self.missing_variables(readme))
        missing += self.missing_calls(readme)
        for one in missing:
            print(f"   missing: {one}")
        if missing:
            raise Failure(f"README.md names {len(missing)} things that aren't there")

    def missing_paths(self, readme):
        for link in re.findall(r"\]\(([^)#]+)", readme):
            if "://" not in link and not (self.home / link).exists():
                yield f"link {link}"
        for line in without_programs(readme).split("\n"):
            bases = [self.home, self.home / "include", self.home / "include/vorn"]
            row = re.match(r"\| `([\w./-]+/)`", line)
            if row:
                bases.append(self.home / row.group(1))  # what is told of a folder is in it
            for span in code_spans(line):
                if span.startswith("/path/to/") and not os.path.exists(self.in_own_places(span)):
                    yield f"installed {span}"
                is_path = re.fullmatch(r"[\w.-]+(/[\w.-]+)*/?", span) and ("/" in span or span.endswith(".h"))
                if is_path and not any((base / span).exists() for base in bases):
                    yield f"path {span}"

    def missing_variables(self, readme):
        told = set(re.findall(r"^### `(\w+)`", (self.home / "docs/environment.md").read_text(), re.M))
        for span in code_spans(without_programs(readme)):
            name = span.split("=")[0]
            if re.fullmatch(r"(VORN|SDLFILE|FDLFILE|ULOG|KEXCLI)\w*", name) and name not in told:
                yield f"variable {name}"

    def missing_calls(self, readme):
        """Each call of the table of families is used by a program that includes the header beside it."""
        exported = self.exported()
        headers, uses, missing, count = [], [], [], 0
        for cells in table_rows(readme):
            header = re.fullmatch(r"`(vorn/\w+\.h)`", cells[1]) if len(cells) > 2 else None
            if header is None:
                continue
            if not (self.home / "include" / header.group(1)).exists():
                missing.append(f"header {header.group(1)}")
                continue
            headers.append(f"#include <{header.group(1)}>")
            declared = (self.home / "include" / header.group(1)).read_text(encoding="utf-8")
            for name in re.findall(r"`([\w*]+)`", cells[2]):
                pattern = re.compile(name.replace("*", r"\w*") + r"\Z")
                count += 1
                if "*" in name and not any(pattern.match(one) for one in exported):
                    missing.append(f"call {name}: the library has none")
                elif not re.search(rf"\b{name.replace('*', '')}" + ("" if "*" in name else r"\b"), declared):
                    missing.append(f"call {name}: it isn't in {header.group(1)}")
                elif "*" not in name and name in exported:
                    uses.append(f"    use((const void *)&{name});")
        if count < 50:
            missing.append(f"the table of families: only {count} calls")
        program = "\n".join(sorted(set(headers)) + ["static const void *volatile last;",
                            "static void use(const void *p) { last = p; }", "int main(void)", "{"] + uses +
                            ["    return 0;", "}", ""])
        (self.home / "families.c").write_text(program, encoding="utf-8")
        try:
            self.run("cc -std=gnu99 families.c -Iinclude -Lbuild/release/lib -lvornthr "
                     "-Wl,-rpath-link,build/release/lib -o families && LD_LIBRARY_PATH=build/release/lib ./families")
        except Failure as failure:
            missing.append(str(failure))
        print(f"   {len(headers)} headers, {count} calls")
        return missing

    def exported(self):
        table = subprocess.run(["nm", "-D", "--defined-only", self.home / "build/release/lib/libvornthr.so"],
                               check=True, stdout=subprocess.PIPE).stdout.decode()
        return {line.split()[-1].split("@")[0] for line in table.splitlines()}


def late(*_):
    raise Failure(f"the server doesn't listen within {START_LIMIT} seconds")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    for option in ("--tree", "--tests", "--keep"):
        parser.add_argument(option, action="store_true")
    arguments = parser.parse_args()
    signal.signal(signal.SIGALRM, late)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    root = pathlib.Path(tempfile.mkdtemp(prefix="vorn-walk-"))
    walk = Walk(root, arguments)
    try:
        walk.clone()
        walk.walk()
        say("the readme holds")
        return 0
    except (Failure, subprocess.CalledProcessError) as failure:
        say(f"the walk ends here: {failure}")
        return 1
    finally:
        walk.stop_server()
        if arguments.keep:
            print(f"   {walk.home}")
        else:
            shutil.rmtree(root, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
