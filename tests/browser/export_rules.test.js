// The dashboard's exporters and the SDK's own (run as the export tool) make the same HAR entries
// and the same curl commands from the same records: every rule of export.js's header, case by
// case.

import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import path from "node:path";
import { test } from "node:test";
import { curlCommand, harEntry } from "../../apps/devservice/web/export.js";

const TOOL = process.env.KESTRO_EXPORT_TOOL ?? path.resolve("../../build/tests/browser/kestro_export_tool");

const T0 = 1714566896.25;

function exchange(id, request, response) {
    const details = {};
    if (request) details.request = { headers: {}, startedAt: T0, body: "", ...request };
    if (response) details.response = { statusCode: 200, headers: {}, receivedAt: T0 + 0.125, body: "", ...response };
    return { eventType: "networkRequest", id, type: "network", sentAt: T0, createdAt: T0, details };
}

const records = [
    // Query items decoded, an empty header value, measured phases over TLS.
    exchange("tls", { url: "https://api.test/users?a=1&b=two+words&c=%20x", method: "GET", headers: { Accept: "*/*", "X-Empty": "" } },
        { headers: { "Content-Type": "application/json" }, body: '{"ok":true}', timings: { nameLookup: 1.2345678, connect: 2.5, tls: 3.25, firstByte: 10.0004, transfer: 0.5 } }),
    // A text body with quotes, % and \ ; no phases: the span is waiting.
    exchange("text", { url: "http://127.0.0.1:1/notes", method: "POST", headers: { "Content-Type": "text/plain" }, body: "it's 100% \\ done" },
        { statusCode: 201, headers: { "Content-Type": "text/plain; charset=utf-8" }, body: "made" }),
    // HEAD, and a reused connection: no lookup, connect or TLS.
    exchange("head", { url: "http://127.0.0.1:1/h", method: "HEAD" },
        { statusCode: 204, timings: { nameLookup: 0, connect: 0, tls: 0, firstByte: 3.5, transfer: 0.5 } }),
    // Bodies cut at capture: a binary request body (base64, through printf), a binary answer.
    exchange("cut", { url: "http://127.0.0.1:1/upload", method: "POST", headers: { "Content-Type": "application/octet-stream" }, body: "AAEC/yU=", bodyTotalBytes: 5_000_000 },
        { headers: { "Content-Type": "image/png", Location: "/elsewhere" }, body: "iVBORw0KGgo=", bodyTotalBytes: 123456, timings: { nameLookup: 0.5, connect: 1, tls: 0, firstByte: 2, transfer: 40 } }),
    // A text body holding NUL and no Content-Type; a mocked answer, whose body is text.
    exchange("nul", { url: "http://127.0.0.1:1/put", method: "PUT", body: "a\u0000b é" },
        { headers: { "Kestro-Intercepted": "true", "Content-Type": "application/octet-stream" }, body: "from a rule" }),
    // Still waiting, with an empty method; header names in byte order.
    exchange("waiting", { url: "http://127.0.0.1:1/slow", method: "", headers: { b: "2", A: "1", a: "3", "Z-é": "4" } }),
    // A URL that is not a valid URI as captured: a redacted query item, a blank, a non-ASCII
    // character, brackets outside the host, a second "#", a "%" without hex digits.
    exchange("uri", { url: "http://[::1]:8080/caf\u00e9/x y?session=<redacted>&q=[1]&p=100%&e=%41#top#more", method: "GET" }, { statusCode: 200 }),
    // A cut text body.
    exchange("cut-text", { url: "http://127.0.0.1:1/log", method: "POST", headers: { "Content-Type": "application/json" }, body: '{"a":"é', bodyTotalBytes: 2048 },
        { headers: { "Content-Type": "application/json" }, body: "", bodyTotalBytes: 99 }),
];

test("the dashboard's HAR entries and curl commands are the SDK's", () => {
    const sdk = JSON.parse(execFileSync(TOOL, { input: JSON.stringify(records), encoding: "utf8", timeout: 10_000 }));
    assert.equal(sdk.har.log.version, "1.2");
    assert.equal(sdk.har.log.entries.length, records.length);
    records.forEach((record, i) => {
        const mocked = record.details.response?.headers?.["Kestro-Intercepted"] === "true";
        const dashboard = harEntry({ id: record.id, record, mocked });
        assert.deepEqual(dashboard, sdk.har.log.entries[i], `HAR entry of "${record.id}"`);
        assert.equal(curlCommand(record), sdk.curl[i], `curl command of "${record.id}"`);
    });
    // A few of the rules, as numbers, so that agreeing on a wrong answer shows too.
    const tls = sdk.har.log.entries[0];
    assert.deepEqual(tls.timings, { blocked: -1, dns: 1.235, connect: 5.75, ssl: 3.25, send: 0, wait: 10, receive: 0.5 });
    assert.equal(tls.time, 1.235 + 5.75 + 10 + 0.5);
    assert.equal(sdk.har.log.entries[1].time, 125);
    assert.equal(sdk.har.log.entries[3].request.postData.comment, "base64 of the body's bytes; truncated: 5000000 bytes in all");
    assert.match(sdk.curl[3], /^printf '\\000\\001\\002\\377%%' \| curl -X 'POST'/);
    assert.match(sdk.curl[0], /-H 'X-Empty;'/);
    assert.match(sdk.curl[2], /^curl --head /);
    const uri = sdk.har.log.entries.find((e) => e._kestroId === "uri").request;
    assert.equal(uri.url, "http://[::1]:8080/caf%C3%A9/x%20y?session=%3Credacted%3E&q=%5B1%5D&p=100%25&e=%41#top%23more");
    assert.deepEqual(uri.queryString.find((q) => q.name === "session"), { name: "session", value: "<redacted>" });
});
