"""Which test cases come through which lines of vindra/."""

import bisect
import concurrent.futures
import hashlib
import json
import re
import shutil
import sys
import time

import building
import running

CACHE = building.HOME / "reached.json"
# What a case may take, for the time limit of the run that measures it.
ASSUMED_SECONDS = 12
FUNCTION = re.compile(r"^([0-9a-f]+) <(.+)>:$")
INSTRUCTION = re.compile(r"^ *([0-9a-f]+):\t(.*)$")
ROW = re.compile(r"^\S+ +(\d+) +(0x[0-9a-f]+)")


def blocks_of(program):
    """[(mark, function, ["file:line", ...])] of all blocks that leave a mark.

    A mark is an offset in the program's code. A block reaches up to the next one.
    """
    start = next(int(line.split()[0], 16) for line in building.output_of("nm", program).splitlines()
                 if line.endswith(" __executable_start"))
    sites, function, after_call = [], None, None
    functions = {}
    for line in building.output_of("objdump", "-d", "--no-show-raw-insn", program).splitlines():
        if match := FUNCTION.match(line):
            function = (int(match.group(1), 16), match.group(2))
        elif match := INSTRUCTION.match(line):
            address = int(match.group(1), 16)
            if after_call is not None:
                sites.append((after_call, address - start, function[1]))
                functions.setdefault(function[0], []).append(len(sites) - 1)
            is_call = match.group(2).startswith("call") and f"<{building.MARK}" in match.group(2)
            after_call = address if is_call else None

    beginnings = sorted(functions)
    calls = [site[0] for site in sites]
    lines = [set() for _ in sites]
    rows = rows_of(program)
    for address, line in rows:
        at = bisect.bisect_right(beginnings, address) - 1
        if at < 0:
            continue
        own = functions[beginnings[at]]
        site = bisect.bisect_right(calls, address, own[0], own[-1] + 1) - 1
        # What is in front of the first block belongs to it.
        lines[max(site, own[0])].add(line)
    addresses = [row[0] for row in rows]
    for index, call in enumerate(calls):
        at = bisect.bisect_right(addresses, call) - 1
        if at >= 0:
            lines[index].add(rows[at][1])
    return [(mark, name, sorted(lines[index] - {None})) for index, (_, mark, name) in enumerate(sites)]


def rows_of(program):
    """The line table: (address, "file:line"), sorted; None for a line of somebody else's."""
    rows, file = [], None
    own = f"{building.TREE}/vindra/"
    for line in building.output_of("objdump", "--dwarf=decodedline", program).splitlines():
        if line.endswith(":") or line.endswith("[++]"):
            path = line.removeprefix("CU: ").removesuffix("[++]").removesuffix(":")
            file = path.removeprefix(f"{building.TREE}/") if path.startswith(own) else None
        elif match := ROW.match(line):
            rows.append((int(match.group(2), 16), f"{file}:{match.group(1)}" if file else None))
    rows.sort(key=lambda row: row[0])
    return rows


def fingerprint(program):
    return hashlib.sha256((building.OBJECTS / program).read_bytes()).hexdigest()


def measure(program, case, blocks, folder):
    """What one case comes through, and how long it takes."""
    marks = folder / "marks"
    shutil.rmtree(folder, ignore_errors=True)
    marks.mkdir(parents=True)
    begin = time.monotonic()
    outcome = running.run(building.OBJECTS / program, [case], folder, {case: ASSUMED_SECONDS},
                          {"MUTATE_REACHED": str(marks)})
    seconds = time.monotonic() - begin
    sites, others = [], []
    for path in marks.iterdir():
        found = next(iter(building.OBJECTS.glob(f"tests/*/{path.name}")), None)
        if found is None:
            continue
        other = str(found.relative_to(building.OBJECTS))
        if other != program:
            others.append(other)
        set_marks = {match.start() for match in re.finditer(rb"\x01", path.read_bytes())}
        sites += [(other, index) for index, (mark, _, _) in enumerate(blocks(other)) if mark in set_marks]
    return outcome[0], seconds, others, sites


def result_of(job):
    """Of a job that must not go on when the command is interrupted."""
    try:
        return job.result()
    except BaseException:
        running.end_all()
        raise


class Reach:
    """The map, made once for each state of the test programs."""

    def __init__(self, programs):
        self.programs = [str(program) for program in programs]
        self._blocks, known = {}, self._load()
        self.seconds, self.others = {}, {}
        self.cases, self.functions = {}, {}
        for program in self.programs:
            if known.get(program, {}).get("fingerprint") != fingerprint(program):
                known[program] = {"fingerprint": fingerprint(program), **self._measured(program)}
                CACHE.write_text(json.dumps(known))
            data = known[program]
            for line, functions in data["functions"].items():
                self.functions.setdefault(line, {})[program] = set(functions)
            for case, (seconds, others, lines) in data["cases"].items():
                self.seconds.setdefault(program, {})[case] = seconds
                self.others[program, case] = others
                for line in lines:
                    self.cases.setdefault(line, {}).setdefault(program, []).append(case)

    def _load(self):
        try:
            return json.loads(CACHE.read_text())
        except (OSError, ValueError):
            return {}

    def blocks(self, program):
        if program not in self._blocks:
            self._blocks[program] = blocks_of(building.OBJECTS / program)
        return self._blocks[program]

    def _measured(self, program):
        names = running.cases_of(building.OBJECTS / program)
        print(f"{program}: which lines its {len(names)} cases reach...", file=sys.stderr)
        blocks = self.blocks(program)
        cases, reached = {}, set()
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            jobs = [pool.submit(self._measured_case, program, name, at) for at, name in enumerate(names)]
            for name, job in zip(names, jobs):
                outcome, seconds, others, sites = result_of(job)
                if outcome != "passed":
                    print(f"{name}: {outcome} without a fault, left out", file=sys.stderr)
                    continue
                reached.update(index for other, index in sites if other == program)
                lines = {line for other, index in sites for line in self.blocks(other)[index][2]}
                cases[name] = (seconds, others, sorted(lines))
        functions, unreached = {}, {}
        for index, (_, function, lines) in enumerate(blocks):
            for line in lines:
                (functions if index in reached else unreached).setdefault(line, set()).add(function)
        return {"cases": cases,
                "functions": {line: sorted(names) for line, names in {**unreached, **functions}.items()}}

    def _measured_case(self, program, case, at):
        folder = building.HOME / f"case_{at}"
        try:
            result = measure(program, case, self.blocks, folder)
            return result if result[0] == "passed" else measure(program, case, self.blocks, folder)
        finally:
            shutil.rmtree(folder, ignore_errors=True)

    def lines_of(self, fault):
        """The lines whose cases are to be run; none when no test program has code for the fault."""
        own = f"{fault.file}:{fault.line}"
        if own in self.functions:
            return [own]
        around = [f"{fault.file}:{line}" for line in fault.lines if f"{fault.file}:{line}" in self.functions]
        if around or fault.file.endswith(".h"):
            return around
        # A constant at the top of a source.
        return [line for line in self.functions if line.startswith(f"{fault.file}:")]
