"""What the tests of the installation share. ctest tells in the environment where things are."""

import contextlib
import os
import pathlib
import re
import shutil
import subprocess
import unittest

SOURCE = pathlib.Path(os.environ["INSTALL_TEST_SOURCE"])
BUILD = pathlib.Path(os.environ["INSTALL_TEST_BUILD"])  # the build that is tested
WORK = pathlib.Path(os.environ["INSTALL_TEST_WORK"])  # a folder for the tests
NESTED = pathlib.Path(os.environ["INSTALL_TEST_NESTED"])  # and one for builds of their own
CMAKE = os.environ["INSTALL_TEST_CMAKE"]
CC = os.environ["INSTALL_TEST_CC"]
CXX = os.environ["INSTALL_TEST_CXX"]
BUILD_TYPE = os.environ["INSTALL_TEST_BUILD_TYPE"]
GENERATOR = os.environ["INSTALL_TEST_GENERATOR"]

FOREIGN = SOURCE / "tests" / "install" / "foreign"

# What a stranger has in his environment: nothing that leads into this tree.
STRANGER = {"PATH": os.environ["PATH"], "HOME": os.environ.get("HOME", "/"), "LC_ALL": "C"}


def run(*command, cwd=None, env=None):
    """Runs it, and gives what it wrote to standard output; a failure shows all that it wrote."""
    command = [str(word) for word in command]
    env = None if env is None else {name: str(value) for name, value in env.items()}
    done = subprocess.run(command, cwd=cwd, env=env, text=True, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    if done.returncode != 0:
        raise AssertionError(f"{' '.join(command)}\nexit status {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout


def fresh(name):
    """An empty folder for a test."""
    folder = WORK / name
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    return folder


def files_in(folder):
    """All that is in it but folders, as names relative to it."""
    return {str(path.relative_to(folder)) for path in folder.rglob("*") if path.is_symlink() or not path.is_dir()}


@contextlib.contextmanager
def server(clhsim, env=STRANGER):
    """The stand-in server of an installation, on a free port; yields its address."""
    reading, writing = os.pipe()
    process = subprocess.Popen([str(clhsim), "--port", "0", "--ready-fd", str(writing)], env=env,
                               stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, pass_fds=[writing])
    os.close(writing)
    try:
        with os.fdopen(reading) as ready:
            port = ready.readline().strip()  # nothing, if the server ends before it listens
        if not port:
            raise AssertionError(f"{clhsim} doesn't start: exit status {process.wait()}")
        yield f"127.0.0.1:{port}"
    finally:
        process.terminate()
        process.wait()


def check_client(case, program, clhsim, libraries=None, server_env=STRANGER):
    """Lets the foreign program do its calls. Without `libraries` it has to find the library by itself."""
    with server(clhsim, server_env) as address:
        env = {**STRANGER, "VORN_HOST_ADDR": address}
        if libraries is not None:
            env["LD_LIBRARY_PATH"] = libraries
        case.assertEqual(run(program, env=env), "A FOREIGN PROGRAM\n3 pages from Ann Example\n")


def needed(file):
    """The dynamic section of a program or library: {tag: [values]}."""
    section = {}
    for tag, value in re.findall(r"\((\w+)\)\s+.*\[(.*)\]", run("readelf", "-dW", file)):
        section.setdefault(tag, []).append(value)
    return section


def nested_build(prefix, libdir=None):
    """The library and its tools built once more, as they are configured for another prefix. Gives the folder.
    What the compiler makes is the same, so with ccache it is not even compiled again."""
    folder = NESTED
    launchers = [f"-DCMAKE_{language}_COMPILER_LAUNCHER=ccache" for language in ("C", "CXX") if shutil.which("ccache")]
    shutil.rmtree(folder / "CMakeFiles", ignore_errors=True)
    (folder / "CMakeCache.txt").unlink(missing_ok=True)  # the folders of another prefix would stay in it
    run(CMAKE, "-S", SOURCE, "-B", folder, "-G", GENERATOR, f"-DCMAKE_BUILD_TYPE={BUILD_TYPE}", "-DVORN_TESTS=OFF",
        f"-DCMAKE_C_COMPILER={CC}", f"-DCMAKE_CXX_COMPILER={CXX}", f"-DCMAKE_INSTALL_PREFIX={prefix}",
        *([f"-DCMAKE_INSTALL_LIBDIR={libdir}"] if libdir else []), *launchers)
    run(CMAKE, "--build", folder, "--target", "installed", "--parallel", "2")
    return folder


def main():
    unittest.main(verbosity=2)
