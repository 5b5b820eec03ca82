// A JSON value as a tree that folds and unfolds, with a search field. Nodes are built only when
// their parent is first unfolded, and large arrays and objects show their members 200 at a time,
// so a big document costs what is on screen rather than what it holds. Search walks the value
// itself (not the DOM), unfolds the way to each match and marks it.

import { el, fromTemplate } from "./format.js";

const CHUNK = 200;
const LONG_TEXT = 300;
const SEARCH_NODE_LIMIT = 500_000;
const MATCH_LIMIT = 1_000;
const EXPAND_ALL_LIMIT = 5_000;

const isBranch = (v) => v !== null && typeof v === "object";
const entries = (v) => (Array.isArray(v) ? v.map((x, i) => [i, x]) : Object.entries(v));
const pathKey = (path) => JSON.stringify(path);

function summary(value) {
    const n = Array.isArray(value) ? value.length : Object.keys(value).length;
    return Array.isArray(value) ? `[${n} ${n === 1 ? "item" : "items"}]` : `{${n} ${n === 1 ? "key" : "keys"}}`;
}

function primitive(value) {
    if (typeof value === "string") {
        const span = el("span", "jv jv-string");
        if (value.length > LONG_TEXT) {
            span.textContent = JSON.stringify(value.slice(0, LONG_TEXT)).slice(0, -1) + "…";
            const more = el("button", "jv-more", `show all ${value.length} characters`);
            more.type = "button";
            more.addEventListener("click", (e) => {
                e.stopPropagation();
                span.textContent = JSON.stringify(value);
            });
            const wrap = el("span");
            wrap.append(span, " ", more);
            return wrap;
        }
        span.textContent = JSON.stringify(value);
        return span;
    }
    const kind = value === null ? "null" : typeof value;
    return el("span", `jv jv-${kind}`, String(value));
}

class TreeNode {
    constructor(tree, key, value, path, depth) {
        this.tree = tree;
        this.key = key;
        this.value = value;
        this.path = path;
        this.depth = depth;
        this.children = new Map();
        this.shown = 0;
        this.open = false;
        this.build();
    }

    build() {
        const node = el("div", "jn");
        node.setAttribute("role", "treeitem");
        const line = el("div", "jn-line");
        const toggle = el("button", "jn-toggle");
        toggle.type = "button";
        toggle.tabIndex = -1;
        line.append(toggle);
        if (this.key !== null) {
            const key = el("span", typeof this.key === "number" ? "jk jk-index" : "jk",
                typeof this.key === "number" ? String(this.key) : JSON.stringify(this.key));
            line.append(key, el("span", "jp", ": "));
        }
        if (isBranch(this.value)) {
            this.summary = el("span", "js", summary(this.value));
            line.append(this.summary);
            toggle.textContent = "▸";
            toggle.setAttribute("aria-label", "Unfold");
            line.addEventListener("click", () => this.setOpen(!this.open));
            this.box = el("div", "jn-children");
            this.box.hidden = true;
            node.append(line, this.box);
            node.setAttribute("aria-expanded", "false");
        } else {
            toggle.classList.add("leaf");
            line.append(primitive(this.value));
            node.append(line);
        }
        this.line = line;
        this.toggle = toggle;
        this.el = node;
        if (this.tree.hits.has(pathKey(this.path))) line.classList.add("jn-hit");
    }

    setOpen(open) {
        if (!isBranch(this.value)) return;
        this.open = open;
        this.box.hidden = !open;
        this.toggle.textContent = open ? "▾" : "▸";
        this.toggle.setAttribute("aria-label", open ? "Fold" : "Unfold");
        this.el.setAttribute("aria-expanded", String(open));
        if (open && this.shown === 0) this.showMore();
    }

    showMore(upTo = 0) {
        const all = entries(this.value);
        const end = Math.min(all.length, Math.max(this.shown + CHUNK, upTo + 1));
        this.moreButton?.remove();
        for (let i = this.shown; i < end; i++) {
            const [k, v] = all[i];
            const child = new TreeNode(this.tree, k, v, [...this.path, k], this.depth + 1);
            this.children.set(k, child);
            this.box.append(child.el);
        }
        this.shown = end;
        if (end < all.length) {
            this.moreButton = el("button", "jn-more", `show ${Math.min(CHUNK, all.length - end)} more of ${all.length - end}`);
            this.moreButton.type = "button";
            this.moreButton.addEventListener("click", () => this.showMore());
            this.box.append(this.moreButton);
        }
    }

    // Unfolds down to the member with this key, building what is needed, and answers it.
    reveal(key) {
        this.setOpen(true);
        if (!this.children.has(key)) {
            const index = Array.isArray(this.value) ? key : Object.keys(this.value).indexOf(key);
            if (index >= this.shown) this.showMore(index);
        }
        return this.children.get(key);
    }
}

export class JsonTree {
    constructor(value) {
        this.value = value;
        this.hits = new Set();
        this.matches = [];
        this.current = -1;
        this.el = fromTemplate("json-tree");
        this.rootBox = this.el.querySelector(".json-root");
        this.count = this.el.querySelector(".json-count");
        this.input = this.el.querySelector("input");
        this.root = new TreeNode(this, null, value, [], 0);
        this.rootBox.append(this.root.el);
        this.root.setOpen(true);
        // Small documents open one level further, which is what one reads first.
        if (isBranch(value) && entries(value).length <= 50) {
            for (const child of this.root.children.values()) {
                if (isBranch(child.value) && entries(child.value).length <= 50) child.setOpen(true);
            }
        }
        let timer = 0;
        this.input.addEventListener("input", () => {
            clearTimeout(timer);
            timer = setTimeout(() => this.search(this.input.value), 150);
        });
        this.input.addEventListener("keydown", (e) => {
            if (e.key === "Enter") {
                e.preventDefault();
                this.step(e.shiftKey ? -1 : 1);
            }
        });
        this.el.querySelector('[data-act="next"]').addEventListener("click", () => this.step(1));
        this.el.querySelector('[data-act="prev"]').addEventListener("click", () => this.step(-1));
        this.el.querySelector('[data-act="expand"]').addEventListener("click", () => this.expandAll());
        this.el.querySelector('[data-act="collapse"]').addEventListener("click", () => this.collapseAll());
    }

    search(text) {
        const query = text.trim().toLowerCase();
        for (const line of this.rootBox.querySelectorAll(".jn-hit, .jn-current")) {
            line.classList.remove("jn-hit", "jn-current");
        }
        this.hits.clear();
        this.matches = [];
        this.current = -1;
        if (!query) {
            this.count.textContent = "";
            return;
        }
        let visited = 0;
        let capped = false;
        const stack = [[[], null, this.value]];
        while (stack.length) {
            if (++visited > SEARCH_NODE_LIMIT || this.matches.length >= MATCH_LIMIT) {
                capped = true;
                break;
            }
            const [path, key, value] = stack.pop();
            const keyHit = typeof key === "string" && key.toLowerCase().includes(query);
            const valueHit = !isBranch(value) && String(value).toLowerCase().includes(query);
            if (keyHit || valueHit) {
                this.matches.push(path);
                this.hits.add(pathKey(path));
            }
            if (isBranch(value)) {
                const members = entries(value);
                for (let i = members.length - 1; i >= 0; i--) {
                    const [k, v] = members[i];
                    stack.push([[...path, k], k, v]);
                }
            }
        }
        this.markRendered(this.root);
        this.count.textContent = this.matches.length
            ? `${this.matches.length}${capped ? "+" : ""} found`
            : "not found";
        if (this.matches.length) this.step(1);
    }

    markRendered(node) {
        if (this.hits.has(pathKey(node.path))) node.line.classList.add("jn-hit");
        for (const child of node.children.values()) this.markRendered(child);
    }

    step(direction) {
        if (!this.matches.length) return;
        this.rootBox.querySelector(".jn-current")?.classList.remove("jn-current");
        this.current = (this.current + direction + this.matches.length) % this.matches.length;
        let node = this.root;
        for (const key of this.matches[this.current]) node = node.reveal(key);
        node.line.classList.add("jn-current");
        node.line.scrollIntoView({ block: "nearest" });
        this.count.textContent = `${this.current + 1} of ${this.matches.length}`;
    }

    expandAll() {
        let budget = EXPAND_ALL_LIMIT;
        const walk = (node) => {
            if (!isBranch(node.value) || budget <= 0) return;
            node.setOpen(true);
            budget -= node.children.size;
            for (const child of node.children.values()) walk(child);
        };
        walk(this.root);
    }

    collapseAll() {
        for (const child of this.root.children.values()) {
            const fold = (node) => {
                for (const c of node.children.values()) fold(c);
                node.setOpen(false);
            };
            fold(child);
        }
    }
}
