"""Fixtures of the packages' test: what packaging/build makes, once for all cases."""

import os
import pathlib
import shutil
import subprocess

import pytest

from support.program import ROOT

TOOLS = ["dpkg-deb", "fakeroot", "git", "lintian", "pkg-config"]


def pytest_configure():
    missing = [tool for tool in TOOLS if not shutil.which(tool)]
    if missing:
        raise pytest.UsageError("not installed: " + ", ".join(missing))


class Packages:
    """The folder of the built packages, and what dpkg says of each."""

    def __init__(self, folder):
        self.folder = folder

    def path(self, name):
        found, = self.folder.glob(f"{name}_*.deb")
        return found

    def archive(self):
        found, = self.folder.glob("vindra-*.tar.gz")
        return found

    def field(self, name, field):
        return subprocess.run(["dpkg-deb", "--field", self.path(name), field], check=True,
                              capture_output=True, text=True).stdout.strip()

    def entries(self, name):
        """Mode and owner of each path, folders with a slash behind them."""
        listing = subprocess.run(["dpkg-deb", "--contents", self.path(name)], check=True,
                                 capture_output=True, text=True).stdout
        lines = [line.split() for line in listing.splitlines()]
        return {words[5].removeprefix("."): (words[0], words[1]) for words in lines}

    def extract(self, name, folder):
        subprocess.run(["dpkg-deb", "--extract", self.path(name), folder], check=True)


@pytest.fixture(scope="session")
def packages(tmp_path_factory):
    folder = tmp_path_factory.mktemp("packages")
    # A fifth of the time would go into debug symbols.
    quick = {"DEB_BUILD_OPTIONS": "noautodbgsym", "DEB_CXXFLAGS_STRIP": "-g"}
    done = subprocess.run([ROOT / "packaging" / "build", folder], stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          env={**os.environ, **quick})
    assert done.returncode == 0, done.stdout
    printed = {pathlib.Path(line) for line in done.stdout.splitlines() if line.startswith("/")}
    assert printed == set(folder.iterdir())
    return Packages(folder)
