// What the members of a room say to each other. The server passes messages on unread, so whatever
// arrives may come from anybody and be anything.

export const NAME_LENGTH = 32; // characters
export const TEXT_LENGTH = 500;
const ID_LENGTH = 32;
const ROOM_LENGTH = 32;
const LONGEST = 8192; // UTF-16 units of a message worth a look; our own stay far below

// Control characters, and those that turn the direction of the text that follows.
const UNWANTED = /[\u0000-\u0009\u000B-\u001F\u007F-\u009F\u200E\u200F\u202A-\u202E\u2066-\u2069]/g;

function tidy(text, length) {
    return Array.from(text.replace(UNWANTED, " ")).slice(0, length).join("").trim();
}

export function tidyName(text) {
    return tidy(text.replace(/\s+/g, " "), NAME_LENGTH);
}

export function tidyText(text) {
    return tidy(text.replace(/\r\n?/g, "\n"), TEXT_LENGTH);
}

// crypto.randomUUID is only there for pages that came by TLS or from this machine.
export function newId() {
    const bytes = crypto.getRandomValues(new Uint8Array(ID_LENGTH / 2));
    return Array.from(bytes, (byte) => byte.toString(16).padStart(2, "0")).join("");
}

export function encode({ id, name, text }) {
    return JSON.stringify({ id, name, text });
}

/** The message in its bounds, or null for anything that is none. */
export function decode(data) {
    if (typeof data !== "string" || data.length > LONGEST) {
        return null;
    }
    let content;
    try {
        content = JSON.parse(data);
    } catch {
        return null;
    }
    if (typeof content !== "object" || content === null) {
        return null;
    }
    const { id, name, text } = content;
    if (typeof name !== "string" || typeof text !== "string") {
        return null;
    }
    const message = {
        id: typeof id === "string" && id.length <= ID_LENGTH ? id : "",
        name: tidyName(name) || "Nameless",
        text: tidyText(text),
    };
    return message.text === "" ? null : message;
}

/**
 * A room's name as it stands in addresses: letters and digits of any script and "_", in lower case;
 * anything else becomes "-". Empty when nothing is left of it.
 */
export function roomName(text) {
    const name = text.normalize("NFC").toLowerCase().replace(/[^\p{L}\p{M}\p{N}_]+/gu, "-");
    return Array.from(name).slice(0, ROOM_LENGTH).join("").replace(/^-+|-+$/g, "");
}

export function roomPath(room) {
    return "/chat/" + encodeURIComponent(room);
}
