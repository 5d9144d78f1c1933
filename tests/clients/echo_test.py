"""Messages of an independent client come back from ws_echo."""

import asyncio
import os

import httpd_host
from httpd_host import limited, websockets

SIZES = (0, 1, 125, 126, 127, 65535, 65536, 1024 * 1024)
BOTH = ("/loop", "/thread")  # in an event loop, and in a thread of the connection's own


def text_of(size):
    """Characters of one to four bytes, `size` bytes in all."""
    return ("a\u00e9\u20ac\U0001f600" * (size // 10 + 1)).encode()[:size].decode(errors="ignore")


def connect(url, **arguments):
    """A client that sends no pings of its own and takes messages of any size."""
    return websockets.connect(url, ping_interval=None, max_size=None, compression=None,
                              open_timeout=httpd_host.LIMIT, **arguments)


class Echo(httpd_host.Host_Test):
    async def test_messages_of_every_size(self):
        for target in BOTH:
            async with connect(self.host.url(target)) as client:
                for size in SIZES:
                    for message in (text_of(size), os.urandom(size)):
                        await limited(client.send(message))
                        self.assertEqual(message, await limited(client.recv()))

    async def test_messages_that_are_sent_together(self):
        for target in BOTH:
            async with connect(self.host.url(target)) as client:
                messages = [str(number) * (number % 50) for number in range(500)]
                for message in messages:
                    await limited(client.send(message))
                for message in messages:
                    self.assertEqual(message, await limited(client.recv()))

    async def test_fragments(self):
        for target in BOTH:
            async with connect(self.host.url(target)) as client:
                for parts in (["one"], ["a", "b"], ["", "x", "", ""], [b"\xff", b"", b"\xfe"],
                              ["x" * 70000] * 3, [b"\0" * 10] * 200):
                    await limited(client.send(parts))
                    self.assertEqual(type(parts[0])().join(parts), await limited(client.recv()))

    async def test_pings_between_the_fragments(self):
        for target in BOTH:
            async with connect(self.host.url(target)) as client:
                for _ in range(3):
                    pongs = []

                    async def parts():
                        for part in ("first ", "second ", "third"):
                            yield part
                            pongs.append(await client.ping())

                    await limited(client.send(parts()))
                    self.assertEqual("first second third", await limited(client.recv()))
                    await limited(asyncio.gather(*pongs))
                    await limited(client.send("whole"))
                    self.assertEqual("whole", await limited(client.recv()))

    async def test_fragments_come_back_before_the_message_ends(self):
        with httpd_host.Raw_WebSocket(self.host) as client:
            client.send(0x01, b"first")
            self.assertEqual((0x01, b"first"), client.read())
            client.send(0x80, b"rest")
            self.assertEqual((0x80, b"rest"), client.read())

    async def test_ping_gets_its_pong(self):
        for target in BOTH:
            async with connect(self.host.url(target)) as client:
                for payload in ("", "ping", b"\xff" * 125):
                    await limited(await client.ping(payload))
        with httpd_host.Raw_WebSocket(self.host) as client:
            client.send(0x89, b"payload")
            self.assertEqual((0x8A, b"payload"), client.read())

    async def test_sub_protocols(self):
        for target, offers, choice in (
                ("/loop", None, None), ("/loop", ["x", "chat"], "x"),
                ("/chosen", ["x", "v2.chat", "chat"], "v2.chat"),
                ("/chosen", ["chat"], "chat"), ("/chosen", ["x"], None)):
            async with connect(self.host.url(target), subprotocols=offers) as client:
                self.assertEqual(choice, client.subprotocol)

    async def test_compression_is_declined(self):
        async with websockets.connect(self.host.url(), compression="deflate") as client:
            self.assertEqual([], client.extensions)
            await limited(client.send("plain" * 100))
            self.assertEqual("plain" * 100, await limited(client.recv()))

    async def test_unknown_uri(self):
        with self.assertRaises(websockets.exceptions.InvalidStatusCode) as caught:
            await limited(connect(self.host.url("/none")).__aenter__())
        self.assertEqual(404, caught.exception.status_code)


class Many_Clients(httpd_host.Host_Test):
    async def test_200_clients_at_once(self):
        async def converse(number):
            # The first and the last frame of each overlap with those of all others.
            async with connect(self.host.url(BOTH[number % 2])) as client:
                nonlocal opened
                opened += 1
                if opened == CLIENTS:
                    everybody.set()
                await everybody.wait()
                for round_ in range(10):
                    message = "client %d round %d " % (number, round_) * (number + 1)
                    await client.send(message)
                    self.assertEqual(message, await client.recv())

        CLIENTS = 200
        opened = 0
        everybody = asyncio.Event()
        await asyncio.wait_for(asyncio.gather(*map(converse, range(CLIENTS))), 60)
        self.assertEqual(CLIENTS, opened)


if __name__ == "__main__":
    httpd_host.main()
