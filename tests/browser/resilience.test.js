// The page under bad conditions: the service goes away and comes back, the push channel sends
// what the page does not expect, an item carries a 50 MB body, and 50 pages are open at once.
// Each time the page says what happened, keeps working and logs no error of its own.

import assert from "node:assert/strict";
import { after, before, test } from "node:test";
import {
    assertNoErrors, DEVICE, exchangeRecord, launchBrowser, logRecord, openPage, row, screenshot, Service,
} from "./harness.js";

let service;
let browser;
let key;

// What the browser itself reports while the service is down.
const NETWORK_ERRORS = [/WebSocket connection to .* failed/, /ERR_CONNECTION_REFUSED/, /ERR_CONNECTION_RESET/];

before(async () => {
    service = await Service.start({ args: ["--max-body", "80M"] });
    key = await service.apiKey();
    await service.upload(key, logRecord("first item"));
    browser = await launchBrowser();
});

after(async () => {
    await browser?.close();
    await service?.stop();
});

test("a service that goes away and comes back: the page reconnects and catches up", async () => {
    const page = await openPage(browser, service.dashboard);
    await row(page, "first item").waitFor();
    await page.locator(".connection[data-state=open]").waitFor();

    await service.stop();
    await page.locator(".connection", { hasText: /Disconnected: .*Trying again/ }).waitFor();
    await screenshot(page, "service-away");
    await service.restart();
    // Uploaded before the page is back, and while it is: each shows once.
    await service.upload(key, logRecord("while the page was away"));
    await page.locator(".connection[data-state=open]").waitFor({ timeout: 15_000 });
    await service.upload(key, logRecord("after the page came back"));
    await row(page, "while the page was away").waitFor();
    await row(page, "after the page came back").waitFor();
    assert.equal(await page.locator(".list-rows .row:not([hidden])", { hasText: "first item" }).count(), 1);
    assert.equal(await page.locator(".list-rows .row:not([hidden])", { hasText: "while the page was away" }).count(), 1);
    assertNoErrors(page, NETWORK_ERRORS);
    await page.context().close();
});

test("messages the page does not expect are reported and ignored", async () => {
    const context = await browser.newContext();
    const page = await context.newPage();
    page.errors = [];
    page.on("console", (m) => m.type() === "error" && page.errors.push(m.text()));
    page.on("pageerror", (e) => page.errors.push(e.message));
    let route;
    await page.routeWebSocket(/\/api\/live$/, (ws) => {
        route = ws;
        ws.connectToServer();
    });
    await page.goto(service.dashboard);
    await page.locator(".connection[data-state=open]").waitFor();
    await row(page, "first item").waitFor();

    await route.send('{"type":"surprise","x":1}\nthis is not JSON\n{"no":"type"}\n{"type":"item","change":"added","item":{"id":7}}');
    await page.locator(".notice", { hasText: /Ignored 4 messages .* the latest: an item message without an item/ }).waitFor();
    await route.send('{"type":"device","change":"exploded","deviceId":"X"}');
    await page.locator(".notice", { hasText: /Ignored 5 messages .* the latest: a device change "exploded"/ }).waitFor();
    assert.equal(await page.locator(".notice").count(), 1);
    await screenshot(page, "unexpected-frames");

    // Still live afterwards.
    await service.upload(key, logRecord("after the surprise"));
    await row(page, "after the surprise").waitFor();
    assert.deepEqual(page.errors, []);
    await context.close();
});

test("an item with a 50 MB body opens without stalling the page", async () => {
    const big = "x".repeat(50 * 1024 * 1024);
    const record = exchangeRecord({ url: "http://127.0.0.1/huge", status: 200, body: `{"data":"${big}"}` });
    await service.upload(key, record);

    const page = await openPage(browser, service.dashboard);
    await row(page, "/huge").waitFor();
    // The longest task on the page's thread while the item is read and shown.
    await page.evaluate(() => {
        window.longest = 0;
        new PerformanceObserver((list) => {
            for (const e of list.getEntries()) window.longest = Math.max(window.longest, e.duration);
        }).observe({ type: "longtask", buffered: false });
    });
    await row(page, "/huge").click();
    const note = page.locator(".detail .cut-note").last();
    await note.waitFor({ timeout: 30_000 });
    assert.match(await note.innerText(), /Showing the first 65,536 of 52,428,\d+ characters/);
    assert.match(await page.locator(".detail .body-size").last().innerText(), /50\.0 MB/);
    const longest = await page.evaluate(() => window.longest);
    assert.ok(longest < 500, `the page's thread was busy for ${longest} ms at a stretch`);

    // More on request: first from what was read, then from the worker.
    await note.getByRole("button", { name: "Show more" }).click();
    await page.locator(".detail .cut-note", { hasText: "Showing the first 262,144" }).waitFor();
    await note.getByRole("button", { name: "Show more" }).click();
    await note.getByRole("button", { name: "Show more" }).click();
    await page.locator(".detail .cut-note", { hasText: "Showing the first 4,194,304" }).waitFor();
    await screenshot(page, "detail-huge");
    // The list stays live meanwhile.
    await service.upload(key, logRecord("after the huge one"));
    await row(page, "after the huge one").waitFor();
    assertNoErrors(page);
    await page.context().close();
});

test("a list longer than a page loads older items as it scrolls, drawing only what is in view", async () => {
    const device = { ...DEVICE, id: "10A60000-0000-4000-8000-000000001300", name: "Long list" };
    let next = 0;
    await Promise.all(Array.from({ length: 8 }, async () => {
        while (next < 1300) {
            const i = next++;
            await service.upload(key, logRecord(`long ${i} end`, { device }));
        }
    }));
    const page = await openPage(browser, service.dashboard);
    await page.locator(".device-row", { hasText: "Long list" }).click();
    await page.locator('[data-ref="count"]', { hasText: "500 items loaded" }).waitFor();
    const list = page.locator(".list");
    await list.hover();
    // Down to the oldest item: each step scrolls to the end of what is loaded.
    const oldest = page.locator(".list-rows .row:not([hidden])", { hasText: "long 0 end" });
    for (let step = 0; step < 40 && !(await oldest.count()); step++) {
        await list.evaluate((e) => { e.scrollTop = e.scrollHeight; });
        await page.mouse.wheel(0, 400);
    }
    await oldest.waitFor();
    await page.locator('[data-ref="count"]', { hasText: /^1,300 items$/ }).waitFor();
    // Row elements: those of one view and 8 either side, however far the list was scrolled.
    const viewRows = await list.evaluate((e) => Math.ceil(e.clientHeight / 26));
    const elements = await page.locator(".list-rows .row").count();
    assert.ok(elements <= viewRows + 17, `${elements} row elements for a view of ${viewRows} rows`);
    await screenshot(page, "long-list-end");
    assertNoErrors(page);
    await page.context().close();
});

test("50 pages open at once all follow the list", async () => {
    // A device of its own, the most recently seen, so that every page opens on it.
    const device = { ...DEVICE, id: "50500000-0000-4000-8000-000000000050", name: "Fifty" };
    await service.upload(key, logRecord("before the fifty", { device }));
    const context = await browser.newContext({ viewport: { width: 1000, height: 600 } });
    const pages = [];
    const errors = [];
    for (let i = 0; i < 50; i++) {
        const page = await context.newPage();
        page.on("pageerror", (e) => errors.push(e.message));
        page.on("console", (m) => m.type() === "error" && errors.push(m.text()));
        pages.push(page);
    }
    await Promise.all(pages.map((p) => p.goto(service.dashboard)));
    await Promise.all(pages.map((p) => p.locator(".connection[data-state=open]").waitFor({ timeout: 60_000 })));
    await service.upload(key, logRecord("seen by fifty", { device }));
    // A page draws when it is in front (browsers hold back the frames of background tabs); each
    // one, brought to the front, shows the item it received meanwhile.
    for (const page of pages) {
        await page.bringToFront();
        await row(page, "seen by fifty").waitFor({ timeout: 15_000 });
    }
    const health = await service.api("GET", "/api/health");
    assert.equal(health.status, 200);
    assert.deepEqual(errors, []);
    await context.close();
});
