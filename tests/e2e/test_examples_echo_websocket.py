"""The WebSocket echo, spoken to by two libraries and by a browser."""

import asyncio
import json
import os
import re
import subprocess

import pytest
import websockets

from support.curl import curl, url
from support.waiting import PATIENCE

LONGEST = 1048576
LENGTHS = [0, 1, 125, 126, 65535, 65536, LONGEST]


@pytest.fixture
def echo(example):
    return example("echo_websocket")


def address(program, path="/echo"):
    return f"ws://127.0.0.1:{program.port}{path}"


def talk(program, conversation, **settings):
    """Run the conversation, an asynchronous function, with one client, and return that client."""
    async def hold():
        settings.setdefault("compression", None)
        async with websockets.connect(address(program), max_size=None, close_timeout=PATIENCE,
                                      **settings) as client:
            await asyncio.wait_for(conversation(client), PATIENCE)
        return client
    return asyncio.run(hold())


def codes(program, count):
    """The close codes that the program has seen, once it has stopped."""
    program.stop()
    seen = re.findall(rb"The client closed with (\d+)\n", program.output)
    assert len(seen) == count
    return [int(code) for code in seen]


def test_messages_of_every_length_come_back_as_they_went(echo):
    async def conversation(client):
        for length in LENGTHS:
            for message in ["x" * length, os.urandom(length)]:
                await client.send(message)
                assert await client.recv() == message
    client = talk(echo, conversation)
    assert client.close_code == 1000
    assert codes(echo, 1) == [1000]


def test_many_messages_in_flight_keep_their_order(echo):
    messages = [str(number) * (number % 300) for number in range(1000)]

    async def conversation(client):
        sending = asyncio.ensure_future(send_all(client))
        assert [await client.recv() for _ in messages] == messages
        await sending

    async def send_all(client):
        for message in messages:
            await client.send(message)
    talk(echo, conversation)


def test_fragments_with_pings_between_them_make_one_message(echo):
    async def conversation(client):
        async def pieces():
            for number in range(20):
                yield "€" * 3000
                await (await client.ping(str(number)))
        await client.send(pieces())
        assert await client.recv() == "€" * 60000
    talk(echo, conversation)


def test_a_subprotocol_is_chosen_where_one_is_offered(echo):
    async def conversation(client):
        await client.send("hi")
        assert await client.recv() == "hi"
    for offered, chosen in [(["echo.v1", "echo.v2"], "echo.v2"), (["soap", "echo.v1"], "echo.v1"),
                            (["soap"], None), (None, None)]:
        assert talk(echo, conversation, subprotocols=offered).subprotocol == chosen


def test_a_handshake_elsewhere_is_refused_with_a_status(echo):
    async def knock():
        with pytest.raises(websockets.InvalidStatusCode) as refused:
            await websockets.connect(address(echo, "/other"))
        assert refused.value.status_code == 404
    asyncio.run(knock())
    assert curl(url(echo.port)) == b"WebSocket only\n"


def test_the_program_closes_with_a_code_and_a_reason(echo):
    async def conversation(client):
        await client.send("bye")
        await client.wait_closed()
    client = talk(echo, conversation)
    assert (client.close_code, client.close_reason) == (4000, "you said bye")
    assert codes(echo, 1) == [4000]


@pytest.mark.parametrize("code", [1000, 1001, 3000, 4999])
def test_a_close_is_answered_with_its_own_code(echo, code):
    async def conversation(client):
        await client.close(code)
        assert client.close_code == code
    talk(echo, conversation)
    assert codes(echo, 1) == [code]


@pytest.mark.parametrize("message, code", [
    ("x" * (LONGEST + 1), 1009), (["x" * LONGEST, "x"], 1009)], ids=["whole", "fragments"])
def test_a_message_that_is_too_long_is_refused(echo, message, code):
    async def conversation(client):
        try:
            await client.send(message)
        except websockets.ConnectionClosed:
            pass
        await client.wait_closed()
        assert client.close_code == code
    talk(echo, conversation)


@pytest.mark.parametrize("opcode, data, code", [
    (1, b"\xed\xa0\x80", 1007), (0, b"of what?", 1002)], ids=["no text", "continuation"])
def test_what_breaks_the_rules_is_refused(echo, opcode, data, code):
    async def conversation(client):
        await client.write_frame(True, opcode, data)
        await client.wait_closed()
        assert client.close_code == code
    talk(echo, conversation)


def test_a_client_that_vanishes_within_a_message_is_forgotten(echo):
    before = echo.descriptors()
    client = echo.connect()
    client.send(b"GET /echo HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                b"Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n"
                b"\x81\xfe\xff\xffKEYShalf of it")
    assert client.read_message().status_line == b"HTTP/1.1 101 Switching Protocols"
    client.reset()
    echo.await_descriptors(before)
    assert codes(echo, 1) == [0]


WS_CLIENT = """
const { WebSocket } = require("ws");
const seen = { lengths: [], pongs: [] };
const lengths = JSON.parse(process.argv[3]);
const socket = new WebSocket(process.argv[2], ["echo.v1"]);
socket.on("open", () => {
    for (const length of lengths) {
        socket.send("x".repeat(length));
        socket.send(Buffer.alloc(length, 200));
    }
    socket.send("in ", { fin: false });
    socket.ping("are you there");
    socket.send("two", { fin: true });
});
socket.on("message", (data, binary) => {
    if (data.toString() === "in two") return socket.close(4321, "done");
    const expected = Buffer.alloc(data.length, binary ? 200 : "x");
    seen.lengths.push([data.equals(expected) ? data.length : -1, binary]);
});
socket.on("pong", data => seen.pongs.push(data.toString()));
socket.on("close", code =>
    console.log(JSON.stringify({ ...seen, code, protocol: socket.protocol })));
socket.on("error", error => { console.error(error); process.exitCode = 1; });
"""


def test_the_ws_package_is_understood(echo):
    done = subprocess.run(
        ["node", "-e", WS_CLIENT, "-", address(echo), json.dumps(LENGTHS)], text=True,
        env={**os.environ, "NODE_PATH": "/usr/share/nodejs", "NO_PROXY": "*"}, capture_output=True,
        timeout=2 * PATIENCE)
    assert done.returncode == 0, done.stderr
    assert json.loads(done.stdout) == {
        "lengths": [[length, binary] for length in LENGTHS for binary in [False, True]],
        "pongs": ["are you there"], "code": 4321, "protocol": "echo.v1"}
    assert codes(echo, 1) == [4321]


IN_BROWSER = """
const [address, lengths, report] = arguments;
const socket = new WebSocket(address, ["echo.v2"]);
socket.binaryType = "arraybuffer";
const seen = [];
socket.onopen = () => lengths.forEach(length => {
    socket.send("x".repeat(length));
    socket.send(new Uint8Array(length).fill(200));
});
socket.onmessage = event => {
    const text = typeof event.data === "string";
    const good = text ? /^x*$/.test(event.data)
                      : new Uint8Array(event.data).every(byte => byte === 200);
    seen.push([good ? (text ? event.data.length : event.data.byteLength) : -1, !text]);
    if (seen.length === 2 * lengths.length) socket.send("bye");
};
socket.onclose = event => report({ seen, protocol: socket.protocol, code: event.code,
                                   reason: event.reason, clean: event.wasClean });
"""


@pytest.mark.limit(100)
def test_chromium_is_understood(echo, browser):
    browser.get(url(echo.port))
    browser.set_script_timeout(30)
    assert browser.execute_async_script(IN_BROWSER, address(echo), LENGTHS) == {
        "seen": [[length, binary] for length in LENGTHS for binary in [False, True]],
        "protocol": "echo.v2", "code": 4000, "reason": "you said bye", "clean": True}
    assert codes(echo, 1) == [4000]


def test_chromium_closing_by_itself_gets_its_code_back(echo, browser):
    browser.get(url(echo.port))
    closed = browser.execute_async_script("""
        const [address, report] = arguments;
        const socket = new WebSocket(address);
        socket.onopen = () => socket.close(3210, "enough");
        socket.onclose = event => report([event.code, event.wasClean]);""", address(echo))
    assert closed == [3210, True]
    assert codes(echo, 1) == [3210]
