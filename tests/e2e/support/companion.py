"""An ordinary client that goes on being served while something else happens."""

import contextlib
import threading

from support.raw import get
from support.texts import echo_answer


@contextlib.contextmanager
def served_meanwhile(program, host):
    """Ask `host`, an echo host, without a pause for as long as the block runs.

    Half of the requests share one connection, the others open one each. Every answer must be right,
    and at least one request must have begun and ended inside the block.
    """
    request = get(host)
    answer = echo_answer(request)
    over, served, faults = threading.Event(), [], []

    def ask(client):
        client.send(request)
        assert client.read_exactly(len(answer)) == answer

    def keep_asking():
        with program.connect() as kept:
            while not served or not over.is_set():
                ask(kept)
                with program.connect() as fresh:
                    ask(fresh)
                served.append(True)

    def run():
        try:
            keep_asking()
        except BaseException as fault:
            faults.append(fault)

    thread = threading.Thread(target=run, daemon=True)
    thread.start()
    try:
        yield
    finally:
        over.set()
        thread.join(30)
    assert not faults, faults
    assert not thread.is_alive(), "the ordinary client hangs"
