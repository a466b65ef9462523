// Logs in, creates and starts a guest, waits until it runs, and prints its addresses.
// Usage: client URL USER NAME, with the password on standard input, because other users can read arguments. api.ts is
// made from the host's /openapi.json by openapi-typescript.
import { readFileSync } from "node:fs";
import type { paths } from "./api.js";

type Path = Extract<keyof paths, `/webapi/${string}`>;
type Body<P extends Path> = paths[P] extends { post: { requestBody?: { content: { "application/json": infer B } } } }
  ? B
  : never;
type Data<P extends Path> = paths[P] extends {
  post: { responses: { 200: { content: { "application/json": { data: infer D } } } } };
}
  ? D
  : never;

const [url, user, name] = process.argv.slice(2) as [string, string, string];
const password = readFileSync(0, "utf8").trimEnd();
let token = "";

async function call<P extends Path>(path: P, body: Body<P>): Promise<Data<P>> {
  const headers: Record<string, string> = { "Content-Type": "application/json" };
  if (token) headers["Authorization"] = `Bearer ${token}`;
  const reply = await fetch(url + path, { method: "POST", headers, body: JSON.stringify(body) });
  const answer = await reply.json();
  if (!answer.success) throw new Error(`${answer.error.code}: ${answer.error.message} ${answer.error.reason ?? ""}`);
  return answer.data;
}

const session = await call("/webapi/VEXA.Core.Session/login", { user, password });
token = session.token ?? "";
const created = await call("/webapi/VEXA.Virtualization.Guest/create", {
  name,
  vcpu_num: 1,
  vram_size: 256,
  vnics: [{ network: "default" }],
});
const guest_id = created.guest_id;
await call("/webapi/VEXA.Virtualization.Guest.Action/pwr_ctl", { guest_id, action: "poweron" });
let ip: string[] = [];
for (let tries = 0; tries < 100; ++tries) {
  const { status } = await call("/webapi/VEXA.Virtualization.Guest/status", { guest_id });
  ip = (await call("/webapi/VEXA.Virtualization.Guest/info", { guest_id })).ip;
  if (status === "running" && ip.length > 0) break;
  await new Promise((wake) => setTimeout(wake, 300));
}
console.log(`${created.name} runs; its addresses: ${ip.join(", ") || "none yet"}`);
