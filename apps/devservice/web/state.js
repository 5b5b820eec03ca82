// The page's state, and the one place that changes it. The push channel feeds it messages; the
// screens read it and ask it to act, and hear of changes through events:
//
//   "connection"  the push channel's state changed
//   "devices"     a device was added, changed, came online or went offline
//   "list"        the item list of the selected device changed (detail.reset: loaded anew)
//   "row"         one listed item changed in place (detail.key)
//   "item"        any item arrived or changed, listed or not (detail.row)
//   "steering"    a device's mock rules or breakpoint switch changed (detail.deviceId)
//   "command"     a command was queued, delivered or failed (detail.command)
//   "notice"      something the person should read (detail.text, detail.level, detail.key)
//
// The list holds the selected device's items that pass the filters, as far as they have been
// loaded, in ascending `seq` order, so that the newest item (the common case, at up to thousands a
// second) is appended rather than inserted; screens read it newest first through rowAt().

import { ApiError } from "./api.js";

const PENDING_LIMIT = 50_000;
const COMMAND_LIMIT = 1_000;

export function itemKey(row) {
    return `${row.deviceId}\n${row.id}`;
}

function asciiLower(text) {
    return text.replace(/[A-Z]/g, (c) => String.fromCharCode(c.charCodeAt(0) + 32));
}

// The service's filter rules, for items that arrive on the push channel.
export function passes(row, filters) {
    if (filters.kind.length && !filters.kind.includes(row.kind)) return false;
    if (filters.level.length && !filters.level.includes(row.level)) return false;
    if (filters.method.length && !filters.method.includes(row.method)) return false;
    if (filters.status.length) {
        const ok = filters.status.some((s) => s === "waiting"
            ? row.waiting === true
            : row.status != null && `${Math.floor(row.status / 100)}xx` === s);
        if (!ok) return false;
    }
    if (filters.q) {
        const q = asciiLower(filters.q);
        const fields = [row.url, row.message, row.name, row.category];
        if (!fields.some((f) => typeof f === "string" && asciiLower(f).includes(q))) return false;
    }
    return true;
}

export const NO_FILTERS = Object.freeze({ kind: [], level: [], method: [], status: [], q: "" });

export class DashboardState extends EventTarget {
    constructor(api) {
        super();
        this.api = api;
        this.connection = { state: "connecting" };
        this.service = null;
        this.devices = new Map();
        this.deviceId = null;
        this.filters = { ...NO_FILTERS };
        this.paused = false;
        this.pending = new Map();
        this.pendingOverflow = false;
        this.revision = 0;
        this.snapshots = 0;
        this.commands = new Map();
        this.ignored = 0;
        this.resetList();
    }

    emit(type, detail = {}) {
        this.dispatchEvent(new CustomEvent(type, { detail }));
    }

    // `key` names a notice that a later one replaces rather than joins.
    notice(text, level = "info", key = null) {
        this.emit("notice", { text, level, key });
    }

    // ---- the list -------------------------------------------------------------------------

    resetList() {
        this.rows = [];
        this.byKey = new Map();
        // Revisions pushed while a page was being read: a page can be older than a push that
        // overtook it, also for a row the push removed (it no longer passes the filters).
        this.pushedDuringLoad = new Map();
        this.nextCursor = null;
        this.loading = null;
        this.listError = null;
        this.generation = (this.generation ?? 0) + 1;
    }

    get count() { return this.rows.length; }

    // The row at a position counted from the newest.
    rowAt(index) { return this.rows[this.rows.length - 1 - index]; }

    indexOfKey(key) {
        const row = this.byKey.get(key);
        if (!row) return -1;
        const at = this.position(row.seq);
        return at < this.rows.length && this.rows[at].seq === row.seq ? this.rows.length - 1 - at : -1;
    }

    // Where a seq is, or would go, in the ascending array.
    position(seq) {
        let lo = 0;
        let hi = this.rows.length;
        while (lo < hi) {
            const mid = (lo + hi) >> 1;
            if (this.rows[mid].seq < seq) lo = mid + 1; else hi = mid;
        }
        return lo;
    }

    // Adds or replaces one row; removes it when it no longer passes the filters. Answers what
    // happened: "added", "changed", "removed" or null. A row older than what is loaded is left
    // for paging to bring, unless it comes with a page (`paged`).
    upsert(row, paged = false) {
        const key = itemKey(row);
        const held = this.byKey.get(key);
        if (held && held.revision > row.revision) return null;
        const pass = passes(row, this.filters);
        if (held) {
            const at = this.position(held.seq);
            if (!pass) {
                this.rows.splice(at, 1);
                this.byKey.delete(key);
                return "removed";
            }
            this.rows[at] = row;
            this.byKey.set(key, row);
            return "changed";
        }
        if (!pass) return null;
        // Below what is loaded: paging brings it when the person scrolls that far.
        if (!paged && this.nextCursor !== null && this.rows.length && row.seq < this.rows[0].seq) return null;
        const device = this.devices.get(row.deviceId);
        if (device && row.seq <= (device.itemsDeletedThroughSeq ?? 0)) return null;
        if (!this.rows.length || row.seq > this.rows[this.rows.length - 1].seq) {
            this.rows.push(row);
        } else {
            this.rows.splice(this.position(row.seq), 0, row);
        }
        this.byKey.set(key, row);
        return "added";
    }

    mergePage(items, paged) {
        let changed = 0;
        for (const row of items) {
            if ((this.pushedDuringLoad.get(itemKey(row)) ?? -1) > row.revision) continue;
            if (this.upsert(row, paged)) changed += 1;
        }
        this.pushedDuringLoad.clear();
        return changed;
    }

    async loadList() {
        const deviceId = this.deviceId;
        if (!deviceId) return;
        const generation = this.generation;
        this.listError = null;
        this.loading = "first";
        this.emit("list", { reset: true });
        try {
            const page = await this.api.items(deviceId, this.filters);
            if (generation !== this.generation) return;
            this.nextCursor = page.nextCursor ?? null;
            this.noteRevision(page.revision);
            this.mergePage(page.items, true);
        } catch (e) {
            if (generation !== this.generation) return;
            this.listError = e.message;
        }
        this.loading = null;
        this.emit("list", { reset: true });
    }

    async loadMore() {
        if (this.loading || this.nextCursor === null || !this.deviceId) return;
        const generation = this.generation;
        this.loading = "more";
        try {
            const page = await this.api.items(this.deviceId, this.filters, { before: this.nextCursor });
            if (generation !== this.generation) return;
            this.nextCursor = page.nextCursor ?? null;
            this.mergePage(page.items, true);
        } catch (e) {
            if (generation !== this.generation) return;
            this.notice(`More items could not be loaded: ${e.message}`, "error");
        } finally {
            if (generation === this.generation) this.loading = null;
        }
        this.emit("list", {});
    }

    // After a reconnect or a "behind" snapshot: what changed since the last revision applied.
    async catchUp() {
        const deviceId = this.deviceId;
        if (!deviceId || this.loading === "first") return;
        const generation = this.generation;
        try {
            const page = await this.api.items(deviceId, this.filters, { since: this.revision });
            if (generation !== this.generation) return;
            if (page.nextCursor !== null && page.nextCursor !== undefined) {
                // More changed than one page holds: start again.
                this.resetList();
                return this.loadList();
            }
            this.noteRevision(page.revision);
            this.dropDeleted(deviceId);
            if (this.paused) {
                for (const row of page.items) this.hold(row);
            } else {
                this.mergePage(page.items, false);
            }
            this.emit("list", {});
        } catch (e) {
            this.notice(`The list could not be brought up to date: ${e.message}`, "error");
        }
    }

    noteRevision(revision) {
        if (typeof revision === "number" && revision > this.revision) this.revision = revision;
    }

    dropDeleted(deviceId) {
        const through = this.devices.get(deviceId)?.itemsDeletedThroughSeq ?? 0;
        if (!through || !this.rows.length || this.rows[0].seq > through) return false;
        const keep = this.position(through + 1);
        for (const row of this.rows.slice(0, keep)) this.byKey.delete(itemKey(row));
        this.rows.splice(0, keep);
        for (const [key, row] of this.pending) if (row.seq <= through) this.pending.delete(key);
        return true;
    }

    // ---- what the person asks for ---------------------------------------------------------

    selectDevice(deviceId) {
        if (deviceId === this.deviceId) return;
        this.deviceId = deviceId;
        this.pending.clear();
        this.pendingOverflow = false;
        this.resetList();
        this.emit("devices", {});
        this.loadList();
    }

    setFilters(filters) {
        this.filters = { ...this.filters, ...filters };
        this.pending.clear();
        this.pendingOverflow = false;
        this.resetList();
        this.loadList();
    }

    setPaused(paused) {
        if (paused === this.paused) return;
        this.paused = paused;
        if (!paused) {
            if (this.pendingOverflow) {
                this.pending.clear();
                this.pendingOverflow = false;
                this.resetList();
                this.loadList();
                return;
            }
            for (const row of this.pending.values()) this.upsert(row);
            this.pending.clear();
        }
        this.emit("list", {});
    }

    hold(row) {
        if (this.pendingOverflow) return;
        this.pending.set(itemKey(row), row);
        if (this.pending.size > PENDING_LIMIT) {
            // Past this many, resuming reloads the list rather than merging them.
            this.pending.clear();
            this.pendingOverflow = true;
        }
    }

    get pendingCount() { return this.pendingOverflow ? PENDING_LIMIT : this.pending.size; }

    // Sends a command and follows it; answers the Command, or throws with the refusal (which
    // carries the failed Command when the service made one).
    async sendCommand(deviceId, action, payload = null) {
        try {
            const answer = await this.api.command(deviceId, action, payload);
            this.applyCommand(answer.command);
            return answer.command;
        } catch (e) {
            if (e instanceof ApiError && e.body?.command) this.applyCommand(e.body.command);
            throw e;
        }
    }

    applySteering(deviceId, steering) {
        const device = this.devices.get(deviceId);
        if (!device) return;
        device.steering = { ...device.steering, ...steering };
        this.emit("steering", { deviceId });
    }

    // ---- the push channel -----------------------------------------------------------------

    setConnection(connection) {
        this.connection = connection;
        this.emit("connection", connection);
    }

    handleMessage(message) {
        switch (message.type) {
            case "snapshot": return this.onSnapshot(message);
            case "device": return this.onDevice(message);
            case "item": return this.onItem(message);
            case "itemsDeleted": return this.onItemsDeleted(message);
            case "command": return message.command && this.applyCommand(message.command);
            case "steering": return this.applySteering(message.deviceId, {
                mockRules: message.mockRules ?? [], breakpoints: message.breakpoints ?? { enabled: false },
            });
            case "error": return this.notice(`The service reported: ${message.error}`, "error");
            default: return this.ignore(`a message of type "${String(message.type).slice(0, 40)}"`);
        }
    }

    ignore(what) {
        this.ignored += 1;
        console.warn(`Kestro dashboard: ignored ${what} from the push channel`);
        const count = this.ignored === 1 ? "a message" : `${this.ignored} messages`;
        this.notice(`Ignored ${count} from the push channel that this page does not understand; the latest: ${what}.`,
            "warn", "ignored");
    }

    onSnapshot(message) {
        this.snapshots += 1;
        this.service = { version: message.version, name: message.service };
        this.devices = new Map((message.devices ?? []).map((d) => [d.id, { ...d }]));
        const first = this.snapshots === 1;
        if (first) this.revision = message.revision ?? 0;
        this.emit("devices", {});
        if (this.deviceId && !this.devices.has(this.deviceId)) {
            this.deviceId = null;
            this.resetList();
            this.emit("list", { reset: true });
        }
        if (!this.deviceId && this.devices.size) {
            const newest = [...this.devices.values()].sort((a, b) => (b.lastSeen ?? 0) - (a.lastSeen ?? 0))[0];
            this.selectDevice(newest.id);
            return;
        }
        if (first) {
            this.loadList();
        } else {
            if (message.reason === "behind") {
                this.notice("The page fell behind the service; the list was brought up to date.", "warn");
            }
            if (this.dropDeleted(this.deviceId)) this.emit("list", {});
            this.catchUp();
        }
    }

    onDevice(message) {
        const id = message.device?.id ?? message.deviceId;
        if (typeof id !== "string") return this.ignore("a device message without a device");
        const device = this.devices.get(id) ?? {
            id, itemCount: 0, connected: false, connectedSince: null, itemsDeletedThroughSeq: 0,
            steering: { mockRules: [], breakpoints: { enabled: false } },
        };
        switch (message.change) {
            case "added":
            case "changed":
                Object.assign(device, message.device);
                break;
            case "online":
                device.connected = true;
                device.connectedSince = message.connectedSince ?? null;
                device.lastSeen = Math.max(device.lastSeen ?? 0, message.connectedSince ?? 0);
                break;
            case "offline":
                device.connected = false;
                device.connectedSince = null;
                break;
            default:
                return this.ignore(`a device change "${String(message.change).slice(0, 40)}"`);
        }
        this.devices.set(id, device);
        this.emit("devices", { deviceId: id });
        if (!this.deviceId) this.selectDevice(id);
    }

    onItem(message) {
        const row = message.item;
        if (!row || typeof row.deviceId !== "string" || typeof row.id !== "string" || typeof row.seq !== "number") {
            return this.ignore("an item message without an item");
        }
        this.noteRevision(row.revision);
        const device = this.devices.get(row.deviceId);
        if (device) {
            if (message.change === "added") device.itemCount = (device.itemCount ?? 0) + 1;
            device.lastSeen = Math.max(device.lastSeen ?? 0, row.updatedAt ?? 0);
            this.emit("devices", { deviceId: row.deviceId, quiet: true });
        }
        this.emit("item", { row, change: message.change });
        if (row.deviceId !== this.deviceId || this.listError) return;
        if (this.loading) this.pushedDuringLoad.set(itemKey(row), row.revision);
        if (this.paused) {
            const key = itemKey(row);
            // A row already shown changes in place; only new rows wait for "Resume".
            if (this.byKey.has(key)) {
                if (this.upsert(row)) this.emit("row", { key, row });
            } else if (passes(row, this.filters)) {
                this.hold(row);
                this.emit("list", { pending: true });
            }
            return;
        }
        const what = this.upsert(row);
        if (what === "changed") this.emit("row", { key: itemKey(row), row });
        else if (what) this.emit("list", {});
    }

    onItemsDeleted(message) {
        const device = this.devices.get(message.deviceId);
        if (!device) return;
        device.itemsDeletedThroughSeq = Math.max(device.itemsDeletedThroughSeq ?? 0, message.throughSeq ?? 0);
        if (typeof message.itemCount === "number") device.itemCount = message.itemCount;
        this.emit("devices", { deviceId: message.deviceId });
        if (message.deviceId === this.deviceId && this.dropDeleted(message.deviceId)) {
            this.emit("list", {});
        }
    }

    applyCommand(command) {
        if (!command || typeof command.id !== "string") return;
        const held = this.commands.get(command.id);
        // A later state never gives way to an earlier one that arrives after it.
        const rank = { queued: 0, delivered: 1, failed: 1 };
        if (held && (rank[held.status] ?? 0) > (rank[command.status] ?? 0)) return;
        this.commands.set(command.id, command);
        if (this.commands.size > COMMAND_LIMIT) {
            this.commands.delete(this.commands.keys().next().value);
        }
        this.emit("command", { command });
    }
}
