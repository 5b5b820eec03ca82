// Exporting captured exchanges: as an HTTP Archive (HAR 1.2) and as a curl command line.
// These are the rules; any other exporter of Kestro's exchanges follows the same ones.
//
// An exchange is a record of eventType "networkRequest" (its "details" hold an optional
// "request" half: url, method, headers, startedAt, body; and an optional "response" half:
// statusCode, headers, receivedAt, body), plus the service's row fields used here:
// durationMs, waiting, mocked.
//
// HAR (one entry per exchange, in the order given):
//  - log.version "1.2"; log.creator {name: "Kestro dashboard", version: the service's version};
//    no pages.
//  - startedDateTime: the request's startedAt (else the record's createdAt) as ISO 8601 in UTC
//    with milliseconds.
//  - timings of a real exchange come from the phases the SDK measured (the response's "timings"):
//    blocked -1 (not measured), dns = nameLookup, connect = connect + tls (HAR counts TLS inside
//    connect), ssl = tls, send 0 (sending is inside firstByte), wait = firstByte, receive =
//    transfer; dns, connect and ssl are -1 where the phase did not happen (0: a reused
//    connection, plain HTTP). time = the sum of the phases that are not -1, ssl left out.
//  - without phases (a mocked answer, a record without them) the whole duration goes to
//    timings.wait; send and receive are 0; blocked, dns, connect and ssl are -1. time =
//    durationMs, or 0 while the response is awaited.
//  - request: method, url, httpVersion "HTTP/1.1", headers as {name, value} sorted by name,
//    queryString parsed from the URL, cookies [], headersSize -1, bodySize = the body's UTF-8
//    size; postData {mimeType: its Content-Type or "", text: the body} only when the body is
//    not empty.
//  - a body cut at capture (its half has "bodyTotalBytes"): bodySize (and content.size) is the
//    whole body's size, text holds what was captured, and postData or content has the comment
//    "truncated: N bytes in all" (N with thousands separators), also when nothing was kept.
//  - response: status (0 while awaited), statusText "" (not captured), httpVersion "HTTP/1.1",
//    headers as above, cookies [], redirectURL = its Location header or "", headersSize -1,
//    bodySize = content.size; content {size: the decoded byte count, mimeType: Content-Type or
//    "", text: the body as carried, and encoding "base64" when it is carried as base64}.
//  - cache {}; entry fields of our own start with "_": _kestroId, _mocked, _waiting.
//
// curl (one exchange's request, for a POSIX shell):
//  - `curl`, then `-X METHOD` unless the method is GET without a body, then the URL, then one
//    `-H 'Name: value'` per request header sorted by name (Content-Length is left to curl), then
//    `--data-raw 'body'` when the body is not empty.
//  - Every argument but the flags is single-quoted; a single quote inside becomes '\'' .
//  - The first line holds curl, the method and the URL; each header and the body follow on a
//    line of their own, after " \" and a newline, so that the command pastes as one.

import { bodyEncoding, bodySize, header, utf8Size } from "./body.js";
import { phaseDurations, truncatedText } from "./timings.js";

function isoTime(seconds) {
    return new Date(Math.round(seconds * 1000)).toISOString();
}

function headerList(headers) {
    return Object.entries(headers ?? {})
        .filter(([, value]) => typeof value === "string")
        .sort(([a], [b]) => (a < b ? -1 : a > b ? 1 : 0))
        .map(([name, value]) => ({ name, value }));
}

function queryString(url) {
    try {
        return [...new URL(url).searchParams].map(([name, value]) => ({ name, value }));
    } catch {
        return [];
    }
}

// HAR timings and time: from the phases when the exchange has them, else the whole duration as
// waiting.
function harTimings(response, durationMs) {
    const phases = phaseDurations(response?.timings);
    if (!phases) {
        const wait = response ? durationMs : 0;
        return { time: wait, timings: { blocked: -1, dns: -1, connect: -1, ssl: -1, send: 0, wait, receive: 0 } };
    }
    const happened = (ms) => (ms > 0 ? ms : -1);
    const timings = {
        blocked: -1,
        dns: happened(phases.nameLookup),
        connect: happened(phases.connect + phases.tls),
        ssl: happened(phases.tls),
        send: 0,
        wait: phases.firstByte,
        receive: phases.transfer,
    };
    const time = ["blocked", "dns", "connect", "send", "wait", "receive"]
        .map((name) => timings[name])
        .filter((ms) => ms !== -1)
        .reduce((sum, ms) => sum + ms, 0);
    return { time, timings };
}

// One HAR entry from an Item (a row plus its record).
export function harEntry(item) {
    const details = item.record?.details ?? {};
    const request = details.request ?? {};
    const response = details.response ?? null;
    const requestBody = typeof request.body === "string" ? request.body : "";
    const started = typeof request.startedAt === "number" ? request.startedAt : item.record?.createdAt ?? item.time ?? 0;
    const duration = typeof item.durationMs === "number" && item.durationMs >= 0 ? item.durationMs : 0;

    const harRequest = {
        method: request.method ?? item.method ?? "GET",
        url: request.url ?? item.url ?? "",
        httpVersion: "HTTP/1.1",
        cookies: [],
        headers: headerList(request.headers),
        queryString: queryString(request.url ?? item.url ?? ""),
        headersSize: -1,
        bodySize: typeof request.bodyTotalBytes === "number" ? request.bodyTotalBytes : utf8Size(requestBody),
    };
    const requestCut = truncatedText(request);
    if (requestBody || requestCut) {
        harRequest.postData = { mimeType: header(request.headers, "Content-Type") ?? "", text: requestBody };
        if (requestCut) harRequest.postData.comment = requestCut;
    }

    let harResponse;
    if (response) {
        const body = typeof response.body === "string" ? response.body : "";
        const { encoding, contentType } = bodyEncoding(response, true);
        const total = response.bodyTotalBytes;
        const content = { size: typeof total === "number" ? total : bodySize(body, encoding), mimeType: contentType, text: body };
        if (encoding === "base64") content.encoding = "base64";
        const cut = truncatedText(response);
        if (cut) content.comment = cut;
        harResponse = {
            status: Number.isInteger(response.statusCode) ? response.statusCode : 0,
            statusText: "",
            httpVersion: "HTTP/1.1",
            cookies: [],
            headers: headerList(response.headers),
            content,
            redirectURL: header(response.headers, "Location") ?? "",
            headersSize: -1,
            bodySize: content.size,
        };
    } else {
        harResponse = {
            status: 0, statusText: "", httpVersion: "HTTP/1.1", cookies: [], headers: [],
            content: { size: 0, mimeType: "" }, redirectURL: "", headersSize: -1, bodySize: -1,
        };
    }

    const { time, timings } = harTimings(response, duration);
    return {
        startedDateTime: isoTime(started),
        time,
        request: harRequest,
        response: harResponse,
        cache: {},
        timings,
        _kestroId: item.id,
        _mocked: item.mocked === true,
        _waiting: !response,
    };
}

export function harLog(items, serviceVersion) {
    return {
        log: {
            version: "1.2",
            creator: { name: "Kestro dashboard", version: serviceVersion || "unknown" },
            entries: items.map(harEntry),
        },
    };
}

export function shellQuote(text) {
    return `'${String(text).replaceAll("'", "'\\''")}'`;
}

export function curlCommand(record) {
    const request = record?.details?.request ?? {};
    const method = request.method ?? "GET";
    const body = typeof request.body === "string" ? request.body : "";
    const first = ["curl"];
    if (method !== "GET" || body) first.push(`-X ${shellQuote(method)}`);
    first.push(shellQuote(request.url ?? ""));
    const parts = [first.join(" ")];
    for (const { name, value } of headerList(request.headers)) {
        if (name.toLowerCase() === "content-length") continue;
        parts.push(`-H ${shellQuote(`${name}: ${value}`)}`);
    }
    if (body) parts.push(`--data-raw ${shellQuote(body)}`);
    return parts.join(" \\\n  ");
}
