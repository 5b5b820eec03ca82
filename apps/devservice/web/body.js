// How a captured body is carried, and what it is. The SDK sends a request body as its UTF-8
// text (base64 when it was cut at capture and its type is not textual); a response body as text
// when its content type is textual (JSON, XML, SVG, text/…), else as standard base64 of its
// bytes. A response answered by a mock
// rule carries the rule's body as text whatever its type; the service marks such a response with
// the header "Kestro-Intercepted: true".

export function header(headers, name) {
    if (!headers || typeof headers !== "object") return null;
    const wanted = name.toLowerCase();
    for (const [key, value] of Object.entries(headers)) {
        if (key.toLowerCase() === wanted) return value;
    }
    return null;
}

export function isTextType(contentType) {
    const lower = (contentType ?? "").toLowerCase();
    return ["application/json", "application/ld+json", "image/svg+xml", "application/xml", "text/"]
        .some((kind) => lower.includes(kind));
}

// {encoding: "text" | "base64", contentType, mocked}. A request body is text, except one cut at
// capture (its half has "bodyTotalBytes") whose content type is not textual: that is the base64
// of its first bytes.
export function bodyEncoding(half, isResponse) {
    const contentType = header(half?.headers, "Content-Type") ?? "";
    const mocked = isResponse && header(half?.headers, "Kestro-Intercepted") === "true";
    const binary = !isTextType(contentType) && (isResponse ? !mocked : typeof half?.bodyTotalBytes === "number");
    return { encoding: binary ? "base64" : "text", contentType, mocked };
}

export function utf8Size(text) {
    let bytes = 0;
    for (let i = 0; i < text.length; i++) {
        const c = text.charCodeAt(i);
        if (c < 0x80) bytes += 1;
        else if (c < 0x800) bytes += 2;
        else if (c >= 0xd800 && c < 0xdc00) { bytes += 4; i++; }
        else bytes += 3;
    }
    return bytes;
}

export function base64Size(text) {
    const clean = text.replace(/\s+/g, "");
    const padding = clean.endsWith("==") ? 2 : clean.endsWith("=") ? 1 : 0;
    return Math.max(0, Math.floor((clean.length * 3) / 4) - padding);
}

export function bodySize(text, encoding) {
    return encoding === "base64" ? base64Size(text) : utf8Size(text);
}

export function base64ToBytes(text) {
    const binary = atob(text.replace(/\s+/g, ""));
    const bytes = new Uint8Array(binary.length);
    for (let i = 0; i < binary.length; i++) bytes[i] = binary.charCodeAt(i);
    return bytes;
}

export function looksLikeJSON(text, contentType) {
    const lower = (contentType ?? "").toLowerCase();
    if (lower.includes("json")) return true;
    const start = text.trimStart()[0];
    return start === "{" || start === "[";
}
