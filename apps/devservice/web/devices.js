// The devices: the list at the side (name, online state, last seen) and the heading of the
// selected one (model, system, SDK version, key). Renders at most once a frame, and once a second
// for what items change (counts, "last seen").

import { ago, clock, el, fromTemplate } from "./format.js";

export function deviceName(device) {
    return device?.name || device?.model || device?.id || "";
}

export class DevicesScreen {
    constructor({ list, empty, head }, state) {
        this.state = state;
        this.list = list;
        this.empty = empty;
        this.head = head;
        this.frame = 0;
        this.list.addEventListener("click", (e) => {
            const row = e.target.closest(".device-row");
            if (row) state.selectDevice(row.dataset.id);
        });
        // Item counts and "last seen" change with every item; they are brought up to date with
        // the clock once a second rather than with each of a thousand items a second.
        state.addEventListener("devices", (e) => {
            if (!e.detail.quiet) this.schedule();
        });
        setInterval(() => this.schedule(), 1000);
    }

    schedule() {
        if (!this.frame) this.frame = requestAnimationFrame(() => {
            this.frame = 0;
            this.render();
        });
    }

    render() {
        const devices = [...this.state.devices.values()]
            .sort((a, b) => (b.lastSeen ?? 0) - (a.lastSeen ?? 0) || a.id.localeCompare(b.id));
        this.empty.hidden = devices.length > 0;
        const rows = devices.map((device) => {
            const row = fromTemplate("device-row");
            row.dataset.id = device.id;
            const selected = device.id === this.state.deviceId;
            row.classList.toggle("selected", selected);
            row.setAttribute("aria-selected", String(selected));
            row.classList.toggle("online", device.connected === true);
            row.querySelector(".dot").title = device.connected ? "online" : "offline";
            row.querySelector(".device-name").textContent = deviceName(device);
            row.querySelector(".device-meta").textContent =
                `${device.connected ? "online" : "offline"} · ${ago(device.lastSeen)}`;
            return row;
        });
        this.list.replaceChildren(...rows);
        this.renderHead();
    }

    renderHead() {
        const device = this.state.devices.get(this.state.deviceId);
        if (!device) {
            this.head.replaceChildren(el("p", "empty", this.state.devices.size ? "Choose a device." : ""));
            return;
        }
        const head = fromTemplate("device-head");
        head.querySelector(".device-title").textContent = deviceName(device);
        const badge = head.querySelector(".badge");
        badge.textContent = device.connected ? "online" : "offline";
        badge.classList.toggle("off", !device.connected);
        const system = [device.osName, device.osVersion].filter(Boolean).join(" ");
        const facts = {
            model: device.model,
            system: [system, device.platform && device.platform !== device.osName ? `(${device.platform})` : ""].filter(Boolean).join(" "),
            sdk: device.sdkVersion,
            key: [device.keyKind, device.keyId].filter((x) => x !== null && x !== undefined && x !== "").join(" · "),
            lastSeen: device.connected
                ? `now (linked since ${clock(device.connectedSince)})` : ago(device.lastSeen),
            items: typeof device.itemCount === "number" ? device.itemCount.toLocaleString("en") : "",
        };
        for (const [name, value] of Object.entries(facts)) {
            head.querySelector(`[data-f="${name}"]`).textContent = value || "—";
        }
        head.querySelector(".device-title").title = device.id;
        this.head.replaceChildren(head);
    }
}
