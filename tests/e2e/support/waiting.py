"""Waiting for a condition of another process, with an end to the patience."""

import time

PATIENCE = 15.0


def wait_until(condition, what, patience=PATIENCE):
    """Return the first true value of `condition()`; fail when `patience` seconds are over."""
    deadline = time.monotonic() + patience
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"waited {patience} s in vain for {what}")
        time.sleep(0.005)
