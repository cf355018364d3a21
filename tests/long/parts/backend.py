"""A backend that makes its bodies up, to be killed and started again on its port.

A program of its own: backend.py PORT. GET /LENGTH/SEED answers with that many bytes that only the
two numbers decide; a body is answered with its digest; an upgrade is answered, and frames come
back as they went.
"""

import asyncio
import base64
import contextlib
import functools
import hashlib
import socket
import struct
import sys

GUID = b"258EAFA5-E914-47DA-95CA-C5AB0DC85B11"


@functools.lru_cache(maxsize=256)
def body(length, seed):
    return hashlib.shake_128(b"%d/%d" % (length, seed)).digest(length)


def message(content):
    return b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % len(content) + content


def accept_key(key):
    return base64.b64encode(hashlib.sha1(key + GUID).digest())


def masked(payload, key):
    """The same twice gives the payload again."""
    whole = (key * (len(payload) // 4 + 1))[:len(payload)]
    return (int.from_bytes(payload, "big") ^ int.from_bytes(whole, "big")).to_bytes(
        len(payload), "big")


def frame(payload, key=None):
    """A binary frame of less than 64 KiB, masked when there is a key."""
    bit = 0x80 if key else 0
    head = bytes([0x82, bit | len(payload)]) if len(payload) < 126 else \
        bytes([0x82, bit | 126]) + struct.pack(">H", len(payload))
    return head + (key + masked(payload, key) if key else payload)


async def read_frame(reader):
    """The payload of the next frame, unmasked."""
    _, second = await reader.readexactly(2)
    length = second & 0x7F
    if length == 126:
        length, = struct.unpack(">H", await reader.readexactly(2))
    key = await reader.readexactly(4) if second & 0x80 else None
    payload = await reader.readexactly(length)
    return masked(payload, key) if key else payload


def header(head, name):
    for line in head.split(b"\r\n")[1:]:
        key, _, value = line.partition(b":")
        if key.lower() == name:
            return value.strip()
    return None


async def echo_frames(reader, writer, head):
    writer.write(b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                 b"Sec-WebSocket-Accept: " + accept_key(header(head, b"sec-websocket-key"))
                 + b"\r\n\r\n")
    while True:
        writer.write(frame(await read_frame(reader)))
        await writer.drain()


async def converse(reader, writer):
    writer.get_extra_info("socket").setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    with contextlib.suppress(asyncio.IncompleteReadError, OSError):
        while True:
            head = await reader.readuntil(b"\r\n\r\n")
            if header(head, b"upgrade"):
                await echo_frames(reader, writer, head)
            elif length := int(header(head, b"content-length") or 0):
                running = hashlib.sha256()
                while length > 0:
                    block = await reader.read(min(length, 1 << 18))
                    if not block:
                        raise asyncio.IncompleteReadError(b"", None)
                    running.update(block)
                    length -= len(block)
                writer.write(message(running.hexdigest().encode()))
            else:
                length, seed = map(int, head.split(b" ")[1].strip(b"/").split(b"/"))
                writer.write(message(body(length, seed)))
            await writer.drain()
    writer.close()


async def serve(port):
    server = await asyncio.start_server(converse, "127.0.0.1", port, backlog=1024, limit=1 << 20,
                                        reuse_address=True, reuse_port=True)
    await server.serve_forever()


if __name__ == "__main__":
    asyncio.run(serve(int(sys.argv[1])))
