"""Pings of the server: a client that does not answer them is closed."""

import httpd_host
from httpd_host import Raw_WebSocket


class Ping_Timeout(httpd_host.Host_Test):
    # Each ping starts the wait for its answer anew, so that the timeout is the shorter one.
    host_arguments = {"service": ("-i", "60", "--ping-interval", "2", "--ping-timeout", "1")}
    expected_errors = ("WebSocket ping ",)

    async def test_a_client_that_does_not_answer_is_closed(self):
        with Raw_WebSocket(self.host) as client:
            self.assertEqual((0x89, b""), client.read())
            self.assertIsNone(client.read())
            peer = "%s:%d" % client.socket.getsockname()
            await self.host.logs(" ERROR WebSocket ping %s timeout." % peer)


if __name__ == "__main__":
    httpd_host.main()
