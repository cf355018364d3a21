"""Large bodies that are made when they are needed, the same ones every time."""

import hashlib
import random

MIB = 1 << 20


def blocks(mebibytes, seed=1):
    """That many different blocks of 1 MiB each."""
    source = random.Random(seed)
    for _ in range(mebibytes):
        yield source.randbytes(MIB)


def digest(pieces):
    running = hashlib.sha256()
    for piece in pieces:
        running.update(piece)
    return running.hexdigest()


def write_file(path, mebibytes, seed=1):
    """Fill a file and return its digest."""
    with open(path, "wb") as file:
        running = hashlib.sha256()
        for block in blocks(mebibytes, seed):
            file.write(block)
            running.update(block)
    return running.hexdigest()


def file_digest(path):
    with open(path, "rb") as file:
        return digest(iter(lambda: file.read(MIB), b""))
