// The push channel (/api/live): one WebSocket that the service writes messages to, one JSON
// object a line. This module keeps the channel open: when it closes it tries again after a
// growing pause (0.5 s doubling to 10 s, with some jitter so that many pages do not come back at
// the same instant), and when a connection fails before it opened it asks /api/health whether
// the token is wrong (401) or the service is away, because a browser does not tell a refused
// upgrade from an unreachable host.
//
// It hands each message to `onMessage` and each change of its state to `onState`:
//   {state: "connecting" | "open" | "waiting" | "unauthorized", retryInMs, attempts, reason}

const FIRST_DELAY_MS = 500;
const MAX_DELAY_MS = 10_000;

export class LiveChannel {
    constructor(token, { onMessage, onState, onBadLine }) {
        this.token = token;
        this.onMessage = onMessage;
        this.onState = onState;
        this.onBadLine = onBadLine;
        this.socket = null;
        this.attempts = 0;
        this.timer = null;
        this.stopped = false;
    }

    url() {
        const scheme = location.protocol === "https:" ? "wss:" : "ws:";
        return `${scheme}//${location.host}/api/live`;
    }

    start() {
        this.stopped = false;
        this.connect();
    }

    stop() {
        this.stopped = true;
        clearTimeout(this.timer);
        if (this.socket) this.socket.close(1000, "page closed");
    }

    connect() {
        clearTimeout(this.timer);
        this.onState({ state: "connecting", attempts: this.attempts });
        let opened = false;
        let socket;
        try {
            socket = new WebSocket(this.url(), ["kestro.v1", `kestro.token.${this.token}`]);
        } catch (e) {
            // A token with characters a subprotocol cannot carry is not a token of this service.
            this.onState({ state: "unauthorized", reason: "the token in the address is malformed" });
            return;
        }
        this.socket = socket;
        socket.onopen = () => {
            opened = true;
            this.attempts = 0;
            this.onState({ state: "open" });
        };
        socket.onmessage = (event) => {
            if (typeof event.data !== "string") {
                this.onBadLine("a binary frame");
                return;
            }
            for (const line of event.data.split("\n")) {
                if (!line) continue;
                let message;
                try {
                    message = JSON.parse(line);
                } catch (e) {
                    this.onBadLine(`a line that is not JSON: ${line.slice(0, 80)}`);
                    continue;
                }
                if (message === null || typeof message !== "object" || typeof message.type !== "string") {
                    this.onBadLine(`a message without a type: ${line.slice(0, 80)}`);
                    continue;
                }
                this.onMessage(message);
            }
        };
        socket.onclose = (event) => {
            if (this.socket !== socket) return;
            this.socket = null;
            if (this.stopped) return;
            this.retry(opened, event);
        };
        // Errors are followed by close, which does the work.
        socket.onerror = () => {};
    }

    async retry(opened, event) {
        if (!opened) {
            const verdict = await this.probe();
            if (this.stopped) return;
            if (verdict === 401) {
                this.onState({ state: "unauthorized", reason: "the service does not accept this page's token" });
                return;
            }
        }
        const delay = Math.min(MAX_DELAY_MS, FIRST_DELAY_MS * 2 ** this.attempts);
        const jittered = Math.round(delay * (0.8 + Math.random() * 0.4));
        this.attempts += 1;
        let reason = "the service cannot be reached";
        if (opened) {
            reason = event.code === 4000 ? "the page fell behind and was disconnected"
                : event.code === 1001 ? "the service stopped"
                : `the connection closed (${event.code})`;
        }
        this.onState({ state: "waiting", retryInMs: jittered, attempts: this.attempts, reason });
        this.timer = setTimeout(() => this.connect(), jittered);
    }

    // 401 when the token is refused, 0 when the service is away, else the health status.
    async probe() {
        try {
            const response = await fetch("/api/health", {
                headers: { Authorization: `Bearer ${this.token}` },
                cache: "no-store",
            });
            return response.status;
        } catch (e) {
            return 0;
        }
    }
}
