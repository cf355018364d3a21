"""One fault: compiled, linked into the programs that reach it, and met by their tests."""

import pathlib

import building
import running

# The quickest cases go first: most faults are seen at once.
FIRST_SECONDS = 1.0
CONFIRMATIONS = 3


class Worker:
    """A folder of its own, so that two can work at a time."""

    def __init__(self, folder, compiler, reach):
        self.folder, self.compiler, self.reach = folder, compiler, reach

    def try_out(self, fault, source):
        """(verdict, detail); the verdict is None for one that does not count."""
        lines = self.reach.lines_of(fault)
        if not lines:
            return None, "no code"
        cases = self._cases(lines)
        text = fault.applied(source)
        compiled, changed = {}, {}
        for program in self._in_order(cases, fault) or [None]:
            for wanted in self._objects(fault, lines, program):
                if wanted in compiled:
                    continue
                out = compiled[wanted] = self.compiler.compile(wanted, fault.file, text, self.folder)
                if out is None:
                    return None, "does not compile"
                if not self.compiler.is_as_built(wanted, out):
                    changed[wanted] = out
            if not changed or program is None:
                continue
            verdict, detail = self._meet(program, cases[program], changed)
            if verdict != "survived":
                return verdict, detail
        if not changed:
            return None, "the same object"
        for program in self._in_order(cases, fault):
            if self._leaks(program, cases[program], changed):
                return "killed", f"{pathlib.Path(program).name} leaks"
        if self._is_optimised_away(changed, fault, text):
            return None, "the same object once optimised"
        count = sum(len(names) for names in cases.values())
        return "survived", f"{count} cases reach it" if count else "no case reaches it"

    def _cases(self, lines):
        """{program: cases}"""
        found = {}
        for line in lines:
            for program, names in self.reach.cases.get(line, {}).items():
                found.setdefault(program, {}).update(dict.fromkeys(names))
        return {program: list(names) for program, names in found.items()}

    def _objects(self, fault, lines, program):
        """What to compile again for `program`; for any one when it is None."""
        if fault.file.endswith(".cpp"):
            return self.compiler.objects_of(fault.file)
        functions = {}
        for line in lines:
            for other, names in self.reach.functions[line].items():
                functions.setdefault(other, set()).update(names)
        program = program or min(functions)
        return self.compiler.objects_with(functions.get(program, ()), program)

    def _in_order(self, cases, fault):
        """The programs of the source's own folder first."""
        own = f"tests/{fault.file.split('/')[1]}/"
        return sorted(cases, key=lambda program: (not program.startswith(own), program))

    def _meet(self, program, names, changed):
        seconds = self.reach.seconds[program]
        others = {other for name in names for other in self.reach.others[program, name]}
        for path in [*sorted(others), program]:
            own = set(self.compiler.objects_in(path))
            fit = {wanted: out for wanted, out in changed.items() if wanted in own}
            linked = self.compiler.link(path, fit, self.folder)
            if linked is None:
                return None, "does not link"

        names = sorted(names, key=lambda name: seconds[name])
        total, first = 0.0, 0
        while first < len(names) and (first == 0 or total + seconds[names[first]] <= FIRST_SECONDS):
            total += seconds[names[first]]
            first += 1
        for portion in (names[:first], names[first:]):
            verdict, detail = self._run(linked, program, portion, seconds)
            if verdict != "survived":
                return verdict, detail
        return "survived", ""

    def _run(self, linked, program, names, seconds):
        """A failure counts when it comes again with the fault and does not come without."""
        names, doubts = list(names), {}
        while names:
            outcome, case = running.run(linked, names, self.folder, seconds)
            if outcome == "passed":
                return "survived", ""
            if case not in names:
                case = names[0]
            again = outcome if outcome == "timed out" else running.run(linked, [case], self.folder, seconds)[0]
            without = running.run(building.OBJECTS / program, [case], self.folder, seconds)[0]
            if again != "passed" and without == "passed":
                return "killed", f"{case} {outcome}"
            doubts[case] = doubts.get(case, 0) + 1
            if doubts[case] == CONFIRMATIONS:
                names.remove(case)
        return "survived", ""

    def _leaks(self, program, names, changed):
        """Whether the leak checker sees the fault, and nothing without it."""
        options = f"suppressions={building.TREE}/tests/support/leaks.supp:print_suppressions=0"
        for objects, expected in ((changed, False), ({}, True)):
            fit = {wanted: out for wanted, out in objects.items() if wanted in self.compiler.objects_in(program)}
            linked = self.compiler.link(program, fit, self.folder, "-fsanitize=leak")
            if linked is None:
                return False
            outcome = running.run(linked, names, self.folder, self.reach.seconds[program], {"LSAN_OPTIONS": options})
            if (outcome[0] == "passed") != expected:
                return False
        return True

    def _is_optimised_away(self, changed, fault, text):
        for wanted in changed:
            plain = self.compiler.compile(wanted, fault.file, None, self.folder, optimised=True)
            plain = plain and plain.read_bytes()
            out = self.compiler.compile(wanted, fault.file, text, self.folder, optimised=True)
            if plain is None or out is None or plain != out.read_bytes():
                return False
        return True
