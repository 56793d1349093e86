// Drives a served device from its own description: the document is valid OpenRPC, and each method of it can be called
// with its example. Usage: node openrpc.mjs URL TOKEN, for a new device, with the packages beside this file.
import assert from "node:assert";
import jsonSchema from "@json-schema-tools/meta-schema";
import { Client, HTTPTransport, RequestManager } from "@open-rpc/client-js";
import { OpenRPCSpecificationSchema1_4 as openrpc } from "@open-rpc/spec";
import { Ajv } from "ajv";

const [url, token] = process.argv.slice(2);
const connect = (headers) => new Client(new RequestManager([new HTTPTransport(`${url}/rpc`, { headers })]));
const params = (method) => Object.fromEntries(method.examples[0].params.map(({ name, value }) => [name, value]));

const ajv = new Ajv({ strict: false, validateFormats: false });
const isOpenRpc = ajv.addSchema(jsonSchema.default, "https://meta.json-schema.tools").compile(openrpc);
const user = connect({});
const admin = connect({ Authorization: `Bearer ${token}` });

const description = await user.request({ method: "rpc.discover", params: [] });
assert.deepStrictEqual(description, await (await fetch(`${url}/openrpc.json`)).json());
assert.ok(isOpenRpc(description), JSON.stringify(isOpenRpc.errors));
assert.ok(!isOpenRpc({ ...description, methods: [{ name: "no params" }] }), "the schema refuses nothing");

const methods = description.methods.filter(({ name }) => name.includes("/"));
for (const method of methods) {
  const result = await admin.request({ method: method.name, params: params(method) });
  const fits = ajv.compile(method.result.schema);
  assert.ok(fits(result), `${method.name}: ${JSON.stringify(fits.errors)}`);
}
console.log(`${methods.length} methods called from their description`);
