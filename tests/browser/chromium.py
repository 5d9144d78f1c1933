"""A headless Chromium, driven over its DevTools protocol."""

import asyncio
import base64
import contextlib
import json
import os
import pathlib
import shutil
import signal
import subprocess

import websockets

LIMIT = 15.0  # seconds that any one condition may take
PROGRAM = "/usr/bin/chromium"

FLAGS = [
    "--headless",
    "--disable-gpu",
    "--disable-quic",
    "--disable-dev-shm-usage",
    "--disable-extensions",
    "--disable-background-networking",
    "--disable-component-update",
    "--disable-default-apps",
    "--disable-domain-reliability",
    "--disable-sync",
    "--no-first-run",
    "--no-default-browser-check",
    "--no-proxy-server",
    "--password-store=basic",
    # Two windows that are both looked at, whichever lies in front.
    "--disable-background-timer-throttling",
    "--disable-backgrounding-occluded-windows",
    "--disable-renderer-backgrounding",
    "--ignore-certificate-errors",
    # Nothing but this machine, whatever the browser itself would like to fetch.
    "--host-resolver-rules=MAP * ~NOTFOUND , EXCLUDE 127.*",
    "--remote-debugging-port=0",
    "--window-size=1280,900",
]


class Failure(Exception):
    """Something that the test waited for did not come, or came wrong."""


class Unusable(Exception):
    """This machine does not let the browser start."""


class Chromium:
    """The process, in a group of its own, and the connection to it."""

    def __init__(self, folder: pathlib.Path):
        self._profile = folder / "profile"
        self._log_path = folder / "chromium.log"
        self._process = None
        self._socket = None
        self._reader = None
        self._answers = {}
        self._number = 0
        self._pages = {}

    async def __aenter__(self):
        self._profile.mkdir()
        root = ["--no-sandbox"] if os.geteuid() == 0 else []
        with open(self._log_path, "wb") as log:
            self._process = subprocess.Popen(
                [PROGRAM, *FLAGS, *root, f"--user-data-dir={self._profile}", "about:blank"],
                stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True,
                env={**os.environ, "HOME": str(self._profile)})
        try:
            await self._connect()
        except BaseException:
            self._end()
            raise
        return self

    async def __aexit__(self, *_):
        with contextlib.suppress(Exception):
            await asyncio.wait_for(self.command("Browser.close"), 3)
        if self._reader is not None:
            self._reader.cancel()
        await self._socket.close()
        self._end()

    async def _connect(self):
        port_file = self._profile / "DevToolsActivePort"

        def lines():
            if self._process.poll() is not None:
                log = self._log_path.read_text(errors="replace")
                if "No usable sandbox" in log:
                    raise Unusable("Chromium finds no sandbox here")
                raise Failure(f"Chromium ended:\n{log}")
            found = port_file.read_text().split("\n") if port_file.exists() else []
            return found if len(found) == 2 else None

        port, path = await until(lines, "Chromium to offer its DevTools port", 30)
        self._socket = await websockets.connect(
            f"ws://127.0.0.1:{port}{path}", max_size=None, ping_interval=None, compression=None)
        self._reader = asyncio.create_task(self._read())

    def _end(self):
        """Its helpers belong to its process group, so that none of them is left behind."""
        try:
            self._process.wait(3)
        except subprocess.TimeoutExpired:
            pass
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self._process.pid, signal.SIGKILL)
        self._process.wait()
        shutil.rmtree(self._profile, ignore_errors=True)

    async def _read(self):
        try:
            async for text in self._socket:
                message = json.loads(text)
                if "id" in message:
                    answer = self._answers.pop(message["id"], None)
                    if answer is not None and not answer.done():
                        answer.set_result(message)
                elif message.get("sessionId") in self._pages:
                    self._pages[message["sessionId"]].take_event(message)
        finally:
            for answer in self._answers.values():
                if not answer.done():
                    answer.set_exception(Failure("Chromium closed the DevTools connection"))

    async def command(self, method, session=None, **parameters):
        self._number += 1
        message = {"id": self._number, "method": method, "params": parameters}
        if session is not None:
            message["sessionId"] = session
        answer = asyncio.get_running_loop().create_future()
        self._answers[self._number] = answer
        await self._socket.send(json.dumps(message))
        result = await asyncio.wait_for(answer, LIMIT)
        if "error" in result:
            raise Failure(f"{method}: {result['error']}")
        return result["result"]

    async def new_page(self, name):
        """A window of its own: a page in a background tab would hold its timers back."""
        target = (await self.command("Target.createTarget", url="about:blank",
                                     newWindow=True))["targetId"]
        session = (await self.command("Target.attachToTarget", targetId=target,
                                      flatten=True))["sessionId"]
        page = Page(self, session, name)
        self._pages[session] = page
        for domain in ("Page", "Runtime", "Log", "Network"):
            await page.command(f"{domain}.enable")
        return page


class Page:
    """One window. Everything that goes wrong in it is gathered in `complaints`."""

    def __init__(self, chromium, session, name):
        self._chromium = chromium
        self._session = session
        self.name = name
        self.complaints = []
        self.sockets = []  # addresses of the WebSockets that the page opened
        self.frames_sent = 0
        self._loaded = asyncio.Event()

    async def command(self, method, **parameters):
        return await self._chromium.command(method, self._session, **parameters)

    def take_event(self, event):
        method, parameters = event["method"], event["params"]
        if method == "Page.loadEventFired":
            self._loaded.set()
        elif method == "Runtime.exceptionThrown":
            details = parameters["exceptionDetails"]
            self.complaints.append(
                "exception: " + details.get("exception", {}).get("description", details["text"]))
        elif method == "Runtime.consoleAPICalled" and parameters["type"] in ("error", "assert"):
            self.complaints.append(f"console: {parameters['args']}")
        elif method == "Log.entryAdded" and parameters["entry"]["level"] == "error":
            entry = parameters["entry"]
            self.complaints.append(f"{entry['source']}: {entry['text']} {entry.get('url', '')}")
        elif method == "Network.webSocketCreated":
            self.sockets.append(parameters["url"])
        elif method == "Network.webSocketFrameSent":
            self.frames_sent += 1

    async def open(self, url):
        self._loaded.clear()
        result = await self.command("Page.navigate", url=url)
        if result.get("errorText"):
            raise Failure(f"{self.name}: {url}: {result['errorText']}")
        await self.loaded()

    async def loaded(self):
        try:
            await asyncio.wait_for(self._loaded.wait(), LIMIT)
        except asyncio.TimeoutError:
            raise Failure(f"{self.name}: the page was not loaded") from None

    def expect_load(self):
        self._loaded.clear()

    async def evaluate(self, expression):
        """The value of a JavaScript expression; a promise is awaited."""
        result = await self.command("Runtime.evaluate", expression=expression, awaitPromise=True,
                                    returnByValue=True, userGesture=True)
        if "exceptionDetails" in result:
            details = result["exceptionDetails"]
            raise Failure(f"{self.name}: {expression}: " +
                          details.get("exception", {}).get("description", details["text"]))
        return result["result"].get("value")

    async def wait_for(self, expression, what, limit=LIMIT):
        """Until the expression is true; returns its value."""
        try:
            return await until(lambda: self.evaluate(expression), what, limit)
        except Failure as failure:
            text = await self.evaluate("document.body.innerText")
            raise Failure(f"{self.name}: {failure}; the page shows:\n{text}") from None

    async def click(self, selector):
        """A real click, in the middle of the element, wherever it then lands."""
        x, y = await self.evaluate(
            "(() => { const e = document.querySelector(" + json.dumps(selector) + ");"
            " e.scrollIntoView({block: 'nearest'}); const r = e.getBoundingClientRect();"
            " return [r.x + r.width / 2, r.y + r.height / 2]; })()")
        for kind in ("mousePressed", "mouseReleased"):
            await self.command("Input.dispatchMouseEvent", type=kind, x=x, y=y, button="left",
                               clickCount=1)

    async def type(self, selector, text):
        """Replaces what stands in a field, as if typed."""
        await self.evaluate("document.querySelector(" + json.dumps(selector) + ").focus()")
        await self.evaluate("document.activeElement.select()")
        await self.command("Input.insertText", text=text)

    async def press(self, key, code):
        text = {"Enter": "\r"}.get(key)
        down = {"type": "keyDown", "key": key, "code": key, "windowsVirtualKeyCode": code}
        if text is not None:
            down["text"] = text
        await self.command("Input.dispatchKeyEvent", **down)
        await self.command("Input.dispatchKeyEvent", type="keyUp", key=key, code=key,
                           windowsVirtualKeyCode=code)

    async def size(self, width, height, ratio=1, mobile=False):
        await self.command("Emulation.setDeviceMetricsOverride", width=width, height=height,
                           deviceScaleFactor=ratio, mobile=mobile)

    async def colours(self, scheme):
        await self.command("Emulation.setEmulatedMedia",
                           features=[{"name": "prefers-color-scheme", "value": scheme}])

    async def screenshot(self, path: pathlib.Path, whole_page=False):
        # Two frames later the canvas has been drawn in its present size and colours.
        await self.evaluate("new Promise((done) => requestAnimationFrame("
                            "() => requestAnimationFrame(done)))")
        shot = await self.command("Page.captureScreenshot", format="png",
                                  captureBeyondViewport=whole_page)
        path.write_bytes(base64.b64decode(shot["data"]))


async def until(probe, what, limit=LIMIT):
    """Waits until the probe, an ordinary or an asynchronous one, gives something true."""
    loop = asyncio.get_running_loop()
    end = loop.time() + limit
    while True:
        value = probe()
        if asyncio.iscoroutine(value):
            value = await value
        if value:
            return value
        if loop.time() > end:
            raise Failure(f"waited {limit:g} s in vain for {what}")
        await asyncio.sleep(0.02)
