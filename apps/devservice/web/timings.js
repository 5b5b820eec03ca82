// An exchange's phases as the SDK measured them (the response's "timings": nameLookup, connect,
// tls, firstByte, transfer, each in milliseconds; a phase that did not happen is 0; absent for
// mocked answers) and what the screens say of a body that was cut at capture.

export const PHASES = [
    ["nameLookup", "Name lookup"],
    ["connect", "Connect"],
    ["tls", "TLS"],
    ["firstByte", "First byte"],
    ["transfer", "Transfer"],
];

// {nameLookup, connect, tls, firstByte, transfer} as durations, or null when the record has no
// timings (or they are not five numbers). A value that cannot be a duration (negative, from a
// clock that jumped) counts as 0.
export function phaseDurations(timings) {
    if (!timings || typeof timings !== "object") return null;
    const out = {};
    for (const [key] of PHASES) {
        const value = timings[key];
        if (typeof value !== "number") return null;
        out[key] = Number.isFinite(value) && value > 0 ? value : 0;
    }
    return out;
}

// The waterfall: one segment per phase, one after the other ({key, label, offset, duration} in
// ms), and the total; null without timings.
export function waterfall(timings) {
    const durations = phaseDurations(timings);
    if (!durations) return null;
    let offset = 0;
    const segments = PHASES.map(([key, label]) => {
        const segment = { key, label, offset, duration: durations[key] };
        offset += durations[key];
        return segment;
    });
    return { segments, total: offset };
}

// "truncated: 1,048,577 bytes in all" for a half whose body was cut, else null.
export function truncatedText(half) {
    const total = half?.bodyTotalBytes;
    if (typeof total !== "number" || !Number.isFinite(total)) return null;
    return `truncated: ${total.toLocaleString("en")} bytes in all`;
}
