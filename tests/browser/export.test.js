// Exports: the HAR file of the exchanges in view is valid HAR 1.2 (checked against the published
// HAR schema) and holds those exchanges, bodies included; "Copy as cURL" gives a command that a
// shell runs as the same request.

import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { readFileSync } from "node:fs";
import path from "node:path";
import { createRequire } from "node:module";
import { after, before, test } from "node:test";
import Ajv from "ajv";
import addFormats from "ajv-formats";
import { ARTIFACTS, assertNoErrors, Demo, exchangeRecord, launchBrowser, openItem, openPage, row, screenshot, search, Service } from "./harness.js";

const require = createRequire(import.meta.url);

let service;
let demo;
let browser;
let page;
let key;
let device;

function harValidator() {
    const ajv = new Ajv({ allErrors: true, strict: false });
    addFormats(ajv);
    ajv.addMetaSchema(require("ajv/dist/refs/json-schema-draft-06.json"));
    const schemas = require("har-schema");
    for (const [name, schema] of Object.entries(schemas)) {
        if (name !== "har") ajv.addSchema(schema);
    }
    return ajv.compile(schemas.har);
}

before(async () => {
    service = await Service.start();
    key = await service.apiKey();
    demo = await Demo.start(service, { key, intervalMs: 300 });
    device = await demo.device(service);
    browser = await launchBrowser();
    page = await openPage(browser, service.dashboard);
    await page.locator(".connection[data-state=open]").waitFor();
});

after(async () => {
    await browser?.close();
    await demo?.stop();
    await service?.stop();
});

test("the HAR export of the exchanges in view is valid HAR 1.2 and holds them", async () => {
    // Exchanges of every shape: JSON, binary, a still-waiting one, a POST with a body.
    await service.upload(key, exchangeRecord({ url: "http://127.0.0.1/export/json?a=1&b=two", status: 200, body: '{"x":[1,2]}', device }));
    await service.upload(key, exchangeRecord({ url: "http://127.0.0.1/export/bin", status: 200, body: "AAECAwQF", contentType: "application/octet-stream", device }));
    await service.upload(key, exchangeRecord({ url: "http://127.0.0.1/export/waiting", device }));
    const post = exchangeRecord({ url: "http://127.0.0.1/export/post", method: "POST", status: 201, body: "{}", device });
    post.details.request.body = "name=it's";
    post.details.request.headers["Content-Type"] = "application/x-www-form-urlencoded";
    await service.upload(key, post);

    await page.locator('input[name="q"]').fill("/export/");
    await page.waitForFunction(() => document.querySelectorAll(".list-rows .row:not([hidden])").length === 4);
    const [download] = await Promise.all([
        page.waitForEvent("download"),
        page.getByRole("button", { name: "Export HAR" }).click(),
    ]);
    const file = path.join(ARTIFACTS, "export.har");
    await download.saveAs(file);
    const har = JSON.parse(readFileSync(file, "utf8"));

    const validate = harValidator();
    assert.ok(validate(har), JSON.stringify(validate.errors, null, 2));
    assert.equal(har.log.version, "1.2");
    const byURL = Object.fromEntries(har.log.entries.map((e) => [new URL(e.request.url).pathname, e]));
    assert.deepEqual(Object.keys(byURL).sort(), ["/export/bin", "/export/json", "/export/post", "/export/waiting"]);
    assert.deepEqual(byURL["/export/json"].request.queryString, [{ name: "a", value: "1" }, { name: "b", value: "two" }]);
    assert.equal(byURL["/export/json"].response.content.text, '{"x":[1,2]}');
    assert.equal(byURL["/export/bin"].response.content.encoding, "base64");
    assert.equal(byURL["/export/bin"].response.content.size, 6);
    assert.equal(byURL["/export/waiting"].response.status, 0);
    assert.equal(byURL["/export/post"].request.postData.text, "name=it's");
    assert.equal(byURL["/export/post"].request.method, "POST");

    // The demo's exchanges too, with every filter off.
    await page.locator('input[name="q"]').fill("");
    await page.locator('[data-filter="kind"]').getByText("Exchanges").click();
    await row(page, "/sample/echo").waitFor();
    const [all] = await Promise.all([page.waitForEvent("download"), page.getByRole("button", { name: "Export HAR" }).click()]);
    const whole = JSON.parse(readFileSync(await all.path(), "utf8"));
    assert.ok(validate(whole), JSON.stringify(validate.errors?.slice(0, 5), null, 2));
    const paths = new Set(whole.log.entries.map((e) => new URL(e.request.url).pathname));
    for (const p of ["/sample/users", "/sample/echo", "/sample/image.png"]) assert.ok(paths.has(p), p);
    await page.locator('[data-filter="kind"]').getByText("Exchanges").click();
    assertNoErrors(page);
});

// HAR's rule: time is the sum of the phases that apply (not -1), ssl being part of connect.
function harTimeAddsUp(entry) {
    const { blocked, dns, connect, send, wait, receive } = entry.timings;
    const sum = [blocked, dns, connect, send, wait, receive].filter((ms) => ms !== -1).reduce((a, b) => a + b, 0);
    return Math.abs(entry.time - sum) < 1e-9;
}

test("an exchange's phases show as a waterfall, a cut body says so, and the HAR takes both", async () => {
    const real = exchangeRecord({ url: "http://127.0.0.1/phases/download", method: "POST", status: 200, body: '{"part":', device });
    real.details.request.body = "abc";
    real.details.request.headers["Content-Type"] = "text/plain";
    real.details.request.bodyTotalBytes = 2_000_000;
    real.details.response.bodyTotalBytes = 5_242_880;
    real.details.response.timings = { nameLookup: 10, connect: 20, tls: 30, firstByte: 25, transfer: 15 };
    const reused = exchangeRecord({ url: "http://127.0.0.1/phases/reused", status: 204, device });
    reused.details.response.timings = { nameLookup: 0, connect: 0, tls: 0, firstByte: 3.5, transfer: 0.5 };
    const mocked = exchangeRecord({ url: "http://127.0.0.1/phases/mocked", status: 200, body: "{}", device });
    for (const record of [real, reused, mocked]) await service.upload(key, record);

    await search(page, "/phases/");
    await openItem(page, "/phases/download");
    const detail = page.locator("article.detail");
    await detail.locator(".detail-title", { hasText: "POST" }).waitFor();
    assert.deepEqual(await detail.locator(".truncated").allInnerTexts(),
        ["truncated: 2,000,000 bytes in all", "truncated: 5,242,880 bytes in all"]);
    assert.deepEqual(await detail.locator(".phase-label").allInnerTexts(), ["Name lookup", "Connect", "TLS", "First byte", "Transfer"]);
    assert.deepEqual(await detail.locator(".phase-ms").allInnerTexts(), ["10.00 ms", "20.00 ms", "30.00 ms", "25.00 ms", "15.00 ms"]);
    assert.equal(await detail.locator(".phase-total").innerText(), "Total 100.00 ms");
    // Bars one after the other on one axis, each as wide as its share of the whole.
    const bars = await detail.locator(".phase .bar").evaluateAll((els) => els.map((e) => e.getBoundingClientRect().toJSON()));
    assert.equal(bars.length, 5);
    const track = bars.reduce((sum, b) => sum + b.width, 0);
    [10, 20, 30, 25, 15].forEach((ms, i) => {
        assert.ok(Math.abs(bars[i].width - (track * ms) / 100) < 1.5, `bar ${i} width ${bars[i].width}`);
        if (i > 0) assert.ok(Math.abs(bars[i].left - bars[i - 1].right) < 1.5, `bar ${i} starts where ${i - 1} ends`);
    });
    await screenshot(page, "detail-waterfall");

    await openItem(page, "/phases/mocked");
    await detail.locator(".detail-title", { hasText: "/phases/mocked" }).waitFor();
    await detail.locator(".no-timings", { hasText: "no timings" }).waitFor();
    assert.equal(await detail.locator(".phase .bar").count(), 0);
    assert.equal(await detail.locator(".truncated").count(), 0);
    await page.keyboard.press("Escape");

    const [download] = await Promise.all([page.waitForEvent("download"), page.getByRole("button", { name: "Export HAR" }).click()]);
    const har = JSON.parse(readFileSync(await download.path(), "utf8"));
    const validate = harValidator();
    assert.ok(validate(har), JSON.stringify(validate.errors, null, 2));
    const byPath = Object.fromEntries(har.log.entries.map((e) => [new URL(e.request.url).pathname, e]));
    const cut = byPath["/phases/download"];
    assert.deepEqual(cut.timings, { blocked: -1, dns: 10, connect: 50, ssl: 30, send: 0, wait: 25, receive: 15 });
    assert.equal(cut.time, 100);
    assert.equal(cut.request.bodySize, 2_000_000);
    assert.deepEqual(cut.request.postData, { mimeType: "text/plain", text: "abc", comment: "truncated: 2000000 bytes in all" });
    assert.equal(cut.response.bodySize, 5_242_880);
    assert.equal(cut.response.content.text, '{"part":');
    assert.equal(cut.response.content.comment, "truncated: 5242880 bytes in all");
    // A reused plain connection: no lookup, connect or TLS to speak of.
    assert.deepEqual(byPath["/phases/reused"].timings, { blocked: -1, dns: -1, connect: -1, ssl: -1, send: 0, wait: 3.5, receive: 0.5 });
    assert.equal(byPath["/phases/reused"].time, 4);
    // Without phases the whole duration is waiting.
    const answered = byPath["/phases/mocked"];
    assert.ok(answered.timings.wait > 0 && answered.timings.dns === -1 && answered.timings.receive === 0);
    assert.equal(answered.response.content.comment, undefined);
    for (const entry of har.log.entries) assert.ok(harTimeAddsUp(entry), JSON.stringify(entry.timings));
    await page.locator('input[name="q"]').fill("");
    assertNoErrors(page);
});

// The demo signs in every round with secrets in a header, a query item and the JSON both ways;
// its redaction policy names each of them.
const DEMO_SECRETS = ["demo-bearer-7f3a", "demo-session-7f3a", "demo-password-7f3a", "sample-token-of-demo"];

function assertNoSecret(what, text) {
    for (const secret of DEMO_SECRETS) assert.ok(!text.includes(secret), `${what} holds ${secret}`);
}

test("the demo's sign-in shows its secrets as <redacted> on the page and in both exports", async () => {
    await search(page, "/sample/login");
    await openItem(page, "/sample/login");
    const detail = page.locator("article.detail");
    await detail.locator(".detail-title", { hasText: "/sample/login?session=<redacted>" }).waitFor();
    // The whole record too, as the page would show it when asked.
    await detail.locator("details.raw summary").click();
    await detail.locator("details.curl summary").click();
    await detail.locator("details.raw .json").waitFor();
    const text = await page.locator("body").innerText();
    assert.match(text, /session=<redacted>/);
    assert.ok(text.split("<redacted>").length - 1 >= 4, "URL, header, password and token are shown redacted");
    assert.match(text, /"?demo"?/);
    assertNoSecret("the page", text);
    await screenshot(page, "detail-redacted");

    await page.getByRole("button", { name: "Copy as cURL" }).click();
    await page.locator(".notice", { hasText: "Copied the request as a cURL command" }).waitFor();
    const command = await page.evaluate(() => navigator.clipboard.readText());
    // The notice is closed, so that the next copy's is the only one.
    await page.locator(".notice", { hasText: "Copied the request as a cURL command" }).locator("button").click();
    assert.match(command, /-H 'Authorization: <redacted>'/);
    assertNoSecret("the cURL command", command);
    await page.keyboard.press("Escape");

    const [download] = await Promise.all([page.waitForEvent("download"), page.getByRole("button", { name: "Export HAR" }).click()]);
    const har = readFileSync(await download.path(), "utf8");
    assert.ok(JSON.parse(har).log.entries.some((e) => e.request.url.includes("/sample/login")));
    assertNoSecret("the HAR file", har);
    await page.locator('input[name="q"]').fill("");
    assertNoErrors(page);
});

test("copy as cURL gives a command that repeats the request", async () => {
    await search(page, "/sample/echo");
    await openItem(page, "/sample/echo");
    await page.getByRole("button", { name: "Copy as cURL" }).click();
    await page.locator(".notice", { hasText: "Copied the request as a cURL command" }).waitFor();
    const command = await page.evaluate(() => navigator.clipboard.readText());
    assert.match(command, /^curl -X 'POST' 'http:\/\/127\.0\.0\.1:\d+\/sample\/echo'/);
    assert.match(command, /--data-raw '\{"round":\d+,"items":\["apple","pear"\]\}'/);
    await screenshot(page, "detail-curl");

    // The shell runs it against the service's echo, which answers what it got.
    const answer = JSON.parse(execFileSync("sh", ["-c", command.replace(/^curl /, "curl -s ")], { encoding: "utf8", timeout: 10_000 }));
    assert.equal(answer.method, "POST");
    assert.deepEqual(answer.json.items, ["apple", "pear"]);

    // A quote inside a value survives the shell.
    const odd = exchangeRecord({ url: "http://127.0.0.1:1/it's", method: "PUT", status: 200, device });
    odd.details.request.headers["X-Note"] = "it's \"quoted\" $HOME";
    odd.details.request.body = "a'b";
    await service.upload(key, odd);
    await search(page, "it's");
    await openItem(page, "it's");
    await page.locator(".detail-title", { hasText: "PUT" }).waitFor();
    await page.locator("details.curl summary").click();
    const shown = await page.locator("details.curl pre").innerText();
    const args = execFileSync("sh", ["-c", `set -- ${shown.replace(/^curl/, "").replaceAll("\\\n", " ")}; printf '%s\\n' "$@"`], { encoding: "utf8" });
    assert.deepEqual(args.trimEnd().split("\n"), ["-X", "PUT", "http://127.0.0.1:1/it's", "-H", "Accept: */*", "-H", "X-Note: it's \"quoted\" $HOME", "-H", "Content-Type:", "--data-raw", "a'b"]);
    await page.locator('input[name="q"]').fill("");
    await page.keyboard.press("Escape");
    assertNoErrors(page);
});
