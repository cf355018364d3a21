"""A copy of the tree, the test programs built of it, and the same programs with a fault in them."""

import json
import pathlib
import re
import shlex
import subprocess

ROOT = pathlib.Path(__file__).resolve().parents[2]
HOME = ROOT / "build" / "mutate"
TREE = HOME / "tree"
OBJECTS = HOME / "objects"
RUNTIME = HOME / "reached.o"

COPIED = ("CMakeLists.txt", "CMakePresets.json", "cmake", "fuzz", "tests", "vindra")
# Columns stay out, so that a changed line that means the same gives the same object. The containers
# of the standard library look after their bounds, as they would under a sanitizer.
FLAGS = "-O0 -g1 -gno-column-info -fsanitize-coverage=trace-pc -D_GLIBCXX_ASSERTIONS"
MARK = "__sanitizer_cov_trace_pc"


class Failure(Exception):
    """Told in one line at the end of the command."""


def output_of(*command, cwd=None):
    done = subprocess.run([str(word) for word in command], cwd=cwd, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace")
    if done.returncode:
        raise Failure(f"{pathlib.Path(command[0]).name} failed\n{done.stdout.strip()}")
    return done.stdout


def copy_tree():
    """Brings the copy up to date; a file that is the same keeps its time, and so its object."""
    names = output_of("git", "-c", "safe.directory=*", "ls-files", "-z", "--cached", "--others",
                      "--exclude-standard", "--", *COPIED, cwd=ROOT).split("\0")
    wanted = {name for name in names if name and (ROOT / name).is_file()}
    for name in wanted:
        content, copy = (ROOT / name).read_bytes(), TREE / name
        if not copy.is_file() or copy.read_bytes() != content:
            copy.parent.mkdir(parents=True, exist_ok=True)
            copy.write_bytes(content)
    for path in TREE.rglob("*"):
        if path.is_file() and str(path.relative_to(TREE)) not in wanted:
            path.unlink()


def build():
    """Builds all test programs; returns their paths in the build folder."""
    copy_tree()
    output_of("g++", "-O1", "-c", pathlib.Path(__file__).with_name("reached.cpp"), "-o", RUNTIME)
    linking = f"{RUNTIME} -fuse-ld=lld -Wl,--export-dynamic-symbol={MARK}"
    output_of("cmake", "-S", TREE, "-B", OBJECTS, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
              f"-DCMAKE_CXX_FLAGS_DEBUG={FLAGS}", f"-DCMAKE_EXE_LINKER_FLAGS={linking}",
              "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON", "-DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON",
              "-DVINDRA_EXAMPLES=OFF", "-DVINDRA_INSTALL=OFF")
    names = []
    for file in sorted(TREE.glob("tests/*/CMakeLists.txt")):
        names += re.findall(r"^vindra_test\(\s*(\w+)", file.read_text(), re.MULTILINE)
    output_of("ninja", "-C", OBJECTS, "-j2", *names)
    return sorted(path.relative_to(OBJECTS) for path in OBJECTS.glob("tests/*/*") if path.name in names)


class Compiler:
    """Compiles sources of the copy again, with one file replaced, and links programs with the outcome."""

    def __init__(self):
        self.commands = {}
        for entry in json.loads((OBJECTS / "compile_commands.json").read_text()):
            source = pathlib.Path(entry["file"]).relative_to(TREE)
            self.commands.setdefault(str(source), []).append(shlex.split(entry["command"]))
        self.symbols, self.links, self.texts = {}, {}, {}

    def objects_of(self, source):
        """Paths of the objects that are made of a source: more than one where programs share it."""
        return [command[command.index("-o") + 1] for command in self.commands.get(source, [])]

    def source_of(self, wanted):
        for source in self.commands:
            if wanted in self.objects_of(source):
                return source
        return None

    def compile(self, wanted, name, text, folder, optimised=False):
        """Compiles the source of object `wanted` with `text` in the file `name`; None if it fails.

        Without `text` the file is as it is.
        """
        source = self.source_of(wanted)
        command = next(command for command in self.commands[source] if command[command.index("-o") + 1] == wanted)
        if text is not None:
            (folder / name).parent.mkdir(parents=True, exist_ok=True)
            (folder / name).write_text(text)
        out = folder / (wanted.replace("/", "_") if text is not None else "plain.o")
        words, words_in = [], iter(command)
        for word in words_in:
            if word in ("-MT", "-MF"):
                next(words_in)
            elif word == "-o":
                next(words_in)
                words += ["-o", str(out)]
            elif word == str(TREE / source) and source == name and text is not None:
                words.append(str(folder / name))
            elif word != "-MD":
                words.append(word)
        if text is not None:
            first = next(at for at, word in enumerate(words) if word.startswith("-"))
            words[first:first] = [f"-I{folder}", f"-ffile-prefix-map={folder}={TREE}"]
        words.append("-w")
        if optimised:
            words += ["-O2", "-g0"]
            words.remove("-fsanitize-coverage=trace-pc")
        done = subprocess.run(words, cwd=OBJECTS, stdin=subprocess.DEVNULL, capture_output=True)
        if done.returncode:
            return None
        subprocess.run(["objcopy", "--strip-debug", out], check=True)
        return out

    def is_as_built(self, wanted, out):
        """Whether an object is the same as the one of the build, but for what is for debuggers."""
        if wanted not in self.texts:
            # Beside the outcome: another worker may be about to do the same.
            plain = out.with_suffix(".plain")
            subprocess.run(["objcopy", "--strip-debug", OBJECTS / wanted, plain], check=True)
            self.texts[wanted] = plain.read_bytes()
        return self.texts[wanted] == out.read_bytes()

    def link_command(self, program):
        if program not in self.links:
            line = output_of("ninja", "-C", OBJECTS, "-t", "commands", program).splitlines()
            line = next(line for line in reversed(line) if f" -o {program} " in line)
            command = next(part for part in line.split("&&") if f" -o {program} " in part)
            self.links[program] = shlex.split(command)
        return self.links[program]

    def objects_in(self, program):
        """The objects of a program and of the library in it."""
        own = [word for word in self.link_command(str(program)) if word.endswith(".o") and word != str(RUNTIME)]
        library = [wanted for source in self.commands if source.startswith("vindra/")
                   for wanted in self.objects_of(source) if "/vindra_" in wanted]
        return own + [wanted for wanted in library if wanted not in own]

    def link(self, program, changed, folder, *options):
        """Links `program` with {object of the build: object with the fault}; None if that fails."""
        command = [*self.link_command(str(program)), *options]
        out = folder / program
        out.parent.mkdir(parents=True, exist_ok=True)
        command[command.index("-o") + 1] = str(out)
        # In front, so that the library's own member is never looked for, and of an inline function
        # that several objects have this one is taken.
        first = next(at for at, word in enumerate(command) if word.endswith(".o") and word != str(RUNTIME))
        command = [word for word in command if word not in changed]
        command[first:first] = [str(path) for path in changed.values()]
        command.append("-Wl,--strip-debug")
        done = subprocess.run(command, cwd=OBJECTS, stdin=subprocess.DEVNULL, capture_output=True)
        return out if done.returncode == 0 else None

    def symbols_of(self, wanted):
        """{symbol: whether other objects may define it too}."""
        if wanted not in self.symbols:
            found = {}
            for line in output_of("nm", "--defined-only", OBJECTS / wanted).splitlines():
                kind, name = line.split()[-2:]
                if kind in "TtWw":
                    found[name] = kind in "Ww"
            self.symbols[wanted] = found
        return self.symbols[wanted]

    def objects_with(self, symbols, program):
        """Few objects that, compiled again, change all these functions in a program."""
        chosen, objects = [], self.objects_in(program)
        for symbol in sorted(symbols):
            having = [wanted for wanted in objects if symbol in self.symbols_of(wanted)]
            own = [wanted for wanted in having if not self.symbols_of(wanted)[symbol]]
            if own:
                chosen += own
            elif having and not any(wanted in chosen for wanted in having):
                chosen.append(having[0])
        return list(dict.fromkeys(chosen))
