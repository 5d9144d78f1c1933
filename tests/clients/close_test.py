"""The closing handshake and protocol errors, seen from an independent client."""

import struct

import httpd_host
from httpd_host import Raw_WebSocket, limited, websockets

PARSE_ERROR = "Failed to parse WebSocket data frame."


class Close(httpd_host.Host_Test):
    async def test_the_client_closes(self):
        for target in ("/loop", "/thread"):
            for code, reason in ((1000, ""), (1001, "going away"), (1008, "x" * 123),
                                 (3000, "Gr\u00fc\u00df Gott"), (4999, "own")):
                async with websockets.connect(self.host.url(target)) as client:
                    await limited(client.send("Hello"))
                    self.assertEqual("Hello", await limited(client.recv()))
                    await limited(client.close(code, reason))
                    # Whatever the code is, the answer to it is 1000.
                    self.assertEqual((1000, ""), (client.close_code, client.close_reason))

    async def test_the_plug_in_is_told_code_and_reason(self):
        async with websockets.connect(self.host.url("/probe/echo")) as client:
            await limited(client.close(4001, "own reason"))
        await self.host.logs("ws: handle_close 4001 own reason 10")

    async def test_the_server_closes(self):
        for target in ("/probe/send-close", "/probe/thread/send-close"):
            async with websockets.connect(self.host.url(target)) as client:
                await limited(client.send("close"))
                with self.assertRaises(websockets.exceptions.ConnectionClosed) as caught:
                    await limited(client.recv())
                self.assertEqual((1001, "bye"), (caught.exception.rcvd.code,
                                                 caught.exception.rcvd.reason))
                self.assertTrue(caught.exception.rcvd_then_sent)
                await limited(client.wait_closed())

    async def test_a_client_that_vanishes(self):
        client = await limited(websockets.connect(self.host.url("/probe/echo")).__aenter__())
        client.transport.abort()
        await self.host.logs("ws: handle_close 1006 (null) 0")


class Protocol_Errors(httpd_host.Host_Test):
    expected_errors = (PARSE_ERROR,)
    seen = 0

    async def expect_end(self, *frames):
        """The frames end the connection, without another frame and with one error line."""
        with Raw_WebSocket(self.host) as client:
            client.send(0x81, b"before")
            self.assertEqual((0x81, b"before"), client.read())
            for frame in frames:
                client.send(*frame)
            self.assertIsNone(client.read())
        type(self).seen += 1
        await self.host.logs(PARSE_ERROR, self.seen)

    async def test_text_that_is_not_utf_8(self):
        for text in (b"\xff", b"abc\xc0\xaf", b"\xed\xa0\x80", b"\xf4\x90\x80\x80", b"cut \xe2\x82"):
            await self.expect_end((0x81, text))

    async def test_reserved_bits(self):
        for bits in (0x40, 0x20, 0x10):
            await self.expect_end((0x82 | bits, b"x"))

    async def test_control_frames(self):
        for opcode in (8, 9, 10):
            await self.expect_end((0x80 | opcode, b"x" * 126))
            await self.expect_end((opcode, b"x"))

    async def test_a_message_within_a_message(self):
        with Raw_WebSocket(self.host) as client:
            client.send(0x01, b"first")
            self.assertEqual((0x01, b"first"), client.read())
            client.send(0x81, b"second")
            self.assertIsNone(client.read())
        type(self).seen += 1
        await self.host.logs(PARSE_ERROR, self.seen)

    async def test_a_frame_without_mask(self):
        with Raw_WebSocket(self.host) as client:
            client.socket.sendall(b"\x81\x05Hello")
            self.assertIsNone(client.read())
        type(self).seen += 1
        await self.host.logs(PARSE_ERROR, self.seen)

    async def test_the_server_serves_on(self):
        await self.expect_end((0x81, b"\xff"))
        async with websockets.connect(self.host.url()) as client:
            await limited(client.send("Hello"))
            self.assertEqual("Hello", await limited(client.recv()))


class Raw_Close(httpd_host.Host_Test):
    async def test_every_close_is_answered_with_1000(self):
        payloads = [b"", b"\x03", struct.pack("!H", 1000) + b"r" * 123]
        payloads += [struct.pack("!H", code) for code in (0, 999, 1005, 1006, 1015, 2999, 65535)]
        for payload in payloads:
            with Raw_WebSocket(self.host) as client:
                client.send(0x88, payload)
                self.assertEqual((0x88, struct.pack("!H", 1000)), client.read())
                self.assertIsNone(client.read())


if __name__ == "__main__":
    httpd_host.main()
