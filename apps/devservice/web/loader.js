// Loads full Items through the item worker (see item_worker.js). One worker serves the page;
// answers are matched to questions by number.

export class ItemLoader {
    constructor(api) {
        this.api = api;
        this.worker = new Worker("/app/item_worker.js", { type: "module" });
        this.waiting = new Map();
        this.next = 1;
        this.worker.onmessage = ({ data }) => {
            const entry = this.waiting.get(data.id);
            if (!entry) return;
            this.waiting.delete(data.id);
            if (data.error !== undefined) {
                const error = new Error(data.error);
                error.status = data.status;
                entry.reject(error);
            } else {
                entry.resolve(data.item);
            }
        };
    }

    // The item with texts cut at `limit` characters (0: whole). `keep` keeps it in the worker for
    // a later call with a larger limit.
    load(deviceId, itemId, { limit = 0, revision = 0, keep = false } = {}) {
        const id = this.next++;
        const url = this.api.itemPath(deviceId, itemId);
        return new Promise((resolve, reject) => {
            this.waiting.set(id, { resolve, reject });
            this.worker.postMessage({ id, url, token: this.api.token, limit, revision, keep });
        });
    }

    // Many items, a few at a time; failures come back as null.
    async loadAll(rows, onProgress) {
        const results = new Array(rows.length).fill(null);
        let done = 0;
        let cursor = 0;
        const lane = async () => {
            while (cursor < rows.length) {
                const at = cursor++;
                try {
                    results[at] = await this.load(rows[at].deviceId, rows[at].id);
                } catch {
                    results[at] = null;
                }
                done += 1;
                onProgress?.(done, rows.length);
            }
        };
        await Promise.all(Array.from({ length: Math.min(6, rows.length) }, lane));
        return results;
    }
}
