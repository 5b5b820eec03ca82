// Scrolling the dashboard's item list through 100,000 items.
//
//   node bench/dashboard_scroll.mjs [--items 100000]
//
// Starts the development service on a free loopback port, uploads that many log items for one
// device (16 connections at once), opens the dashboard in Debian's Chromium and scrolls the list
// from the newest item to the oldest with the mouse wheel (1,200 px a step, one step a frame),
// the list loading older pages as it goes. Prints the time the uploads and the scroll took, the
// page's frame intervals while scrolling (p50, p99, largest) and the number of row elements in the
// page at the end, which stays near what one view holds however long the list is.
//
// Needs the browser tests' npm packages (scripts/setup.sh installs them).

import http from "node:http";
import { Service, launchBrowser, openPage, waitFor } from "../tests/browser/harness.js";

const at = process.argv.indexOf("--items");
const ITEMS = at > 0 ? Number(process.argv[at + 1]) : 100_000;

function upload(service, key, agent, i) {
    const t = 1_700_000_000 + i / 1000;
    const body = JSON.stringify({
        eventType: "log", id: `S-${i}`, type: "log", level: i % 7 ? "info" : "error", sentAt: t, createdAt: t,
        details: { message: `item ${i} of the scroll bench`, subsystem: "", category: "bench", filePath: "/b.cc", file: "b.cc", line: i % 500 },
        device: { id: "5C0E0000-0000-4000-8000-000000000001", name: "Scroll bench", model: "x86_64", osName: "Linux" },
    });
    return new Promise((resolve, reject) => {
        const request = http.request({
            host: "127.0.0.1", port: service.port, path: "/v1/requests", method: "POST", agent,
            headers: { "Api-Key": key, "Content-Type": "application/json", "Content-Length": Buffer.byteLength(body) },
        }, (response) => {
            response.resume();
            response.on("end", () => (response.statusCode === 200 ? resolve() : reject(new Error(`status ${response.statusCode}`))));
        });
        request.on("error", reject);
        request.end(body);
    });
}

const percentile = (sorted, p) => sorted[Math.min(sorted.length - 1, Math.floor((p / 100) * sorted.length))];

const service = await Service.start({ args: ["--quiet", "--max-items", "0"] });
const browser = await launchBrowser();
try {
    const key = await service.apiKey();
    const agent = new http.Agent({ keepAlive: true, maxSockets: 16 });
    const uploadStart = performance.now();
    let next = 0;
    await Promise.all(Array.from({ length: 16 }, async () => {
        while (next < ITEMS) await upload(service, key, agent, next++);
    }));
    agent.destroy();
    const uploadSeconds = (performance.now() - uploadStart) / 1000;

    const page = await openPage(browser, service.dashboard);
    await page.locator(".list-rows .row").first().waitFor({ timeout: 30_000 });
    await page.locator(".list").hover();
    await page.evaluate(() => {
        window.intervals = [];
        let last = performance.now();
        const tick = (t) => {
            window.intervals.push(t - last);
            last = t;
            if (!window.stopFrames) requestAnimationFrame(tick);
        };
        requestAnimationFrame(tick);
    });
    const scrollStart = performance.now();
    const oldest = page.locator(".list-rows .row:not([hidden])", { hasText: "item 0 of" });
    await waitFor("the oldest item to come into view", async () => {
        for (let i = 0; i < 20; i++) await page.mouse.wheel(0, 1200);
        return (await oldest.count()) > 0;
    }, { ms: 600_000, everyMs: 0 });
    const scrollSeconds = (performance.now() - scrollStart) / 1000;
    const { intervals, rows } = await page.evaluate(() => {
        window.stopFrames = true;
        return { intervals: window.intervals.slice(1), rows: document.querySelectorAll(".list-rows .row").length };
    });
    intervals.sort((a, b) => a - b);
    console.log(`${ITEMS} items uploaded in ${uploadSeconds.toFixed(1)} s; scrolled from the newest to the oldest in ${scrollSeconds.toFixed(1)} s`);
    console.log(`frame intervals while scrolling: p50 ${percentile(intervals, 50).toFixed(1)} ms, p99 ${percentile(intervals, 99).toFixed(1)} ms, largest ${intervals[intervals.length - 1].toFixed(1)} ms (${intervals.length} frames)`);
    console.log(`row elements in the page at the end: ${rows}; list label: ${await page.locator('[data-ref="count"]').innerText()}`);
    if (page.errors.length) console.log(`the page logged errors:\n${page.errors.join("\n")}`);
} finally {
    await browser.close();
    await service.stop();
}
