// Stock JSON-RPC clients, one of them over `fetch` with streamed bodies, make the same calls to a served device.
// Usage: node stock.mjs URL TOKEN, with the packages beside this file.
import assert from "node:assert";
import jayson from "jayson/promise/index.js";
import { JSONRPCClient, createJSONRPCRequest } from "json-rpc-2.0";

const [url, token] = process.argv.slice(2);
const get = "VEXA.Core.TunnelBridge.Upnp/1/get";
const set = "VEXA.Core.TunnelBridge.Upnp/1/set";
const headersOf = (admin) => ({ "Content-Type": "application/json", ...(admin && { Authorization: `Bearer ${token}` }) });

const jsonRpc = (admin) => {
  const client = new JSONRPCClient(async (request) => {
    const body = new Blob([JSON.stringify(request)]).stream();
    const answer = await fetch(`${url}/rpc`, { method: "POST", headers: headersOf(admin), body, duplex: "half" });
    if (answer.status !== 204) client.receive(await answer.json());
  });
  return client;
};
const jaysonClient = (admin) => jayson.Client.http({ hostname: "127.0.0.1", port: new URL(url).port, path: "/rpc", headers: headersOf(admin) });

// Each client: one request, a notification and a batch of [method, params] pairs, answered by response objects.
const clients = {
  "json-rpc-2.0, streamed": {
    one: (admin, method, params) => jsonRpc(admin).requestAdvanced(createJSONRPCRequest(1, method, params)),
    notify: async (admin, method, params) => jsonRpc(admin).notify(method, params),
    batch: (admin, calls) => jsonRpc(admin).requestAdvanced(calls.map(([method, params], id) => createJSONRPCRequest(id, method, params))),
  },
  "jayson": {
    one: (admin, method, params) => jaysonClient(admin).request(method, params ?? []),
    notify: (admin, method, params) => jaysonClient(admin).request(method, params, null),
    batch: (admin, calls) => {
      const client = jaysonClient(admin);
      return client.request(calls.map(([method, params]) => client.request(method, params, undefined, false)));
    },
  },
};

const enabled = async () => (await jaysonClient(false).request(get, [])).result.enabled;
const cases = {
  "no parameters, or an empty list": async ({ one }) => {
    for (const params of [undefined, []]) assert.equal(typeof (await one(false, get, params)).result.enabled, "boolean");
  },
  "an administrator's change": async ({ one }) => {
    assert.equal((await one(true, set, { enabled: false })).result, null);
    assert.equal(await enabled(), false);
  },
  "a notification": async ({ notify }) => {
    await notify(true, set, { enabled: true });
    // Some clients do not wait for the end of a notification.
    for (let looks = 0; looks < 1000 && !(await enabled()); ++looks);
    assert.equal(await enabled(), true);
  },
  "an error": async ({ one }) => {
    const { error } = await one(false, set, { enabled: true });
    assert.equal(error.code, 105);
    assert.match(error.data.remedy, /administrator/);
  },
  "a batch": async ({ batch }) => {
    const answers = await batch(false, [[get, {}], [set, { enabled: false }], [get, []]]);
    assert.deepEqual(answers.map(({ error }) => error?.code), [undefined, 105, undefined]);
  },
};
for (const [client, calls] of Object.entries(clients)) {
  for (const [name, check] of Object.entries(cases)) {
    await check(calls).catch((problem) => { throw new Error(`${client}: ${name}`, { cause: problem }); });
  }
}
console.log(`${Object.keys(clients).length} clients answered in ${Object.keys(cases).length} cases each`);
