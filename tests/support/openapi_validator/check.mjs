// Whether a file is a description of an API as OpenAPI has it; says what is wrong with it otherwise.
import { readFileSync } from "node:fs";
import { Validator } from "@seriousme/openapi-schema-validator";

async function check(description) {
    const validator = new Validator();
    const result = await validator.validate(description);
    return { valid: result.valid, errors: result.errors, version: validator.version };
}

const description = JSON.parse(readFileSync(process.argv[2], "utf8"));
const found = await check(structuredClone(description));
if (!found.valid || found.version !== "3.1") {
    console.log(JSON.stringify(found, null, 1));
    process.exit(1);
}
// The validator itself sees what is wrong.
for (const spoil of [
    (d) => delete d.info.title,
    (d) => (d.paths["/healthz"].get.responses = {}),
    (d) => (d.paths["/healthz"].get.parameters = [{ name: "x", in: "nowhere" }]),
    (d) => (d.components.securitySchemes.cookie.in = "body"),
    (d) => delete d.components.schemas.problem,
]) {
    const spoilt = structuredClone(description);
    spoil(spoilt);
    if ((await check(spoilt)).valid) {
        console.log(`the validator lets this pass: ${spoil}`);
        process.exit(1);
    }
}
