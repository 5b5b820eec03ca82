// Small formatting helpers shared by the screens. Times are seconds since 1970 (as the records
// carry them) and are shown in the browser's time zone.

const pad = (n, width = 2) => String(n).padStart(width, "0");

// "14:03:07.123"
export function clock(seconds) {
    if (typeof seconds !== "number") return "";
    const d = new Date(seconds * 1000);
    return `${pad(d.getHours())}:${pad(d.getMinutes())}:${pad(d.getSeconds())}.${pad(d.getMilliseconds(), 3)}`;
}

// "2024-05-01 14:03:07.123 +02:00"
export function dateTime(seconds) {
    if (typeof seconds !== "number") return "";
    const d = new Date(seconds * 1000);
    const offset = -d.getTimezoneOffset();
    const sign = offset >= 0 ? "+" : "-";
    const zone = `${sign}${pad(Math.floor(Math.abs(offset) / 60))}:${pad(Math.abs(offset) % 60)}`;
    return `${d.getFullYear()}-${pad(d.getMonth() + 1)}-${pad(d.getDate())} ${clock(seconds)} ${zone}`;
}

// "just now", "12 s ago", "5 min ago", "3 h ago", else the date and time.
export function ago(seconds, now = Date.now() / 1000) {
    if (typeof seconds !== "number" || seconds <= 0) return "never";
    const s = Math.max(0, now - seconds);
    if (s < 2) return "just now";
    if (s < 60) return `${Math.floor(s)} s ago`;
    if (s < 3600) return `${Math.floor(s / 60)} min ago`;
    if (s < 86400) return `${Math.floor(s / 3600)} h ago`;
    return dateTime(seconds);
}

// "0 B", "1.5 KB", "50.0 MB" (1 KB = 1,024 bytes).
export function size(bytes) {
    if (typeof bytes !== "number") return "";
    if (bytes < 1024) return `${bytes} B`;
    const units = ["KB", "MB", "GB"];
    let value = bytes / 1024;
    let unit = 0;
    while (value >= 1024 && unit < units.length - 1) {
        value /= 1024;
        unit += 1;
    }
    return `${value.toFixed(1)} ${units[unit]}`;
}

export function duration(ms) {
    if (typeof ms !== "number") return "";
    return ms < 1000 ? `${ms.toFixed(ms < 10 ? 1 : 0)} ms` : `${(ms / 1000).toFixed(2)} s`;
}

// Clones a <template> by id and answers its first element (or the fragment when it has several).
export function fromTemplate(id) {
    const template = document.getElementById(id);
    const fragment = template.content.cloneNode(true);
    return fragment.childElementCount === 1 ? fragment.firstElementChild : fragment;
}

export function el(tag, className, text) {
    const node = document.createElement(tag);
    if (className) node.className = className;
    if (text !== undefined) node.textContent = text;
    return node;
}
