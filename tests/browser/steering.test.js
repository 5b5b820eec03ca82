// Steering the real demo host from the dashboard: a mock made from a captured exchange answers
// its next matching request, breakpoints hold its next request until switched off, a ping comes
// back as an event, and each action shows whether the device received it, also when the device
// has gone away.

import assert from "node:assert/strict";
import { after, before, test } from "node:test";
import { assertNoErrors, Demo, launchBrowser, openPage, row, screenshot, search, Service, waitFor } from "./harness.js";

let service;
let demo;
let browser;
let page;

before(async () => {
    service = await Service.start();
    demo = await Demo.start(service, { intervalMs: 300 });
    browser = await launchBrowser();
    page = await openPage(browser, service.dashboard);
    await page.locator(".connection[data-state=open]").waitFor();
    await page.locator(".device-head .badge", { hasText: "online" }).waitFor();
});

after(async () => {
    await browser?.close();
    await demo?.stop();
    await service?.stop();
});

// The rows whose URL matches.
const urlRow = (url) => page.locator(".list-rows .row:not([hidden])").filter({ has: page.locator(".c-text", { hasText: url }) });
const steeringTab = () => page.getByRole("tab", { name: "Steering" }).click();
const itemsTab = () => page.getByRole("tab", { name: "Items" }).click();

test("a mock made from a captured exchange answers the demo's next matching request", async () => {
    await search(page, "/sample/users");
    await page.locator('select[name="status"]').selectOption("2xx");
    // The list of users (not one user): the demo asks for it every round. Paused, so that the
    // rows stay where they are while the pointer moves to one.
    await page.getByRole("button", { name: "Pause" }).click();
    const captured = urlRow(/\/sample\/users$/).first();
    await captured.click();
    await page.getByRole("button", { name: "Resume" }).click();
    await page.getByRole("button", { name: "Mock this" }).click();

    const dialog = page.locator("dialog.rule-dialog");
    await dialog.waitFor();
    const url = await dialog.locator('input[name="url"]').inputValue();
    assert.match(url, /\/sample\/users$/);
    assert.equal(await dialog.locator('input[name="statusCode"]').inputValue(), "200");
    assert.match(await dialog.locator('textarea[name="headers"]').inputValue(), /Content-Type: application\/json/i);
    assert.match(await dialog.locator('textarea[name="body"]').inputValue(), /"users"|\[/);
    await screenshot(page, "mock-from-exchange");

    await dialog.locator('input[name="statusCode"]').fill("203");
    await dialog.locator('textarea[name="body"]').fill('{"mocked":"by the dashboard"}');
    await dialog.getByRole("button", { name: "Save" }).click();
    await dialog.waitFor({ state: "detached" });

    const rule = page.locator(".rules tbody tr", { hasText: "/sample/users" });
    await rule.waitFor();
    assert.equal(await rule.locator('input[type="checkbox"]').isChecked(), true);
    await rule.locator(".command-state", { hasText: "Delivered to the device" }).waitFor();
    await screenshot(page, "steering-mock-on");

    // The demo's next request for the list is answered by the rule.
    await itemsTab();
    await page.locator('select[name="status"]').selectOption("");
    const mocked = urlRow(/\/sample\/users$/).filter({ hasText: "mocked" }).first();
    await mocked.waitFor({ timeout: 10_000 });
    await page.getByRole("button", { name: "Pause" }).click();
    assert.match(await mocked.locator(".c-tag").innerText(), /GET 203/);
    await mocked.click();
    await page.getByRole("button", { name: "Resume" }).click();
    await page.locator(".detail .jv-string", { hasText: "by the dashboard" }).waitFor();
    await waitFor("the demo to print the mocked answer", () => /sample\/users → 203/.test(demo.output));

    // Switched off: the real answer again.
    await steeringTab();
    await rule.locator('input[type="checkbox"]').uncheck();
    await rule.locator(".command-state", { hasText: "Delivered" }).waitFor();
    const mark = demo.output.length;
    await waitFor("a real answer after the rule went off", () => /sample\/users → 200/.test(demo.output.slice(mark)));
    await itemsTab();
    await page.locator('input[name="q"]').fill("");
    await page.keyboard.press("Escape");
    assertNoErrors(page);
});

test("breakpoints hold the demo's next request until they are switched off", async () => {
    await steeringTab();
    await page.getByLabel("Hold requests at a breakpoint").check();
    await page.locator('[data-for="breakpoints"]', { hasText: "Delivered to the device" }).waitFor();
    await waitFor("the demo to see breakpoints on", () => /breakpoints are on/.test(demo.output), { ms: 10_000 });

    // Its next request waits, and shows as waiting.
    const waiting = page.locator(".waiting-list li", { hasText: "/sample/" }).first();
    await waiting.waitFor({ timeout: 10_000 });
    const heldURL = await waiting.locator(".url").innerText();
    const held = await waiting.innerText();
    await screenshot(page, "steering-breakpoint");
    const mark = demo.output.length;

    await page.getByLabel("Hold requests at a breakpoint").uncheck();
    await page.locator('[data-for="breakpoints"]', { hasText: "Delivered to the device" }).waitFor();
    // Let go: the held request completes, and leaves the waiting list.
    await waitFor("the held request to complete", () => demo.output.slice(mark).includes(new URL(heldURL).pathname));
    // Matched whole: a request to a longer path made in the same millisecond
    // (".../users/3" beside ".../users") contains the held one's text.
    const heldText = held.replace(/\s+/g, " ").trim();
    await page.locator(".waiting-list").getByText(heldText, { exact: true }).waitFor({ state: "detached" });
    await itemsTab();
    assertNoErrors(page);
});

test("a ping arrives as an event; opening the inspector reaches the device", async () => {
    await steeringTab();
    await page.getByRole("button", { name: "Send ping" }).click();
    await page.locator('[data-for="send_ping"]', { hasText: "Delivered to the device" }).waitFor();
    await page.getByRole("button", { name: "Open inspector" }).click();
    await page.locator('[data-for="open_kestro_sheet"]', { hasText: "Delivered to the device" }).waitFor();
    // Shown as delivered (in green) also when the push channel told it before the answer came.
    for (const action of ["send_ping", "open_kestro_sheet"]) {
        const color = await page.locator(`[data-for="${action}"]`).evaluate((e) => getComputedStyle(e).color);
        assert.equal(color, "rgb(27, 138, 74)", action);
    }
    await waitFor("the demo to be asked to open its inspector", () => /asked to open the inspector/.test(demo.output));
    assert.ok(await page.locator(".commands tbody tr", { hasText: "send_ping" }).count() >= 1);
    await screenshot(page, "steering-actions");

    await itemsTab();
    await page.locator('[data-filter="kind"]').getByText("Events").click();
    await row(page, "Ping").waitFor();
    await page.getByRole("button", { name: "Pause" }).click();
    await row(page, "Ping").click();
    await page.getByRole("button", { name: "Resume" }).click();
    await page.locator(".detail dd", { hasText: "GENERAL" }).waitFor();
    await page.keyboard.press("Escape");
    await page.locator('[data-filter="kind"]').getByText("Events").click();
    assertNoErrors(page);
});

test("a command to a device that went away says it was not delivered", async () => {
    await demo.stop();
    await page.locator(".device-head .badge", { hasText: "offline" }).waitFor();
    await steeringTab();
    await page.getByRole("button", { name: "Send ping" }).click();
    await page.locator('[data-for="send_ping"]', { hasText: /Not delivered: .+/ }).waitFor();
    // Steering changes made meanwhile are kept for the device's return.
    await page.getByLabel("Hold requests at a breakpoint").check();
    await page.locator('[data-for="breakpoints"]', { hasText: "gets it when it connects" }).waitFor();
    await page.getByLabel("Hold requests at a breakpoint").uncheck();
    await screenshot(page, "steering-offline");
    // The refused POST is a 409 the browser reports on its own.
    assertNoErrors(page, [/status of 409/]);
});
