"""A browser loads a page of many files through the program."""

import re
import struct
import zlib

import pytest

from support.browser import load
from support.waiting import wait_until

ASSETS = 50


def png(width):
    """A black picture, `width` pixels wide and one high."""
    def chunk(kind, data):
        body = kind + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body))
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, 1, 8, 0, 0, 0, 0))
            + chunk(b"IDAT", zlib.compress(bytes(width + 1))) + chunk(b"IEND", b""))


def write_site(root):
    """A page with 20 pictures, 15 style sheets and 15 scripts, each with an effect of its own."""
    names = [f"{number}.{kind}" for kind, count in [("png", 20), ("css", 15), ("js", 15)]
             for number in range(1, count + 1)]
    for name in names:
        number, kind = name.split(".")
        (root / name).write_bytes({
            "png": png(int(number)),
            "css": f":root {{ --sheet-{number}: {number}; }}".encode(),
            "js": f"window.sum = (window.sum || 0) + {number};".encode(),
        }[kind])
    tags = {"png": '<img src="{}">', "css": '<link rel="stylesheet" href="{}">',
            "js": '<script src="{}"></script>'}
    body = "".join(tags[name.split(".")[1]].format(name) for name in names)
    (root / "page.html").write_text(f"<!doctype html><title>fifty</title>{body}")
    assert len(names) == ASSETS
    return names


def pages_served(nginx):
    return re.findall(r'"GET /(\S+) HTTP/1.1" 200 ', "\n".join(nginx.log()))


EFFECTS = """
const style = getComputedStyle(document.documentElement);
return {
    pictures: [...document.images].map(image => image.complete && image.naturalWidth),
    sheets: [...Array(15).keys()].map(n => parseInt(style.getPropertyValue("--sheet-" + (n + 1)))),
    scripts: window.sum,
};
"""


@pytest.mark.limit(100)
def test_chromium_loads_a_page_of_fifty_assets(launch, nginx, browser):
    names = write_site(nginx.root)
    program = launch("PORT", "-map", "127.0.0.1:PORT", nginx.port)
    load(browser, f"http://127.0.0.1:{program.port}/page.html")
    assert browser.title == "fifty"
    assert browser.execute_script(EFFECTS) == {
        "pictures": list(range(1, 21)), "sheets": list(range(1, 16)), "scripts": 120}
    expected = sorted(["page.html", *names])
    wait_until(lambda: sorted(pages_served(nginx)) == expected, "each file in the log, once")
    program.stop()
    for name in names:
        assert re.search(rb"(?m)^\[127\.0\.0\.1:%d\] 127\.0\.0\.1:\d+ GET /%s HTTP/1\.1 \[.+\]$"
                         % (program.port, re.escape(name.encode())), program.output)
