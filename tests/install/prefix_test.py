"""`cmake --install` into a folder of its own: what is in it, and whether strangers can build against it and run
what they built, there and after it has been moved."""

import os
import re
import shlex
import shutil
import stat
import unittest

from support import (BUILD, CC, CMAKE, CXX, FOREIGN, SOURCE, STRANGER, check_client, files_in, fresh, main,
                     needed, run)

LIBRARIES = {"lib/libkexcli.so", "lib/libsqz.so", "lib/libvornthr", "lib/libvornthr.so"}
TOOLS = {"bin/clhsim", "bin/fdlc", "bin/sdlc"}
PACKAGE_FILES = {"lib/pkgconfig/vornthr.pc", "lib/cmake/vornthr/vornthrConfig.cmake",
                 "lib/cmake/vornthr/vornthrConfigVersion.cmake", "lib/cmake/vornthr/vornthrTargets.cmake"}
DOC = "share/doc/libvornthr/"
RUNTIME_DOCUMENTS = {"copyright", "docs/environment.md", "docs/errors.md", "providers/kexcli/FORMAT.md"}
COMPONENTS = {"runtime": [], "development": ["runtime"], "tools": ["runtime"]}  # and what each comes with
TOOL_DOCUMENTS = {"tools/clhsim/PROTOCOL.md", "tools/fdlc/README.md", "tools/sdlc/README.md"}


def in_source(folder, *patterns):
    """Names of the source tree's files, relative to its top."""
    return {str(path.relative_to(SOURCE)) for pattern in patterns for path in (SOURCE / folder).rglob(pattern)}


def generated(name):
    """The reference pages are only there where the tool is that makes them; and the name of one of the files
    for CMake tells the kind of the build."""
    return name.startswith(("share/man/man3/", DOC + "html/", "lib/cmake/vornthr/vornthrTargets-"))


def install(folder, *options):
    run(CMAKE, "--install", BUILD, "--prefix", folder, *options)
    return {name for name in files_in(folder) if not generated(name)}


class Tree(unittest.TestCase):
    """The files."""

    def test_holds_what_it_should_and_nothing_else(self):
        documents = {"README.md", "abi/README.md"} | in_source("docs", "*.md") | in_source("providers", "*.md")
        documents |= in_source("abi", "*.list")
        documents |= in_source("examples", "*.c", "*.fdl", "*.sdl") | RUNTIME_DOCUMENTS
        headers = in_source("include", "*.h") | {"include/vorn/providers/kexcli.h", "include/vorn/providers/sqz.h"}
        development = headers | PACKAGE_FILES | {DOC + name for name in documents - RUNTIME_DOCUMENTS}
        runtime = LIBRARIES | {DOC + name for name in RUNTIME_DOCUMENTS}
        tools = TOOLS | {DOC + name for name in TOOL_DOCUMENTS}

        self.maxDiff = None
        whole = fresh("whole")
        self.assertEqual(install(whole), runtime | development | tools)
        for component, expected in (("runtime", runtime), ("development", development), ("tools", tools)):
            with self.subTest(component=component):
                self.assertEqual(install(fresh(component), "--component", component), expected)

        self.assertEqual(os.readlink(whole / "lib/libvornthr"), "libvornthr.so")
        for name in files_in(whole):
            mode = stat.S_IMODE((whole / name).stat().st_mode)
            self.assertFalse(mode & 0o022, f"{name} can be written by others: {mode:o}")
            if name in TOOLS:
                self.assertEqual(mode, 0o755, name)

    def test_names_no_folder_of_the_build(self):
        tree = fresh("whole")
        install(tree)
        for name in sorted(files_in(tree)):
            text = (tree / name).read_bytes()
            for folder in (BUILD, tree):
                self.assertNotIn(os.fsencode(folder), text, name)

    def test_links_of_the_documents_lead_to_installed_files(self):
        """Those of each component, where only what it comes with is installed beside it."""
        for component, with_it in COMPONENTS.items():
            tree = fresh("linked")
            install(tree, "--component", component)
            documents = sorted((tree / DOC).rglob("*.md"))
            self.assertTrue(documents, component)
            for other in with_it:
                install(tree, "--component", other)
            for document in documents:
                for target in re.findall(r"\]\(([^)#:\s]+)[^):]*\)", document.read_text()):
                    self.assertTrue((document.parent / target).exists(),
                                    f"{component}: {document.relative_to(tree)}: {target}")


class Strangers(unittest.TestCase):
    """Programs that have nothing but the tree. All in one test: each step needs the one before it."""

    def make_sources(self, tree):
        """What the stranger has, in a folder of its own; the header of his fields is made by the tree's fdlc."""
        folder = fresh("stranger")
        for source in FOREIGN.iterdir():
            shutil.copy(source, folder)
        run(tree / "bin/fdlc", "--c-header", "letter_fields.h", "-o", "letter.fdb", "letter.fdl", cwd=folder,
            env=STRANGER)
        return folder

    def build_by_pkg_config(self, tree, folder):
        env = {**STRANGER, "PKG_CONFIG_LIBDIR": tree / "lib/pkgconfig"}
        flags = shlex.split(run("pkg-config", "--cflags", "--libs", "vornthr", env=env))
        for compiler, standard, source in ((CC, "c99", "client.c"), (CXX, "c++11", "client.cpp")):
            strict = [f"-std={standard}", "-Wall", "-Werror", "-pedantic", source, *flags]
            text = run(compiler, "-E", *strict, cwd=folder, env=STRANGER)
            seen = re.findall(r'^# 1 "(.*/vorn(?:/.*)?[.]h)"', text, re.M)
            self.assertIn("vorn.h", {os.path.basename(header) for header in seen})
            for header in seen:
                self.assertTrue(os.path.realpath(header).startswith(f"{tree}/include/"), header)
            program = folder / (source.replace(".", "_") + "_by_pkg_config")
            run(compiler, *strict, "-o", program, cwd=folder, env=STRANGER)
            yield program

    def build_by_find_package(self, tree, folder):
        build = folder / "build"
        run(CMAKE, "-S", folder, "-B", build, f"-DCMAKE_PREFIX_PATH={tree}", f"-DCMAKE_C_COMPILER={CC}",
            f"-DCMAKE_CXX_COMPILER={CXX}", env=STRANGER)
        run(CMAKE, "--build", build, env=STRANGER)
        yield from (build / "client_c", build / "client_cpp")

    def check_programs(self, tree):
        folder = self.make_sources(tree)
        for program in self.build_by_pkg_config(tree, folder):
            with self.subTest(program=program.name, tree=tree.name):
                self.assertIn("libvornthr", needed(program)["NEEDED"])
                check_client(self, program, tree / "bin/clhsim", libraries=tree / "lib")
        for program in self.build_by_find_package(tree, folder):
            with self.subTest(program=program.name, tree=tree.name):
                self.assertIn("libvornthr", needed(program)["NEEDED"])
                check_client(self, program, tree / "bin/clhsim")

    def test_build_and_run_here_and_elsewhere(self):
        tree = fresh("here")
        install(tree)
        self.check_programs(tree)
        elsewhere = fresh("some where") / "else"
        tree.rename(elsewhere)
        self.check_programs(elsewhere)


if __name__ == "__main__":
    main()
