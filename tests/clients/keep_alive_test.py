"""Pings of the server: a client that answers them lives on."""

import httpd_host
from httpd_host import limited, websockets


class Answering(httpd_host.Host_Test):
    host_arguments = {"log_level": "trace",
                      "service": ("-i", "60", "--ping-interval", "1", "--ping-timeout", "1")}

    async def test_a_client_that_answers_lives_on(self):
        async with websockets.connect(self.host.url(), ping_interval=None) as client:
            await self.host.logs("WebSocket ping ", 2)
            await self.host.logs("after websocket pong", 2)
            await limited(client.send("still here"))
            self.assertEqual("still here", await limited(client.recv()))
        self.assertFalse([line for line in self.host.log() if " timeout." in line])


if __name__ == "__main__":
    httpd_host.main()
