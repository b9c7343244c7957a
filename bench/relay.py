#!/usr/bin/python3
"""A TCP relay that adds a round trip: each chunk is held DELAY_MS in each direction.

usage: relay.py DELAY_MS TARGET [RATE]
TARGET is a Unix socket path (the mirror), so that only the relay's client side crosses the
throttled loopback. With RATE (bytes a second) all clients together get no more than that: a
slower mirror on the same link. Listens on an ephemeral port of 127.0.0.1 and prints "ready <port>". Every
empty line read on standard input is answered with the bytes sent so far to clients and to the
target: "<down> <up>". "fade SECONDS RATE" lifts the rate for SECONDS, then sets it to RATE: a
mirror that slows down halfway.
"""
import asyncio
import sys
import threading
import time

# Bounds what the relay holds: about twice what a 20 Mbit/s link carries in 40 ms, so that a
# client killed mid-transfer has not been counted for much more than it received.
QUEUE_CHUNKS = 16
CHUNK = 16 * 1024

sent = {"down": 0, "up": 0}
# The moment the shared rate allows the next byte towards the clients.
rate = {"bytes": None, "next": 0.0}
# From "fade": the moment (time.monotonic()) the rate drops, and the rate it drops to.
fade = {"at": None, "bytes": None}


async def forward(reader, writer, delay, direction):
    loop = asyncio.get_running_loop()
    queue = asyncio.Queue(QUEUE_CHUNKS)

    async def take():
        while True:
            try:
                data = await reader.read(CHUNK)
            except OSError:
                data = b""
            await queue.put((loop.time() + delay, data))
            if not data:
                return

    async def give():
        while True:
            due, data = await queue.get()
            wait = due - loop.time()
            if wait > 0:
                await asyncio.sleep(wait)
            if not data:
                break
            if direction == "down" and rate["bytes"]:
                start = max(loop.time(), rate["next"])
                rate["next"] = start + len(data) / rate["bytes"]
                if start > loop.time():
                    await asyncio.sleep(start - loop.time())
            # A side that went away (a killed client) ends this direction: asyncio would take
            # the writes and drop them, and they would be counted for the next client.
            if writer.is_closing():
                return
            try:
                writer.write(data)
                await writer.drain()
            except OSError:
                return
            sent[direction] += len(data)
            if direction == "down" and fade["at"] is not None and time.monotonic() >= fade["at"]:
                rate["bytes"], rate["next"], fade["at"] = fade["bytes"], loop.time(), None
        if writer.can_write_eof() and not writer.is_closing():
            writer.write_eof()

    taker = asyncio.ensure_future(take())
    try:
        await give()
    finally:
        taker.cancel()


async def serve_client(delay, target, client_reader, client_writer):
    try:
        server_reader, server_writer = await asyncio.open_unix_connection(target)
    except OSError:
        client_writer.close()
        return
    try:
        await asyncio.gather(forward(client_reader, server_writer, delay, "up"),
                             forward(server_reader, client_writer, delay, "down"))
    finally:
        for writer in (client_writer, server_writer):
            writer.close()


def answer_counts():
    for line in sys.stdin:
        words = line.split()
        if words[:1] == ["fade"]:
            rate["bytes"] = None
            fade["at"], fade["bytes"] = time.monotonic() + float(words[1]), float(words[2])
        else:
            print(sent["down"], sent["up"], flush=True)


async def main():
    delay = int(sys.argv[1]) / 1000.0
    target = sys.argv[2]
    if len(sys.argv) > 3:
        rate["bytes"] = float(sys.argv[3])
    server = await asyncio.start_server(
        lambda r, w: serve_client(delay, target, r, w), "127.0.0.1", 0)
    print("ready", server.sockets[0].getsockname()[1], flush=True)
    threading.Thread(target=answer_counts, daemon=True).start()
    async with server:
        await server.serve_forever()


if __name__ == "__main__":
    asyncio.run(main())
