// Draws round trips over the last minute, on a logarithmic scale.

import { WINDOW, duration } from "./trips.js";

const FONT_SIZE = 12; // px
const LEAST = 0.1; // ms: about the resolution of the browser's clock
const NARROW = 380; // px: room for half of the times only
const SHOWN_AS_WAITING = 500; // ms

// Whole decades around the values, two at least, so that the scale seldom changes.
export function scale(values) {
    const low = Math.max(LEAST, Math.min(...values, 1));
    const high = Math.max(...values, 10);
    return {
        low: 10 ** Math.floor(Math.log10(low) + 1e-9),
        high: 10 ** Math.ceil(Math.log10(high) - 1e-9),
    };
}

function tick(ms) {
    return ms >= 1000 ? `${ms / 1000} s` : `${Number(ms.toPrecision(1))} ms`;
}

export class Plot {
    #canvas;
    #context;
    #width = 0; // CSS px
    #height = 0;
    #requested = false;
    #content = null;

    constructor(canvas) {
        this.#canvas = canvas;
        this.#context = canvas.getContext("2d");
        new ResizeObserver(() => this.#request()).observe(canvas);
        matchMedia("(prefers-color-scheme: dark)").addEventListener("change",
            () => this.#request());
    }

    /** Shows trips, waiting and gaps of a RoundTrips with its figures, as of now. */
    show(content) {
        this.#content = content;
        this.#request();
    }

    // Many changes, one picture; none while the page cannot be seen.
    #request() {
        if (!this.#requested) {
            this.#requested = true;
            requestAnimationFrame(() => {
                this.#requested = false;
                this.#draw();
            });
        }
    }

    // The ratio changes when a window is moved to another screen or zoomed, hence for each picture.
    #fit() {
        const ratio = window.devicePixelRatio || 1;
        this.#width = this.#canvas.clientWidth;
        this.#height = this.#canvas.clientHeight;
        const width = Math.round(this.#width * ratio);
        const height = Math.round(this.#height * ratio);
        if (this.#canvas.width !== width || this.#canvas.height !== height) {
            this.#canvas.width = width;
            this.#canvas.height = height;
        }
        this.#context.setTransform(ratio, 0, 0, ratio, 0, 0);
    }

    #draw() {
        if (this.#content === null) {
            return;
        }
        this.#fit();
        const { trips, waiting, gaps, figures, now } = this.#content;
        const late = waiting.map((at) => ({ at: now, took: now - at }))
            .filter((one) => one.took > SHOWN_AS_WAITING);
        const context = this.#context;
        const style = getComputedStyle(this.#canvas);
        const colour = (name) => style.getPropertyValue(name).trim();
        context.clearRect(0, 0, this.#width, this.#height);
        context.font = `${FONT_SIZE}px ${style.fontFamily}`;
        const area = this.#area(scale([...trips, ...late].map((trip) => trip.took)), now);

        this.#drawGaps(area, gaps, colour);
        this.#drawScale(area, colour);
        this.#drawTimes(area, colour);
        this.#drawTrips(area, trips, colour("--soft"));
        this.#drawTrips(area, late, colour("--alarm"));
        if (figures.count > 0) {
            const from = Math.max(area.left, area.x(trips[0].at));
            this.#drawLevel(area, from, figures.high, colour("--alarm"), [6, 4]);
            this.#drawLevel(area, from, figures.median, colour("--accent"), []);
        }
    }

    #area({ low, high }, now) {
        const left = Math.ceil(this.#context.measureText("100 ms").width) + 8;
        const right = this.#width - 6;
        const top = FONT_SIZE / 2 + 2;
        const bottom = this.#height - 2 * FONT_SIZE;
        const perDecade = (bottom - top) / Math.log10(high / low);
        return {
            left, right, top, bottom, low, high, perDecade,
            x: (at) => right - ((now - at) / WINDOW) * (right - left),
            y: (ms) => bottom - perDecade * Math.log10(Math.max(ms, low) / low),
        };
    }

    #line(x1, y1, x2, y2) {
        this.#context.beginPath();
        this.#context.moveTo(x1, y1);
        this.#context.lineTo(x2, y2);
        this.#context.stroke();
    }

    #drawScale(area, colour) {
        const context = this.#context;
        const steps = area.perDecade > 7 * FONT_SIZE ? [1, 2, 5] : [1];
        context.lineWidth = 1;
        context.strokeStyle = colour("--line");
        context.fillStyle = colour("--soft");
        context.textAlign = "right";
        context.textBaseline = "middle";
        for (let decade = area.low; decade < area.high * 1.01; decade *= 10) {
            for (const ms of steps.map((step) => step * decade)) {
                if (ms < area.high * 1.01) {
                    const y = Math.round(area.y(ms)) + 0.5;
                    this.#line(area.left, y, area.right, y);
                    context.fillText(tick(ms), area.left - 8, y);
                }
            }
        }
    }

    #drawTimes(area, colour) {
        const context = this.#context;
        const step = this.#width < NARROW ? 20 : 10;
        context.fillStyle = colour("--soft");
        context.textBaseline = "bottom";
        for (let seconds = 0; seconds <= WINDOW / 1000; seconds += step) {
            const x = area.right - (seconds * 1000 / WINDOW) * (area.right - area.left);
            this.#line(Math.round(x) - 0.5, area.bottom, Math.round(x) - 0.5, area.bottom + 4);
            context.textAlign = seconds === 0 ? "right" : "center";
            context.fillText(seconds === 0 ? "now" : `−${seconds} s`,
                seconds === 0 ? area.right + 4 : x, this.#height);
        }
    }

    #drawGaps(area, gaps, colour) {
        const context = this.#context;
        for (const gap of gaps) {
            const from = Math.max(area.left, area.x(gap.from));
            const to = gap.to === null ? area.right : area.x(gap.to);
            if (to <= area.left) {
                continue;
            }
            context.fillStyle = colour("--alarm-paper");
            context.fillRect(from, area.top, to - from, area.bottom - area.top);
            context.fillStyle = colour("--alarm");
            context.textAlign = "center";
            context.textBaseline = "top";
            const text = "no connection";
            if (to - from > context.measureText(text).width + 8) {
                context.fillText(text, (from + to) / 2, area.top + 6);
            }
        }
    }

    #drawTrips(area, trips, colour) {
        const context = this.#context;
        context.fillStyle = colour;
        for (const trip of trips) {
            const x = area.x(trip.at);
            if (x >= area.left) {
                context.beginPath();
                context.arc(x, area.y(trip.took), 2, 0, 2 * Math.PI);
                context.fill();
            }
        }
    }

    #drawLevel(area, from, ms, colour, dashes) {
        const context = this.#context;
        context.save();
        context.strokeStyle = colour;
        context.lineWidth = 2;
        context.setLineDash(dashes);
        this.#line(from, area.y(ms), area.right, area.y(ms));
        context.restore();
    }
}

/** The picture in words, for those who cannot see it. */
export function inWords({ count, median, high }) {
    return count === 0 ? "Round trips of the last minute: none yet" :
        `Round trips of the last minute: ${count}, median ${duration(median)}, ` +
        `99th percentile ${duration(high)}`;
}
