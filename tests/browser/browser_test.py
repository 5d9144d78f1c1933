#!/usr/bin/python3 -B
"""The demo page in a headless Chromium, against the real host.

browser_test.py --build DIRECTORY --source DIRECTORY

Exit status 0: all went well; 1: something did not, named in the last lines; 77: skipped, because
what it needs is not there. Pictures of the page are left in BUILD/artefacts/browser.
"""

import argparse
import asyncio
import json
import os
import pathlib
import shutil
import sys
import tempfile
import time
import traceback

SKIPPED = 77


def skip(reason):
    print(f"skipped: {reason}")
    sys.exit(SKIPPED)


try:
    import websockets
except ImportError:
    skip("the Python module websockets is not installed (package python3-websockets)")

from chromium import PROGRAM, Chromium, Failure, Unusable
from host import Host


def check(condition, what):
    if not condition:
        raise Failure(what)


def loopback_address():
    """Own ports for each run: 127/8 has more addresses than there are process numbers."""
    number = os.getpid() & 0x3FFFFF | 0x800000
    return f"127.{number >> 16}.{number >> 8 & 255}.{number & 255}"


def messages(text, kind=".message"):
    """JavaScript: how many of the shown messages have exactly this text."""
    return (f"[...document.querySelectorAll('#messages {kind}')].filter((item) =>"
            f" item.querySelector('.text').textContent === {json.dumps(text)}).length")


STATE = "document.querySelector('#{}-state').dataset.state"
CONNECTED = f"{STATE.format('chat')} === 'open' && {STATE.format('trips')} === 'open'"
ONLINE = "window.dispatchEvent(new Event('online'))"
TRY_NOW = "document.getElementById('try-now').click()"
LOST = ("['chat-state', 'trips-state'].every((id) =>"
        " document.getElementById(id).textContent === 'Connection lost')"
        " && document.getElementById('lost').checkVisibility()")
FITS = ("document.documentElement.scrollWidth <= innerWidth &&"
        " [...document.querySelectorAll('body *')].filter((e) => e.checkVisibility())"
        ".every((e) => e.getBoundingClientRect().right <= innerWidth + 0.5)")


# JavaScript: how many colours, unblended ones, the plot is drawn with.
COUNT_OF_COLOURS = """(() => {
    const plot = document.getElementById("plot");
    const { data } = plot.getContext("2d").getImageData(0, 0, plot.width, plot.height);
    const colours = new Set();
    for (let i = 0; i < data.length; i += 4) {
        if (data[i + 3] === 255) {
            colours.add(data[i] << 16 | data[i + 1] << 8 | data[i + 2]);
        }
    }
    return colours.size;
})()"""


async def say(page, text):
    await page.type("#text", text)
    await page.press("Enter", 13)


class Demo_Page_Test:
    def __init__(self, host, chromium, pictures):
        self.host = host
        self.chromium = chromium
        self.pictures = pictures
        self.ada = None  # a window that came by http
        self.grace = None  # and one that came by https

    async def run(self):
        self.ada = await self.chromium.new_page("Ada")
        self.grace = await self.chromium.new_page("Grace")
        for step in (self.index_page_leads_to_the_demo,
                     self.both_windows_connect,
                     self.what_is_no_message_is_passed_over,
                     self.rooms_are_apart,
                     self.a_message_reaches_the_other_window,
                     self.markup_stays_text,
                     self.round_trips_are_shown,
                     self.controls_have_names,
                     self.narrow_windows_need_no_scrolling_sideways,
                     self.modules_keep_their_promises,
                     self.no_complaints,
                     self.lost_connection_is_told,
                     self.page_comes_back_by_itself,
                     self.nothing_but_refused_connections):
            before = time.monotonic()
            await step()
            print(f"{step.__name__}: {time.monotonic() - before:.2f} s", flush=True)

    async def index_page_leads_to_the_demo(self):
        await self.ada.open(self.host.http + "/")
        self.ada.expect_load()
        await self.ada.click("#demo")
        await self.ada.loaded()
        path = await self.ada.evaluate("location.pathname")
        check(path == "/demo/", f"the link leads to {path}")
        await self.grace.open(self.host.https + "/demo/")

    async def both_windows_connect(self):
        for page, name, scheme in ((self.ada, "Ada", "ws"), (self.grace, "Grace", "wss")):
            await page.wait_for(CONNECTED, "both connections to be open")
            check([url.split("/", 3)[0::3] for url in page.sockets] ==
                  [[f"{scheme}:", "chat/lobby"], [f"{scheme}:", "ws-echo"]],
                  f"{page.name} opened {page.sockets}")
            await page.type("#name", name)

    async def a_message_reaches_the_other_window(self):
        for sender, reader, text in ((self.ada, self.grace, "Hello, is anybody there?"),
                                     (self.grace, self.ada, "Yes, here: ÄÖÜ, Ελληνικά, кириллица."),
                                     (self.ada, self.grace, "A longer message wraps where it must, "
                                      "so that every window shows all of it. " * 2)):
            text = text.strip()
            await say(sender, text)
            await reader.wait_for(messages(text, ".message:not(.own)") + " === 1", "the message")
            await sender.wait_for(messages(text, ".own:not(.kept)") + " === 1", "its delivery")
            check(await sender.evaluate("document.getElementById('text').value") == "",
                  "the field was not emptied")
        names = await self.grace.evaluate(
            "[...document.querySelectorAll('#messages .name')].map((e) => e.textContent)")
        check(names[-3:] == ["Ada", "You", "Ada"], f"messages are from {names}")

    async def markup_stays_text(self):
        text = "<img src=x onerror=\"document.title='hit'\"> is <b>text</b>"
        await say(self.ada, text)
        await self.grace.wait_for(messages(text) + " === 1", "the message with markup")
        check(await self.grace.evaluate(
            "document.querySelectorAll('#messages img, #messages b').length") == 0,
            "markup of a message became part of the page")

    async def what_is_no_message_is_passed_over(self):
        address = self.host.http.replace("http:", "ws:") + "/chat/strangers"
        await self.ada.evaluate("location.hash = 'strangers'")
        await self.ada.wait_for("document.getElementById('where').textContent === 'strangers' && " +
                                CONNECTED, "the room")
        async with websockets.connect(address, compression=None) as stranger:
            for data in ("{", "null", "[]", "3", "\"text\"", "{\"name\": 1, \"text\": \"x\"}",
                         "{\"name\": \"x\"}", "{\"name\": \"x\", \"text\": {}}",
                         "{\"name\": \"x\", \"text\": \" \"}", b"{\"name\": \"x\", \"text\": \"y\"}",
                         json.dumps({"name": "x", "text": "y" * 9000})):
                await stranger.send(data)
            for _ in range(2):
                await stranger.send(json.dumps({"id": "1", "name": "N" * 100, "text": "T" * 1000}))
            await stranger.send(json.dumps({"name": "Eve", "text": "🚀 日本語"}))
            await self.ada.wait_for(messages("🚀 日本語") + " === 1", "the last message")
            check(await self.ada.evaluate(messages("T" * 500)) == 1, "the long one was not shortened")
        names = await self.ada.evaluate(
            "[...document.querySelectorAll('#messages .name')].map((e) => e.textContent)")
        check(names == ["N" * 32, "Eve"], f"what is shown comes from {names}")
        await self.ada.evaluate("history.back()")
        await self.ada.wait_for("document.getElementById('where').textContent === 'lobby' && " +
                                CONNECTED, "the lobby")

    async def rooms_are_apart(self):
        await self.grace.type("#room", "The Kitchen")
        await self.grace.press("Enter", 13)
        await self.grace.wait_for("location.hash === '#the-kitchen' && " + CONNECTED, "the room")
        await say(self.grace, "Nobody in the lobby reads this")
        await self.grace.wait_for(messages("Nobody in the lobby reads this", ".own:not(.kept)") +
                                  " === 1", "the delivery in the kitchen")
        await self.grace.evaluate("history.back()")
        await self.grace.wait_for("document.getElementById('where').textContent === 'lobby' && " +
                                  CONNECTED, "the lobby")
        await say(self.grace, "Back in the lobby")
        await self.ada.wait_for(messages("Back in the lobby") + " === 1", "the message")
        check(await self.ada.evaluate(messages("Nobody in the lobby reads this")) == 0,
              "a message went into another room")

    async def round_trips_are_shown(self):
        for page in (self.ada, self.grace):
            await page.wait_for("+document.getElementById('count').textContent >= 15",
                                "fifteen round trips")
            figures = await page.evaluate(
                "['median', 'high', 'last'].map((id) => document.getElementById(id).textContent)")
            print(f"{page.name}: median {figures[0]}, 99th percentile {figures[1]}")
            check(all(figure.split()[0].replace(".", "").isdigit() for figure in figures),
                  f"the figures are {figures}")
            await page.wait_for("document.getElementById('plot').getAttribute('aria-label')"
                                ".includes('99th percentile')", "the plot in words")
            check(await page.evaluate(COUNT_OF_COLOURS) >= 4,
                  "the plot shows fewer than four colours")

    async def controls_have_names(self):
        tree = await self.ada.command("Accessibility.getFullAXTree")
        seen = []
        for node in tree["nodes"]:
            role = node.get("role", {}).get("value")
            if role in ("textbox", "button", "link", "log", "image", "canvas"):
                name = node.get("name", {}).get("value", "")
                check(name != "", f"a {role} has no name: {node}")
                seen.append(name)
        for name in ("Room", "Your name", "Message", "Send", "Join", "Messages"):
            check(name in seen, f"\"{name}\" is not among the controls {seen}")

    async def narrow_windows_need_no_scrolling_sideways(self):
        for page in (self.ada, self.grace):
            await page.size(1280, 900)
            await page.wait_for("document.getElementById('compose').getBoundingClientRect().bottom <"
                                " innerHeight", "the message field to be seen without scrolling")
        await self.ada.colours("light")
        await self.ada.screenshot(self.pictures / "wide.png")
        await self.grace.colours("dark")
        await self.grace.screenshot(self.pictures / "wide-dark.png")
        for width, height in ((320, 568), (360, 740), (768, 1024), (1920, 1080)):
            await self.ada.size(width, height, 2, width < 700)
            await self.ada.wait_for(FITS, f"the page to fit into {width} pixels")
            if width == 360:
                await self.ada.screenshot(self.pictures / "narrow.png", whole_page=True)
                check(await self.ada.evaluate("document.getElementById('plot').clientHeight") <= 300,
                      "the plot grows")
        await self.ada.size(1280, 900)
        index = await self.chromium.new_page("index page")
        await index.open(self.host.http + "/")
        await index.size(1280, 900)
        await index.colours("light")
        await index.screenshot(self.pictures / "index.png")
        await index.size(360, 740, 2, True)
        await index.wait_for(FITS, "the index page to fit into 360 pixels")
        check(index.complaints == [], f"complaints of the index page: {index.complaints}")
        await index.command("Page.close")

    async def modules_keep_their_promises(self):
        checks = pathlib.Path(__file__).with_name("module_checks.js").read_text(encoding="utf-8")
        result = await self.ada.evaluate(checks)
        check(result["failures"] == [], "\n".join(result["failures"]))
        check(result["count"] > 0, "no module was checked")

    async def no_complaints(self):
        for page in (self.ada, self.grace):
            check(page.complaints == [], f"complaints of {page.name}: {page.complaints}")

    async def lost_connection_is_told(self):
        await self.host.stop()
        for page in (self.ada, self.grace):
            await page.wait_for(LOST, "the page to say that the connection is lost")
        await say(self.ada, "Written while the server was away")
        await self.ada.wait_for(messages("Written while the server was away", ".own.kept") +
                                " === 1", "the message to be kept")
        await self.ada.type("#text", "Not finished yet")
        await self.ada.screenshot(self.pictures / "lost.png")
        for what, act in (("the browser says that it is online", ONLINE), ("a click", TRY_NOW)):
            await self.ada.wait_for(" && ".join(f"{STATE.format(name)} === 'waiting'"
                                                for name in ("chat", "trips")),
                                    "both connections to wait for the next try")
            states = await self.ada.evaluate(f"{act}, [{STATE.format('chat')}, {STATE.format('trips')}]")
            check(states == ["connecting", "connecting"], f"after {what} they are {states}")
        await self.grace.size(360, 740, 2, True)
        await self.grace.wait_for(FITS, "the page to fit while the connection is lost")
        await self.grace.screenshot(self.pictures / "lost-narrow-dark.png", whole_page=True)

    async def page_comes_back_by_itself(self):
        await self.host.start()
        for page in (self.ada, self.grace):
            # The longer the host took to start, the longer the page waits: twenty seconds at most.
            await page.wait_for(CONNECTED, "the connections to be open again", 30)
            check(not await page.evaluate("document.getElementById('lost').checkVisibility()"),
                  "the page still says that the connection is lost")
        text = "Written while the server was away"
        await self.ada.wait_for(messages(text, ".own:not(.kept)") + " === 1", "its delivery")
        check(await self.ada.evaluate("document.getElementById('text').value") ==
              "Not finished yet", "what was being typed is gone")
        await self.ada.press("Enter", 13)
        await self.grace.wait_for(messages("Not finished yet") + " === 1", "the next message")
        await say(self.grace, "Good to have you back")
        await self.ada.wait_for(messages("Good to have you back") + " === 1", "the answer")
        answered = await self.ada.evaluate("+document.getElementById('count').textContent")
        await self.ada.wait_for(f"+document.getElementById('count').textContent > {answered}",
                                "round trips over the new connection")
        await self.ada.screenshot(self.pictures / "back.png")

    async def nothing_but_refused_connections(self):
        """The browser itself logs a connection that was refused; all else would be the page's."""
        for page in (self.ada, self.grace):
            rest = [text for text in page.complaints
                    if not text.startswith("network: WebSocket connection to ")
                    or "ERR_CONNECTION_REFUSED" not in text]
            check(rest == [], f"complaints of {page.name}: {rest}")


async def test(build, source, folder):
    pictures = build / "artefacts" / "browser"
    shutil.rmtree(pictures, ignore_errors=True)
    pictures.mkdir(parents=True)
    host = Host(build, source, folder, loopback_address())
    try:
        await host.start()
        async with Chromium(folder) as chromium:
            demo = Demo_Page_Test(host, chromium, pictures)
            try:
                await demo.run()
            except Exception:
                for page in filter(None, (demo.ada, demo.grace)):
                    await page.screenshot(pictures / f"failed-{page.name}.png", whole_page=True)
                    print(f"complaints of {page.name}: {page.complaints}")
                raise
        await host.stop()
    except Unusable:
        raise
    except Exception:
        print(f"the host's log:\n{host.log}")
        raise
    finally:
        host.kill()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--source", type=pathlib.Path, required=True)
    arguments = parser.parse_args()
    for program in (PROGRAM, "openssl"):
        if shutil.which(program) is None:
            skip(f"{program} is not installed")
    with tempfile.TemporaryDirectory(prefix="httpd-browser-") as folder:
        try:
            asyncio.run(test(arguments.build.resolve(), arguments.source.resolve(),
                             pathlib.Path(folder)))
        except Unusable as reason:
            skip(reason)
        except Failure as failure:
            print(f"FAILED: {failure}")
            return 1
        except Exception:
            traceback.print_exc()
            return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
