// The delay from an upload to its row in the dashboard, at a steady 1,000 uploads a second.
//
//   node bench/dashboard_latency.mjs [--rate 1000] [--seconds 5] [--runs 3]
//
// Starts the development service (build/apps/devservice/kestro-devservice, or $KESTRO_DEVSERVICE)
// on a free loopback port and opens its dashboard in Debian's Chromium. A sender posts log
// uploads on a fixed schedule (one every 1/rate s, each stamped with a number) and notes when
// each request was issued; in the page a MutationObserver notes when the row with that number
// is first written into the list. Both times are read from the same clock
// (performance.timeOrigin + performance.now() in node and in the page: the system's wall clock
// at sub-millisecond resolution), so their difference is upload → push → state → row on screen.
// The view is made tall enough for about 90 rows; a row that the list never drew (because more
// rows arrived between two frames than the view holds) is counted apart. Prints p50, p99 and
// the largest delay of each run and their spread; as the baseline of the same run, the delay
// from an upload to the service's answer to it; and the delay from that answer to the row (the
// push channel and the page alone).
//
// Needs the browser tests' npm packages (scripts/setup.sh installs them).

import http from "node:http";
import { Service, launchBrowser, openPage, waitFor } from "../tests/browser/harness.js";

function option(name, fallback) {
    const at = process.argv.indexOf(`--${name}`);
    return at > 0 ? Number(process.argv[at + 1]) : fallback;
}

const RATE = option("rate", 1000);
const SECONDS = option("seconds", 5);
const RUNS = option("runs", 3);
const WARMUP = 500;

const now = () => performance.timeOrigin + performance.now();

function percentile(sorted, p) {
    if (!sorted.length) return NaN;
    return sorted[Math.min(sorted.length - 1, Math.floor((p / 100) * sorted.length))];
}

function record(id, message) {
    const t = Date.now() / 1000;
    return JSON.stringify({
        eventType: "log", id, type: "log", level: "info", sentAt: t, createdAt: t,
        details: { message, subsystem: "", category: "bench", filePath: "/bench.cc", file: "bench.cc", line: 1 },
        device: { id: "BE7C0000-0000-4000-8000-000000000001", name: "Latency bench", model: "x86_64", osName: "Linux", osVersion: "6.1", platform: "Linux", sdkVersion: "bench" },
    });
}

// One upload over a kept-alive connection; resolves when the service has answered.
function post(service, key, agent, body) {
    return new Promise((resolve, reject) => {
        const request = http.request({
            host: "127.0.0.1", port: service.port, path: "/v1/requests", method: "POST", agent,
            headers: { "Api-Key": key, "Content-Type": "application/json", "Content-Length": Buffer.byteLength(body) },
        }, (response) => {
            response.resume();
            response.on("end", () => (response.statusCode === 200 ? resolve() : reject(new Error(`status ${response.statusCode}`))));
        });
        request.on("error", reject);
        request.end(body);
    });
}

// Posts `count` uploads, the i-th at start + i/rate; answers when each was issued and when the
// service answered it.
async function send(service, key, tag, count) {
    const agent = new http.Agent({ keepAlive: true, maxSockets: 32 });
    const sent = new Float64Array(count);
    const answered = new Float64Array(count);
    const pending = [];
    const start = now() + 50;
    for (let i = 0; i < count; i++) {
        const due = start + (i * 1000) / RATE;
        const wait = due - now();
        if (wait > 1) await new Promise((r) => setTimeout(r, wait));
        sent[i] = now();
        pending.push(post(service, key, agent, record(`${tag}-${i}`, `lat ${tag} ${i} end`)).then(() => {
            answered[i] = now();
        }));
    }
    await Promise.all(pending);
    agent.destroy();
    return { sent, answered, span: now() - start };
}

async function run(service, key, page, tag) {
    const count = RATE * SECONDS;
    await page.evaluate((tag) => {
        window.seen = new Map();
        const box = document.querySelector(".list-rows");
        const pattern = new RegExp(`^lat ${tag} (\\d+) end$`);
        window.observer?.disconnect();
        window.observer = new MutationObserver(() => {
            const t = performance.timeOrigin + performance.now();
            for (const cell of box.querySelectorAll(".c-text")) {
                const m = pattern.exec(cell.textContent);
                if (m && !window.seen.has(m[1])) window.seen.set(m[1], t);
            }
        });
        window.observer.observe(box, { subtree: true, childList: true, characterData: true });
        // The page's frame rate during the run.
        window.frames = 0;
        window.counting = true;
        const count = () => {
            window.frames += 1;
            if (window.counting) requestAnimationFrame(count);
        };
        requestAnimationFrame(count);
    }, tag);
    const { sent, answered, span } = await send(service, key, tag, count);
    // The last rows reach the page shortly after the last answer.
    await waitFor("the last row", () => page.evaluate((n) => window.seen.has(String(n - 1)), count), { ms: 10_000 }).catch(() => {});
    const frames = await page.evaluate(() => {
        window.counting = false;
        return window.frames;
    });
    const seen = new Map(await page.evaluate(() => [...window.seen]));
    const delays = [];
    const answers = [];
    const afterAnswer = [];
    for (let i = WARMUP; i < count; i++) {
        answers.push(answered[i] - sent[i]);
        const t = seen.get(String(i));
        if (t === undefined) continue;
        delays.push(t - sent[i]);
        afterAnswer.push(t - answered[i]);
    }
    for (const list of [delays, answers, afterAnswer]) list.sort((a, b) => a - b);
    return {
        p50: percentile(delays, 50), p99: percentile(delays, 99), max: delays[delays.length - 1],
        missed: count - WARMUP - delays.length, measured: delays.length,
        answerP50: percentile(answers, 50), answerP99: percentile(answers, 99), rate: (count * 1000) / span,
        fps: (frames * 1000) / span,
        afterP50: percentile(afterAnswer, 50), afterP99: percentile(afterAnswer, 99),
    };
}

const service = await Service.start({ args: ["--quiet"] });
const browser = await launchBrowser();
try {
    const key = await service.apiKey();
    const first = await fetch(`${service.base}/v1/requests`, {
        method: "POST", headers: { "Api-Key": key, "Content-Type": "application/json" }, body: record("WARM-0", "warm up"),
    });
    if (!first.ok) throw new Error(`the first upload was refused: ${first.status}`);
    // A tall view (about 90 rows), so that the rows of one frame fit in it even when frames come
    // late: a row pushed out of view before the next frame is never drawn and cannot be timed.
    const page = await openPage(browser, service.dashboard, { viewport: { width: 1400, height: 2600 } });
    await page.locator(".connection[data-state=open]").waitFor();
    await page.locator(".list-rows .row", { hasText: "warm up" }).waitFor();

    console.log(`upload → row delay at ${RATE} uploads/s, ${SECONDS} s a run (first ${WARMUP} not counted), Chromium ${browser.version()}`);
    const results = [];
    for (let r = 0; r < RUNS; r++) {
        const result = await run(service, key, page, `R${r}`);
        results.push(result);
        console.log(`run ${r + 1}: row p50 ${result.p50.toFixed(1)} ms  p99 ${result.p99.toFixed(1)} ms  max ${result.max.toFixed(1)} ms  (${result.measured} rows, ${result.missed} not drawn)`
            + ` | answered p50 ${result.answerP50.toFixed(1)} ms  p99 ${result.answerP99.toFixed(1)} ms`
            + ` | row after answer p50 ${result.afterP50.toFixed(1)} ms  p99 ${result.afterP99.toFixed(1)} ms`
            + ` | sent at ${result.rate.toFixed(0)}/s, page at ${result.fps.toFixed(0)} frames/s`);
    }
    const span = (key) => `${Math.min(...results.map((x) => x[key])).toFixed(1)}–${Math.max(...results.map((x) => x[key])).toFixed(1)} ms`;
    console.log(`p50 ${span("p50")}, p99 ${span("p99")} over ${RUNS} runs`);
    if (page.errors.length) console.log(`the page logged errors:\n${page.errors.join("\n")}`);
} finally {
    await browser.close();
    await service.stop();
}
