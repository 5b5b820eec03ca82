// What the dashboard's browser tests share: the real development service and the real demo host
// on loopback ports, and Debian's Chromium driven by Playwright. Every wait has a deadline;
// nothing sleeps to synchronise.
//
// The build passes where things are: KESTRO_DEVSERVICE and KESTRO_DEMO (the binaries),
// KESTRO_BROWSER_ARTIFACTS (where screenshots and exported files go), and CHROMIUM (default
// /usr/bin/chromium).

import { spawn } from "node:child_process";
import { randomUUID } from "node:crypto";
import { mkdirSync, mkdtempSync, readFileSync, rmSync } from "node:fs";
import net from "node:net";
import os from "node:os";
import path from "node:path";
import { chromium } from "playwright-core";

export const SERVICE = process.env.KESTRO_DEVSERVICE ?? path.resolve("../../build/apps/devservice/kestro-devservice");
export const DEMO = process.env.KESTRO_DEMO ?? path.resolve("../../build/apps/demo/kestro-demo");
export const ARTIFACTS = process.env.KESTRO_BROWSER_ARTIFACTS ?? path.resolve("../../build/browser-artifacts");
const CHROMIUM = process.env.CHROMIUM ?? "/usr/bin/chromium";

mkdirSync(ARTIFACTS, { recursive: true });

// Temporary directories of this test process; removed when it ends.
const tempDirs = [];

export function tempDir(prefix) {
    const dir = mkdtempSync(path.join(os.tmpdir(), `kestro-browser-${prefix}-`));
    tempDirs.push(dir);
    return dir;
}

export function freePort() {
    return new Promise((resolve, reject) => {
        const server = net.createServer();
        server.on("error", reject);
        server.listen(0, "127.0.0.1", () => {
            const { port } = server.address();
            server.close(() => resolve(port));
        });
    });
}

// Resolves when `check` answers something truthy; rejects with `what` after `ms`. `check` may be
// async; between attempts it waits for `everyMs` (a deadline-bound retry, not a pause in place
// of a condition).
export async function waitFor(what, check, { ms = 10_000, everyMs = 25 } = {}) {
    const deadline = Date.now() + ms;
    let last;
    for (;;) {
        try {
            const value = await check();
            if (value) return value;
        } catch (e) {
            last = e;
        }
        if (Date.now() > deadline) {
            throw new Error(`timed out after ${ms} ms waiting for ${what}${last ? ` (last error: ${last.message})` : ""}`);
        }
        await new Promise((r) => setTimeout(r, everyMs));
    }
}

// Children still running when this process ends (a test that failed before its clean-up, or a
// runner that stopped it) are ended with it rather than left on their ports.
const running = new Set();
process.on("exit", () => {
    for (const child of running) child.kill("SIGKILL");
    for (const dir of tempDirs) rmSync(dir, { recursive: true, force: true });
});
for (const signal of ["SIGINT", "SIGTERM"]) {
    process.on(signal, () => process.exit(1));
}

// A child process whose output is kept, so that a failing test can show it, and that can wait
// for a line.
class Child {
    constructor(name, command, args, env) {
        this.name = name;
        this.output = "";
        this.process = spawn(command, args, { env: { ...process.env, ...env }, stdio: ["ignore", "pipe", "pipe"] });
        running.add(this.process);
        this.exited = new Promise((resolve) => this.process.on("exit", (code, signal) => {
            running.delete(this.process);
            resolve({ code, signal });
        }));
        for (const stream of [this.process.stdout, this.process.stderr]) {
            stream.setEncoding("utf8");
            stream.on("data", (text) => {
                this.output += text;
                if (this.output.length > 2_000_000) this.output = this.output.slice(-1_000_000);
            });
        }
    }

    waitForLine(pattern, ms = 15_000) {
        return waitFor(`${this.name} to print ${pattern}`, () => this.output.match(pattern), { ms });
    }

    async stop(signal = "SIGTERM") {
        if (this.process.exitCode !== null || this.process.signalCode !== null) return this.exited;
        this.process.kill(signal);
        const timer = setTimeout(() => this.process.kill("SIGKILL"), 5_000);
        const result = await this.exited;
        clearTimeout(timer);
        return result;
    }
}

export class Service {
    static async start({ dataDir = tempDir("svc"), port = 0, args = [] } = {}) {
        const service = new Service();
        service.dataDir = dataDir;
        service.port = port || await freePort();
        service.extra = args;
        await service.launch();
        return service;
    }

    async launch() {
        this.child = new Child("the development service", SERVICE,
            ["--port", String(this.port), "--data-dir", this.dataDir, ...this.extra], {});
        this.base = `http://127.0.0.1:${this.port}`;
        await waitFor("the development service to answer", async () => {
            if (this.child.process.exitCode !== null) {
                throw new Error(`the service exited: ${this.child.output.slice(-2000)}`);
            }
            const r = await fetch(`${this.base}/app/app.js`, { method: "HEAD" });
            return r.ok;
        }, { ms: 15_000 });
        this.token = readFileSync(path.join(this.dataDir, "dashboard-token"), "utf8").trim();
        this.dashboard = `${this.base}/#token=${this.token}`;
    }

    async stop() {
        await this.child?.stop();
    }

    async restart() {
        await this.stop();
        await this.launch();
    }

    async api(method, target, body) {
        const r = await fetch(`${this.base}${target}`, {
            method,
            headers: { Authorization: `Bearer ${this.token}`, ...(body ? { "Content-Type": "application/json" } : {}) },
            body: body ? JSON.stringify(body) : undefined,
        });
        const text = await r.text();
        return { status: r.status, json: text ? JSON.parse(text) : null };
    }

    async apiKey() {
        const { json } = await this.api("GET", "/api/keys");
        return json.keys.find((k) => !k.revokedAt).key;
    }

    // One upload, as the SDK sends it.
    async upload(key, record) {
        const r = await fetch(`${this.base}/v1/requests`, {
            method: "POST",
            headers: { "Api-Key": key, "Content-Type": "application/json" },
            body: JSON.stringify(record),
        });
        if (!r.ok) throw new Error(`upload refused: ${r.status} ${await r.text()}`);
        return r.json();
    }

    get output() { return this.child.output; }
}

export class Demo {
    static async start(service, { intervalMs = 400, key } = {}) {
        const demo = new Demo();
        demo.home = tempDir("demo");
        demo.child = new Child("the demo host", DEMO, ["--interval-ms", String(intervalMs)], {
            KESTRO_HOME: demo.home,
            KESTRO_DEV_HOST: `127.0.0.1:${service.port}`,
            KESTRO_PROD_HOST: "127.0.0.1",
            KESTRO_API_KEY: key ?? await service.apiKey(),
        });
        const match = await demo.child.waitForLine(/device ([0-9A-F-]{36})/);
        demo.deviceId = match[1];
        return demo;
    }

    get output() { return this.child.output; }

    // The device dictionary the demo registered, for uploads made in its name.
    async device(service) {
        return waitFor("the demo's device to be registered", async () => {
            const { status, json } = await service.api("GET", `/api/devices/${this.deviceId}`);
            return status === 200 && json.info && Object.keys(json.info).length > 1 ? json.info : null;
        });
    }

    async stop() {
        await this.child.stop();
    }
}

export const DEVICE = {
    id: "0B9E2C4A-3F6D-4E1A-9C55-7A2D8E1F0C11",
    name: "Test bench",
    model: "x86_64",
    osName: "Linux",
    osVersion: "6.1",
    platform: "Linux",
    sdkVersion: "1.4.402",
};

const uuid = () => randomUUID().toUpperCase();

export function logRecord(message, { level = "info", device = DEVICE } = {}) {
    const now = Date.now() / 1000;
    return {
        eventType: "log", id: uuid(), type: "log", level, sentAt: now, createdAt: now,
        details: { message, subsystem: "", category: "tests", filePath: "/src/bench.cc", file: "bench.cc", line: 7 },
        device,
    };
}

export function exchangeRecord({ url, method = "GET", status, body = "", contentType = "application/json", device = DEVICE, id = uuid() }) {
    const now = Date.now() / 1000;
    const details = { request: { url, method, headers: { Accept: "*/*" }, startedAt: now, body: "" } };
    if (status !== undefined) {
        details.response = { statusCode: status, headers: { "Content-Type": contentType }, receivedAt: now + 0.012, body };
    }
    return { eventType: "networkRequest", id, type: "network", sentAt: now, createdAt: now, details, device };
}

const LAUNCH_ARGS = [
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync",
];

export async function launchBrowser() {
    // Playwright gives every launch a new, empty profile directory of its own.
    return chromium.launch({ executablePath: CHROMIUM, headless: true, args: LAUNCH_ARGS });
}

// A page that records every console error and uncaught exception, so that a test can require
// that there were none (apart from the network failures it expects).
export async function openPage(browser, url, { viewport = { width: 1400, height: 860 } } = {}) {
    const context = await browser.newContext({ viewport, acceptDownloads: true });
    const origin = new URL(url).origin;
    await context.grantPermissions(["clipboard-read", "clipboard-write"], { origin });
    const page = await context.newPage();
    page.errors = [];
    page.on("console", (m) => {
        if (m.type() === "error") page.errors.push(`console: ${m.text()}`);
    });
    page.on("pageerror", (e) => page.errors.push(`page error: ${e.message}`));
    if (url) await page.goto(url);
    return page;
}

// Fails when the page logged an error other than those matching `allowed`.
export function assertNoErrors(page, allowed = []) {
    const unexpected = page.errors.filter((e) => !allowed.some((pattern) => pattern.test(e)));
    if (unexpected.length) throw new Error(`the page logged errors:\n${unexpected.join("\n")}`);
}

export async function screenshot(page, name) {
    await page.screenshot({ path: path.join(ARTIFACTS, `${name}.png`) });
}

// The list row whose text contains `text`.
export function row(page, text) {
    return page.locator(".list-rows .row:not([hidden])", { hasText: text }).first();
}

// Opens the details of the first row whose text contains `text`. The list is paused meanwhile,
// so that live rows do not move under the pointer.
export async function openItem(page, text) {
    await row(page, text).waitFor();
    await page.getByRole("button", { name: "Pause" }).click();
    await row(page, text).click();
    await page.getByRole("button", { name: "Resume" }).click();
}

// Types a search and waits until the list shows only rows that match it.
export async function search(page, text) {
    await page.locator('input[name="q"]').fill(text);
    await page.waitForFunction((t) => {
        const label = document.querySelector('[data-ref="count"]')?.textContent ?? "";
        const cells = [...document.querySelectorAll(".list-rows .row:not([hidden]) .c-text")];
        return !label.startsWith("Loading") && cells.every((c) => c.textContent.toLowerCase().includes(t.toLowerCase()));
    }, text);
}
