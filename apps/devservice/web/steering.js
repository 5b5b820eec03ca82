// Steering the selected device: breakpoints, opening its inspector, a test ping, its mock rules,
// and the commands sent to it. Every action shows what became of its command — queued for the
// device, delivered to it, or not delivered and why — as the push channel reports it.

import { ApiError } from "./api.js";
import { clock, el, fromTemplate } from "./format.js";
import { itemKey } from "./state.js";

// Headers a captured response carries that would be wrong in a mock's answer: the mock's body
// is sent as it is written, whole and unencoded, and the service's own mark is not the app's.
const DROPPED_HEADERS = new Set(["content-length", "content-encoding", "transfer-encoding",
    "connection", "kestro-intercepted", "date"]);

export function commandText(command) {
    if (!command) return "";
    switch (command.status) {
        case "queued": return "Queued for the device…";
        case "delivered": return "Delivered to the device ✓";
        case "failed": return `Not delivered: ${command.error ?? "unknown reason"}`;
        default: return command.status ?? "";
    }
}

export class SteeringScreen {
    constructor(panel, state) {
        this.state = state;
        this.panel = panel;
        this.slots = new Map();  // where a command's state shows → the command's id
        this.waiting = new Map();
        this.dialog = new RuleDialog();
        panel.append(fromTemplate("steering-screen"));
        this.breakpoints = panel.querySelector('input[name="breakpoints"]');
        this.rulesBody = panel.querySelector(".rules tbody");
        this.noRules = panel.querySelector('[data-ref="no-rules"]');
        this.commandsBody = panel.querySelector(".commands tbody");
        this.waitingBox = panel.querySelector('[data-ref="waiting"]');

        for (const action of ["open_kestro_sheet", "send_ping"]) {
            panel.querySelector(`button[name="${action}"]`).addEventListener("click", () => this.send(action));
        }
        this.breakpoints.addEventListener("change", () => this.setBreakpoints(this.breakpoints.checked));
        panel.querySelector('button[name="new-rule"]').addEventListener("click", () => this.newRule());

        state.addEventListener("devices", (e) => {
            if (!e.detail.deviceId || e.detail.deviceId === state.deviceId) this.deviceChanged(e.detail.quiet);
        });
        state.addEventListener("steering", (e) => {
            if (e.detail.deviceId === state.deviceId) this.renderSteering();
        });
        state.addEventListener("command", (e) => this.commandChanged(e.detail.command));
        this.shownDevice = null;
    }

    get device() { return this.state.devices.get(this.state.deviceId); }

    deviceChanged(quiet) {
        if (this.state.deviceId !== this.shownDevice) {
            this.shownDevice = this.state.deviceId;
            this.slots.clear();
            for (const slot of this.panel.querySelectorAll(".command-state")) slot.textContent = "";
            this.loadCommands();
            this.loadWaiting();
        }
        if (!quiet) this.renderSteering();
    }

    // Requests held at the breakpoint show as exchanges still waiting for their answer.
    async loadWaiting() {
        const deviceId = this.state.deviceId;
        this.waiting.clear();
        if (!deviceId) return this.renderWaiting();
        // Pushes that overtake the answer know better than it.
        this.pushed = new Map();
        try {
            const page = await this.state.api.items(deviceId,
                { kind: ["networkRequest"], level: [], method: [], status: ["waiting"], q: "" }, { limit: 100 });
            if (deviceId !== this.state.deviceId) return;
            for (const row of page.items) {
                if ((this.pushed.get(itemKey(row)) ?? -1) < row.revision) this.waiting.set(itemKey(row), row);
            }
        } catch {
            // The list of waiting requests is a convenience; the item list shows them too.
        }
        this.pushed = null;
        this.renderWaiting();
    }

    noteItem(row) {
        if (row.deviceId !== this.state.deviceId || row.kind !== "networkRequest") return;
        const key = itemKey(row);
        this.pushed?.set(key, row.revision);
        const had = this.waiting.has(key);
        if (row.waiting) this.waiting.set(key, row); else this.waiting.delete(key);
        if (had || row.waiting) this.renderWaiting();
    }

    renderWaiting() {
        const on = this.device?.steering?.breakpoints?.enabled === true;
        this.waitingBox.hidden = !on && this.waiting.size === 0;
        const list = this.waitingBox.querySelector(".waiting-list");
        const rows = [...this.waiting.values()].sort((a, b) => b.seq - a.seq);
        list.replaceChildren(...rows.map((row) => {
            const li = el("li");
            li.append(el("span", "c-time", clock(row.time)), " ", el("strong", "", row.method ?? ""), " ", el("span", "url", row.url ?? ""));
            return li;
        }));
        if (!rows.length) list.append(el("li", "empty", "No request is waiting."));
    }

    async loadCommands() {
        const deviceId = this.state.deviceId;
        if (!deviceId) return this.renderCommands();
        try {
            const answer = await this.state.api.get(`${this.state.api.devicePath(deviceId)}/commands`);
            for (const command of [...answer.commands].reverse()) this.state.applyCommand(command);
        } catch {
            // Shown from the push channel alone.
        }
        this.renderCommands();
    }

    renderSteering() {
        const device = this.device;
        const steering = device?.steering ?? { mockRules: [], breakpoints: { enabled: false } };
        this.breakpoints.checked = steering.breakpoints?.enabled === true;
        const rules = steering.mockRules ?? [];
        this.noRules.hidden = rules.length > 0;
        this.rulesBody.replaceChildren(...rules.map((rule) => this.ruleRow(rule)));
        this.renderWaiting();
    }

    ruleRow(rule) {
        const row = fromTemplate("rule-row");
        row.dataset.ruleId = String(rule.id);
        const toggle = row.querySelector('input[type="checkbox"]');
        toggle.checked = rule.enabled === true;
        toggle.addEventListener("change", () => this.switchRule(rule, toggle.checked));
        row.querySelector(".rule-url").textContent = rule.url;
        row.querySelector(".rule-status").textContent = rule.statusCode ?? "200";
        const body = rule.body ?? "";
        row.querySelector(".rule-body").textContent = body.length > 60 ? `${body.slice(0, 60)}…` : body;
        row.querySelector('[data-act="edit"]').addEventListener("click", () => this.editRule(rule));
        row.querySelector('[data-act="delete"]').addEventListener("click", () => this.deleteRule(rule));
        const slot = row.querySelector(".command-state");
        slot.dataset.for = `rule:${rule.id}`;
        this.showSlot(slot.dataset.for, slot);
        return row;
    }

    // ---- commands and where their state shows ---------------------------------------------

    follow(slotName, command, noteIfNone) {
        if (command) {
            this.slots.set(slotName, command.id);
        } else {
            this.slots.delete(slotName);
        }
        const slot = this.panel.querySelector(`.command-state[data-for="${CSS.escape(slotName)}"]`);
        // The push channel may have told the command's fate before the answer that queued it.
        const latest = command ? this.state.commands.get(command.id) ?? command : null;
        if (slot) {
            slot.textContent = latest ? commandText(latest) : noteIfNone ?? "";
            slot.dataset.status = latest?.status ?? "";
        }
        this.renderCommands();
    }

    showSlot(slotName, slot) {
        const id = this.slots.get(slotName);
        const command = id && this.state.commands.get(id);
        slot.textContent = command ? commandText(command) : "";
        slot.dataset.status = command?.status ?? "";
    }

    commandChanged(command) {
        for (const [slotName, id] of this.slots) {
            if (id !== command.id) continue;
            const slot = this.panel.querySelector(`.command-state[data-for="${CSS.escape(slotName)}"]`);
            if (slot) this.showSlot(slotName, slot);
        }
        if (command.deviceId === this.state.deviceId) this.renderCommands();
    }

    renderCommands() {
        const deviceId = this.state.deviceId;
        const commands = [...this.state.commands.values()]
            .filter((c) => c.deviceId === deviceId)
            .sort((a, b) => (b.createdAt ?? 0) - (a.createdAt ?? 0))
            .slice(0, 50);
        this.commandsBody.replaceChildren(...commands.map((c) => {
            const tr = el("tr");
            const status = el("td", `status-${c.status}`, commandText(c));
            tr.append(el("td", "c-time", clock(c.createdAt)), el("td", "", c.action), status);
            return tr;
        }));
    }

    async run(slotName, work) {
        const offline = "Saved. The device gets it when it connects.";
        try {
            const command = await work();
            this.follow(slotName, command, offline);
        } catch (e) {
            if (e instanceof ApiError && e.body?.command) {
                this.follow(slotName, e.body.command);
            } else {
                this.follow(slotName, null, `Failed: ${e.message}`);
            }
        }
    }

    send(action) {
        const deviceId = this.state.deviceId;
        if (!deviceId) return;
        return this.run(action, () => this.state.sendCommand(deviceId, action));
    }

    setBreakpoints(enabled) {
        const deviceId = this.state.deviceId;
        return this.run("breakpoints", async () => {
            const answer = await this.state.api.put(`${this.state.api.devicePath(deviceId)}/breakpoints`, { enabled });
            this.state.applySteering(deviceId, { breakpoints: answer.breakpoints });
            this.state.applyCommand(answer.command);
            return answer.command;
        });
    }

    rulesPath(deviceId) {
        return `${this.state.api.devicePath(deviceId)}/rules`;
    }

    replaceRule(deviceId, rule, removedId) {
        const device = this.state.devices.get(deviceId);
        if (!device) return;
        const rules = (device.steering?.mockRules ?? []).filter((r) => r.id !== (removedId ?? rule?.id));
        if (rule) rules.push(rule);
        rules.sort((a, b) => (a.createdAt ?? 0) - (b.createdAt ?? 0));
        this.state.applySteering(deviceId, { mockRules: rules });
    }

    switchRule(rule, on) {
        const deviceId = this.state.deviceId;
        return this.run(`rule:${rule.id}`, async () => {
            const answer = await this.state.api.post(`${this.rulesPath(deviceId)}/${rule.id}/${on ? "enable" : "disable"}`);
            this.replaceRule(deviceId, answer.rule);
            this.state.applyCommand(answer.command);
            return answer.command;
        });
    }

    async deleteRule(rule) {
        if (!confirm(`Delete the mock rule for ${rule.url}?`)) return;
        const deviceId = this.state.deviceId;
        try {
            const answer = await this.state.api.delete(`${this.rulesPath(deviceId)}/${rule.id}`);
            this.replaceRule(deviceId, null, rule.id);
            this.state.applyCommand(answer.command);
        } catch (e) {
            this.state.notice(`The rule could not be deleted: ${e.message}`, "error");
        }
    }

    async editRule(rule) {
        const deviceId = this.state.deviceId;
        await this.dialog.open({
            title: "Edit mock rule",
            rule,
            enabled: rule.enabled,
            save: async (fields) => {
                const answer = await this.state.api.put(`${this.rulesPath(deviceId)}/${rule.id}`, fields.rule);
                this.replaceRule(deviceId, answer.rule);
                for (const command of answer.commands ?? []) this.state.applyCommand(command);
                const last = answer.commands?.[answer.commands.length - 1] ?? null;
                if (fields.enabled !== answer.rule.enabled) return this.switchRule(answer.rule, fields.enabled);
                this.follow(`rule:${rule.id}`, last, answer.rule.enabled ? "Saved. The device gets it when it connects." : "Saved (off).");
            },
        });
    }

    newRule(prefill = {}) {
        const deviceId = this.state.deviceId;
        return this.dialog.open({
            title: prefill.url ? "Mock rule from a captured exchange" : "New mock rule",
            rule: prefill,
            enabled: true,
            note: prefill.note,
            save: async (fields) => {
                const answer = await this.state.api.post(this.rulesPath(deviceId), fields.rule);
                this.replaceRule(deviceId, answer.rule);
                if (fields.enabled) await this.switchRule(answer.rule, true);
            },
        });
    }

    // A rule made from a captured exchange: its URL, status, headers and body.
    ruleFromExchange(record) {
        const request = record?.details?.request ?? {};
        const response = record?.details?.response ?? null;
        const headers = {};
        for (const [name, value] of Object.entries(response?.headers ?? {})) {
            if (!DROPPED_HEADERS.has(name.toLowerCase())) headers[name] = value;
        }
        const contentType = Object.entries(headers).find(([n]) => n.toLowerCase() === "content-type")?.[1] ?? "";
        const binary = response && !/json|xml|svg|text\//i.test(contentType);
        return {
            url: request.url ?? "",
            statusCode: response?.statusCode ?? 200,
            headers,
            body: binary ? "" : response?.body ?? "",
            note: binary ? "The captured body is binary; a mock's body is text. Give it a body, or a mocked URL to load instead." : "",
        };
    }
}

// The editor of one mock rule, a modal dialog. `save` gets {rule, enabled} and may throw; its
// message is then shown in the dialog, which stays open.
export class RuleDialog {
    open({ title, rule = {}, enabled = true, note = "", save }) {
        const dialog = fromTemplate("rule-dialog");
        document.body.append(dialog);
        const form = dialog.querySelector("form");
        const error = dialog.querySelector(".dialog-error");
        dialog.querySelector(".dialog-title").textContent = title;
        form.elements.url.value = rule.url ?? "";
        form.elements.statusCode.value = rule.statusCode ?? "";
        form.elements.mockedUrl.value = rule.mockedUrl ?? "";
        form.elements.headers.value = Object.entries(rule.headers ?? {}).map(([n, v]) => `${n}: ${v}`).join("\n");
        form.elements.body.value = rule.body ?? "";
        form.elements.enabled.checked = enabled;
        error.textContent = note;
        return new Promise((resolve) => {
            dialog.addEventListener("close", () => {
                dialog.remove();
                resolve(dialog.returnValue === "save");
            });
            form.addEventListener("submit", async (e) => {
                if (e.submitter?.value !== "save") return;
                e.preventDefault();
                let fields;
                try {
                    fields = readRule(form);
                } catch (problem) {
                    error.textContent = problem.message;
                    return;
                }
                try {
                    await save(fields);
                    dialog.close("save");
                } catch (problem) {
                    error.textContent = `Not saved: ${problem.message}`;
                }
            });
            dialog.showModal();
            form.elements.url.focus();
        });
    }
}

function readRule(form) {
    const url = form.elements.url.value.trim();
    if (!url) throw new Error("A rule needs a URL pattern.");
    // Fields left empty are not set (and not sent).
    const rule = { url };
    const status = form.elements.statusCode.value.trim();
    if (status) {
        const code = Number(status);
        if (!Number.isInteger(code) || code < 100 || code > 599) throw new Error("The status code must be a whole number from 100 to 599.");
        rule.statusCode = code;
    }
    const mocked = form.elements.mockedUrl.value.trim();
    if (mocked) rule.mockedUrl = mocked;
    const lines = form.elements.headers.value.split("\n").map((l) => l.trim()).filter(Boolean);
    if (lines.length) {
        rule.headers = {};
        for (const line of lines) {
            const colon = line.indexOf(":");
            if (colon <= 0) throw new Error(`“${line}” is not a header line (Name: value).`);
            rule.headers[line.slice(0, colon).trim()] = line.slice(colon + 1).trim();
        }
    }
    const body = form.elements.body.value;
    if (body) rule.body = body;
    return { rule, enabled: form.elements.enabled.checked };
}
