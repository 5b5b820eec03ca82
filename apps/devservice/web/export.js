// Exporting captured exchanges: as an HTTP Archive (HAR 1.2) and as a curl command line.
// These are the rules; the SDK's own exporters (harDocument, curlCommand) follow the same ones.
//
// An exchange is a record of eventType "networkRequest" (its "details" hold an optional
// "request" half: url, method, headers, startedAt, body, bodyTotalBytes; and an optional
// "response" half: statusCode, headers, receivedAt, body, bodyTotalBytes, timings), plus the
// service's row fields used here: waiting, mocked.
//
// HAR (one entry per exchange, in the order given):
//  - log.version "1.2"; log.creator {name: "Kestro dashboard", version: the service's version};
//    no pages.
//  - startedDateTime: the request's startedAt (else the record's createdAt) as ISO 8601 in UTC
//    with milliseconds.
//  - timings of a real exchange come from the phases the SDK measured (the response's "timings"),
//    each rounded to the microsecond: blocked -1 (not measured), dns = nameLookup, ssl = tls,
//    connect = connect + ssl (HAR counts TLS inside connect), send 0 (sending is inside
//    firstByte), wait = firstByte, receive = transfer; dns, connect and ssl are -1 where the
//    phase did not happen (0: a reused connection, plain HTTP). time = the sum of the phases that
//    are not -1, ssl left out.
//  - without phases (a mocked answer, a record without them, an answer still awaited) the span
//    from the request's startedAt to the answer's receivedAt (in ms, to the microsecond; 0 while
//    awaited or when the clocks disagree) is all wait; send and receive are 0; blocked, dns,
//    connect and ssl are -1. time = that span.
//  - request: method (GET when empty), url (as a valid URI: every byte that may not stand
//    where it is, such as the "<" and ">" of a redacted query item, a blank or a non-ASCII
//    character, is percent-encoded; "[" and "]" may stand only in the host, "#" only once, "%"
//    only before two hex digits), httpVersion "HTTP/1.1", headers as {name, value} in
//    byte order of the names, queryString parsed from the URL, cookies [], headersSize -1,
//    bodySize = the body's size in bytes (decoded when it is base64; the whole body's when it
//    was cut); postData {mimeType: its Content-Type or "", text: the body as carried} only when
//    the body is not empty, with a comment "base64 of the body's bytes" when it is carried as
//    base64 and "truncated: N bytes in all" when it was cut (joined by "; ").
//  - response: status (0 while awaited), statusText "" (not captured), httpVersion "HTTP/1.1",
//    headers as above, cookies [], redirectURL = its Location header or "", headersSize -1,
//    bodySize = content.size; content {size: the decoded byte count (the whole body's when it
//    was cut), mimeType: Content-Type or "", text: the body as carried, encoding "base64" when it
//    is carried as base64, comment "truncated: N bytes in all" when it was cut}. N is written
//    as plain digits, for tools that read it.
//  - cache {}; entry fields of our own start with "_": _kestroId, _mocked, _waiting.
//
// curl (one exchange's request, for a POSIX shell):
//  - `curl`, then `--head` for a HEAD without a body (with -X HEAD curl would wait for a body),
//    else `-X METHOD` unless the method is GET without a body, then the URL, then one
//    `-H 'Name: value'` per request header in byte order of the names (Content-Length is left
//    to curl; an empty value is written `Name;`, since `Name:` would remove the header), then,
//    when there is a body and no Content-Type header, `-H 'Content-Type:'` (curl would add a
//    form type the request never had), then `--data-raw 'body'`.
//  - A body that cannot stand in a shell word (carried as base64, or text holding NUL) goes
//    through standard input: `printf 'FORMAT' | curl ... --data-binary @-`, where FORMAT holds
//    printable ASCII as it is (% and \ doubled) and every other byte as a three-digit octal
//    escape.
//  - Every argument but the flags is single-quoted; a single quote inside becomes '\'' .
//  - The first line holds curl, the method and the URL; each header and the body follow on a
//    line of their own, after " \" and a newline, so that the command pastes as one.

import { base64ToBytes, bodyEncoding, bodySize, header } from "./body.js";
import { phaseDurations } from "./timings.js";

function isoTime(seconds) {
    return new Date(Math.round(seconds * 1000)).toISOString();
}

// Milliseconds to the microsecond: enough for any phase, and short in the file.
const ms = (value) => Math.round(value * 1000) / 1000;

function byteOrder(a, b) {
    const x = new TextEncoder().encode(a);
    const y = new TextEncoder().encode(b);
    for (let i = 0; i < Math.min(x.length, y.length); i++) {
        if (x[i] !== y[i]) return x[i] - y[i];
    }
    return x.length - y.length;
}

function headerList(headers) {
    return Object.entries(headers ?? {})
        .filter(([, value]) => typeof value === "string")
        .sort(([a], [b]) => byteOrder(a, b))
        .map(([name, value]) => ({ name, value }));
}

const URI_BYTES = new Set(Array.from("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~!$&'()*+,;=:@/?", (c) => c.charCodeAt(0)));
const isHex = (c) => (c >= 0x30 && c <= 0x39) || (c >= 0x41 && c <= 0x46) || (c >= 0x61 && c <= 0x66);

// The URL as a valid URI, by the rule above.
export function uriText(url) {
    const bytes = new TextEncoder().encode(url);
    const scheme = /^[A-Za-z][A-Za-z0-9+.-]*:\/\//.exec(url);
    let authorityEnd = -1;
    if (scheme) {
        authorityEnd = bytes.length;
        for (let i = scheme[0].length; i < bytes.length; i++) {
            if (bytes[i] === 0x2f || bytes[i] === 0x3f || bytes[i] === 0x23) {
                authorityEnd = i;
                break;
            }
        }
    }
    let out = "";
    let fragment = false;
    for (let i = 0; i < bytes.length; i++) {
        const c = bytes[i];
        const keep = URI_BYTES.has(c) ||
            (c === 0x25 && i + 2 < bytes.length && isHex(bytes[i + 1]) && isHex(bytes[i + 2])) ||
            ((c === 0x5b || c === 0x5d) && i < authorityEnd) ||
            (c === 0x23 && !fragment);
        if (c === 0x23) fragment = true;
        out += keep ? String.fromCharCode(c) : `%${c.toString(16).toUpperCase().padStart(2, "0")}`;
    }
    return out;
}

function queryString(url) {
    try {
        return [...new URL(url).searchParams].map(([name, value]) => ({ name, value }));
    } catch {
        return [];
    }
}

const cutComment = (total) => `truncated: ${total} bytes in all`;

// HAR timings and time: from the phases when the exchange has them, else the span from request
// to answer as waiting.
function harTimings(request, response) {
    const phases = phaseDurations(response?.timings);
    if (!phases) {
        let span = 0;
        if (response && typeof response.receivedAt === "number" && typeof request?.startedAt === "number") {
            span = ms((response.receivedAt - request.startedAt) * 1000);
            if (!(span > 0)) span = 0;
        }
        return { time: span, timings: { blocked: -1, dns: -1, connect: -1, ssl: -1, send: 0, wait: span, receive: 0 } };
    }
    const dns = phases.nameLookup > 0 ? ms(phases.nameLookup) : -1;
    const ssl = phases.tls > 0 ? ms(phases.tls) : -1;
    const connect = phases.connect + phases.tls > 0 ? ms(phases.connect) + Math.max(ssl, 0) : -1;
    const wait = ms(phases.firstByte);
    const receive = ms(phases.transfer);
    return {
        time: Math.max(dns, 0) + Math.max(connect, 0) + wait + receive,
        timings: { blocked: -1, dns, connect, ssl, send: 0, wait, receive },
    };
}

// One HAR entry from an Item (a row plus its record).
export function harEntry(item) {
    const details = item.record?.details ?? {};
    const request = details.request ?? null;
    const response = details.response ?? null;
    const half = request ?? {};
    const requestBody = typeof half.body === "string" ? half.body : "";
    const started = typeof half.startedAt === "number" ? half.startedAt : item.record?.createdAt ?? item.time ?? 0;
    const requestEncoding = bodyEncoding(half, false).encoding;
    const url = uriText(half.url ?? item.url ?? "");

    const harRequest = {
        method: half.method || item.method || "GET",
        url,
        httpVersion: "HTTP/1.1",
        cookies: [],
        headers: headerList(half.headers),
        queryString: queryString(url),
        headersSize: -1,
        bodySize: typeof half.bodyTotalBytes === "number" ? half.bodyTotalBytes : bodySize(requestBody, requestEncoding),
    };
    if (requestBody) {
        harRequest.postData = { mimeType: header(half.headers, "Content-Type") ?? "", text: requestBody };
        const comments = [];
        if (requestEncoding === "base64") comments.push("base64 of the body's bytes");
        if (typeof half.bodyTotalBytes === "number") comments.push(cutComment(half.bodyTotalBytes));
        if (comments.length) harRequest.postData.comment = comments.join("; ");
    }

    let harResponse;
    if (response) {
        const body = typeof response.body === "string" ? response.body : "";
        const { encoding, contentType } = bodyEncoding(response, true);
        const total = response.bodyTotalBytes;
        const content = { size: typeof total === "number" ? total : bodySize(body, encoding), mimeType: contentType, text: body };
        if (encoding === "base64") content.encoding = "base64";
        if (typeof total === "number") content.comment = cutComment(total);
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

    const { time, timings } = harTimings(request, response);
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

// The bytes as a printf format that prints exactly them: printable ASCII as it is (with the
// format's own % and \ doubled), every other byte as a three-digit octal escape. Single-quoted.
function printfFormat(bytes) {
    let out = "";
    for (const c of bytes) {
        if (c === 0x25) out += "%%";
        else if (c === 0x5c) out += "\\\\";
        else if (c >= 0x20 && c < 0x7f) out += String.fromCharCode(c);
        else out += `\\${c.toString(8).padStart(3, "0")}`;
    }
    return shellQuote(out);
}

export function curlCommand(record) {
    const request = record?.details?.request ?? {};
    const method = request.method || "GET";
    const body = typeof request.body === "string" ? request.body : "";
    const base64 = bodyEncoding(request, false).encoding === "base64";
    let bytes = null;
    if (base64) {
        try {
            bytes = base64ToBytes(body);
        } catch {
            bytes = null;  // not base64 after all: no body can be given
        }
    } else {
        bytes = new TextEncoder().encode(body);
    }
    const hasBody = bytes !== null && bytes.length > 0;
    const throughStdin = hasBody && (base64 || body.includes("\0"));

    let first = throughStdin ? `printf ${printfFormat(bytes)} | curl` : "curl";
    if (method === "HEAD" && !hasBody) first += " --head";
    else if (method !== "GET" || hasBody) first += ` -X ${shellQuote(method)}`;
    first += ` ${shellQuote(request.url ?? "")}`;
    const parts = [first];
    let hasContentType = false;
    for (const { name, value } of headerList(request.headers)) {
        const lower = name.toLowerCase();
        if (lower === "content-length") continue;
        if (lower === "content-type") hasContentType = true;
        parts.push(`-H ${shellQuote(value === "" ? `${name};` : `${name}: ${value}`)}`);
    }
    if (hasBody) {
        if (!hasContentType) parts.push(`-H ${shellQuote("Content-Type:")}`);
        parts.push(throughStdin ? "--data-binary @-" : `--data-raw ${shellQuote(body)}`);
    }
    return parts.join(" \\\n  ");
}
