"""A service that says which machine it runs on and for whom it was asked.

A program of its own: named_service.py NAME PORT. Every answer is a line of JSON; one to /slow takes
two seconds.
"""

import asyncio
import contextlib
import json
import sys

SLOW_SECONDS = 2


def forwarded_for(head):
    """The last line of that name: the one that the program adds."""
    found = None
    for line in head.split("\r\n"):
        name, _, value = line.partition(":")
        if name == "X-Forwarded-For":
            found = value.strip()
    return found


async def converse(name, reader, writer):
    with contextlib.suppress(asyncio.IncompleteReadError, OSError):
        while True:
            head = (await reader.readuntil(b"\r\n\r\n")).decode("latin-1")
            if head.startswith("GET /slow "):
                await asyncio.sleep(SLOW_SECONDS)
            body = json.dumps({"machine": name, "for": forwarded_for(head)}).encode()
            writer.write(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n%s" % (len(body), body))
            await writer.drain()
    writer.close()


async def serve(name, port):
    server = await asyncio.start_server(lambda *ends: converse(name, *ends), "127.0.0.1", port,
                                        backlog=1024)
    await server.serve_forever()


if __name__ == "__main__":
    asyncio.run(serve(sys.argv[1], int(sys.argv[2])))
