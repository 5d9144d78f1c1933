// A WebSocket connection that comes back by itself.

const FIRST_DELAY = 500; // ms; doubles with every failure
const LONGEST_DELAY = 20000; // ms
const OPENING_LIMIT = 8000; // ms for the handshake
const STEADY = 5000; // ms; a connection that has lasted so long ends a row of failures

const BROWSER = {
    connect: (url) => new WebSocket(url),
    setTimeout: (act, delay) => window.setTimeout(act, delay),
    clearTimeout: (timer) => window.clearTimeout(timer),
    now: () => performance.now(),
    random: () => Math.random(),
};

// "wss:" for a page that came by TLS: a browser would not let it open the other kind.
export function socketUrl(path) {
    const url = new URL(path, location.href);
    url.protocol = location.protocol === "https:" ? "wss:" : "ws:";
    return url.href;
}

/**
 * Connects to a path of this server, and again after the connection is lost: after half a second,
 * then twice as long each time. Half of each wait is left to chance, so that the windows which one
 * restart of the server cut off do not all come back in the same moment.
 *
 * `state` is "closed", "connecting", "open" or "waiting" (for the next try, due at `retryAt` on the
 * clock of performance.now). The callbacks are onopen(), onmessage(data) and onstate(state).
 */
export class Link {
    state = "closed";
    retryAt = 0;
    onopen = () => {};
    onmessage = () => {};
    onstate = () => {};

    #browser;
    #path = "";
    #socket = null;
    #timer = null;
    #failures = 0;

    constructor(browser = {}) {
        this.#browser = { ...BROWSER, ...browser };
    }

    /** Leaves the present connection, if any, and connects to the path at once. */
    open(path) {
        this.close();
        this.#path = path;
        this.#failures = 0;
        this.#connect();
    }

    close() {
        this.#release();
        this.#enter("closed");
    }

    /** False when there is no connection to send on; nothing is kept then. */
    send(text) {
        if (this.state !== "open") {
            return false;
        }
        this.#socket.send(text);
        return true;
    }

    /** Bytes that were handed to send() and have not left the browser. */
    get backlog() {
        return this.#socket === null ? 0 : this.#socket.bufferedAmount;
    }

    /** Ends the wait for the next try, if there is one. */
    retryNow() {
        if (this.state === "waiting") {
            this.#connect();
        }
    }

    /** For the user of a connection that seems open and answers no more. */
    drop() {
        if (this.state === "open") {
            this.#lose();
        }
    }

    #connect() {
        this.#release();
        const socket = this.#browser.connect(socketUrl(this.#path));
        this.#socket = socket;
        socket.onopen = () => this.#opened();
        socket.onmessage = (event) => this.onmessage(event.data);
        socket.onclose = () => this.#lose();
        this.#timer = this.#browser.setTimeout(() => this.#lose(), OPENING_LIMIT);
        this.#enter("connecting");
    }

    #opened() {
        this.#browser.clearTimeout(this.#timer);
        this.#timer = this.#browser.setTimeout(() => {
            this.#failures = 0;
        }, STEADY);
        this.#enter("open");
        this.onopen();
    }

    #lose() {
        this.#release();
        const whole = Math.min(LONGEST_DELAY, FIRST_DELAY * 2 ** this.#failures);
        const delay = whole / 2 + (whole / 2) * this.#browser.random();
        this.#failures += 1;
        this.#timer = this.#browser.setTimeout(() => this.#connect(), delay);
        this.retryAt = this.#browser.now() + delay;
        this.#enter("waiting");
    }

    // A socket that was given up still calls back when it closes; nobody listens then.
    #release() {
        this.#browser.clearTimeout(this.#timer);
        this.#timer = null;
        const socket = this.#socket;
        this.#socket = null;
        if (socket !== null) {
            socket.onopen = socket.onmessage = socket.onclose = null;
            socket.close();
        }
    }

    #enter(state) {
        this.state = state;
        this.onstate(state);
    }
}
