// Fetches and parses Items off the page's thread, so that an item with a body of tens of
// megabytes never stalls the page. Texts longer than the asked limit are cut; what was cut is
// described under "_cut" so that the page can say so and ask for more. The last item asked for
// is kept, so that "show more" does not fetch it again.

import { bodyEncoding, bodySize } from "./body.js";

let kept = null;  // {key, item}

async function fetchItem(url, token) {
    const response = await fetch(url, { headers: { Authorization: `Bearer ${token}` }, cache: "no-store" });
    const text = await response.text();
    let parsed = null;
    try {
        parsed = JSON.parse(text);
    } catch {
        parsed = null;
    }
    if (!response.ok) {
        const error = new Error(parsed?.error ?? `the service answered ${response.status}`);
        error.status = response.status;
        throw error;
    }
    if (!parsed || typeof parsed !== "object") throw new Error("the service's answer is not an item");
    return parsed;
}

function cut(item, limit) {
    const out = { ...item, record: item.record ? { ...item.record } : item.record, _cut: {} };
    const details = out.record?.details;
    if (!details || typeof details !== "object") return out;
    out.record.details = { ...details };
    for (const half of ["request", "response"]) {
        const part = details[half];
        if (!part || typeof part.body !== "string") continue;
        const { encoding } = bodyEncoding(part, half === "response");
        const info = { length: part.body.length, size: bodySize(part.body, encoding), shown: part.body.length };
        if (part.body.length > limit) {
            out.record.details[half] = { ...part, body: part.body.slice(0, limit) };
            info.shown = limit;
        }
        out._cut[half] = info;
    }
    if (details.payload !== undefined) {
        const text = JSON.stringify(details.payload) ?? "";
        if (text.length > limit) {
            out.record.details.payload = null;
            out._cut.payload = { length: text.length, size: text.length, shown: limit, text: text.slice(0, limit) };
        }
    }
    return out;
}

onmessage = async ({ data }) => {
    const { id, url, token, limit, revision, keep } = data;
    try {
        const key = `${url}#${revision}`;
        let item = kept?.key === key ? kept.item : null;
        if (!item) {
            item = await fetchItem(url, token);
            if (keep) kept = { key, item };
        }
        postMessage({ id, item: limit ? cut(item, limit) : item });
    } catch (e) {
        postMessage({ id, error: e.message, status: e.status ?? 0 });
    }
};
