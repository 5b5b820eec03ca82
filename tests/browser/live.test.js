// The dashboard against the real service and the real demo host: access without and with the
// token, the devices, the live list and its filters, pause, the keyboard, and the details of
// each kind of item.

import assert from "node:assert/strict";
import { after, before, test } from "node:test";
import {
    assertNoErrors, Demo, exchangeRecord, launchBrowser, logRecord, openItem, openPage, row, search,
    screenshot, Service,
} from "./harness.js";

let service;
let demo;
let browser;
let page;
let key;
let demoDevice;

before(async () => {
    service = await Service.start();
    key = await service.apiKey();
    demo = await Demo.start(service, { key });
    demoDevice = await demo.device(service);
    browser = await launchBrowser();
});

after(async () => {
    await browser?.close();
    await demo?.stop();
    await service?.stop();
});

test("without the token the page shows nothing but how to get the address", async () => {
    const bare = await openPage(browser, `${service.base}/`);
    await bare.getByRole("heading", { name: "This page needs its token" }).waitFor();
    assert.match(await bare.locator(".access").innerText(), /kestro-devservice dashboard/);
    assert.equal(await bare.locator(".layout").isVisible(), false);
    await screenshot(bare, "access-no-token");
    assertNoErrors(bare);

    // The data is the service's to refuse: without the token, the API and the push channel
    // give nothing.
    assert.equal((await fetch(`${service.base}/api/devices`)).status, 401);
    assert.equal((await fetch(`${service.base}/api/items?device=${demo.deviceId}`)).status, 401);
    const refused = await bare.evaluate(() => new Promise((resolve) => {
        const ws = new WebSocket(`ws://${location.host}/api/live`, ["kestro.v1", "kestro.token.0000"]);
        ws.onmessage = () => resolve("a message arrived");
        ws.onclose = () => resolve("closed");
    }));
    assert.equal(refused, "closed");
    await bare.context().close();

    const wrong = await openPage(browser, `${service.base}/#token=${"0".repeat(64)}`);
    await wrong.getByRole("heading", { name: "The service does not accept this page's token" }).waitFor();
    assert.match(await wrong.locator(".access").innerText(), /kestro-devservice dashboard/);
    await screenshot(wrong, "access-wrong-token");
    // The browser reports the refused upgrade and the 401 of the check that follows it.
    assertNoErrors(wrong, [/WebSocket connection to .* failed/, /status of 401/]);
    await wrong.context().close();
});

test("with the token, devices and the demo's items appear live", async () => {
    page = await openPage(browser, service.dashboard);
    // The token leaves the address bar.
    await page.waitForFunction(() => !location.hash.includes("token"));
    await page.locator(".connection[data-state=open]").waitFor();

    const device = page.locator(".device-row", { hasText: "online" }).first();
    await device.waitFor();
    const head = page.locator(".device-head");
    await head.locator(".badge", { hasText: "online" }).waitFor();
    for (const fact of ["Model", "System", "SDK", "Last seen"]) {
        assert.notEqual(await head.locator(`.facts div:has(dt:text-is("${fact}")) dd`).innerText(), "—", fact);
    }
    await row(page, "/sample/users").waitFor();
    await row(page, "round_completed").waitFor();
    await row(page, "LOG").waitFor();

    // Live: an upload shows as a row within a second. The clock is the page's, read when the
    // row is added to the list.
    const before = await page.evaluate(() => Date.now());
    const record = exchangeRecord({ url: "http://127.0.0.1/live-check", status: 201, device: demoDevice });
    const stamp = page.evaluate(() => new Promise((resolve) => {
        const box = document.querySelector(".list-rows");
        const seen = () => [...box.querySelectorAll(".row")].some((r) => r.textContent.includes("/live-check"));
        new MutationObserver((_, observer) => {
            if (seen()) {
                observer.disconnect();
                resolve(Date.now());
            }
        }).observe(box, { subtree: true, childList: true, characterData: true });
    }));
    await service.upload(key, record);
    const shown = await stamp;
    assert.ok(shown - before < 1000, `the row took ${shown - before} ms`);
    await screenshot(page, "items-live");
    assertNoErrors(page);
});

test("filters, search and pause narrow and hold the list", async () => {
    const kinds = page.locator('[data-filter="kind"]');
    await kinds.getByText("Events").click();
    await row(page, "round_completed").waitFor();
    await page.waitForFunction(() => [...document.querySelectorAll(".list-rows .row:not([hidden]) .c-kind")]
        .every((c) => c.textContent === "EVENT"));
    await kinds.getByText("Events").click();

    await page.keyboard.press("/");
    assert.equal(await page.evaluate(() => document.activeElement?.getAttribute("name")), "q");
    await page.keyboard.type("sample/users");
    await page.waitForFunction(() => {
        const rows = [...document.querySelectorAll(".list-rows .row:not([hidden]) .c-text")];
        return rows.length > 0 && rows.every((c) => c.textContent.includes("sample/users"));
    });
    await page.locator('select[name="status"]').selectOption("4xx");
    await page.locator('select[name="status"]').selectOption("");
    await page.locator('input[name="q"]').fill("");

    await page.locator('select[name="level"]').selectOption("error");
    await page.waitForFunction(() => {
        const rows = [...document.querySelectorAll(".list-rows .row:not([hidden]) .c-tag")];
        return rows.length > 0 && rows.every((c) => c.textContent === "error");
    });
    await page.locator('select[name="level"]').selectOption("");

    // Paused, new items wait and are counted; resumed, they are listed.
    await page.getByRole("button", { name: "Pause" }).click();
    const held = logRecord("held while paused", { device: demoDevice });
    await service.upload(key, held);
    await page.locator(".pending", { hasText: /Paused: \d+ new/ }).waitFor();
    assert.equal(await row(page, "held while paused").count(), 0);
    await page.getByRole("button", { name: "Resume" }).click();
    await row(page, "held while paused").waitFor();
    assertNoErrors(page);
});

test("the keyboard moves, opens and closes; details show each kind", async () => {
    await page.locator(".list").focus();
    await page.keyboard.press("ArrowDown");
    await page.keyboard.press("ArrowDown");
    await page.keyboard.press("Enter");
    const detail = page.locator(".detail");
    await detail.waitFor();
    const selected = await page.locator(".row.selected .c-text").innerText();
    await detail.locator(".section").first().waitFor();
    await page.keyboard.press("Escape");
    await detail.waitFor({ state: "hidden" });
    assert.ok(selected.length > 0);

    // Paused from here, so that rows stay put under the pointer.
    await page.getByRole("button", { name: "Pause" }).click();

    // A log: message, level, file:line, time.
    await page.locator('[data-filter="kind"]').getByText("Logs").click();
    await row(page, "payment failed").click();
    await detail.locator("dd", { hasText: "payment failed with code 402" }).waitFor();
    await detail.locator("dd", { hasText: /main\.cc:\d+/ }).waitFor();
    await detail.locator("dd.level-error").waitFor();
    await screenshot(page, "detail-log");
    await page.keyboard.press("Escape");
    await page.locator('[data-filter="kind"]').getByText("Logs").click();

    // An exchange with a JSON body: the tree, searchable.
    await page.locator('[data-filter="kind"]').getByText("Exchanges").click();
    await search(page, "sample/echo");
    await row(page, "/sample/echo").click();
    const tree = detail.locator(".json").last();
    await tree.waitFor();
    await tree.locator("input").fill("pear");
    await tree.locator(".json-count", { hasText: /of/ }).waitFor();
    await tree.locator(".jn-current", { hasText: "pear" }).first().waitFor();
    assert.match(await detail.locator(".pairs").first().innerText(), /POST/);
    await screenshot(page, "detail-exchange");

    // An image body is shown as an image.
    await search(page, "image.png");
    await row(page, "/sample/image.png").click();
    const image = detail.locator("img.preview");
    await image.waitFor();
    await page.waitForFunction(() => document.querySelector(".detail img.preview")?.naturalWidth === 64);
    await screenshot(page, "detail-image");

    // An exchange still waiting for its answer shows as waiting, then completes in place.
    const id = "5E1C0000-0000-4000-8000-00000000A11E";
    const waiting = exchangeRecord({ url: "http://127.0.0.1/still-waiting", id, device: demoDevice });
    await page.locator('input[name="q"]').fill("still-waiting");
    await page.getByRole("button", { name: "Resume" }).click();
    await service.upload(key, waiting);
    await row(page, "still-waiting").click();
    await detail.getByText("Waiting for the response…").first().waitFor();
    await service.upload(key, exchangeRecord({ url: "http://127.0.0.1/still-waiting", id, status: 200, body: '{"done":true}', device: demoDevice }));
    await detail.locator("dd.status-2xx", { hasText: "200" }).waitFor();
    await page.locator('input[name="q"]').fill("");
    await page.locator('[data-filter="kind"]').getByText("Exchanges").click();
    await page.keyboard.press("Escape");

    // An event: name, category, payload tree.
    await page.locator('[data-filter="kind"]').getByText("Events").click();
    await page.getByRole("button", { name: "Pause" }).click();
    await row(page, "round_completed").click();
    await detail.locator("dd", { hasText: "demo" }).first().waitFor();
    await detail.locator(".json .jk", { hasText: '"round"' }).waitFor();
    await screenshot(page, "detail-event");
    await page.getByRole("button", { name: "Resume" }).click();
    await page.locator('[data-filter="kind"]').getByText("Events").click();

    // The whole screen as a person first sees it: every kind, one exchange open.
    await openItem(page, "/sample/users/");
    await page.locator(".detail .json").first().waitFor();
    await screenshot(page, "dashboard");
    assertNoErrors(page);
});
