// A client that is none of ours finds the robots of a fleet, asks them, and reads what they tell.
import assert from "node:assert/strict";
import { connect, StringCodec } from "nats";

const codec = StringCodec();
const soon = async (what, isSo) => {
  for (const end = Date.now() + 60_000; ; ) {
    const found = await isSo().catch(() => undefined);
    if (found) return found;
    if (Date.now() > end) throw new Error(`${what} does not come`);
    await new Promise((resolve) => setTimeout(resolve, 200));
  }
};
const server = process.argv[2];
const connection = await soon("the hub", () => connect({ servers: server, timeout: 5000 }));
const services = connection.services.client();
const all = async (answers) => {
  const found = [];
  for await (const answer of await answers) found.push(answer);
  return found;
};
await soon("three robots", async () => (await all(services.ping("korvo"))).length === 3);

const [info] = await all(services.info("korvo", "robot1"));
const verbs = ["get", "list", "describe", "set", "raise", "remove", "call"];
assert.deepEqual(info.endpoints.map((endpoint) => endpoint.name), verbs);

const ask = async (subject, data = "") => {
  const answer = await connection.request(`fleet.robot1.${subject}`, data, { timeout: 10_000 });
  const code = answer.headers?.get("Nats-Service-Error-Code");
  return code ? { code, body: JSON.parse(codec.decode(answer.data)) } : JSON.parse(codec.decode(answer.data));
};
assert.equal(await ask("set.Left=20arm.Pose", "[1,2.5]"), null);
assert.deepEqual(await ask("get", '"Left arm/Pose"'), [1, 2.5]);
assert.ok((await ask("call.HXMemory.getEventList", "[]")).includes("HXMemory/KeyAdded"));
const missing = await ask("get", '"Nope"');
assert.equal(missing.code, "404");
assert.equal((await ask("call.Broker.stop")).code, "403");
const [statistics] = await all(services.stats("korvo", "robot1"));
const get = statistics.endpoints.find((endpoint) => endpoint.name === "get");
assert.deepEqual([get.num_requests, get.num_errors], [2, 1]);
await assert.rejects(connection.request("fleet.robot9.get", '"A"'), { code: "503" });

const store = connection.jetstream({ domain: "hub" });
const values = await store.views.kv("fleet", { bindOnly: true });
const stored = await soon("the last value", () => values.get("robot1.Left=20arm.Pose"));
assert.deepEqual(JSON.parse(codec.decode(stored.value)).value, [1, 2.5]);

const desired = await store.views.kv("fleet_desired", { bindOnly: true });
await desired.put("robot1", JSON.stringify({ Speed: 7 }));
connection.publish("fleet.robot1.desired");
await soon("what it is to have", async () => (await ask("get", '"Speed"')) === 7);

let last = 0;
for await (const message of connection.subscribe("fleet.robot1.event.Steps", { max: 3 })) {
  const event = JSON.parse(codec.decode(message.data));
  assert.ok(last === 0 || event.n === last + 1, "none is missing");
  last = event.n;
}
await connection.close();
