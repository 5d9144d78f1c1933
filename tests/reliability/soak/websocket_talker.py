"""A WebSocket client that says something now and then, gets it back, and answers pings."""

import asyncio
import struct

from strict_websocket import CLOSE, PING, PONG, TEXT, masked_frame, upgrade_request

LIMIT = 60           # seconds for whatever is waited for
PAUSES = (1, 9)      # seconds between two messages
LONG_PAUSES = (20, 60)  # of every tenth client: the server pings it meanwhile
LEAVES = 0.05        # chance that a client leaves behind a message, and comes again
SIZES = (10, 100, 1000, 20000)


class Talker:
    """One client, for run(). counts: a dict that it adds to."""

    def __init__(self, address, chance, counts, stopping, index):
        self._address = address
        self._chance = chance
        self._counts = counts
        self._stopping = stopping
        self._pauses = LONG_PAUSES if index % 10 == 0 else PAUSES
        self._target = "/thread" if index % 25 == 0 else "/loop"
        self._reader = self._writer = None

    async def run(self):
        """Until `stopping` is set. Raises what goes wrong."""
        while not self._stopping.is_set():
            await asyncio.wait_for(self._open(), LIMIT)
            try:
                while await self._listen():
                    await asyncio.wait_for(self._talk(), LIMIT)
                    if self._chance.random() < LEAVES:
                        break
                await asyncio.wait_for(self._leave(), LIMIT)
            finally:
                self._writer.close()

    async def _open(self):
        self._reader, self._writer = await asyncio.open_connection(self._address, 8080)
        self._writer.write(upgrade_request(self._target))
        head = await self._reader.readuntil(b"\r\n\r\n")
        if not head.startswith(b"HTTP/1.1 101 "):
            raise ValueError("no upgrade: %r" % head[:60])
        self._counts["upgrades"] += 1

    async def _listen(self):
        """Waits for a while and answers pings. Returns whether to go on."""
        loop = asyncio.get_running_loop()
        end = loop.time() + self._chance.uniform(*self._pauses)
        stop = asyncio.ensure_future(self._stopping.wait())
        try:
            while (left := end - loop.time()) > 0 and not self._stopping.is_set():
                head = asyncio.ensure_future(self._reader.readexactly(2))
                await asyncio.wait((head, stop), timeout=left,
                                   return_when=asyncio.FIRST_COMPLETED)
                if not head.done():
                    head.cancel()  # takes nothing from the reader
                    await asyncio.wait((head,))
                    continue
                _, opcode, payload = await self._frame(head.result())
                if opcode != PING:
                    raise ValueError("a frame %d that nobody asked for" % opcode)
                self._pong(payload)
        finally:
            stop.cancel()
        return not self._stopping.is_set()

    async def _frame(self, head=None):
        first, second = head or await self._reader.readexactly(2)
        if second & 0x80 or first & 0x70:
            raise ValueError("no frame of a server")
        length = second
        if second == 126:
            length, = struct.unpack("!H", await self._reader.readexactly(2))
        elif second == 127:
            length, = struct.unpack("!Q", await self._reader.readexactly(8))
        return first & 0x80, first & 0x0F, await self._reader.readexactly(length)

    def _pong(self, payload):
        self._writer.write(masked_frame(PONG, payload))
        self._counts["pings"] += 1

    async def _talk(self):
        size = self._chance.choice(SIZES)
        message = ("%x" % self._chance.getrandbits(4 * size)).encode()
        self._writer.write(masked_frame(TEXT, message))
        received = b""
        final = False
        while not final:
            final, opcode, part = await self._frame()
            if opcode == PING:
                self._pong(part)
                final = False
                continue
            received += part
        if received != message:
            raise ValueError("no echo of %d bytes" % len(message))
        self._counts["messages"] += 1

    async def _leave(self):
        self._writer.write(masked_frame(CLOSE, b"\x03\xe8"))
        opcode = None
        while opcode != CLOSE:
            _, opcode, _ = await self._frame()
        if await self._reader.read(1):
            raise ValueError("a byte behind the close frame")
