// Checks HAR files against the published HAR 1.2 schema (har-schema, through ajv) and the
// timing rules the schema cannot state: time is the sum of the phases other than ssl that are
// not -1, and ssl, when measured, lies within connect.
// Usage: node validate_har.mjs <folder holding node_modules> <file.har>...
import { readFileSync } from "node:fs";
import { createRequire } from "node:module";
import path from "node:path";

const [modules, ...files] = process.argv.slice(2);
const require = createRequire(path.join(path.resolve(modules), "package.json"));
const Ajv = require("ajv");
const addFormats = require("ajv-formats");

const ajv = new Ajv({ allErrors: true, strict: false });
addFormats(ajv);
ajv.addMetaSchema(require("ajv/dist/refs/json-schema-draft-06.json"));
const schemas = require("har-schema");
for (const [name, schema] of Object.entries(schemas)) {
    if (name !== "har") ajv.addSchema(schema);
}
const validate = ajv.compile(schemas.har);

let failures = 0;
for (const file of files) {
    const har = JSON.parse(readFileSync(file, "utf8"));
    if (!validate(har)) {
        failures++;
        console.error(`${file}: not valid HAR 1.2\n${JSON.stringify(validate.errors, null, 2)}`);
        continue;
    }
    har.log.entries.forEach((entry, i) => {
        const t = entry.timings;
        const phases = [t.blocked, t.dns, t.connect, t.send, t.wait, t.receive].filter((v) => v !== -1 && v !== undefined);
        const sum = phases.reduce((a, b) => a + b, 0);
        if (Math.abs(sum - entry.time) > 0.01) {
            failures++;
            console.error(`${file}: entry ${i}: time ${entry.time} but the phases add up to ${sum}`);
        }
        if (t.ssl !== -1 && !(t.connect !== -1 && t.ssl <= t.connect)) {
            failures++;
            console.error(`${file}: entry ${i}: ssl ${t.ssl} is not within connect ${t.connect}`);
        }
    });
    console.log(`${file}: ${har.log.entries.length} entries checked`);
}
process.exit(failures === 0 ? 0 : 1);
