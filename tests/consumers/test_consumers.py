"""Programs outside the tree that use the library as its users do, each answering a request."""

import contextlib
import json
import os
import pathlib
import re
import shlex
import signal
import subprocess

import pytest

from support.curl import curl, url
from support.ports import HeldPort
from support.program import ROOT, build_folder
from support.waiting import PATIENCE, wait_until

HERE = pathlib.Path(__file__).resolve().parent
COMPILER = os.environ.get("CXX", "g++")
BUILD_SECONDS = 240


def succeed(*command, **settings):
    """Run a command to its end, show what it printed if it fails, and return its output."""
    done = subprocess.run([*map(str, command)], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, timeout=BUILD_SECONDS, **settings)
    assert done.returncode == 0, done.stdout
    return done.stdout


def configure(source, build, *settings):
    succeed("cmake", "-S", source, "-B", build, "-G", "Ninja", f"-DCMAKE_CXX_COMPILER={COMPILER}",
            "-DCMAKE_CXX_FLAGS=-Wall -Wextra -Werror", *settings)


def built(source, build, *settings):
    """The build folder of a consumer that configures and builds."""
    configure(source, build, *settings)
    succeed("cmake", "--build", build)
    return build


@contextlib.contextmanager
def running(program, *ports, **environment):
    """Run a consumer until the block is left: an interrupt has to end it in order."""
    with subprocess.Popen([program, *map(str, ports)], stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, env={**os.environ, **environment}) as process:
        try:
            # It listens when its first turn has counted its connections.
            wait_until(lambda: b"0 connections" in process.stdout.readline(), "the first turn")
            yield
            process.send_signal(signal.SIGINT)
            assert process.wait(PATIENCE) == 0
        finally:
            process.kill()


@pytest.fixture(scope="module")
def prefix(tmp_path_factory):
    """A folder that the build under test is installed in."""
    folder = tmp_path_factory.mktemp("prefix")
    succeed("cmake", "--install", build_folder(), "--prefix", folder)
    return folder


@pytest.fixture(scope="module")
def libraries(prefix):
    return next(prefix.rglob("libvindra.so")).parent


@pytest.fixture(scope="module")
def found(prefix, tmp_path_factory):
    """The build folder of the consumer that finds the package."""
    return built(HERE / "find_package", tmp_path_factory.mktemp("found"),
                 f"-DCMAKE_PREFIX_PATH={prefix}", f"-DVINDRA_INCLUDE={prefix / 'include'}",
                 "-DCMAKE_BUILD_TYPE=Release")


@pytest.fixture
def port():
    with contextlib.closing(HeldPort()) as held:
        yield held.port


@pytest.mark.parametrize("program", ["with_static", "with_shared"])
def test_find_package_gives_a_library_that_was_started_before_main(found, port, program):
    with running(found / program, port):
        assert curl(url(port)) == b"SIGPIPE ignored, TLS bound, GET\n"


def test_find_package_hands_over_the_flags_that_the_headers_need(found):
    commands = json.loads((found / "compile_commands.json").read_text())
    assert commands
    for entry in commands:
        flags = entry["command"].split()
        assert {"-std=c++20", "-std=gnu++20"} & set(flags)
        assert ("-fno-lifetime-dse" in flags) == ("clang" not in COMPILER)


def test_a_program_names_the_shared_library_without_its_minor_version(found):
    needed = succeed("readelf", "-d", found / "with_shared")
    assert "[libvindra.so.0]" in needed
    assert "libvindra" not in succeed("readelf", "-d", found / "with_static")


def test_add_subdirectory_builds_the_library_alone(tmp_path, port):
    build = built(HERE / "add_subdirectory", tmp_path, f"-DVINDRA_SOURCE={ROOT}")
    assert not [*build.rglob("libvindra.so*")]
    assert not (build / "vindra" / "vindra" / "vindra").exists()
    with contextlib.closing(HeldPort()) as back:
        with running(build / "consumer", port, back.port):
            target = f"http://127.0.0.1:{back.port}/it"
            assert curl("--proxy", url(port), "--noproxy", "", target) == b"relayed /it\n"


def test_fetch_content_takes_the_same_targets(tmp_path):
    configure(HERE / "add_subdirectory", tmp_path, f"-DVINDRA_SOURCE={ROOT}", "-DFETCH=ON")


PAGES = ["README.md", *sorted(f"docs/{page.name}" for page in (ROOT / "docs").glob("*.md"))]


def samples(page):
    """The C++ samples of a page."""
    return re.findall(r"^```cpp\n(.*?)^```$", (ROOT / page).read_text(), re.MULTILINE | re.DOTALL)


def package_flags(libraries, *wanted):
    """What pkg-config says of the installed library."""
    without_gcc = ["--define-variable=gcc_flags="] if "clang" in COMPILER else []
    package = libraries / "pkgconfig" / "vindra.pc"
    return shlex.split(succeed("pkg-config", *without_gcc, *wanted, package))


def test_the_sample_of_the_readme_builds_with_pkg_config_and_answers(prefix, libraries, tmp_path,
                                                                     port):
    source = tmp_path / "sample.cpp"
    source.write_text(samples("README.md")[0].replace("8080", str(port)))
    succeed(COMPILER, "-Wall", "-Wextra", "-Werror", source, "-o", tmp_path / "sample",
            *package_flags(libraries, "--cflags", "--libs"))
    with running(tmp_path / "sample", LD_LIBRARY_PATH=str(libraries)):
        assert curl(url(port, "/you")) == b"Hello, /you\n"


def test_the_sample_of_the_readme_is_short_and_the_guide_shows_the_same():
    text = samples("README.md")[0]
    assert text.count("\n") <= 15
    assert text == samples("docs/first_server.md")[0]


@pytest.mark.parametrize("page", [page for page in PAGES if samples(page)])
def test_every_sample_of_a_page_compiles(libraries, tmp_path, page):
    for number, text in enumerate(samples(page)):
        source = tmp_path / f"sample{number}.cpp"
        source.write_text(text)
        succeed(COMPILER, "-fsyntax-only", "-Wall", "-Wextra", "-Werror", source,
                *package_flags(libraries, "--cflags"))


# Of the application's own, in a file that knows nothing of the library.
SAME_NAME = """
#include <cstdlib>
class connection {
public:
    connection();
    virtual ~connection();
    virtual void on_recv(char*, int);
    void wake();
    static connection*& selected();
};
connection::connection() { std::abort(); }
connection::~connection() { std::abort(); }
void connection::on_recv(char*, int) { std::abort(); }
void connection::wake() { std::abort(); }
connection*& connection::selected() { std::abort(); }
"""

RELAY = """
#include <cstdlib>
#include <vindra/core/server.h>
#include <vindra/proxy/reverse_proxy.h>
int main(int, char** argv) {
    reverse_proxy::hosts().set("here", reverse_proxy::echo_port);
    server<reverse_proxy> s(std::atoi(argv[1]), true);
    s.run();
}
"""


def test_a_class_of_the_program_s_own_takes_no_place_in_the_shared_library(libraries, tmp_path, port):
    sources = [tmp_path / "name.cpp", tmp_path / "relay.cpp"]
    for source, text in zip(sources, [SAME_NAME, RELAY]):
        source.write_text(text)
    succeed(COMPILER, *sources, "-o", tmp_path / "relay",
            *package_flags(libraries, "--cflags", "--libs"))
    with running(tmp_path / "relay", port, LD_LIBRARY_PATH=str(libraries)):
        assert b"Your IPv4 address" in curl("-H", "Host: here", url(port))


def test_without_run_time_types_the_compiler_says_what_to_do(libraries, tmp_path):
    source = tmp_path / "sample.cpp"
    source.write_text(samples("README.md")[0])
    done = subprocess.run([COMPILER, "-fsyntax-only", "-fno-rtti", source,
                           *package_flags(libraries, "--cflags")], stdin=subprocess.DEVNULL,
                          stderr=subprocess.PIPE, text=True, timeout=BUILD_SECONDS)
    assert done.returncode != 0
    errors = re.findall(r"error: (.*)", done.stderr)
    assert len(errors) == 1
    assert "-fno-rtti" in errors[0]


def test_pkg_config_adds_the_loader_for_a_static_link(libraries):
    assert "-ldl" in package_flags(libraries, "--static", "--libs")


def private_headers():
    return list((ROOT / "vindra").rglob("private/*.h"))


def test_private_headers_stay_at_home(prefix):
    include = prefix / "include"
    installed = {path.relative_to(include) for path in include.rglob("*.h")}
    assert pathlib.Path("vindra/core/https.h") in installed
    assert {"late_answer.h", "block_store.h", "registry.h"} <= {path.name for path in private_headers()}
    assert not {path for path in installed if "private" in path.parts}
    assert not list(include.rglob("private"))


def test_the_shared_library_offers_all_that_public_headers_declare(prefix, libraries):
    """What is hidden in it belongs to the private headers: anything else lacks its mark."""
    hidden = set()
    for line in succeed("readelf", "-sW", libraries / "libvindra.a").splitlines():
        fields = line.split()
        if len(fields) == 8 and fields[4:6] == ["GLOBAL", "HIDDEN"] and fields[6] != "UND":
            hidden.add(fields[7])
    names = succeed("c++filt", *hidden).splitlines()
    # Classes and functions of private headers; and the seat, which stands in connection.h for servers alone.
    text = "".join(header.read_text() for header in private_headers())
    declared = set(re.findall(r"^ *(?:class|struct|namespace) (\w+)[^;{]*{|^[\w:*&<> ]+ (\w+)\(", text, re.M))
    private = {word for pair in declared for word in pair if word} - {"base", "sockets"} | {"seat"}
    known = re.compile(rf"(?:(?:typeinfo|typeinfo name|vtable) for )?(?:base::|sockets::)?({'|'.join(private)})\b")
    assert names
    assert [name for name in names if not known.match(name)] == []
