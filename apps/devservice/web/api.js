// The dashboard API, with the page's token. Every call answers the parsed JSON body or throws an
// ApiError that carries the HTTP status (0 when the service could not be reached) and the
// service's own error text.

export class ApiError extends Error {
    constructor(status, message, body = null) {
        super(message);
        this.status = status;
        this.body = body;
    }
}

export class Api {
    constructor(token) {
        this.token = token;
    }

    headers(extra = {}) {
        return { Authorization: `Bearer ${this.token}`, ...extra };
    }

    async request(method, path, body) {
        const init = { method, headers: this.headers(), cache: "no-store" };
        if (body !== undefined) {
            init.headers["Content-Type"] = "application/json";
            init.body = JSON.stringify(body);
        }
        let response;
        try {
            response = await fetch(path, init);
        } catch (e) {
            throw new ApiError(0, "the development service cannot be reached");
        }
        let parsed = null;
        const text = await response.text();
        try {
            parsed = text ? JSON.parse(text) : null;
        } catch (e) {
            throw new ApiError(response.status, `the service answered ${response.status} with something other than JSON`);
        }
        if (!response.ok) {
            const what = parsed && typeof parsed.error === "string" ? parsed.error : `status ${response.status}`;
            throw new ApiError(response.status, what, parsed);
        }
        return parsed;
    }

    get(path) { return this.request("GET", path); }
    post(path, body) { return this.request("POST", path, body ?? {}); }
    put(path, body) { return this.request("PUT", path, body); }
    delete(path) { return this.request("DELETE", path); }

    // Items of one device, newest first, with the list's filters. `extra` adds before= or since=.
    items(deviceId, filters, extra = {}) {
        const params = new URLSearchParams({ device: deviceId, limit: "500" });
        for (const name of ["kind", "level", "method", "status"]) {
            if (filters[name].length) params.set(name, filters[name].join(","));
        }
        if (filters.q) params.set("q", filters.q);
        for (const [k, v] of Object.entries(extra)) params.set(k, String(v));
        return this.get(`/api/items?${params}`);
    }

    devicePath(deviceId) {
        return `/api/devices/${encodeURIComponent(deviceId)}`;
    }

    itemPath(deviceId, itemId) {
        return `${this.devicePath(deviceId)}/items/${encodeURIComponent(itemId)}`;
    }

    command(deviceId, action, payload = null) {
        return this.post(`${this.devicePath(deviceId)}/commands`, { action, payload });
    }
}
