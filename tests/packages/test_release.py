"""The release script: what it refuses, on a copy of the tree; and the bill of materials."""

import json
import re
import shutil
import subprocess

import pytest

from support.program import ROOT

AS_SOMEBODY = ["-c", "user.name=somebody", "-c", "user.email=somebody@vindra.invalid",
               "-c", "commit.gpgsign=false", "-c", "tag.gpgsign=false"]
VERSION = re.search(r"(?m)^  VERSION ([\d.]+)$", (ROOT / "CMakeLists.txt").read_text())[1]


class Tree:
    """A repository with all that the first checks look at, ready for a release."""

    def __init__(self, folder):
        self.folder = folder
        shutil.copytree(ROOT / "scripts", folder / "scripts")
        shutil.copy(ROOT / "CMakeLists.txt", folder)
        self.git("init", "--quiet")
        self.begin_changelog(f"## {VERSION} - 2026-11-21")

    def git(self, *arguments):
        subprocess.run(["git", *AS_SOMEBODY, *arguments], cwd=self.folder, check=True,
                       capture_output=True)

    def begin_changelog(self, heading):
        (self.folder / "CHANGELOG.md").write_text(f"# Changelog\n\n{heading}\n\n### Added\n\n- All.\n")
        self.git("add", ".")
        self.git("commit", "--quiet", "--message", "changelog: begin")

    def release(self, *arguments):
        done = subprocess.run([self.folder / "scripts" / "release", *arguments], capture_output=True,
                              stdin=subprocess.DEVNULL, text=True)
        return done.returncode, done.stdout, done.stderr


@pytest.fixture
def tree(tmp_path):
    return Tree(tmp_path)


def test_a_tree_in_order_can_be_released(tree):
    assert tree.release("--dry-run") == (0, f"release: {VERSION} can be made\n", "")


@pytest.mark.parametrize("heading", ["## Unreleased", "## 99.0.0 - 2026-11-21", f"## {VERSION}", ""])
def test_the_changelog_has_to_begin_with_the_version_and_its_day(tree, heading):
    tree.begin_changelog(heading)
    said = f'release: CHANGELOG.md begins with "{heading}", and CMakeLists.txt says {VERSION}\n'
    assert tree.release("--dry-run") == (1, "", said)


def test_a_change_in_no_commit_is_refused(tree):
    (tree.folder / "new").touch()
    said = "release: the tree has changes that are in no commit: ?? new\n"
    assert tree.release("--dry-run") == (1, "", said)


def test_a_version_is_released_once(tree):
    tree.git("tag", f"v{VERSION}")
    assert tree.release("--dry-run") == (1, "", f"release: there is a tag v{VERSION} already\n")


@pytest.mark.parametrize("script", ["scripts/release", "packaging/build", "packaging/try", "scripts/sbom"])
def test_wrong_arguments_are_one_line_and_status_2(script):
    done = subprocess.run([ROOT / script, "--unknown"], capture_output=True, text=True)
    assert (done.returncode, done.stdout, done.stderr.count("\n")) == (2, "", 1)


def test_an_unknown_architecture_is_one_line_and_status_2():
    done = subprocess.run([ROOT / "packaging" / "build", "--arch", "vax11"], capture_output=True, text=True)
    said = "build: Debian has no architecture vax11 (see packaging/build --help)\n"
    assert (done.returncode, done.stdout, done.stderr) == (2, "", said)


def test_the_bill_of_materials_names_the_files_and_what_they_need(packages):
    said = subprocess.run([ROOT / "scripts" / "sbom", packages.folder], check=True,
                          capture_output=True, text=True).stdout
    bill = json.loads(said)
    assert (bill["bomFormat"], bill["specVersion"]) == ("CycloneDX", "1.5")
    scopes = {part["name"]: part.get("scope") for part in bill["components"]}
    assert scopes == {**dict.fromkeys(["libc6", "libgcc-s1", "libstdc++6"], "required"),
                      "libssl3": "optional", packages.archive().name: None,
                      **{packages.path(name).name: None
                         for name in ["vindra", "libvindra0", "libvindra-dev"]}}
    references = [part["bom-ref"] for part in bill["components"]] + ["vindra"]
    assert sorted(entry["ref"] for entry in bill["dependencies"]) == sorted(references)
    assert set(bill["dependencies"][0]["dependsOn"]) < set(references)
