// The details of one item, beside the list: a log's message and origin, an exchange's two
// halves with their headers and bodies, an event's payload. Items are read through the item
// worker with their texts cut at 1 MiB characters; a longer body shows its start and a button
// for more, and is never laid out whole unless asked for.

import { base64ToBytes, bodyEncoding, looksLikeJSON } from "./body.js";
import { curlCommand } from "./export.js";
import { JsonTree } from "./json_tree.js";
import { dateTime, duration, el, fromTemplate, size } from "./format.js";
import { truncatedText, waterfall } from "./timings.js";

// Texts are read up to 1 Mi characters (so that a JSON body up to that size becomes a tree) and
// shown from their first 64 Ki characters: laying out a megabyte of wrapped text takes the page's
// thread for about a second on a busy machine.
const FIRST_LIMIT = 1 << 20;
const TEXT_FIRST = 1 << 16;

export class DetailScreen {
    constructor(article, state, loader, { onClose, onMock }) {
        this.article = article;
        this.state = state;
        this.loader = loader;
        this.onClose = onClose;
        this.onMock = onMock;
        this.key = null;
        this.serial = 0;
        this.imageURLs = [];
        state.addEventListener("row", (e) => {
            if (e.detail.key === this.key) this.show(this.key, { refresh: true });
        });
    }

    get open() { return !this.article.hidden; }

    close() {
        this.key = null;
        this.serial += 1;
        this.article.hidden = true;
        this.release();
        this.article.replaceChildren();
        this.onClose();
    }

    release() {
        for (const url of this.imageURLs) URL.revokeObjectURL(url);
        this.imageURLs = [];
    }

    async show(key, { refresh = false } = {}) {
        const row = this.state.byKey.get(key);
        if (!row) return;
        const serial = ++this.serial;
        const scroll = refresh ? this.article.scrollTop : 0;
        this.key = key;
        this.article.hidden = false;
        if (!refresh) this.frame(row, "Loading…");
        let item;
        try {
            item = await this.loader.load(row.deviceId, row.id, { limit: FIRST_LIMIT, revision: row.revision, keep: true });
        } catch (e) {
            if (serial !== this.serial) return;
            this.frame(row, e.status === 404 ? "This item is no longer kept by the service." : `The item could not be read: ${e.message}`, true);
            return;
        }
        if (serial !== this.serial) return;
        this.release();
        const body = this.frame(row);
        if (row.kind === "log") this.renderLog(body, item);
        else if (row.kind === "networkRequest") this.renderExchange(body, item, row);
        else this.renderEvent(body, item);
        this.article.scrollTop = scroll;
    }

    frame(row, message, isError = false) {
        const frame = fromTemplate("detail-frame");
        frame.querySelector(".detail-title").textContent = title(row);
        frame.querySelector(".close").addEventListener("click", () => this.close());
        this.actions = frame.querySelector(".detail-actions");
        const body = frame.querySelector(".detail-body");
        if (message) body.append(el("p", isError ? "empty error" : "empty", message));
        this.article.replaceChildren(frame);
        return body;
    }

    section(parent, heading, pairs = []) {
        const section = fromTemplate("detail-section");
        section.querySelector("h4").textContent = heading;
        const list = section.querySelector(".pairs");
        for (const [name, value, className] of pairs) {
            if (value === undefined || value === null || value === "") continue;
            const row = el("div");
            const dd = el("dd", className, String(value));
            row.append(el("dt", "", name), dd);
            list.append(row);
        }
        parent.append(section);
        return section.querySelector(".section-more");
    }

    headers(parent, headers) {
        const names = Object.keys(headers ?? {}).sort();
        if (!names.length) return;
        const table = el("table", "headers");
        const caption = el("caption", "", `Headers (${names.length})`);
        table.append(caption);
        for (const name of names) {
            const tr = el("tr");
            tr.append(el("th", "", name), el("td", "", String(headers[name])));
            table.append(tr);
        }
        parent.append(table);
    }

    renderLog(body, item) {
        const r = item.record ?? {};
        const d = r.details ?? {};
        const source = d.file ? `${d.file}:${d.line ?? "?"}` : "";
        this.section(body, "Log", [
            ["Message", d.message, "message"],
            ["Level", r.level, `level-${r.level}`],
            ["Source", source],
            ["Path", d.filePath],
            ["Subsystem", d.subsystem],
            ["Category", d.category],
            ["Time", dateTime(r.createdAt)],
        ]);
        this.rawRecord(body, item);
    }

    renderEvent(body, item) {
        const r = item.record ?? {};
        const d = r.details ?? {};
        const more = this.section(body, "Event", [
            ["Name", d.name],
            ["Category", d.category],
            ["Time", dateTime(r.createdAt)],
        ]);
        const heading = el("h5", "", "Payload");
        more.append(heading);
        if (item._cut?.payload) {
            this.cutText(more, item._cut.payload.text, item._cut.payload, async (limit) => {
                const full = await this.reload(item, limit);
                return JSON.stringify(full.record.details.payload);
            });
        } else if (d.payload && typeof d.payload === "object" && Object.keys(d.payload).length === 0) {
            more.append(el("p", "empty", "Empty payload {}"));
        } else {
            more.append(new JsonTree(d.payload ?? null).el);
        }
        this.rawRecord(body, item);
    }

    renderExchange(body, item, row) {
        const details = item.record?.details ?? {};
        const request = details.request ?? null;
        const response = details.response ?? null;
        const waiting = !response;

        this.actionButton("Mock this", () => this.onMock(item), "mock-this");
        this.actionButton("Copy as cURL", () => this.copyCurl(item), "copy-curl");

        this.section(body, "Exchange", [
            ["Method", request?.method],
            ["URL", request?.url, "url"],
            ["Status", waiting ? "Waiting for the response…" : response.statusCode,
                waiting ? "waiting" : `status-${Math.floor(response.statusCode / 100)}xx`],
            ["Duration", waiting ? "" : duration(row.durationMs)],
            ["Started", dateTime(request?.startedAt)],
            ["Received", dateTime(response?.receivedAt)],
            ["Answered by", row.mocked ? "a mock rule" : ""],
        ]);

        const curl = el("details", "curl");
        curl.append(el("summary", "", "cURL"), el("pre", "", curlCommand(item.record)));
        body.append(curl);

        if (request) {
            const more = this.section(body, "Request");
            this.headers(more, request.headers);
            this.body(more, request, false, item);
        }
        if (waiting) {
            const more = this.section(body, "Response");
            more.append(el("p", "waiting-note", "Waiting for the response… It appears here when it arrives."));
        } else {
            const more = this.section(body, "Response");
            this.timings(more, response.timings);
            this.headers(more, response.headers);
            this.body(more, response, true, item);
        }
        this.rawRecord(body, item);
    }

    // The phases on one axis: a row per phase with its bar placed by its offset and share of the
    // whole, and the total under them.
    timings(parent, timings) {
        const phases = waterfall(timings);
        const box = el("div", "timings");
        box.append(el("h5", "", "Timings"));
        if (!phases) {
            box.append(el("p", "no-timings", "no timings"));
            parent.append(box);
            return;
        }
        const rows = el("div", "waterfall");
        for (const segment of phases.segments) {
            const row = el("div", "phase");
            row.dataset.phase = segment.key;
            const track = el("span", "track");
            if (segment.duration > 0 && phases.total > 0) {
                const bar = el("span", `bar bar-${segment.key}`);
                bar.style.left = `${(100 * segment.offset) / phases.total}%`;
                bar.style.width = `${(100 * segment.duration) / phases.total}%`;
                track.append(bar);
            }
            row.append(el("span", "phase-label", segment.label), track, el("span", "phase-ms", `${segment.duration.toFixed(2)} ms`));
            rows.append(row);
        }
        box.append(rows, el("p", "phase-total", `Total ${phases.total.toFixed(2)} ms`));
        parent.append(box);
    }

    actionButton(label, action, name) {
        const button = el("button", "", label);
        button.type = "button";
        button.name = name;
        button.addEventListener("click", action);
        this.actions.append(button);
    }

    async reload(item, limit) {
        return this.loader.load(item.deviceId, item.id, { limit, revision: item.revision, keep: true });
    }

    body(parent, half, isResponse, item) {
        const text = typeof half.body === "string" ? half.body : "";
        const which = isResponse ? "response" : "request";
        const cut = item._cut?.[which] ?? { length: text.length, size: text.length, shown: text.length };
        const { encoding, contentType } = bodyEncoding(half, isResponse);
        // Cut where it was captured: said before the body, or where it would be when nothing of
        // it was kept.
        const truncated = truncatedText(half);
        if (truncated) parent.append(el("p", "truncated", truncated));
        if (!cut.length) {
            parent.append(el("p", "no-body", "No body"));
            return;
        }
        const view = fromTemplate("body-view");
        const kind = view.querySelector(".body-kind");
        const content = view.querySelector(".body-content");
        view.querySelector(".body-size").textContent = size(cut.size);
        parent.append(view);
        const whole = cut.shown >= cut.length;
        const more = async (limit) => {
            const full = await this.reload(item, limit);
            return full.record.details[which].body;
        };
        if (encoding === "base64") {
            const isImage = contentType.toLowerCase().includes("image");
            kind.textContent = `${contentType || "binary"}${isImage ? " image" : ""} (base64)`;
            if (isImage && whole) {
                this.image(content, text, contentType);
            } else if (isImage) {
                const button = el("button", "", `Show the image (${size(cut.size)})`);
                button.type = "button";
                button.addEventListener("click", async () => {
                    button.disabled = true;
                    this.image(content, await more(0), contentType);
                    button.remove();
                });
                content.append(button);
            }
            this.cutText(content, text, cut, more, "base64");
            return;
        }
        kind.textContent = contentType || "text";
        if (whole && looksLikeJSON(text, contentType)) {
            try {
                const value = JSON.parse(text);
                if (value !== null && typeof value === "object") {
                    kind.textContent = `${contentType || "JSON"}`;
                    content.append(new JsonTree(value).el);
                    return;
                }
            } catch {
                // Not JSON after all: shown as text below.
            }
        }
        if (contentType.toLowerCase().includes("image/svg") && whole) this.image(content, text, contentType, false);
        this.cutText(content, text, cut, more);
    }

    image(parent, text, contentType, base64 = true) {
        let blob;
        try {
            blob = new Blob([base64 ? base64ToBytes(text) : text], { type: contentType.split(";")[0] });
        } catch {
            parent.append(el("p", "empty", "The body is not valid base64."));
            return;
        }
        const url = URL.createObjectURL(blob);
        this.imageURLs.push(url);
        const img = el("img", "preview");
        img.alt = "Body shown as an image";
        img.src = url;
        img.addEventListener("error", () => img.replaceWith(el("p", "empty", "The body is not an image this browser can show.")));
        parent.prepend(img);
    }

    // A long text shown from its start, with a button that shows four times as much each time;
    // what was not read yet is asked of the item worker.
    cutText(parent, text, cut, more, className = "") {
        let shown = Math.min(text.length, TEXT_FIRST);
        const pre = el("pre", `text ${className}`, text.slice(0, shown));
        parent.append(pre);
        if (shown >= cut.length) return;
        const note = el("p", "cut-note");
        const label = el("span");
        const button = el("button", "", "Show more");
        button.type = "button";
        let have = text;
        const update = () => {
            label.textContent = `Showing the first ${shown.toLocaleString("en")} of ${cut.length.toLocaleString("en")} characters. `;
            if (shown >= cut.length) button.remove();
        };
        button.addEventListener("click", async () => {
            button.disabled = true;
            const limit = Math.min(cut.length, shown * 4);
            if (limit > have.length) have = await more(limit);
            shown = Math.min(limit, have.length);
            pre.textContent = have.slice(0, shown);
            button.disabled = false;
            update();
        });
        note.append(label, button);
        update();
        parent.append(note);
    }

    rawRecord(parent, item) {
        const raw = el("details", "raw");
        raw.append(el("summary", "", "Record as JSON"));
        raw.addEventListener("toggle", () => {
            if (raw.open && raw.childElementCount === 1) raw.append(new JsonTree(item.record ?? null).el);
        });
        parent.append(raw);
    }

    async copyCurl(item) {
        let record = item.record;
        if (item._cut?.request && item._cut.request.shown < item._cut.request.length) {
            record = (await this.reload(item, 0)).record;
        }
        const text = curlCommand(record);
        try {
            await navigator.clipboard.writeText(text);
            this.state.notice("Copied the request as a cURL command.");
        } catch {
            this.state.notice("The clipboard is not available here; the command is under “cURL” in the details.", "warn");
            this.article.querySelector("details.curl")?.setAttribute("open", "");
        }
    }
}

function title(row) {
    if (row.kind === "log") return `Log · ${row.level ?? ""}`;
    if (row.kind === "customEvent") return `Event · ${row.name ?? ""}`;
    const status = row.waiting ? "waiting" : row.status;
    return `${row.method ?? ""} ${status ?? ""} · ${shortURL(row.url)}`;
}

// The path and query as captured: a URL parser would percent-encode what a redacted query item
// holds ("<redacted>" would read "%3Credacted%3E").
function shortURL(url) {
    const text = url ?? "";
    const origin = /^[a-z][a-z0-9+.-]*:\/\/[^/?#]*/i.exec(text);
    return origin ? text.slice(origin[0].length) || "/" : text;
}

