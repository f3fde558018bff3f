// A client in JavaScript: what is on the bus, the robot's keys, and what its watcher has taken.
//   node client.mjs [ROBOT]        KX_BUS, KX_BUS_USER, KX_BUS_PASSWORD_FILE, KX_BUS_CA as for kx
import { readFileSync } from "node:fs";
import { connect } from "@nats-io/transport-node";
import { decode, encode } from "@msgpack/msgpack";

const environment = process.env;
const robot = process.argv[2] ?? environment.KX_ROBOT ?? "robot";
const user = environment.KX_BUS_USER;
const readLine = (file) => readFileSync(file, "utf8").replace(/\r?\n$/, "");

// [connect]
const bus = await connect({
  servers: environment.KX_BUS ?? "nats://127.0.0.1",
  // Who has a user may listen to no other inboxes than that user's.
  inboxPrefix: user ? `_INBOX_${token(user)}` : "_INBOX",
  ...(user && { user, pass: readLine(environment.KX_BUS_PASSWORD_FILE) }),
  ...(environment.KX_BUS_CA && { tls: { caFile: environment.KX_BUS_CA } }),
});
// [connect end]

// [token]
/** A name as one token of a subject: other bytes than letters, digits, _ and - are %HH. */
function token(name) {
  const bytes = [...new TextEncoder().encode(name)];
  const escape = (byte) => "%" + byte.toString(16).toUpperCase().padStart(2, "0");
  const isPlain = (byte) => /[A-Za-z0-9_-]/.test(String.fromCharCode(byte));
  return bytes.map((byte) => (isPlain(byte) ? String.fromCharCode(byte) : escape(byte))).join("") || "%";
}
// [token end]

// [call]
/** Calls a method of a module; an error of the callee's has the code of its kind. */
async function call(module, method, ...args) {
  const subject = `kx.${token(robot)}.${token(module)}.${token(method)}`;
  const reply = await bus.request(subject, encode(args), { timeout: 5000 });
  const [failed, result] = decode(reply.data);
  if (!failed) return result;
  const [inModule, inMethod, description] = result;
  const error = new Error(`${inModule}.${inMethod}: ${description}`);
  error.code = Number(reply.headers.get("Nats-Service-Error-Code"));
  throw error;
}
// [call end]

// [modules]
/** The robot's announced modules, as each tells by NATS's service protocol. */
async function modules() {
  const found = [];
  const replies = await bus.requestMany("$SRV.INFO", "", { strategy: "stall", stall: 300 });
  for await (const reply of replies) {
    const { metadata, endpoints } = reply.json();
    if (metadata?.robot === robot) found.push({ module: metadata.module, methods: endpoints.length });
  }
  return found;
}
// [modules end]

try {
  // [use]
  for (const { module, methods } of await modules()) console.log(`${module}: ${methods} methods`);

  const keys = await call("KXMemory", "getKeys", "Host/Load/*");
  for (const key of keys) console.log(`${key} = ${await call("KXMemory", "getData", key)}`);

  // The robot's watcher is everybody's: what it is given is taken back.
  await call("KXMemoryWatcher", "addListeners", keys);
  await call("KXMemoryWatcher", "startWatching", 100);
  await new Promise((wake) => setTimeout(wake, 1000));
  await call("KXMemoryWatcher", "stopWatching");
  const data = await call("KXMemoryWatcher", "getData");
  await call("KXMemoryWatcher", "removeListeners", keys);

  // Of each key: its name, and its samples, oldest first, as [[seconds, microseconds], value].
  for (const [key, samples] of data) {
    for (const [[seconds, microseconds], value] of samples) {
      console.log(`${new Date(seconds * 1000 + microseconds / 1000).toISOString()} ${key} ${value}`);
    }
  }

  await call("KXMemory", "getData", "No/Such/Key").catch((error) => {
    console.log(`error ${error.code}: ${error.message}`);
  });
  // [use end]
} finally {
  await bus.close();
}
