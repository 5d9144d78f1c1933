"""WebSocket over TLS and over a UNIX-domain socket, and HTTP beside it, with independent clients."""

import http.client
import os
import ssl

import httpd_host
from httpd_host import limited, websockets

TEXT = "Gr\u00fc\u00df Gott " * 10000


async def converse(test, connection):
    async with connection as client:
        for message in ("", "Hello", TEXT, b"", os.urandom(200_000)):
            await limited(client.send(message))
            test.assertEqual(message, await limited(client.recv()))
        await limited(await client.ping("ping"))
        await limited(client.close(1000))
        test.assertEqual(1000, client.close_code)


class TLS(httpd_host.Host_Test):
    host_arguments = {"listen": ("{address}:8443s",), "tls": True}
    expected_errors = ("Failed to accept",)  # the client that does not trust the certificate

    def trusting(self):
        return ssl.create_default_context(cafile=self.host.certificate)

    async def test_echo(self):
        for target in ("/loop", "/thread"):
            await converse(self, websockets.connect(
                "wss://%s:8443%s" % (self.host.address, target), ssl=self.trusting(),
                max_size=None, open_timeout=httpd_host.LIMIT))

    async def test_a_certificate_that_is_not_trusted(self):
        with self.assertRaises(ssl.SSLCertVerificationError):
            await limited(websockets.connect(
                "wss://%s:8443/loop" % self.host.address,
                ssl=ssl.create_default_context()).__aenter__())
        await self.test_echo()

    async def test_http(self):
        client = http.client.HTTPSConnection(self.host.address, 8443, timeout=httpd_host.LIMIT,
                                             context=self.trusting())
        client.request("POST", "/echo", b"body" * 10000)
        self.assertTrue(client.getresponse().read().endswith(b"\n\n" + b"body" * 10000))
        client.close()


class UNIX(httpd_host.Host_Test):
    host_arguments = {"listen": ("{folder}/server.sock",)}

    async def test_echo(self):
        for target in ("/loop", "/thread"):
            await converse(self, websockets.unix_connect(
                self.host.folder + "/server.sock", "ws://localhost" + target, max_size=None,
                open_timeout=httpd_host.LIMIT))


class HTTP(httpd_host.Host_Test):
    async def test_requests_beside_websocket(self):
        async with websockets.connect(self.host.url()) as websocket:
            client = http.client.HTTPConnection(self.host.address, 8080, timeout=httpd_host.LIMIT)
            for number in range(10):
                await limited(websocket.send(str(number)))
                client.request("GET", "/echo/%d?q" % number)
                answer = client.getresponse()
                self.assertEqual(200, answer.status)
                self.assertTrue(answer.read().startswith(
                    b"Method: GET\nURI: /echo/%d\nQuery: q\n" % number))
                client.request("POST", "/echo", b"body %d" % number)
                self.assertTrue(client.getresponse().read().endswith(b"\n\nbody %d" % number))
                client.request("POST", "/echo", iter([b"chunk", b"ed"]), encode_chunked=True)
                self.assertTrue(client.getresponse().read().endswith(b"\n\nchunked"))
                self.assertEqual(str(number), await limited(websocket.recv()))
            client.request("HEAD", "/echo")
            answer = client.getresponse()
            self.assertLess(0, int(answer.getheader("Content-Length")))
            self.assertEqual(b"", answer.read())
            client.close()

    async def test_an_upgrade_behind_requests_of_the_same_connection(self):
        connection = self.host.tcp()
        connection.sendall(b"GET /echo HTTP/1.1\r\nHost: test\r\n\r\n")
        self.assertTrue(connection.recv(65536).startswith(b"HTTP/1.1 200 OK\r\n"))
        async with websockets.connect(self.host.url(), sock=connection) as client:
            await limited(client.send("Hello"))
            self.assertEqual("Hello", await limited(client.recv()))


if __name__ == "__main__":
    httpd_host.main()
