"""Hostile connections: disturbers.py PORT EACH SEED. EACH of them send commands and read nothing; EACH send noise and
reconnect when they are cut off. Runs until the end of its standard input, then prints counts of its actions."""

import asyncio
import collections
import json
import random
import socket
import sys

NOISE_PAUSE_S = 0.5


def random_bytes(rng):
    return rng.randbytes(rng.randrange(1, 2000))


def telnet_rubbish(rng):
    """Commands cut short, subnegotiations without an end, unknown options."""
    return b"".join(rng.choice([b"\xff", b"\xff\xfa\x18" + rng.randbytes(rng.randrange(300)), b"\xff\xf0",
                                b"\xff" + bytes([rng.randrange(240, 255), rng.randrange(256)]), b"\xff\xf4\xff\xfd\x06",
                                b"\xff\xfa\x1f\x00\x00\x00\x00\xff\xf0"]) for _ in range(rng.randrange(1, 40)))


def http(rng):
    return rng.choice([b"GET / HTTP/1.1\r\nHost: device\r\n\r\n", b"POST /x HTTP/1.0\r\n\r\nencd SetQulity low\r\n",
                       b"GET /" + b"x" * 5000 + b" HTTP/1.1\r\n\r\n"])


def endless_line(rng):
    return b"a" * rng.randrange(4000, 40000) + rng.choice([b"", b"\n"])


def keys(rng):
    return b"".join(rng.choice([b"\x1b[A", b"\t", b"\x12", b"\x1b", b"\x17", b"\r", b"\xc3", "界".encode(), b"encd ",
                                b"\x1b[999999999C", b"help"]) for _ in range(rng.randrange(1, 60)))


KINDS = [random_bytes, telnet_rubbish, http, endless_line, keys]


class Disturbers:
    def __init__(self, port, seed):
        self.port = port
        self.rng = random.Random(seed)
        self.did = collections.Counter()
        self.connected = 0

    async def connect(self):
        connection = socket.socket()
        connection.setblocking(False)
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        await asyncio.get_running_loop().sock_connect(connection, ("127.0.0.1", self.port))
        return connection

    async def stall(self):
        """Sends commands as long as they are taken; never reads."""
        connection = await self.connect()
        self.connected += 1
        while True:
            try:
                await asyncio.get_running_loop().sock_sendall(connection, b"help\nhistory\n" * 20)
                await asyncio.sleep(0.1)
            except OSError:
                self.did["stalled readers cut off"] += 1
                connection.close()
                connection = await self.connect()

    async def noise(self):
        first = True
        while True:
            connection = await self.connect()
            self.connected += first
            first = False
            try:
                await self.make_noise(connection)
                self.did["noisy ones that left by themselves"] += 1
            except OSError:
                self.did["noisy ones cut off"] += 1
            finally:
                connection.close()

    async def make_noise(self, connection):
        loop = asyncio.get_running_loop()
        kind = self.rng.choice(KINDS)
        for _ in range(self.rng.randrange(1, 20)):
            async with asyncio.timeout(5):
                await loop.sock_sendall(connection, kind(self.rng))
            self.did["noises"] += 1
            await asyncio.sleep(self.rng.uniform(0, 2 * NOISE_PAUSE_S))
            if not self.read_all(connection):
                raise ConnectionResetError

    @staticmethod
    def read_all(connection):
        """False at its end. Takes a limited amount, so that the other connections get their turn."""
        for _ in range(16):
            try:
                if not connection.recv(1 << 16):
                    return False
            except BlockingIOError:
                break
        return True


async def until_end_of_input():
    reader = asyncio.StreamReader()
    await asyncio.get_running_loop().connect_read_pipe(lambda: asyncio.StreamReaderProtocol(reader), sys.stdin)
    await reader.read()


async def main():
    port, each, seed = (int(word) for word in sys.argv[1:])
    disturbers = Disturbers(port, seed)
    tasks = [asyncio.create_task(kind()) for kind in (disturbers.stall, disturbers.noise) for _ in range(each)]
    while disturbers.connected < 2 * each:
        await asyncio.sleep(0.05)
        for task in tasks:
            if task.done():
                task.result()
    print("all connected", flush=True)
    await until_end_of_input()
    for task in tasks:
        task.cancel()
    results = await asyncio.gather(*tasks, return_exceptions=True)
    failed = [repr(result) for result in results if not isinstance(result, asyncio.CancelledError)]
    assert not failed, failed[:3]
    print(json.dumps(disturbers.did), flush=True)


asyncio.run(main())
