"""Other layouts than the usual one, installed below DESTDIR as packagers do it."""

import os
import unittest

from support import CMAKE, STRANGER, files_in, fresh, main, needed, nested_build, run


def staged(name, build):
    """The build installed below a folder of its own."""
    stage = fresh(name)
    run(CMAKE, "--install", build, env={**os.environ, "DESTDIR": stage})
    return stage


def run_path(file):
    return needed(file).get("RUNPATH")


def flags(pc_folder):
    return run("pkg-config", "--cflags", "--libs", "vornthr", env={**STRANGER, "PKG_CONFIG_LIBDIR": pc_folder}).split()


class Layouts(unittest.TestCase):
    def check_links(self, folder):
        """The library has the name that the loader is asked for, beside it."""
        self.assertEqual(os.readlink(folder / "libvornthr"), "libvornthr.so")
        self.assertTrue((folder / "libvornthr").is_file())

    def test_relative_library_folder_of_several_levels(self):
        stage = staged("levels", nested_build("/opt/vorn", "lib/here/there"))
        top = stage / "opt/vorn"
        self.assertEqual({name.split("/")[0] for name in files_in(stage)}, {"opt"})
        self.check_links(top / "lib/here/there")
        self.assertEqual(run_path(top / "bin/clhsim"), ["$ORIGIN/../lib/here/there"])
        self.assertEqual(run_path(top / "lib/here/there/libvornthr.so"), ["$ORIGIN"])
        run(top / "bin/clhsim", "--help", env=STRANGER)
        found = {flag[:2]: os.path.realpath(flag[2:]) for flag in flags(top / "lib/here/there/pkgconfig")}
        self.assertEqual(found["-I"], str(top / "include"))
        self.assertEqual(found["-L"], str(top / "lib/here/there"))

    def test_absolute_library_folder(self):
        stage = staged("absolute", nested_build("/opt/vorn", "/opt/libraries"))
        self.assertEqual({name.split("/")[1] for name in files_in(stage)}, {"vorn", "libraries"})
        self.check_links(stage / "opt/libraries")
        self.assertEqual(run_path(stage / "opt/vorn/bin/clhsim"), ["/opt/libraries"])
        self.assertEqual(run_path(stage / "opt/libraries/libvornthr.so"), ["$ORIGIN"])
        self.assertEqual(flags(stage / "opt/libraries/pkgconfig"),
                         ["-I/opt/vorn/include", "-L/opt/libraries", "-lvornthr"])


if __name__ == "__main__":
    main()
