// Puts the page together: two connections, the chat, the plot.

import { Chat } from "./chat.js";
import { Link } from "./link.js";
import { roomName, tidyName } from "./message.js";
import { Plot, inWords } from "./plot.js";
import { RoundTrips, duration } from "./trips.js";

const DEFAULT_ROOM = "lobby";
const WORDS_INTERVAL = 5000; // ms: nobody wants the picture read out five times a second

const part = (id) => document.getElementById(id);
const chatLink = new Link();
const tripsLink = new Link();
const links = [chatLink, tripsLink];

const STATES = {
    closed: "Not connected",
    connecting: "Connecting…",
    open: "Connected",
};

function showState(id, link, wasOpen) {
    const words = STATES[link.state] ?? (wasOpen ? "Connection lost" : "No connection");
    if (part(id).textContent !== words) { // or a screen reader says it again
        part(id).textContent = words;
    }
    part(id).dataset.state = link.state;
}

// Where the browser keeps nothing, as in some private windows, every access throws.
const memory = {
    get: (key) => {
        try {
            return localStorage.getItem(key);
        } catch {
            return null;
        }
    },
    set: (key, value) => {
        try {
            localStorage.setItem(key, value);
        } catch {
            // The name then lasts as long as the page.
        }
    },
};

function setUpChat() {
    const chat = new Chat(chatLink, {
        log: part("log"),
        messages: part("messages"),
        newer: part("newer"),
        text: part("text"),
    });
    const guest = `Guest ${100 + Math.floor(Math.random() * 900)}`;
    const name = () => tidyName(part("name").value) || guest;
    let wasOpen = false;
    let lost = false;

    function showNextTry() {
        const seconds = Math.ceil((chatLink.retryAt - performance.now()) / 1000);
        part("next-try").textContent =
            chatLink.state === "waiting" && seconds > 0 ? `Next try in ${seconds}\u00A0s.` : "Trying…";
    }

    chatLink.onstate = (state) => {
        if (state === "open") {
            if (lost) {
                chat.note("Connected again. What others sent meanwhile is not repeated.");
            }
            wasOpen = true;
            lost = false;
        } else if (state === "waiting") {
            if (!lost) {
                chat.connectionLost();
            }
            lost = true;
        } else if (state === "closed") {
            lost = false;
        }
        showState("chat-state", chatLink, wasOpen);
        part("lost-title").textContent = wasOpen ? "Connection lost." : "No connection.";
        part("lost").hidden = !lost;
        showNextTry();
    };

    window.setInterval(() => {
        chat.check();
        if (lost) {
            showNextTry();
        }
    }, 500);

    part("name").value = memory.get("name") ?? "";
    part("name").placeholder = guest;
    part("name").addEventListener("change", () => {
        part("name").value = tidyName(part("name").value);
        memory.set("name", part("name").value);
    });

    setUpRooms(chat);
    setUpCompose(chat, name);
}

// The room stands in the address behind "#", so that a link, a bookmark or "back" leads into it.
function setUpRooms(chat) {
    function fromAddress() {
        try {
            return roomName(decodeURIComponent(location.hash.slice(1))) || DEFAULT_ROOM;
        } catch {
            return DEFAULT_ROOM; // not an encoding of anything
        }
    }

    function join() {
        const room = fromAddress();
        part("room").value = room;
        part("where").textContent = room;
        part("another").href = `#${encodeURIComponent(room)}`;
        document.title = `${room}: WebSocket demo`;
        chat.join(room);
    }

    part("join").addEventListener("submit", (event) => {
        event.preventDefault();
        const room = roomName(part("room").value);
        if (room === fromAddress() || room === "") {
            part("room").value = fromAddress();
        } else {
            location.hash = encodeURIComponent(room);
        }
        part("text").focus();
    });
    window.addEventListener("hashchange", join);
    join();
}

function setUpCompose(chat, name) {
    const text = part("text");

    function grow() {
        text.style.height = "auto";
        text.style.height = `${text.scrollHeight + text.offsetHeight - text.clientHeight}px`;
    }

    part("compose").addEventListener("submit", (event) => {
        event.preventDefault();
        if (chat.say(name(), text.value)) {
            text.value = "";
            grow();
        }
        text.focus();
    });
    text.addEventListener("input", grow);
    text.addEventListener("keydown", (event) => {
        // While a character is being composed, Enter chooses it.
        if (event.key === "Enter" && !event.shiftKey && !event.isComposing) {
            event.preventDefault();
            part("compose").requestSubmit();
        }
    });
}

function setUpTrips() {
    const trips = new RoundTrips(tripsLink);
    const plot = new Plot(part("plot"));
    let wasOpen = false;
    let wordsAt = -Infinity;

    trips.onchange = () => {
        const figures = trips.figures();
        const now = performance.now();
        plot.show({ trips: trips.trips, waiting: trips.waiting, gaps: trips.gaps, figures, now });
        for (const id of ["median", "high", "last"]) {
            part(id).textContent = figures.count > 0 ? duration(figures[id]) : "–";
        }
        part("count").textContent = String(figures.count);
        if (figures.count > 0 && now - wordsAt >= WORDS_INTERVAL) {
            wordsAt = now;
            part("plot").setAttribute("aria-label", inWords(figures));
        }
    };

    tripsLink.onstate = (state) => {
        if (state === "open") {
            wasOpen = true;
            trips.connected();
        } else if (state === "waiting") {
            trips.connectionLost();
        }
        showState("trips-state", tripsLink, wasOpen);
    };

    function followVisibility() {
        if (document.hidden) {
            trips.stop();
        } else {
            trips.start();
        }
    }
    document.addEventListener("visibilitychange", followVisibility);
    tripsLink.open("/ws-echo");
    followVisibility();
}

// There is more reason to hope than a moment ago: no need to wait for the time that was set.
function setUpRetries() {
    const retryAll = () => links.forEach((link) => link.retryNow());
    part("try-now").addEventListener("click", retryAll);
    window.addEventListener("online", retryAll);
    window.addEventListener("pageshow", retryAll);
    document.addEventListener("visibilitychange", () => {
        if (!document.hidden) {
            retryAll();
        }
    });
    for (const link of links) {
        const opened = link.onopen;
        link.onopen = () => {
            opened();
            retryAll();
        };
    }
}

setUpChat();
setUpTrips();
setUpRetries();
