// The item list of the selected device: the filter bar, the list itself and the HAR export.
//
// The list is virtualised: it keeps a spacer as tall as all rows, and only the rows in view (and
// a few around them) exist as elements, reused as the view moves, so 100,000 items cost what 40
// do. Rows have one fixed height. When new items arrive above a list that is scrolled down, the
// rows in view stay where they are (the scroll position follows the row at the top of the view);
// at the top, the newest items come into view as they arrive. Rendering waits for the next
// animation frame, so a burst of items costs one layout.

import { clock, duration, el, fromTemplate } from "./format.js";
import { harLog } from "./export.js";

const ROW_HEIGHT = 26;
const OVERSCAN = 8;

const KIND_LABEL = { log: "LOG", networkRequest: "HTTP", customEvent: "EVENT" };

export class ItemsScreen {
    constructor(panel, state, loader, { onOpen }) {
        this.state = state;
        this.loader = loader;
        this.onOpen = onOpen;
        this.selectedKey = null;
        this.anchor = null;
        this.frame = 0;
        this.shown = new Map();  // item key → the row element showing it
        this.spare = [];  // row elements showing nothing, hidden

        panel.append(fromTemplate("items-screen"));
        this.form = panel.querySelector(".filters");
        this.search = this.form.elements.q;
        this.pauseButton = this.form.elements.pause;
        this.harButton = this.form.elements.har;
        this.clearButton = panel.querySelector('button[name="clear"]');
        this.countLabel = panel.querySelector('[data-ref="count"]');
        this.pendingLabel = panel.querySelector('[data-ref="pending"]');
        this.list = panel.querySelector(".list");
        this.sizer = panel.querySelector(".list-sizer");
        this.rowsBox = panel.querySelector(".list-rows");
        this.empty = panel.querySelector(".list-empty");
        this.detail = panel.querySelector(".detail");

        this.wireFilters();
        this.list.addEventListener("scroll", () => {
            this.anchor = this.topAnchor();
            this.schedule();
        });
        this.rowsBox.addEventListener("click", (e) => {
            const row = e.target.closest(".row");
            if (!row?.dataset.key) return;
            this.select(row.dataset.key);
            this.onOpen(row.dataset.key);
        });
        new ResizeObserver(() => this.schedule()).observe(this.list);
        for (const type of ["list", "row"]) state.addEventListener(type, (e) => {
            if (e.detail.reset) {
                this.anchor = null;
                this.list.scrollTop = 0;
            }
            this.schedule();
        });
    }

    wireFilters() {
        let timer = 0;
        this.form.addEventListener("submit", (e) => e.preventDefault());
        this.search.addEventListener("input", () => {
            clearTimeout(timer);
            timer = setTimeout(() => this.state.setFilters({ q: this.search.value.trim() }), 200);
        });
        this.form.addEventListener("change", (e) => {
            if (e.target === this.search) return;
            const kinds = [...this.form.querySelectorAll('[data-filter="kind"] input:checked')].map((i) => i.value);
            const one = (name) => (this.form.elements[name].value ? [this.form.elements[name].value] : []);
            this.state.setFilters({ kind: kinds, level: one("level"), method: one("method"), status: one("status") });
        });
        this.pauseButton.addEventListener("click", () => this.togglePause());
        this.harButton.addEventListener("click", () => this.exportHar());
        this.clearButton.addEventListener("click", () => this.deleteItems());
    }

    togglePause() {
        const paused = !this.state.paused;
        this.state.setPaused(paused);
        this.pauseButton.textContent = paused ? "Resume" : "Pause";
        this.pauseButton.setAttribute("aria-pressed", String(paused));
    }

    focusSearch() {
        this.search.focus();
        this.search.select();
    }

    schedule() {
        if (!this.frame) this.frame = requestAnimationFrame(() => {
            this.frame = 0;
            this.render();
        });
    }

    topAnchor() {
        const top = this.list.scrollTop;
        if (top <= 0) return null;
        const index = Math.floor(top / ROW_HEIGHT);
        const row = this.state.rowAt(index);
        return row ? { key: `${row.deviceId}\n${row.id}`, offset: top - index * ROW_HEIGHT } : null;
    }

    render() {
        const state = this.state;
        const n = state.count;
        this.sizer.style.height = `${n * ROW_HEIGHT}px`;
        this.list.setAttribute("aria-rowcount", String(n));
        if (this.anchor) {
            const index = state.indexOfKey(this.anchor.key);
            if (index >= 0) this.list.scrollTop = index * ROW_HEIGHT + this.anchor.offset;
        }
        const top = this.list.scrollTop;
        const height = this.list.clientHeight || 600;
        const first = Math.max(0, Math.floor(top / ROW_HEIGHT) - OVERSCAN);
        const last = Math.min(n, Math.ceil((top + height) / ROW_HEIGHT) + OVERSCAN);
        // An element keeps the item it shows while that item stays in view; only items that
        // came into view are written, the others just move.
        const wanted = new Map();
        for (let index = first; index < last; index++) {
            const row = state.rowAt(index);
            wanted.set(`${row.deviceId}\n${row.id}`, index);
        }
        const free = this.spare;
        for (const [key, element] of this.shown) {
            if (!wanted.has(key)) {
                free.push(element);
                this.shown.delete(key);
            }
        }
        for (const [key, index] of wanted) {
            let element = this.shown.get(key);
            if (!element) {
                element = free.pop();
                if (!element) {
                    element = fromTemplate("item-row");
                    this.rowsBox.append(element);
                }
                element.hidden = false;
                this.shown.set(key, element);
            }
            this.fill(element, state.rowAt(index), index, key);
        }
        for (const element of free) {
            if (element.hidden) continue;
            element.hidden = true;
            element._row = null;
            element.dataset.key = "";
        }
        this.updateLabels();
        if (last > n - 100 && state.nextCursor !== null) state.loadMore();
    }

    fill(element, row, index, key) {
        if (element._index !== index) {
            element._index = index;
            element.style.transform = `translateY(${index * ROW_HEIGHT}px)`;
            element.setAttribute("aria-rowindex", String(index + 1));
        }
        const selected = key === this.selectedKey;
        if (element._selected !== selected) {
            element._selected = selected;
            element.classList.toggle("selected", selected);
            element.setAttribute("aria-selected", String(selected));
        }
        if (element._row === row) return;
        element._row = row;
        element.dataset.key = key;
        const [time, kind, tag, text, extra] = element.children;
        time.textContent = clock(row.time);
        kind.textContent = KIND_LABEL[row.kind] ?? row.kind;
        kind.className = `c-kind kind-${row.kind}`;
        extra.textContent = "";
        tag.className = "c-tag";
        if (row.kind === "log") {
            tag.textContent = row.level ?? "";
            tag.classList.add(`level-${row.level}`);
            text.textContent = row.message ?? "";
            extra.textContent = row.category ?? "";
        } else if (row.kind === "networkRequest") {
            if (row.waiting) {
                tag.textContent = `${row.method ?? ""} …`;
                tag.classList.add("waiting");
            } else {
                tag.textContent = `${row.method ?? ""} ${row.status ?? ""}`;
                tag.classList.add(`status-${Math.floor((row.status ?? 0) / 100)}xx`);
            }
            text.textContent = row.url ?? "";
            extra.textContent = row.waiting ? "waiting" : duration(row.durationMs);
            if (row.mocked) extra.prepend(el("span", "badge mocked", "mocked"), " ");
        } else {
            tag.textContent = row.category ?? "";
            text.textContent = row.name ?? "";
        }
        text.title = text.textContent;
    }

    updateLabels() {
        const state = this.state;
        const n = state.count;
        let label = `${n.toLocaleString("en")} ${n === 1 ? "item" : "items"}`;
        if (state.nextCursor !== null) label += " loaded (scroll for older)";
        if (state.loading === "first") label = "Loading…";
        this.countLabel.textContent = label;
        const pending = state.pendingCount;
        this.pendingLabel.hidden = !state.paused;
        this.pendingLabel.textContent = pending
            ? `Paused: ${pending.toLocaleString("en")} new ${pending === 1 ? "item" : "items"} wait`
            : "Paused";
        this.empty.hidden = n > 0 || state.loading === "first";
        this.empty.textContent = state.listError
            ? `The items could not be loaded: ${state.listError}`
            : !state.deviceId ? "Choose a device."
            : "No items match. New ones appear here as they arrive.";
        this.empty.classList.toggle("error", Boolean(state.listError));
    }

    // ---- selection (keyboard and clicks) --------------------------------------------------

    select(key) {
        this.selectedKey = key;
        this.schedule();
    }

    move(delta) {
        const n = this.state.count;
        if (!n) return;
        let index = this.selectedKey ? this.state.indexOfKey(this.selectedKey) : -1;
        index = index < 0 ? 0 : Math.max(0, Math.min(n - 1, index + delta));
        const row = this.state.rowAt(index);
        this.select(`${row.deviceId}\n${row.id}`);
        // Keep the selected row in view.
        const top = index * ROW_HEIGHT;
        if (top < this.list.scrollTop) this.list.scrollTop = top;
        else if (top + ROW_HEIGHT > this.list.scrollTop + this.list.clientHeight) {
            this.list.scrollTop = top + ROW_HEIGHT - this.list.clientHeight;
        }
        this.anchor = this.topAnchor();
        // While a detail is open, it follows the selection.
        if (!this.detail.hidden) this.onOpen(this.selectedKey);
    }

    openSelected() {
        if (this.selectedKey && this.state.byKey.has(this.selectedKey)) this.onOpen(this.selectedKey);
    }

    // ---- actions --------------------------------------------------------------------------

    async exportHar() {
        const rows = this.state.rows.filter((r) => r.kind === "networkRequest").reverse();
        if (!rows.length) {
            this.state.notice("No exchanges in view to export.", "warn");
            return;
        }
        const button = this.harButton;
        button.disabled = true;
        try {
            const items = await this.loader.loadAll(rows, (done, all) => {
                button.textContent = `Exporting ${done}/${all}…`;
            });
            const present = items.filter(Boolean);
            const har = harLog(present, this.state.service?.version);
            const blob = new Blob([JSON.stringify(har, null, 2)], { type: "application/json" });
            const link = el("a");
            link.href = URL.createObjectURL(blob);
            const stamp = new Date().toISOString().replace(/[:.]/g, "-");
            link.download = `kestro-${this.state.deviceId}-${stamp}.har`;
            document.body.append(link);
            link.click();
            link.remove();
            setTimeout(() => URL.revokeObjectURL(link.href), 10_000);
            const missing = items.length - present.length;
            this.state.notice(`Exported ${present.length} ${present.length === 1 ? "exchange" : "exchanges"} as HAR`
                + (missing ? ` (${missing} could not be read)` : "") + ".");
        } finally {
            button.disabled = false;
            button.textContent = "Export HAR";
        }
    }

    async deleteItems() {
        const deviceId = this.state.deviceId;
        if (!deviceId) return;
        const device = this.state.devices.get(deviceId);
        if (!confirm(`Delete all ${device?.itemCount ?? ""} items of ${device?.name ?? deviceId} from the service?`)) return;
        try {
            const answer = await this.state.api.delete(`${this.state.api.devicePath(deviceId)}/items`);
            // The push channel says the same; whichever comes first removes the rows.
            this.state.onItemsDeleted({ deviceId, throughSeq: answer.throughSeq });
            this.state.notice(`Deleted ${answer.deleted} items.`);
        } catch (e) {
            this.state.notice(`The items could not be deleted: ${e.message}`, "error");
        }
    }
}
