"""Clients that share no code with the servers: asyncio's streams, and socat."""

import asyncio
import json
import sys
from asyncio.subprocess import PIPE

port = sys.argv[1]


async def stream():
    reader, writer = await asyncio.open_connection("127.0.0.1", port)
    return reader, writer, writer.wait_closed


async def socat():  # it makes LF into CR LF, and back
    command = ["socat", "-", f"TCP:127.0.0.1:{port},crnl"]
    process = await asyncio.create_subprocess_exec(*command, stdin=PIPE, stdout=PIPE)
    return process.stdout, process.stdin, process.wait


async def talk(connect, end):
    reader, writer, closed = await connect()
    await reader.readuntil(end)  # a broadcast: from now on every reply comes here
    a, b, c, d, e = (b'{"command":"echo","n":%d}' % n for n in range(5))
    begin, middle = a + end + b[:9], b[9:] + end + c + end[:-1]
    last = end[-1:] + d + end * 2 + e + end
    for piece, numbers in ((begin, [0]), (middle, [1]), (last, [2, 3, 4])):
        writer.write(piece)
        while numbers:  # what goes to all clients passes by, but must be framed JSON, too
            message = json.loads((await reader.readuntil(end))[: -len(end)])
            if message.get("n") == numbers[0]:
                assert message["code"] == 1 and message["command"] == "echo", message
                del numbers[0]
    writer.close()
    await closed()


for peer, end in ((stream, b"\r\n"), (socat, b"\n")):
    asyncio.run(asyncio.wait_for(talk(peer, end), 20))
