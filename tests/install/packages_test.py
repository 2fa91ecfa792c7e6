"""The Debian packages: made by cpack, installed by dpkg into a root of its own with its own records, used, and
removed. The machine stays as it is."""

import os
import pathlib
import re
import shutil
import sys
import unittest

from support import CC, CMAKE, FOREIGN, STRANGER, check_client, files_in, fresh, main, needed, nested_build, run

NAMES = ["libvornthr", "libvornthr-dev", "libvornthr-tools"]
MACHINE = pathlib.Path("/var/lib/dpkg")


class Root:
    """A root of its own for dpkg. Its records know the machine's packages, so that dependencies are judged as
    they would be here, but none of their files and triggers."""

    def __init__(self):
        self.top = fresh("root")
        self.records = fresh("records")
        for name in ("info", "updates", "triggers"):
            (self.records / name).mkdir()
        shutil.copy(MACHINE / "status", self.records)
        (self.records / "available").touch()
        shutil.copy(MACHINE / "info/format", self.records / "info")
        for files in (MACHINE / "info").glob("*.list"):
            (self.records / "info" / files.name).touch()

    def dpkg(self, *options):
        # As somebody else than root dpkg neither gives files away nor finds the tools of /sbin, and needs neither.
        rights = [] if os.geteuid() == 0 else ["--force-not-root", "--force-bad-path"]
        return run("dpkg", *rights, f"--instdir={self.top}", f"--admindir={self.records}",
                   f"--log={self.records}/log", *options, env=STRANGER)

    def owned(self, package):
        """The files of an installed package, without its folders."""
        names = self.dpkg("--listfiles", package).split("\n")
        return {name[1:] for name in names if name.startswith("/") and
                ((self.top / name[1:]).is_symlink() or not (self.top / name[1:]).is_dir())}


class Packages(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.build = nested_build("/usr")
        shutil.rmtree(cls.build / "packages", ignore_errors=True)
        run("cpack", "--config", cls.build / "CPackConfig.cmake", cwd=cls.build)
        files = sorted((cls.build / "packages").glob("*.deb"))
        cls.files = {file.name.split("_")[0]: file for file in files}
        cls.libraries = "usr/lib/" + run("dpkg-architecture", "-qDEB_HOST_MULTIARCH").strip()

    def field(self, package, name):
        return run("dpkg-deb", "--field", self.files[package], name).strip()

    def test_are_three_that_know_what_they_need(self):
        self.assertEqual(sorted(self.files), NAMES)
        version = self.field("libvornthr", "Version")
        this = f"libvornthr (= {version})"
        for package, section, packages in (
                ("libvornthr", "libs", ["libc6", "liblz4-1", "libssl3", "libstdc++6"]),
                ("libvornthr-dev", "libdevel", [this]),
                ("libvornthr-tools", "devel", ["libc6", "libsqlite3-0", "libssl3", "libstdc++6", this])):
            with self.subTest(package=package):
                depends = self.field(package, "Depends").split(", ")
                for wanted in packages:
                    # The package of a library may have got another name by a change of its interface.
                    stem = wanted.rstrip("0123456789-") if wanted != this else this
                    self.assertTrue([name for name in depends if name.startswith(stem)], f"{wanted} in {depends}")
                self.assertEqual(self.field(package, "Version"), version)
                self.assertEqual(self.field(package, "Section"), section)
                self.assertIn("\n", self.field(package, "Description"))
                self.assertRegex(self.field(package, "Maintainer"), r"^.+ <.+@.+>$")

    def test_run_no_scripts_but_renew_the_cache_of_the_loader(self):
        for package, file in self.files.items():
            with self.subTest(package=package):
                control = fresh("control")
                run("dpkg-deb", "--control", file, control)
                expected = {"control", "md5sums"} | ({"triggers", "symbols"} if package == "libvornthr" else set())
                self.assertEqual(files_in(control), expected)
                if package == "libvornthr":
                    self.assertEqual((control / "triggers").read_text(), "activate-noawait ldconfig\n")

    def test_tell_the_packages_of_other_programs_what_to_depend_on(self):
        control = fresh("control")
        run("dpkg-deb", "--control", self.files["libvornthr"], control)
        version = self.field("libvornthr", "Version")
        expected = []
        for soname, file in (("libvornthr", "libvornthr.so"), ("libsqz.so",) * 2, ("libkexcli.so",) * 2):
            expected.append(f"{soname} libvornthr #MINVER#")
            table = run("nm", "-D", "--defined-only", "--with-symbol-versions", self.build / "lib" / file)
            for line in table.splitlines():
                _, kind, name = line.split()
                if kind != "A":  # the version nodes themselves
                    name, _, node = name.replace("@@", "@").partition("@")
                    expected.append(f" {name}@{node or 'Base'} {version}")
        self.assertEqual((control / "symbols").read_text().splitlines(), expected)

    def test_belong_to_root_and_are_written_by_nobody_else(self):
        for file in self.files.values():
            for line in run("dpkg-deb", "--contents", file).splitlines():
                mode, owner = line.split()[:2]
                self.assertEqual(owner, "root/root", line)
                if not mode.startswith("l"):
                    self.assertEqual((mode[5], mode[8]), ("-", "-"), line)

    def test_hold_what_cmake_installs(self):
        """Together they have its files, and each of them its copyright in a folder of its own name."""
        root = Root()
        root.dpkg("--install", *self.files.values())
        staged = fresh("staged")
        run(CMAKE, "--install", self.build, env={**os.environ, "DESTDIR": staged})
        besides = {"libvornthr-dev", "libvornthr-tools", "libvornthr/changelog.gz"}
        expected = {re.sub(r"(/man/.*)", r"\1.gz", name) for name in files_in(staged)}
        self.assertEqual(files_in(root.top), expected | {f"usr/share/doc/{name}" for name in besides})
        for package in NAMES:
            self.assertTrue((root.top / "usr/share/doc" / package / "copyright").is_file(), package)

    def test_are_installed_used_and_removed(self):
        with self.assertRaisesRegex(AssertionError, r"libvornthr-dev depends on libvornthr \(= "):
            Root().dpkg("--install", self.files["libvornthr-dev"])

        root = Root()
        root.dpkg("--install", *self.files.values())
        self.assertEqual(root.dpkg("--audit", *NAMES), "")
        for package in NAMES:
            root.dpkg("--verify", package)
            self.assertTrue(root.owned(package))
        self.assertEqual(files_in(root.top), set().union(*(root.owned(package) for package in NAMES)))

        self.use(root)

        root.dpkg("--purge", *reversed(NAMES))
        self.assertEqual(list(root.top.rglob("*")), [])
        self.assertEqual(sorted((root.records / "info").glob("libvornthr*")), [])

    def use(self, root):
        """Below this root the loader has to be told where the libraries are; at its real place it knows."""
        libraries = root.top / self.libraries
        for file in [*(root.top / "usr/bin").iterdir(), *libraries.glob("*.so")]:
            self.assertNotIn("RUNPATH", needed(file), file.name)
        env = {**STRANGER, "PKG_CONFIG_LIBDIR": libraries / "pkgconfig"}
        self.assertEqual(run("pkg-config", "--cflags", "--libs", "vornthr", env=env).split(), ["-lvornthr"])

        folder = fresh("stranger_of_packages")
        for source in FOREIGN.iterdir():
            shutil.copy(source, folder)
        run(root.top / "usr/bin/fdlc", "--c-header", "letter_fields.h", "letter.fdl", cwd=folder, env=STRANGER)
        run(CC, "client.c", f"-I{root.top}/usr/include", f"-L{libraries}", f"-Wl,-rpath-link,{libraries}",
            "-lvornthr", "-o", "client", cwd=folder, env=STRANGER)
        check_client(self, folder / "client", root.top / "usr/bin/clhsim", libraries=libraries,
                     server_env={**STRANGER, "LD_LIBRARY_PATH": str(libraries)})


if __name__ == "__main__":
    for tool in ("dpkg", "dpkg-deb", "dpkg-shlibdeps", "dpkg-architecture", "cpack"):
        if shutil.which(tool) is None:
            print(f"skipped: {tool} isn't there, so no packages can be made and installed here")
            sys.exit(77)
    main()
