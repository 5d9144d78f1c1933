// How long a message takes to the server and back, measured again and again.

const INTERVAL = 200; // ms
const UNANSWERED_LIMIT = 5; // messages on their way at once; the next one waits for an answer
const ANSWER_LIMIT = 10000; // ms; a connection that is silent for so long is given up
export const WINDOW = 60000; // ms that are shown

/** The value that the share (0 to 1) of the sorted values does not exceed (nearest rank). */
export function percentile(sorted, share) {
    return sorted[Math.max(0, Math.ceil(share * sorted.length) - 1)];
}

/** "0.30 ms", "12.3 ms", "120 ms", "2.5 s": three figures tell enough. */
export function duration(ms) {
    if (ms >= 999.5) {
        return `${(ms / 1000).toFixed(ms < 9950 ? 1 : 0)} s`;
    }
    return `${ms.toFixed(ms < 9.995 ? 2 : ms < 99.95 ? 1 : 0)} ms`;
}

/**
 * Sends numbered messages while it runs and keeps the times of the last minute.
 *
 * `trips` holds {at, took}, `waiting` the times at which the messages still unanswered were sent,
 * `gaps` the times without a connection as {from, to}, `to` null for one that lasts; all on the
 * clock of performance.now, in ms. onchange() is called after each answer, and after a step that
 * waits for none or for an older one: drawing between a message and its answer would be measured.
 */
export class RoundTrips {
    trips = [];
    gaps = [];
    onchange = () => {};

    #link;
    #now;
    #number = 0;
    #waiting = new Map(); // number -> when it was sent
    #timer = null;

    constructor(link, now = () => performance.now()) {
        this.#link = link;
        this.#now = now;
        link.onmessage = (data) => this.#receive(data);
    }

    get waiting() {
        return [...this.#waiting.values()];
    }

    start() {
        this.#timer ??= window.setInterval(() => this.step(), INTERVAL);
        this.step();
    }

    /** What is on its way is forgotten: a page in the background is told of it late. */
    stop() {
        window.clearInterval(this.#timer);
        this.#timer = null;
        this.#waiting.clear();
    }

    connected() {
        this.#waiting.clear();
        const gap = this.gaps.at(-1);
        if (gap !== undefined) {
            gap.to ??= this.#now();
        }
    }

    connectionLost() {
        this.#waiting.clear();
        if (this.gaps.at(-1)?.to !== null) {
            this.gaps.push({ from: this.#now(), to: null });
        }
        this.onchange();
    }

    step() {
        const now = this.#now();
        this.trips = this.trips.filter((trip) => now - trip.at <= WINDOW);
        this.gaps = this.gaps.filter((gap) => gap.to === null || now - gap.to <= WINDOW);
        const [oldest] = this.#waiting.values();
        if (now - oldest > ANSWER_LIMIT) {
            this.#link.drop();
        } else if (this.#waiting.size < UNANSWERED_LIMIT && this.#link.backlog === 0) {
            this.#send();
        }
        if (this.#waiting.size !== 1) {
            this.onchange();
        }
    }

    /** {count, last, median, high}: the number of trips, and times in ms (high: 99th percentile). */
    figures() {
        const sorted = this.trips.map((trip) => trip.took).sort((a, b) => a - b);
        return {
            count: sorted.length,
            last: this.trips.at(-1)?.took,
            median: percentile(sorted, 0.5),
            high: percentile(sorted, 0.99),
        };
    }

    #send() {
        const at = this.#now();
        if (this.#link.send(String(this.#number + 1))) {
            this.#number += 1;
            this.#waiting.set(this.#number, at);
        }
    }

    #receive(data) {
        const at = this.#now();
        const number = Number(data);
        const sent = this.#waiting.get(number);
        if (sent === undefined) {
            return;
        }
        this.#waiting.delete(number);
        this.trips.push({ at, took: at - sent });
        this.onchange();
    }
}
