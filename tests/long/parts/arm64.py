"""The program on another processor: built by Debian's cross compiler, run by qemu's user mode.

The unit tests are built with assertions, and the end-to-end tests meet the program of the arm64
package, as users get it. Both load the libraries of an arm64 Debian unpacked into a folder.
"""

import os
import pathlib
import re
import subprocess

import parts  # noqa: F401  (finds the end-to-end tests' own modules)

ROOT = pathlib.Path(__file__).resolve().parents[3]
BUILD = ROOT / "build" / "arm64"
# The preset and the toolchain file have this name as well.
SYSROOT = BUILD / "root"
PROGRAM_FOLDER = BUILD / "program"
PACKAGES = BUILD / "packages"

# Those that start an arm64 program themselves, which the kernel alone cannot: nothing is registered
# with it for that, and this leaves the machine as it is. The corpora are not built.
UNIT_TESTS_LEFT_OUT = [r"^fuzz\.", r"^library_at_start\.",
                       r"^channels_at_exit\.are_left_alone_by_a_connection_that_outlives_them",
                       r"^worker_result\.does_not_hold_up_the_end_of_the_process"]

# The rest of them replaces calls of the program, filters them or lays out files for its loader, and
# would do that to the emulator; or it is not about the program.
SUITES = ["bad_input", "command_line", "descriptors", "limits", "load", "relay", "routing", "sharing",
          "timeouts", "tls_command_line", "tls_quiet", "tls_renewal", "tls_serving", "tls_shutdown"]


def do(*words, cwd=ROOT, **environment):
    """Run a command; what it prints is shown only when it fails, and returned."""
    done = subprocess.run(list(map(str, words)), cwd=cwd, stdin=subprocess.DEVNULL, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          env={**os.environ, **environment})
    assert done.returncode == 0, f"{done.stdout[-20_000:]}\n{words} failed"
    return done.stdout


def make_sysroot():
    """An arm64 Debian of a few libraries, unpacked and not installed: no script of it runs."""
    if not (SYSROOT / "etc").exists():
        SYSROOT.parent.mkdir(parents=True, exist_ok=True)
        do("mmdebstrap", "--variant=extract", "--arch=arm64",
           "--include=libc6,libc-bin,libstdc++6,libssl3,libssl-dev", "bookworm", SYSROOT)
    # The program looks for the TLS library in the loader's cache, which has to be that of the folder.
    do("qemu-aarch64", "-L", SYSROOT, SYSROOT / "sbin" / "ldconfig", "-r", SYSROOT)


def make_googletest():
    if (SYSROOT / "usr" / "lib" / "libgtest.a").exists():
        return
    folder = BUILD / "googletest"
    do("cmake", "-G", "Ninja", "-S", "/usr/src/googletest", "-B", folder,
       f"-DCMAKE_TOOLCHAIN_FILE={ROOT}/cmake/aarch64-linux-gnu.cmake",
       f"-DVINDRA_SYSROOT={SYSROOT}", "-DCMAKE_BUILD_TYPE=Release",
       f"-DCMAKE_INSTALL_PREFIX={SYSROOT}/usr", "-DCMAKE_INSTALL_LIBDIR=lib")
    do("ninja", "-C", folder, "install")


def unit_tests():
    """How many have passed; an exception when one has not."""
    do("cmake", "--preset", "arm64")
    do("cmake", "--build", "--preset", "arm64")
    said = do("ctest", "--preset", "arm64", "--parallel", str(os.cpu_count()),
              "--exclude-regex", "|".join(UNIT_TESTS_LEFT_OUT))
    passed = re.search(r"100% tests passed, 0 tests failed out of (\d+)", said)
    assert passed, said[-5000:]
    return int(passed[1])


def make_package():
    """The arm64 packages; the program of them is put where the end-to-end tests look for one."""
    do("packaging/build", "--arch", "arm64", PACKAGES)
    package, = PACKAGES.glob("vindra_*_arm64.deb")
    assert do("dpkg-deb", "--field", package, "Architecture").strip() == "arm64"
    do("dpkg-deb", "-x", package, SYSROOT)
    program = SYSROOT / "usr" / "bin" / "vindra"
    assert "ARM aarch64" in do("file", "-b", program)
    started = PROGRAM_FOLDER / "vindra" / "vindra"
    started.parent.mkdir(parents=True, exist_ok=True)
    started.write_text(f'#!/bin/sh\nexec qemu-aarch64 -L "{SYSROOT}" "{program}" "$@"\n')
    started.chmod(0o755)
    return do("dpkg-deb", "--field", package, "Depends").strip()


def end_to_end_tests():
    """How many have passed; an exception when one has not."""
    said = do("/usr/bin/python3", "-B", "-m", "pytest", "-q", "-p", "no:cacheprovider",
              *(f"test_{suite}.py" for suite in SUITES),
              cwd=ROOT / "tests" / "e2e", VINDRA_BUILD=str(PROGRAM_FOLDER))
    passed = re.search(r"^(\d+) passed in", said.strip().splitlines()[-1])
    assert passed, said[-5000:]
    return int(passed[1])


def arm64():
    """Build and run everything; the figures. Fails by an exception."""
    make_sysroot()
    make_googletest()
    results = {"unit_tests": unit_tests()}
    print(f"  {results}", flush=True)
    results |= {"depends": make_package(), "end_to_end_tests": end_to_end_tests()}
    print(f"  {results}", flush=True)
    return results
