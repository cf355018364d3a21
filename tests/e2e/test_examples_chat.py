"""The chat, spoken to by libraries and by a browser."""

import asyncio
import contextlib
import json
import os
import subprocess

import pytest
import websockets
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

from support.curl import curl, url
from support.waiting import PATIENCE

NO_CLOSE_FRAME = 1006
HANDSHAKE = ("GET / HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
             "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n")


def address(program):
    return f"ws://127.0.0.1:{program.port}/"


def talk(program, *conversations):
    """Run each conversation, an asynchronous function, with as many clients as it takes."""
    async def hold(conversation):
        async with contextlib.AsyncExitStack() as stack:
            count = conversation.__code__.co_argcount
            clients = [await stack.enter_async_context(
                websockets.connect(address(program), close_timeout=PATIENCE)) for _ in range(count)]
            await asyncio.wait_for(conversation(*clients), PATIENCE)
    for conversation in conversations:
        asyncio.run(hold(conversation))


def test_chat_serves_its_page_and_nothing_else(example):
    program = example("chat")
    assert b"<title>Chat</title>" in curl(url(program.port))
    assert curl(url(program.port, "/other")) == b"Not found\n"


def test_chat_brings_small_messages_to_everybody_in_order(example):
    texts = ["hello", "", "x" * 125, "€" * 41, "\0", "last"]

    async def conversation(one, other):
        for text in texts:
            await one.send(text)
        for client in [one, other]:
            assert [await client.recv() for _ in texts] == texts
        await other.send(b"bytes of text")
        assert await one.recv() == "bytes of text"
    talk(example("chat"), conversation)


def test_chat_answers_pings(example):
    async def conversation(one):
        for payload in [b"", b"x", b"y" * 125]:
            await (await one.ping(payload))
        await one.send("still here")
        assert await one.recv() == "still here"
    talk(example("chat"), conversation)


def test_chat_puts_fragments_together(example):
    async def conversation(one, other):
        await one.send(["a fra", "", "gmented ", "text"])
        assert await other.recv() == "a fragmented text"
        assert await one.recv() == "a fragmented text"
    talk(example("chat"), conversation)


def test_chat_sends_no_close_frame_back(example):
    async def conversation(one, other):
        await one.close()
        assert one.close_code == NO_CLOSE_FRAME
        await other.send("alone")
        assert await other.recv() == "alone"
    talk(example("chat"), conversation)


@pytest.mark.parametrize("message", ["x" * 126, "x" * 65536, ["x" * 100, "y" * 100]],
                         ids=["126", "65536", "fragments"])
def test_chat_ends_a_client_that_says_too_much(example, message):
    async def conversation(one, other):
        with contextlib.suppress(websockets.ConnectionClosed):
            await one.send(message)
        await one.wait_closed()
        assert one.close_code == NO_CLOSE_FRAME
        await other.send("alone")
        assert await other.recv() == "alone"
    talk(example("chat"), conversation)


def test_chat_passes_no_broken_text_on(example):
    async def conversation(one, other):
        for broken in [b"\xff", b"caf\xe9", b"\xed\xa0\x80", b"\xf4\x90\x80\x80", b"\xc0\xaf"]:
            await one.send(broken)
        await one.send("whole")
        assert await other.recv() == "whole"
    talk(example("chat"), conversation)


def test_chat_forgets_members_that_vanish(example):
    program = example("chat")
    before = program.descriptors()
    vanishing = []
    for _ in range(20):
        client = program.connect()
        client.send(HANDSHAKE.encode())
        assert client.read_message().status_line == b"HTTP/1.1 101 Switching Protocols"
        vanishing.append(client)
    for client in vanishing:
        client.reset()
    program.await_descriptors(before)

    async def conversation(one):
        await one.send("anybody?")
        assert await one.recv() == "anybody?"
    talk(program, conversation)
    assert b"Error!" not in program.output


WS_CLIENT = """
const { WebSocket } = require("ws");
const seen = { messages: [], pongs: [] };
const socket = new WebSocket(process.argv[2]);
const last = "last";
socket.on("open", () => {
    socket.send("hello");
    socket.send("x".repeat(125));
    socket.ping("are you there");
    socket.send("in ", { fin: false });
    socket.send("two", { fin: true });
    socket.send(last);
});
socket.on("message", data => {
    seen.messages.push(data.toString());
    if (data.toString() === last) socket.close(1000);
});
socket.on("pong", data => seen.pongs.push(data.toString()));
socket.on("close", code => console.log(JSON.stringify({ ...seen, code })));
socket.on("error", error => { console.error(error); process.exitCode = 1; });
"""


def test_chat_understands_the_ws_package(example):
    program = example("chat")
    done = subprocess.run(["node", "-e", WS_CLIENT, "-", address(program)], text=True,
                          env={**os.environ, "NODE_PATH": "/usr/share/nodejs", "NO_PROXY": "*"},
                          capture_output=True, timeout=2 * PATIENCE)
    assert done.returncode == 0, done.stderr
    assert json.loads(done.stdout) == {
        "messages": ["hello", "x" * 125, "in two", "last"], "pongs": ["are you there"],
        "code": NO_CLOSE_FRAME}


def texts_of(tab):
    return [item.text for item in tab.find_elements(By.TAG_NAME, "li")]


def state_of(tab):
    return tab.find_element(By.ID, "state").text


@pytest.mark.limit(100)
def test_two_tabs_of_chromium_chat(example, browser, tmp_path):
    program = example("chat")
    waiting = WebDriverWait(browser, 30)
    tabs = [browser.current_window_handle]
    browser.get(url(program.port))
    browser.switch_to.new_window("tab")
    tabs.append(browser.current_window_handle)
    browser.get(url(program.port))
    for tab in tabs:
        browser.switch_to.window(tab)
        waiting.until(lambda driver: state_of(driver) == "connected")

    def say(tab, text):
        browser.switch_to.window(tab)
        browser.find_element(By.ID, "text").clear()
        browser.find_element(By.ID, "text").send_keys(text + "\n")

    spoken = ["from the first", "from the second: ÄÖ €", "<b>no markup</b>", "€" * 41]
    for number, text in enumerate(spoken):
        say(tabs[number % 2], text)
        waiting.until(lambda driver: len(texts_of(driver)) == number + 1)
    say(tabs[0], "€" * 42)  # 126 bytes
    assert state_of(browser) == "too long: 125 bytes at most"
    say(tabs[0], "x" * 125)
    for tab in tabs:
        browser.switch_to.window(tab)
        waiting.until(lambda driver: texts_of(driver) == [*spoken, "x" * 125])
        assert state_of(browser) == "connected"
    assert browser.save_screenshot(str(tmp_path / "chat.png"))

    program.stop()
    waiting.until(lambda driver: state_of(driver) == "closed")
