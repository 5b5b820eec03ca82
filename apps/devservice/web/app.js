// The dashboard's entry: takes the token from the address, opens the push channel into the
// page's state, and wires the screens and the keyboard together.
//
// The token arrives in the address's fragment (#token=…), which browsers never send to a
// server. It is moved to this tab's session storage and taken out of the address bar, so that
// it does not end up in screenshots or shared links, and a reload of the tab still works.

import { Api } from "./api.js";
import { LiveChannel } from "./live.js";
import { DashboardState } from "./state.js";
import { DevicesScreen } from "./devices.js";
import { ItemsScreen } from "./items.js";
import { DetailScreen } from "./detail.js";
import { SteeringScreen } from "./steering.js";
import { ItemLoader } from "./loader.js";
import { fromTemplate } from "./format.js";

const TOKEN_KEY = "kestro.dashboardToken";
const NOTICE_LIMIT = 4;

const ref = (name) => document.querySelector(`[data-ref="${name}"]`);

function takeToken() {
    const fromAddress = new URLSearchParams(location.hash.slice(1)).get("token");
    if (fromAddress) {
        sessionStorage.setItem(TOKEN_KEY, fromAddress);
        history.replaceState(null, "", location.pathname + location.search);
        return fromAddress;
    }
    return sessionStorage.getItem(TOKEN_KEY);
}

function showAccess(title, text) {
    ref("layout").hidden = true;
    ref("access").hidden = false;
    ref("access-title").textContent = title;
    ref("access-text").textContent = text;
    ref("connection").textContent = "Not connected";
    ref("connection").dataset.state = "unauthorized";
}

function showNotice(text, level, key) {
    const box = ref("notices");
    if (key) box.querySelector(`[data-key="${key}"]`)?.remove();
    const notice = fromTemplate("notice");
    if (key) notice.dataset.key = key;
    notice.dataset.level = level;
    notice.querySelector(".notice-text").textContent = text;
    notice.querySelector("button").addEventListener("click", () => notice.remove());
    box.prepend(notice);
    while (box.childElementCount > NOTICE_LIMIT) box.lastElementChild.remove();
    if (level !== "error") setTimeout(() => notice.remove(), 8000);
}

function showConnection(connection, state) {
    const label = ref("connection");
    label.dataset.state = connection.state;
    switch (connection.state) {
        case "open":
            label.textContent = "● Live";
            break;
        case "connecting":
            label.textContent = connection.attempts ? "Reconnecting…" : "Connecting…";
            break;
        case "waiting":
            label.textContent = `Disconnected: ${connection.reason}. Trying again in ${Math.ceil(connection.retryInMs / 1000)} s`;
            break;
        case "unauthorized":
            showAccess("The service does not accept this page's token",
                `It answered that ${connection.reason}. The token changes when the service's data directory is new.`);
            return;
    }
    if (state.service) ref("service").textContent = `development service ${state.service.version ?? ""}`;
}

function wireTabs(device, onTab) {
    const tabs = device.querySelectorAll('[role="tab"]');
    for (const tab of tabs) {
        tab.addEventListener("click", () => {
            for (const other of tabs) other.setAttribute("aria-selected", String(other === tab));
            for (const panel of device.querySelectorAll("[data-panel]")) {
                panel.hidden = panel.dataset.panel !== tab.dataset.tab;
            }
            onTab(tab.dataset.tab);
        });
    }
    return (name) => device.querySelector(`[data-tab="${name}"]`).click();
}

function isTyping(target) {
    return target instanceof HTMLElement
        && (target.isContentEditable || ["INPUT", "TEXTAREA", "SELECT"].includes(target.tagName));
}

function start() {
    const token = takeToken();
    if (!token) {
        showAccess("This page needs its token",
            "The address you opened has no token, so the service will not show anything here.");
        return;
    }
    const api = new Api(token);
    const state = new DashboardState(api);
    const loader = new ItemLoader(api);
    const device = ref("device");

    state.addEventListener("notice", (e) => showNotice(e.detail.text, e.detail.level, e.detail.key));
    state.addEventListener("connection", (e) => showConnection(e.detail, state));
    state.addEventListener("devices", () => {
        if (state.service) ref("service").textContent = `development service ${state.service.version ?? ""}`;
    });

    new DevicesScreen({ list: ref("devices"), empty: ref("no-devices"), head: ref("device-head") }, state);
    const steering = new SteeringScreen(device.querySelector('[data-panel="steering"]'), state);
    state.addEventListener("item", (e) => steering.noteItem(e.detail.row));

    let detail;
    const items = new ItemsScreen(device.querySelector('[data-panel="items"]'), state, loader, {
        onOpen: (key) => detail.show(key),
    });
    detail = new DetailScreen(items.detail, state, loader, {
        onClose: () => items.list.focus(),
        onMock: async (item) => {
            let record = item.record;
            if (item._cut?.response && item._cut.response.shown < item._cut.response.length) {
                record = (await loader.load(item.deviceId, item.id)).record;
            }
            showTab("steering");
            steering.newRule(steering.ruleFromExchange(record));
        },
    });
    const showTab = wireTabs(device, () => {});

    document.addEventListener("keydown", (e) => {
        if (e.defaultPrevented || e.ctrlKey || e.metaKey || e.altKey) return;
        if (document.querySelector("dialog[open]")) return;
        if (e.key === "Escape") {
            if (detail.open) {
                e.preventDefault();
                detail.close();
            } else if (isTyping(e.target)) {
                e.target.blur();
            }
            return;
        }
        if (isTyping(e.target)) return;
        switch (e.key) {
            case "/":
                e.preventDefault();
                showTab("items");
                items.focusSearch();
                break;
            case "ArrowDown":
            case "ArrowUp":
                if (device.querySelector('[data-panel="items"]').hidden) return;
                e.preventDefault();
                items.move(e.key === "ArrowDown" ? 1 : -1);
                break;
            case "Enter":
                if (device.querySelector('[data-panel="items"]').hidden) return;
                if (e.target instanceof HTMLButtonElement || e.target instanceof HTMLAnchorElement) return;
                e.preventDefault();
                items.openSelected();
                break;
        }
    });

    ref("layout").hidden = false;
    const live = new LiveChannel(token, {
        onMessage: (message) => state.handleMessage(message),
        onState: (connection) => state.setConnection(connection),
        onBadLine: (what) => state.ignore(what),
    });
    live.start();
}

start();
