"""The JSON text of var and escape, read back by Python's own reader.

A zero byte in a string is written as \\0, which JSON does not have, so texts with one are not
valid JSON and stay out of the round trips; the last test pins that down. Bytes that are no
UTF-8 do give valid JSON, but read back as U+FFFF, so they are no round trip either.
"""

import json
import os
import pathlib
import random
import subprocess

import pytest

JSON_DUMP = pathlib.Path(os.environ["VINDRA_BUILD"]) / "tests" / "base" / "json_dump"

# Weighted towards the borders of the forms that escape() tells apart.
RANGES = [
    (0x01, 0x1F),
    (0x20, 0x7F),
    (0x80, 0x7FF),
    (0x800, 0xD7FF),
    (0xE000, 0xFFFF),
    (0x10000, 0x10FFFF),
]
BORDERS = [chr(c) for low, high in RANGES for c in (low, high)] + ['"', "\\", "/", "\b", "\f"]


def dump(data, *arguments):
    done = subprocess.run(
        [JSON_DUMP, *arguments], input=data, stdout=subprocess.PIPE, check=True, timeout=60
    )
    return done.stdout.decode("ascii")


def random_text(rng, length, newlines=0.0):
    def character():
        if rng.random() < newlines:
            return "\n"
        if rng.random() < 0.2:
            return rng.choice(BORDERS)
        return chr(rng.randint(*rng.choice(RANGES)))

    return "".join(character() for _ in range(length))


def expected_sample(text):
    lines = text.split("\n")
    rows = [[i + 0.5, line] for i, line in enumerate(lines)]
    named = {
        line: {"last": i == len(lines) - 1, "none": None, "rows": rows[i]}
        for i, line in enumerate(lines)
    }
    return {
        "lines": lines,
        "lengths": [len(line.encode()) for line in lines],
        "rows": rows,
        "named": named,
        "empty array": [],
        "empty object": {},
    }


@pytest.mark.parametrize("length", [0, 1, 2, 10, 1000, 100000])
def test_escape_reads_back_as_the_text(length):
    rng = random.Random(length)
    for _ in range(1 if length > 1000 else 20):
        text = random_text(rng, length)
        assert json.loads(dump(text.encode(), "escape")) == text


def test_escape_reads_back_every_character_but_zero():
    text = "".join(chr(c) for low, high in RANGES for c in range(low, high + 1))
    assert json.loads(dump(text.encode(), "escape")) == text


@pytest.mark.parametrize("form", ["compact", "pretty"])
@pytest.mark.parametrize("length", [0, 1, 5, 50, 500])
def test_var_reads_back_as_the_value(form, length):
    rng = random.Random(length)
    for _ in range(10):
        text = random_text(rng, length, newlines=0.1)
        value = json.loads(dump(text.encode(), "var", form))
        assert value == expected_sample(text)
        # Dictionaries compare without regard to order; insertion order is a promise.
        assert list(value["named"]) == list(expected_sample(text)["named"])


def test_pretty_and_compact_differ_in_blanks_only():
    data = "one\ntwo\n\nfour".encode()
    pretty, compact = dump(data, "var", "pretty"), dump(data, "var", "compact")
    assert pretty != compact
    assert "\n" not in compact

    def without_blanks(text):
        return text.replace(" ", "").replace("\n", "")

    assert without_blanks(pretty) == without_blanks(compact)


def test_bytes_that_are_no_text_still_give_valid_json():
    rng = random.Random(1)
    for _ in range(20):
        data = bytes(rng.randint(0x80, 0xFF) for _ in range(200))
        json.loads(dump(data, "escape"))
    assert json.loads(dump(b"a\xff\xc3", "escape")) == "a\uffff\uffff"


def test_a_zero_byte_is_not_valid_json():
    text = dump(b"a\0b", "escape")
    assert text == '"a\\0b"'
    with pytest.raises(json.JSONDecodeError):
        json.loads(text)
