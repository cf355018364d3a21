"""tests/mutate: which faults it plants, and what it refuses. A run takes minutes and stays out."""

import pathlib
import subprocess
import sys

import pytest

TESTS = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TESTS / "mutation"))

import faults  # noqa: E402


def planted(line):
    """What becomes of one line of a function, for each rule."""
    source = f"void f() {{\n    {line}\n}}\n"
    return sorted(fault.applied(source).splitlines()[1].strip() for fault in faults.faults_of("a.cpp", source))


@pytest.mark.parametrize("line, outcome", [
    ("if (a < b) g();", ["if (a < b) ;", "if (a <= b) g();", "if (a >= b) g();"]),
    ("if (a == b) return;", ["if (a != b) return;", "if (a == b) ;"]),
    ("if (ready) ++i;", ["if (!(ready)) ++i;", "if (ready) --i;", "if (ready) ;"]),
    ("while (!ok) g();", ["while (!ok) ;", "while (ok) g();"]),
    ("const bool c = a && b;", ["const bool c = a || b;"]),
    ("if (auto* p = f(); p) g();", ["if (auto* p = f(); !(p)) g();", "if (auto* p = f(); p) ;"]),
    ("return value;", ["return {};"]),
    ("const int k = 0x10;", ["const int k = 0x11;", "const int k = 0xF;"]),
    ("const bool b = true;", ["const bool b = false;"]),
    ("std::vector<int> v;", []),
    ("assert(a < 3 && b);", []),
    ("// a < 3", []),
    ('const char* s = "a < 3";', []),
    ("sort(v, [](int a, int b) { return a < b; });",
     [";", "sort(v, [](int a, int b) { return a <= b; });", "sort(v, [](int a, int b) { return a >= b; });",
      "sort(v, [](int a, int b) { return {}; });"]),
])
def test_a_line_is_spoilt_by_these_rules_and_no_others(line, outcome):
    assert planted(line) == sorted(outcome)


def test_lines_keep_their_numbers():
    source = "void f() {\n    g(1,\n      2);\n    return a +\n           b;\n}\n"
    for fault in faults.faults_of("a.cpp", source):
        assert fault.applied(source).count("\n") == source.count("\n"), fault


@pytest.mark.parametrize("words", [
    ["--count"], ["--count", "0", "--seed", "1"], ["--count", "many", "--seed", "1"], ["--count", "1"],
    ["--seed", "1"], ["--bad"], ["--count", "1", "--seed", "1", "nowhere"], ["--count", "1", "--seed", "1", "tests"],
])
def test_bad_arguments_get_one_line(words):
    done = subprocess.run([TESTS / "mutate", *words], capture_output=True, text=True, check=False, timeout=60)
    assert done.returncode == 2 and done.stdout == ""
    assert done.stderr.startswith("mutate: ") and done.stderr.count("\n") == 1
