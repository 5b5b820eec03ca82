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
    assert.deepEqual(args.trimEnd().split("\n"), ["-X", "PUT", "http://127.0.0.1:1/it's", "-H", "Accept: */*", "-H", "X-Note: it's \"quoted\" $HOME", "--data-raw", "a'b"]);
    await page.locator('input[name="q"]').fill("");
    await page.keyboard.press("Escape");
    assertNoErrors(page);
});
