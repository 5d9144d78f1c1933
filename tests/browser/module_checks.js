// Checks of the demo page's modules one by one, with a clock, chance and sockets that are ours.
// Evaluated in the page itself; the value is the list of what went wrong.
(async () => {
    const { Link, socketUrl } = await import("/demo/link.js");
    const { decode, encode, roomName, roomPath, tidyName } = await import("/demo/message.js");
    const { RoundTrips, duration, percentile } = await import("/demo/trips.js");
    const { scale } = await import("/demo/plot.js");
    const { Chat } = await import("/demo/chat.js");

    const failures = [];
    let current = "";

    function equal(actual, expected, what) {
        if (JSON.stringify(actual) !== JSON.stringify(expected)) {
            failures.push(`${current}: ${what}: ${JSON.stringify(actual)} instead of ` +
                JSON.stringify(expected));
        }
    }

    // What a Link takes from the browser.
    class FakeBrowser {
        sockets = [];
        timers = new Map();
        chance = 1;
        #timer = 0;

        get surroundings() {
            return {
                connect: (url) => {
                    const socket = { url, sent: [], closed: false, bufferedAmount: 0 };
                    socket.send = (text) => socket.sent.push(text);
                    socket.close = () => {
                        socket.closed = true;
                    };
                    this.sockets.push(socket);
                    return socket;
                },
                setTimeout: (act, delay) => {
                    this.timers.set(++this.#timer, { act, delay });
                    return this.#timer;
                },
                clearTimeout: (timer) => this.timers.delete(timer),
                now: () => 1000,
                random: () => this.chance,
            };
        }

        get socket() {
            return this.sockets.at(-1);
        }

        get delay() {
            return [...this.timers.values()].map((timer) => timer.delay);
        }

        expire() {
            const [[number, timer]] = this.timers;
            this.timers.delete(number);
            timer.act();
        }
    }

    class FakeLink {
        sent = [];
        isOpen = true;
        backlog = 0;
        drops = 0;
        open(path) {
            this.path = path;
        }
        send(text) {
            if (this.isOpen) {
                this.sent.push(text);
            }
            return this.isOpen;
        }
        drop() {
            this.drops += 1;
        }
    }

    const checks = {
        link_waits_twice_as_long_each_time_up_to_a_limit() {
            const delays = (chance) => {
                const browser = new FakeBrowser();
                browser.chance = chance;
                const link = new Link(browser.surroundings);
                link.open("/x");
                const seen = [];
                for (let failure = 0; failure < 8; ++failure) {
                    browser.socket.onclose();
                    equal(link.state, "waiting", "state");
                    equal(link.retryAt, 1000 + browser.delay[0], "time of the next try");
                    seen.push(...browser.delay);
                    browser.expire();
                    equal(link.state, "connecting", "state");
                }
                return seen;
            };
            equal(delays(1), [500, 1000, 2000, 4000, 8000, 16000, 20000, 20000], "longest");
            equal(delays(0), [250, 500, 1000, 2000, 4000, 8000, 10000, 10000], "shortest");
        },

        link_forgets_failures_only_after_a_steady_connection() {
            const browser = new FakeBrowser();
            const link = new Link(browser.surroundings);
            link.open("/x");
            browser.socket.onclose();
            browser.expire();
            browser.socket.onopen();
            browser.socket.onclose();
            equal(browser.delay, [1000], "delay after a short connection");
            browser.expire();
            browser.socket.onopen();
            browser.expire(); // the time of a steady one has passed
            browser.socket.onclose();
            equal(browser.delay, [500], "delay after a steady connection");
        },

        link_ends_its_wait_when_told() {
            const browser = new FakeBrowser();
            const link = new Link(browser.surroundings);
            link.open("/x");
            link.retryNow();
            equal(browser.sockets.length, 1, "connections while one is being made");
            browser.socket.onclose();
            link.retryNow();
            equal(browser.sockets.length, 2, "connections");
            equal([link.state, browser.delay], ["connecting", [8000]], "state and timers");
        },

        link_gives_up_a_handshake_that_does_not_end() {
            const browser = new FakeBrowser();
            const link = new Link(browser.surroundings);
            link.open("/x");
            equal(browser.delay, [8000], "limit");
            browser.expire();
            equal([link.state, browser.socket.closed], ["waiting", true], "state, socket closed");
        },

        link_sends_only_while_open() {
            const browser = new FakeBrowser();
            const link = new Link(browser.surroundings);
            const received = [];
            link.onmessage = (data) => received.push(data);
            equal(link.send("a"), false, "closed");
            link.open("/x");
            equal(link.send("b"), false, "connecting");
            browser.socket.onopen();
            equal(link.send("c"), true, "open");
            browser.socket.onmessage({ data: "d" });
            equal([browser.socket.sent, received], [["c"], ["d"]], "sent, received");
            link.drop();
            equal([link.send("e"), link.state], [false, "waiting"], "dropped");
        },

        link_listens_no_more_to_a_socket_it_left() {
            const browser = new FakeBrowser();
            const link = new Link(browser.surroundings);
            link.open("/x");
            const [first] = browser.sockets;
            link.open("/y");
            equal([first.onopen, first.onmessage, first.onclose, first.closed],
                [null, null, null, true], "callbacks, closed");
            equal(browser.socket.url, socketUrl("/y"), "address");
            equal(browser.delay, [8000], "timers");
        },

        socket_address_has_the_page_s_own_host() {
            const scheme = location.protocol === "https:" ? "wss:" : "ws:";
            equal(socketUrl("/a/b%20c"), `${scheme}//${location.host}/a/b%20c`, "address");
        },

        messages_are_read_with_mistrust() {
            const table = [
                ["{", null],
                ["[1]", null],
                ["null", null],
                [new ArrayBuffer(2), null],
                ['{"name":"a"}', null],
                ['{"name":"a","text":7}', null],
                ['{"name":"a","text":"\\u0000 \\n"}', null],
                ['{"name":"a","text":"' + "b".repeat(9000) + '"}', null],
                ['{"name":"a","text":"b"}', { id: "", name: "a", text: "b" }],
                ['{"id":5,"name":"a","text":"b"}', { id: "", name: "a", text: "b" }],
                [`{"id":"${"i".repeat(33)}","name":"a","text":"b"}`,
                    { id: "", name: "a", text: "b" }],
                ['{"id":"i","name":" a\\n b ","text":" b\\nc "}',
                    { id: "i", name: "a b", text: "b\nc" }],
                ['{"name":"","text":"b"}', { id: "", name: "Nameless", text: "b" }],
                ['{"name":"a\\u202Eb","text":"\\u2066c"}', { id: "", name: "a b", text: "c" }],
                [`{"name":"${"🚀".repeat(40)}","text":"${"🚀".repeat(600)}"}`,
                    { id: "", name: "🚀".repeat(32), text: "🚀".repeat(500) }],
                ['{"__proto__":{"text":"x"},"name":"a"}', null],
            ];
            for (const [data, expected] of table) {
                equal(decode(data), expected, String(data).slice(0, 60));
            }
            const message = { id: "i", name: "a", text: "\"b\"\n<c>" };
            equal(decode(encode(message)), message, "there and back");
            equal(tidyName("  a \t b  "), "a b", "name");
        },

        room_names_fit_into_a_path() {
            for (const [text, expected] of [["Lobby", "lobby"], [" The  Kitchen! ", "the-kitchen"],
                ["../../etc", "etc"], ["/", ""], ["..", ""], ["%2e", "2e"], ["Küche", "küche"],
                ["Ku\u0308che", "küche"], ["台所", "台所"], ["a".repeat(40), "a".repeat(32)]]) {
                equal(roomName(text), expected, text);
                equal(roomName(expected), expected, "again");
            }
            equal(roomPath("küche"), "/chat/k%C3%BCche", "path");
        },

        percentile_is_the_nearest_rank() {
            const hundred = Array.from({ length: 100 }, (_, i) => i + 1);
            equal([percentile(hundred, 0.5), percentile(hundred, 0.99)], [50, 99], "of 100");
            equal([percentile([7], 0.5), percentile([7], 0.99)], [7, 7], "of one");
            equal([percentile([1, 2, 3], 0.5), percentile([1, 2, 3], 0.99)], [2, 3], "of three");
            equal(percentile([], 0.5), undefined, "of none");
        },

        durations_have_a_unit() {
            equal([0, 0.304, 9.99, 9.996, 12.34, 99.96, 998.4, 999.6, 2500, 12400].map(duration),
                ["0.00 ms", "0.30 ms", "9.99 ms", "10.0 ms", "12.3 ms", "100 ms", "998 ms", "1.0 s",
                    "2.5 s", "12 s"], "texts");
        },

        scale_covers_the_values_in_whole_decades() {
            const decades = (values) => {
                const { low, high } = scale(values);
                return [low, high].map((value) => Number(value.toPrecision(3)));
            };
            equal(decades([]), [1, 10], "nothing");
            equal(decades([0]), [0.1, 10], "a clock that did not move");
            equal(decades([0.3, 2]), [0.1, 10], "usual");
            equal(decades([3, 100]), [1, 100], "on the edge");
            equal(decades([0.5, 4000]), [0.1, 10000], "wide");
        },

        round_trips_do_not_pile_up() {
            const link = new FakeLink();
            let now = 0;
            const trips = new RoundTrips(link, () => now);
            for (now = 0; now < 10000; now += 200) {
                trips.step();
            }
            equal(link.sent, ["1", "2", "3", "4", "5"], "sent without an answer");
            equal([trips.waiting.length, link.drops], [5, 0], "waiting, drops");
            now = 10001;
            trips.step();
            equal(link.drops, 1, "drops after ten seconds of silence");
            trips.connectionLost();
            equal(trips.waiting.length, 0, "waiting without a connection");
            link.backlog = 1;
            trips.step();
            equal(link.sent.length, 5, "sent while the browser still holds some");
        },

        round_trips_are_drawn_while_none_is_measured() {
            const link = new FakeLink();
            const trips = new RoundTrips(link, () => 0);
            let changes = 0;
            trips.onchange = () => {
                changes += 1;
            };
            trips.step();
            equal(changes, 0, "after the message");
            link.onmessage("1");
            equal(changes, 1, "after the answer");
            trips.step();
            trips.step();
            equal(changes, 2, "when an answer is late");
            link.isOpen = false;
            trips.connectionLost();
            trips.step();
            equal(changes, 4, "without a connection");
        },

        round_trips_of_the_last_minute_count() {
            const link = new FakeLink();
            let now = 0;
            const trips = new RoundTrips(link, () => now);
            const trip = (took) => {
                trips.step();
                now += took;
                link.onmessage(link.sent.at(-1));
            };
            trip(50);
            link.onmessage("1"); // told twice
            link.onmessage("99");
            link.onmessage("x");
            equal(trips.figures(), { count: 1, last: 50, median: 50, high: 50 }, "one");
            now = 30000;
            trip(2);
            trip(4);
            equal(trips.figures(), { count: 3, last: 4, median: 4, high: 50 }, "three");
            now = 60051;
            trips.step();
            equal(trips.figures(), { count: 2, last: 4, median: 2, high: 4 }, "a minute later");
        },

        round_trips_remember_when_there_was_no_connection() {
            let now = 0;
            const trips = new RoundTrips(new FakeLink(), () => now);
            trips.connected();
            equal(trips.gaps, [], "at first");
            now = 10;
            trips.connectionLost();
            now = 20;
            trips.connectionLost();
            equal(trips.gaps, [{ from: 10, to: null }], "lost");
            now = 30;
            trips.connected();
            trips.connected();
            equal(trips.gaps, [{ from: 10, to: 30 }], "back");
            now = 60031;
            trips.step();
            equal(trips.gaps, [], "a minute later");
        },

        chat_sends_again_what_was_not_answered() {
            const link = new FakeLink();
            const parts = {};
            for (const part of ["log", "messages", "newer", "text"]) {
                parts[part] = document.createElement("div");
            }
            const chat = new Chat(link, parts);
            const shown = () => [...parts.messages.querySelectorAll(".message")].map(
                (item) => [item.querySelector(".text").textContent, item.className]);
            const clock = performance.now;
            try {
                let now = 0;
                performance.now = () => now;
                chat.join("one");
                equal(link.path, "/chat/one", "path");
                equal([chat.say("n", " "), link.sent.length], [false, 0], "an empty message");
                equal(chat.say("n", "first"), true, "a message");
                now = 7999;
                chat.check();
                equal(link.drops, 0, "drops in time");
                now = 8001;
                chat.check();
                equal(link.drops, 1, "drops when no answer came");
                link.isOpen = false;
                chat.say("n", "second");
                equal(shown(), [["first", "message own kept"], ["second", "message own kept"]],
                    "kept");
                link.isOpen = true;
                link.sent = [];
                link.onopen();
                equal(link.sent.map((data) => decode(data).text), ["first", "second"], "again");
                for (const data of [...link.sent, ...link.sent]) {
                    link.onmessage(data);
                }
                equal(shown(), [["first", "message own"], ["second", "message own"]], "delivered");
                chat.check();
                now = 20000;
                chat.check();
                equal(link.drops, 1, "drops after all was answered");
            } finally {
                performance.now = clock;
            }
        },

        chat_keeps_messages_for_the_room_they_were_written_in() {
            const link = new FakeLink();
            const parts = {};
            for (const part of ["log", "messages", "newer", "text"]) {
                parts[part] = document.createElement("div");
            }
            const chat = new Chat(link, parts);
            link.isOpen = false;
            chat.join("one");
            chat.say("n", "for one");
            chat.join("two");
            equal(parts.messages.childElementCount, 0, "shown in the other room");
            link.isOpen = true;
            link.onopen();
            equal(link.sent, [], "sent to the other room");
            chat.join("one");
            link.onopen();
            equal(link.sent.map((data) => decode(data).text), ["for one"], "sent to its room");
            link.isOpen = false;
            for (let number = 1; number < 50; ++number) {
                equal(chat.say("n", `kept ${number}`), true, "one more");
            }
            equal(chat.say("n", "too many"), false, "the last one");
        },

        chat_shows_a_bounded_number_of_messages() {
            const link = new FakeLink();
            const parts = {};
            for (const part of ["log", "messages", "newer", "text"]) {
                parts[part] = document.createElement("div");
            }
            const chat = new Chat(link, parts);
            chat.join("one");
            for (let number = 0; number < 1000; ++number) {
                link.onmessage(encode({ id: `i${number}`, name: "n", text: String(number) }));
            }
            equal(parts.messages.childElementCount, 200, "shown");
            equal(parts.messages.lastElementChild.querySelector(".text").textContent, "999", "last");
        },
    };

    for (const [name, check] of Object.entries(checks)) {
        current = name;
        try {
            check();
        } catch (error) {
            failures.push(`${name}: ${error.stack}`);
        }
    }
    return { failures, count: Object.keys(checks).length };
})()
