"""One process of the load. Its only argument is a JSON object:

address, files (folder of the served files), rate (requests a second), askers, websockets (how many
clients of each), arrival (seconds within which the latter come), seed. Each second it prints its
counts as a line of JSON; it ends, with a last line, when its standard input does.
"""

import asyncio
import json
import os
import random
import sys
from collections import Counter

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "common"))

# pylint: disable=wrong-import-position
from http_kinds import ORDER, Asker, Bad_Answer
from strict_client import tls_context
from websocket_talker import Talker


class Load:
    """All clients of this process."""

    def __init__(self, settings):
        self._settings = settings
        self._stopping = asyncio.Event()
        self._counts = Counter()
        self._problems = []
        self._chance = random.Random(settings["seed"])
        self._tls = tls_context()
        settings["files"] = {entry.name: _content(entry.path)
                             for entry in os.scandir(settings["files"])}

    def _fail(self, error):
        self._counts["errors"] += 1
        if len(self._problems) < 5:
            self._problems.append("%s: %s" % (type(error).__name__, error))

    async def _ask(self, index):
        """One asker: its requests begin at even distances, or at once when it is late."""
        loop = asyncio.get_running_loop()
        distance = self._settings["askers"] / self._settings["rate"]
        asker = Asker(self._settings, self._tls, random.Random(self._chance.random()))
        due = loop.time() + distance * self._chance.random()
        # Kinds are spread over the askers, so that each comes in its share at any time.
        turn = index * 7
        while not self._stopping.is_set():
            await asyncio.sleep(max(0, due - loop.time()))
            due = max(due + distance, loop.time())
            kind = ORDER[turn % len(ORDER)]
            turn += 1
            try:
                await asker.ask(kind)
                self._counts[kind] += 1
            except (Bad_Answer, OSError, EOFError, asyncio.TimeoutError) as error:
                self._fail(error)
        asker.close()

    async def _talk(self, index):
        await asyncio.sleep(self._chance.uniform(0, self._settings["arrival"]))
        while not self._stopping.is_set():
            talker = Talker(self._settings["address"], random.Random(self._chance.random()),
                            self._counts, self._stopping, index)
            try:
                await talker.run()
            except (ValueError, OSError, EOFError, asyncio.TimeoutError) as error:
                self._fail(error)
                await asyncio.sleep(1)

    def _report(self):
        print(json.dumps({"counts": self._counts, "problems": self._problems}), flush=True)

    async def _reports(self):
        while not self._stopping.is_set():
            self._report()
            try:
                await asyncio.wait_for(self._stopping.wait(), 1)
            except asyncio.TimeoutError:
                pass

    async def run(self):
        loop = asyncio.get_running_loop()
        loop.add_reader(0, lambda: os.read(0, 1) or self._stopping.set())
        await asyncio.gather(
            self._reports(), *(self._ask(i) for i in range(self._settings["askers"])),
            *(self._talk(i) for i in range(self._settings["websockets"])))
        loop.remove_reader(0)
        self._report()


def _content(path):
    with open(path, "rb") as file:
        return file.read()


async def main():
    await Load(json.loads(sys.argv[1])).run()


if __name__ == "__main__":
    asyncio.run(main())
