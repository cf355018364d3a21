"""The example that shows figures as they change."""

import asyncio
import json
import subprocess

import websockets
from selenium.webdriver.support.ui import WebDriverWait

from support.curl import curl, url
from support.program import example_path
from support.waiting import PATIENCE


def test_dashboard_serves_its_page_and_nothing_else(example):
    program = example("dashboard")
    assert b"<title>Dashboard</title>" in curl(url(program.port))
    assert curl("--write-out", "%{http_code}", url(program.port, "/x")) == b"not found\n404"


def test_dashboard_tells_each_viewer_again_and_again(example):
    program = example("dashboard", stdin=subprocess.PIPE)

    async def watch():
        address = f"ws://127.0.0.1:{program.port}/"
        async with websockets.connect(address) as one, websockets.connect(address) as other:
            for viewer in [one, other]:
                seen = [json.loads(await viewer.recv()) for _ in range(4)]
                assert all(figures["load"] >= 0 for figures in seen[1:])
            note = "typed " * 30  # more than a frame's short length
            program.type(note.encode())
            for viewer in [one, other]:
                while json.loads(await viewer.recv()).get("note") != note:
                    pass
    asyncio.run(asyncio.wait_for(watch(), PATIENCE))


def test_dashboard_changes_in_a_browser(example, browser):
    program = example("dashboard", stdin=subprocess.PIPE)
    browser.get(url(program.port))
    wait = WebDriverWait(browser, PATIENCE)
    wait.until(lambda page: "load: " in page.page_source)
    program.type(b"\xe2\x82\xac <b>5</b>")
    wait.until(lambda page: "note: € &lt;b&gt;5&lt;/b&gt;" in page.page_source)


def test_dashboard_ends_in_order_at_sigterm(example):
    program = example("dashboard", stdin=subprocess.PIPE)
    program.terminate()
    assert program.await_end() == 0
    assert program.output.endswith(b"Shutting down...\n")


def test_dashboard_tells_its_caller_that_its_port_is_taken(occupied_port):
    done = subprocess.run([example_path("dashboard"), str(occupied_port)], capture_output=True,
                          stdin=subprocess.DEVNULL, timeout=PATIENCE)
    assert done.returncode == 1
    assert done.stdout.endswith(b"Failed to start server(s).\n")
