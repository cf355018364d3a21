"""Debian's packages of this tree: what is in them, and what they do to an empty root."""

import contextlib
import os
import pathlib
import re
import subprocess
import tarfile

import pytest

from support.curl import curl, url
from support.ports import HeldPort
from support.program import ROOT, Program

NAMES = ["vindra", "libvindra0", "libvindra-dev"]
LIBRARIES = f"/usr/lib/{os.uname().machine}-linux-gnu"
COPYRIGHT = "/usr/share/doc/{}/copyright"
EXECUTABLES = {
    "/usr/bin/vindra",
    "/usr/bin/vindra-check",
    "/usr/share/doc/vindra/examples/dehydrated-hook",
    "/usr/share/doc/vindra/examples/lego-hook",
    "/usr/share/doc/vindra/examples/vindra-balance",
    "/usr/share/doc/vindra/examples/vindra-certificate",
}
OPTIONS = ["--force-not-root", "--force-script-chrootless", "--force-depends", "--log=/dev/null"]

CONTENTS = [
    ("vindra", {
        "/etc/default/vindra",
        "/lib/systemd/system/vindra.service",
        "/lib/systemd/system/vindra@.service",
        "/usr/bin/vindra",
        "/usr/bin/vindra-check",
        "/usr/lib/sysusers.d/vindra.conf",
        "/usr/share/bash-completion/completions/vindra",
        "/usr/share/doc/vindra/README.md",
        "/usr/share/doc/vindra/changelog.gz",
        "/usr/share/doc/vindra/docs/deploy.md",
        "/usr/share/doc/vindra/docs/monitoring.md",
        "/usr/share/doc/vindra/examples/mtail/vindra.mtail",
        "/usr/share/doc/vindra/examples/systemd/limits.conf",
        "/usr/share/doc/vindra/examples/systemd/vindra-watch.timer",
        "/usr/share/doc/vindra/examples/ufw",
        "/usr/share/doc/vindra/examples/vindra-certificate",
        "/usr/share/fish/vendor_completions.d/vindra.fish",
        "/usr/share/man/man1/vindra-check.1.gz",
        "/usr/share/man/man1/vindra.1.gz",
        "/usr/share/zsh/vendor-completions/_vindra",
    }),
    ("libvindra0", {f"{LIBRARIES}/libvindra.so.0", f"{LIBRARIES}/libvindra.so.0.1"}),
    ("libvindra-dev", {
        "/usr/include/vindra/http/http_connection.h",
        f"{LIBRARIES}/cmake/vindra/vindraConfig.cmake",
        f"{LIBRARIES}/libvindra.a",
        f"{LIBRARIES}/libvindra.so",
        f"{LIBRARIES}/pkgconfig/vindra.pc",
        "/usr/share/doc/libvindra-dev/examples/chat.cpp",
    }),
]


@pytest.mark.parametrize("name, expected", CONTENTS)
def test_a_package_holds_what_it_is_for(packages, name, expected):
    assert expected | {COPYRIGHT.format(name)} <= packages.entries(name).keys()


def test_the_program_comes_without_the_library_and_the_library_without_the_program(packages):
    assert not [path for path in packages.entries("vindra") if "/include/" in path or ".so" in path]
    for name in NAMES[1:]:
        assert not [path for path in packages.entries(name) if "/bin/" in path or "/etc/" in path]


@pytest.mark.parametrize("name", NAMES)
def test_all_is_roots_and_only_programs_are_executable(packages, name):
    for path, (mode, owner) in packages.entries(name).items():
        assert owner == "root/root", path
        if path.endswith("/"):
            assert mode == "drwxr-xr-x", path
        elif not mode.startswith("l"):
            assert mode == ("-rwxr-xr-x" if path in EXECUTABLES else "-rw-r--r--"), path


def test_the_runtime_is_needed_and_tls_recommended(packages):
    needed = re.findall(r"[\w.+-]+(?= \()", packages.field("vindra", "Depends"))
    assert needed == ["libc6", "libgcc-s1", "libstdc++6"]
    assert packages.field("vindra", "Recommends") == "libssl3, openssl"


def test_the_library_is_tied_to_its_minor_version(packages):
    version = packages.field("vindra", "Version")
    assert packages.field("libvindra-dev", "Depends") == f"libvindra0 (= {version})"
    shlibs = subprocess.run(["dpkg-deb", "--info", packages.path("libvindra0"), "shlibs"],
                            check=True, capture_output=True, text=True).stdout
    major, minor = map(int, re.match(r"(\d+)\.(\d+)\.", version).groups())
    assert shlibs == (f"libvindra {major} libvindra0 (>= {major}.{minor}~), "
                      f"libvindra0 (<< {major}.{minor + 1}~)\n")


def test_the_pages_of_the_package_lead_to_each_other(packages, tmp_path):
    packages.extract("vindra", tmp_path)
    folder = tmp_path / "usr/share/doc/vindra"
    done = subprocess.run(["python3", "-B", ROOT / "tests" / "checks" / "check_links", folder],
                          stdout=subprocess.PIPE, text=True)
    assert (done.returncode, done.stdout) == (0, "check_links: 0 findings\n")
    text = "".join(page.read_text() for page in folder.rglob("*.md"))
    # A page that lost its links, or a picture that no page shows, would pass.
    assert "](../examples/vindra-certificate)" in text
    shown = set(re.findall(r"\]\((?:docs/)?pictures/([^)]*)\)", text))
    assert shown and shown == {picture.name for picture in (folder / "docs" / "pictures").iterdir()}
    assert not {"benchmarks.md", "beside_cpp_httplib.md", "testing.md"} & {page.name for page in folder.rglob("*.md")}


def test_lintian_finds_nothing(packages):
    changes, = packages.folder.glob("*.changes")
    done = subprocess.run(["lintian", "--allow-root", "--fail-on", "error,warning", changes],
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True)
    assert (done.stdout, done.returncode) == ("", 0)


def test_the_archive_holds_the_files_of_the_packages_in_one_folder(packages):
    with tarfile.open(packages.archive()) as archive:
        top = packages.archive().name.removesuffix(".tar.gz")
        held = {member.name.removeprefix(top) for member in archive if not member.isdir()}
        assert {member.uid for member in archive} == {0}
    packed = {path for name in NAMES for path in packages.entries(name) if not path.endswith("/")}
    assert held == {path.removeprefix("/usr") for path in packed}


def test_the_sample_of_the_readme_builds_with_the_packages(packages, tmp_path):
    for name in NAMES[1:]:
        packages.extract(name, tmp_path)
    flags = subprocess.run(
        ["pkg-config", "--cflags", "--libs", f"{tmp_path}{LIBRARIES}/pkgconfig/vindra.pc"],
        check=True, capture_output=True, text=True).stdout.split()
    source = tmp_path / "sample.cpp"
    source.write_text(re.search(r"```cpp\n(.*?)```", (ROOT / "README.md").read_text(), re.S)[1])
    subprocess.run(["g++", source, "-o", tmp_path / "sample", *flags], check=True)
    needed = subprocess.run(["readelf", "-d", tmp_path / "sample"], check=True,
                            capture_output=True, text=True).stdout
    assert "[libvindra.so.0]" in needed


class Root:
    """An empty folder that dpkg takes for a machine. The packages' scripts know to stay in it."""

    def __init__(self, folder):
        self.folder = folder
        (folder / "var/lib/dpkg").mkdir(parents=True)

    def dpkg(self, *arguments):
        done = subprocess.run(["fakeroot", "dpkg", f"--root={self.folder}", *OPTIONS, *arguments],
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True)
        assert done.returncode == 0, done.stdout

    def files(self):
        return {str(path.relative_to(self.folder)) for path in self.folder.rglob("*")
                if not path.is_dir() or path.is_symlink()}

    def names(self, table):
        """The first fields of /etc/passwd or /etc/group."""
        return [line.split(":")[0] for line in self.text(f"etc/{table}").splitlines()]

    def text(self, path):
        return (self.folder / path).read_text()

    def enabled(self):
        return sorted(self.folder.glob("etc/systemd/system/*.wants/*"))


@pytest.fixture
def root(packages, tmp_path):
    made = Root(tmp_path)
    made.dpkg("--install", packages.path("vindra"))
    return made


def test_the_installed_program_answers(root):
    with contextlib.closing(HeldPort()) as held:
        program = Program(held.port, "-map", "app.local", "-1", port=held.port,
                          path=root.folder / "usr/bin/vindra")
        try:
            program.await_start()
            answer = curl("-H", "Host: app.local", url(held.port))
        finally:
            program.stop()
    assert answer.endswith(b"Your IPv4 address is: 127.0.0.1")


def test_installing_makes_the_user_and_starts_nothing(root):
    assert root.names("passwd") == ["vindra"]
    assert "ssl-cert:x:999:vindra" in root.text("etc/group")
    assert root.enabled() == []


def test_what_the_administrator_wrote_outlives_a_removal_and_a_new_installation(root, packages):
    settings = root.folder / "etc/default/vindra"
    settings.write_text('VINDRA_ARGS="80 -map a 1"\n')
    root.dpkg("--remove", "vindra")
    assert not (root.folder / "usr").exists()
    root.dpkg("--install", packages.path("vindra"))
    assert settings.read_text() == 'VINDRA_ARGS="80 -map a 1"\n'


def test_a_purge_leaves_nothing_but_the_group_of_the_keys(root):
    wants = root.folder / "etc/systemd/system/multi-user.target.wants"
    wants.mkdir(parents=True)
    for unit in ["vindra.service", "vindra@1.service"]:
        source = "vindra@.service" if "@" in unit else unit
        (wants / unit).symlink_to(f"/lib/systemd/system/{source}")
    root.dpkg("--purge", "vindra")
    # The tools' own: the database, and the tables of users, in which there is nobody.
    left = {path for path in root.files() if not path.startswith("var/lib/dpkg/")}
    tables = {pathlib.PurePath(path).name.rstrip("-") for path in left}
    assert tables <= {".pwd.lock", "passwd", "shadow", "group", "gshadow"}
    assert root.names("passwd") == root.names("shadow") == []
    assert root.names("group") == root.names("gshadow") == ["ssl-cert"]
    assert "vindra" not in root.text("var/lib/dpkg/status")
