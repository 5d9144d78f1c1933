// One chat room: the list of messages, and those that wait for a connection.

import { decode, encode, newId, roomPath, tidyName, tidyText } from "./message.js";

const MESSAGES_SHOWN = 200;
const MESSAGES_KEPT = 50; // that may wait for a connection
const ANSWER_LIMIT = 8000; // ms until the server must have passed our message on to us as well
const NEAR_END = 40; // px

const TIME = new Intl.DateTimeFormat(undefined, { hour: "2-digit", minute: "2-digit" });

function element(kind, className, text) {
    const node = document.createElement(kind);
    node.className = className;
    node.textContent = text; // never markup: the text is somebody else's
    return node;
}

function hue(name) {
    let sum = 0;
    for (const character of name) {
        sum = (sum * 31 + character.codePointAt(0)) % 65521;
    }
    return (sum * 137) % 360; // neighbours end far apart
}

/**
 * A message that was sent counts as delivered when the server gives it back to us, as it does to
 * every member. Until then it is shown as kept; on each new connection the kept ones are sent
 * again. Each has an identifier, so that one that was sent twice is shown once.
 */
export class Chat {
    #link;
    #parts;
    #room = "";
    #kept = []; // of all rooms, oldest first: {id, room, name, text, item, sentAt}
    #known = new Set(); // identifiers of the messages shown
    #following = true; // false while somebody reads further up

    /** parts: the elements log, messages, newer, text. */
    constructor(link, parts) {
        this.#link = link;
        this.#parts = parts;
        link.onmessage = (data) => this.#receive(data);
        link.onopen = () => this.#sendKept();
        parts.log.addEventListener("scroll", () => {
            this.#following = this.#atEnd();
            parts.newer.hidden ||= this.#following;
        }, { passive: true });
        new ResizeObserver(() => this.#follow()).observe(parts.log);
        parts.newer.addEventListener("click", () => {
            this.#scrollToEnd();
            parts.text.focus();
        });
    }

    join(room) {
        this.connectionLost();
        this.#room = room;
        this.#known.clear();
        this.#parts.messages.replaceChildren();
        for (const message of this.#kept.filter((one) => one.room === room)) {
            this.#show(message.item);
        }
        this.#scrollToEnd();
        this.#link.open(roomPath(room));
    }

    /** False when the message was not taken: empty, or too many wait. */
    say(name, text) {
        const message = {
            id: newId(),
            room: this.#room,
            name: tidyName(name),
            text: tidyText(text),
            sentAt: null,
        };
        if (message.text === "") {
            return false;
        }
        if (this.#kept.length >= MESSAGES_KEPT) {
            this.note("Too many messages wait for the connection; yours is still in the field.");
            return false;
        }
        message.item = this.#item(message, "own kept");
        this.#kept.push(message);
        this.#show(message.item);
        this.#scrollToEnd();
        this.#send(message);
        return true;
    }

    /** A line of the page's own between the messages. */
    note(text) {
        this.#show(element("li", "note", text));
        this.#follow();
    }

    /** To be called now and then: gives up a connection that seems open and passes nothing on. */
    check() {
        const now = performance.now();
        if (this.#kept.some((one) => one.sentAt !== null && now - one.sentAt > ANSWER_LIMIT)) {
            this.connectionLost();
            this.#link.drop();
        }
    }

    connectionLost() {
        for (const message of this.#kept) {
            message.sentAt = null;
            message.item.querySelector(".when").textContent = "waiting for the connection";
        }
    }

    #send(message) {
        const sent = this.#link.send(encode(message));
        message.sentAt = sent ? performance.now() : null;
        message.item.querySelector(".when").textContent =
            sent ? "sending" : "waiting for the connection";
    }

    #sendKept() {
        this.#kept.filter((one) => one.room === this.#room).forEach((one) => this.#send(one));
    }

    #receive(data) {
        const message = decode(data);
        if (message === null || this.#known.has(message.id)) {
            return;
        }
        if (message.id !== "") {
            this.#known.add(message.id);
        }
        const own = this.#kept.find((one) => one.id === message.id && one.room === this.#room);
        if (own === undefined) {
            this.#show(this.#item(message, ""));
            this.#parts.newer.hidden = this.#following;
            this.#follow();
            return;
        }
        this.#kept = this.#kept.filter((one) => one !== own);
        own.item.classList.remove("kept");
        own.item.querySelector(".when").textContent = TIME.format(new Date());
        // Its place is the one that the room gave it, behind what arrived before it.
        if (own.item.nextElementSibling !== null) {
            this.#show(own.item);
        }
        this.#follow();
    }

    #item(message, className) {
        const item = element("li", `message ${className}`.trim(), "");
        const from = element("p", "from", "");
        const name = element("bdi", "name", className === "" ? message.name : "You");
        name.style.setProperty("--hue", String(hue(message.name)));
        from.append(name, element("span", "when", TIME.format(new Date())));
        const text = element("p", "text", message.text);
        text.dir = "auto";
        item.append(from, text);
        return item;
    }

    #show(item) {
        const { messages } = this.#parts;
        messages.append(item);
        for (let first = messages.firstElementChild; messages.childElementCount > MESSAGES_SHOWN;) {
            const next = first.nextElementSibling;
            first.remove();
            first = next;
        }
        if (this.#known.size > 4 * MESSAGES_SHOWN) {
            this.#known = new Set([...this.#known].slice(-MESSAGES_SHOWN));
        }
    }

    #atEnd() {
        const { log } = this.#parts;
        return log.scrollHeight - log.scrollTop - log.clientHeight < NEAR_END;
    }

    // Whoever reads further up is not torn away from there.
    #follow() {
        if (this.#following) {
            this.#scrollToEnd();
        }
    }

    #scrollToEnd() {
        this.#parts.log.scrollTop = this.#parts.log.scrollHeight;
        this.#parts.newer.hidden = true;
        this.#following = true;
    }
}
