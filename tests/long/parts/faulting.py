"""Every failure of every call, at every use that a script of traffic makes of it."""

import contextlib
import random
import tempfile
import time

import parts  # noqa: F401  (finds the end-to-end tests' own modules)
from support.authority import Authority
from support.faults import FAULTS, Stage, cases, sweep
from support.program import build_folder


def faults(seconds):
    """Sweep as far as the time goes, in an order of chance, plain first. Fails by an exception."""
    results = {"build": build_folder().name}
    for name, share in (("plain", 0.3), ("TLS", 1.0)):
        start = time.monotonic()
        deadline = start + seconds * share
        with contextlib.ExitStack() as stack:
            folder = stack.enter_context(tempfile.TemporaryDirectory())
            authority = Authority(stack.enter_context(tempfile.TemporaryDirectory()))
            stage = Stage(folder, *((authority.trust(), authority.issue("faults"))
                                    if name == "TLS" else ()))
            try:
                wanted = cases(stage, FAULTS)
                random.Random(1).shuffle(wanted)
                met, struck = sweep(stage, wanted, deadline)
            except BaseException:
                # What is wrong on the way out follows from what went wrong before.
                with contextlib.suppress(AssertionError):
                    stage.close()
                raise
            stage.close()
        assert struck >= 0.8 * met, f"of {met} faults only {struck} struck"
        spent = time.monotonic() - start
        seconds -= spent
        results[name] = {"cases": len(wanted), "met": met, "struck": struck,
                         "seconds": round(spent)}
        print(f"  {name}: {results[name]}", flush=True)
    return results
