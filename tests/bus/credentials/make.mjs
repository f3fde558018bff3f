// Makes the files beside it anew: an operator with an account, and users with credentials that never
// expire. They open nothing but the servers of these tests.
//   node make.mjs FOLDER-OF/node_modules   as docs/examples/package.json fills it
import { createHash } from "node:crypto";
import { writeFileSync } from "node:fs";

const { createAccount, createOperator, createUser } = await import(
  `${process.argv[2]}/@nats-io/nkeys/lib/mod.js`
);
const encode = (bytes) => Buffer.from(bytes).toString("base64url");

function jwt(issuer, subject, name, nats) {
  const claims = {
    jti: "",
    iat: 1700000000,
    iss: issuer.getPublicKey(),
    name,
    sub: subject.getPublicKey(),
    nats: { ...nats, version: 2 },
  };
  claims.jti = createHash("sha256").update(JSON.stringify(claims)).digest("hex").slice(0, 52);
  const header = encode(JSON.stringify({ typ: "JWT", alg: "ed25519-nkey" }));
  const body = `${header}.${encode(JSON.stringify(claims))}`;
  return `${body}.${encode(issuer.sign(new TextEncoder().encode(body)))}`;
}

const operator = createOperator();
const account = createAccount();
const limits = { subs: -1, data: -1, payload: -1, imports: -1, exports: -1, wildcards: true, conn: -1, leaf: -1 };
const operatorJwt = jwt(operator, operator, "test", { type: "operator" });
const accountJwt = jwt(operator, account, "site", { type: "account", limits, default_permissions: { pub: {}, sub: {} } });
writeFileSync("operator.conf", `operator: ${operatorJwt}
resolver: MEMORY
resolver_preload: {
  ${account.getPublicKey()}: ${accountJwt}
}
`);

const users = {
  module: { pub: {}, sub: {} },
  viewer: { pub: { deny: ["kx.*.KXMemory.insertData"] }, sub: { allow: ["_INBOX_viewer.>", "kx.*.@at.viewer.>"] } },
};
for (const [name, rights] of Object.entries(users)) {
  const user = createUser();
  const token = jwt(account, user, name, { ...rights, subs: -1, data: -1, payload: -1, type: "user" });
  writeFileSync(`${name}.creds`, `-----BEGIN NATS USER JWT-----
${token}
------END NATS USER JWT------

-----BEGIN USER NKEY SEED-----
${new TextDecoder().decode(user.getSeed())}
------END USER NKEY SEED------
`);
}
