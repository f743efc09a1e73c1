// Plugins at a real hub.
import assert from "node:assert/strict";
import { chmodSync, readFileSync, writeFileSync } from "node:fs";
import { join } from "node:path";
import { test } from "node:test";
import type { Link } from "hublink";
import { fails, Hub } from "./support.js";

test("tools that come at once share one hub", async (context) => {
  const hub = new Hub(context);
  const plugins = await Promise.all([hub.plugin(), hub.plugin(), hub.plugin()]);
  const started = plugins.filter((plugin) => plugin.hasStartedHub);
  assert.equal(started.length, 1);
  assert.equal(new Set(plugins.map((plugin) => plugin.id)).size, 3);
  assert.deepEqual(await plugins[0].countPlugins(), {
    persistent: 3,
    total: 3,
  });
  plugins[1].setPersistent(false);
  assert.equal((await plugins[1].countPlugins()).persistent, 2);
  await plugins[2].close();
  assert.equal(await plugins[2].closed, undefined);
  await assert.rejects(plugins[2].countPlugins(), fails("disconnected"));
});

test("no hub is told", async (context) => {
  const hub = new Hub(context);
  const none = hub.plugin({ start: false });
  await assert.rejects(none, fails("no hub"));
  const nothing = hub.plugin({ program: "/nothing/here" });
  await assert.rejects(nothing, fails("no hub"));
});

test("packets go both ways, by handler and by iterator", async (context) => {
  const hub = new Hub(context);
  const { link, made } = await hub.pair((mirror) => {
    mirror.onPacket((bytes) => mirror.send(bytes), { borrow: true });
    return mirror;
  });
  const big = Buffer.alloc(3_000_000, "abc");
  link.send("one");
  link.send(new Uint8Array());
  link.send(big);
  assert.equal(String(await link.receive()), "one");
  assert.equal((await link.receive()).length, 0);
  assert.ok(big.equals(await link.receive()));
  await assert.rejects(link.receive({ timeout: 1 }), fails("timed out"));
  const aborted = link.receive({ signal: AbortSignal.abort("enough") });
  await assert.rejects(aborted, (reason) => reason === "enough");
  for (let i = 0; i < 1000; ++i) await link.send(String(i));
  const seen: number[] = [];
  for await (const packet of link) {
    seen.push(Number(packet));
    if (seen.length === 999) made.close();
  }
  // What came before the end is still read; how much that is, the other side doesn't know.
  assert.ok(seen.length >= 999);
  assert.deepEqual(seen, [...seen.keys()]);
  await assert.rejects(link.send("late"), fails("link ended"));
  assert.throws(() => link.trySend("late"), fails("link ended"));
});

test("a service is asked for in all ways", async (context) => {
  const hub = new Hub(context);
  const provider = await hub.plugin();
  const requester = await hub.plugin();
  const wanted = requester.request("Choosy", { patient: true });
  const service = await provider.provide("Choosy", () => undefined, {
    accept: async ({ nameValuePairs, requestingPluginId }) => {
      assert.equal(requestingPluginId, requester.id);
      return Promise.resolve(!nameValuePairs.includes("bad=1"));
    },
  });
  assert.equal((await wanted).peerPluginId, provider.id);
  const bad = requester.request("Choosy", {
    nameValuePairs: ["good=1", "bad=1"],
  });
  await assert.rejects(bad, fails("refused"));
  const other = requester.request("Choosy", { providerId: 4711 });
  await assert.rejects(other, fails("not found"));
  provider.setWorkingDirectory("/somewhere");
  await provider.countPlugins();
  const elsewhere = { workingDirectory: "/elsewhere" };
  await assert.rejects(
    requester.request("Choosy", elsewhere),
    fails("not found"),
  );
  assert.equal(await requester.providerOf("Choosy"), provider.id);
  assert.equal(await requester.providerOf("Choosy", elsewhere), null);
  service.withdraw();
  await provider.countPlugins();
  await assert.rejects(requester.request("Choosy"), fails("not found"));
});

test("a request that is given up leaves nothing behind", async (context) => {
  const hub = new Hub(context);
  const provider = await hub.plugin();
  const requester = await hub.plugin();
  let decide!: (accepted: boolean) => void;
  let tellAsked!: () => void;
  let tellLink!: (link: Link) => void;
  const asked = new Promise<void>((resolve) => (tellAsked = resolve));
  const linked = new Promise<Link>((resolve) => (tellLink = resolve));
  await provider.provide("Slow", (link) => tellLink(link), {
    accept: () => {
      tellAsked();
      return new Promise((resolve) => (decide = resolve));
    },
  });
  const controller = new AbortController();
  const request = requester.request("Slow", { signal: controller.signal });
  await asked;
  controller.abort();
  await assert.rejects(request, { name: "AbortError" });
  decide(true);
  await (
    await linked
  ).closed;
  const second = new AbortController();
  const { signal } = second;
  const late = provider.provide("Late", () => undefined, { signal });
  second.abort();
  await assert.rejects(late, { name: "AbortError" });
  await provider.countPlugins();
  assert.equal(await requester.providerOf("Late"), null);
});

test("a reader who stands still makes send wait", async (context) => {
  const hub = new Hub(context);
  const { requester, link, made } = await hub.pair((reader) => reader);
  requester.setSendLimit(1 << 20);
  const packet = Buffer.alloc(64 * 1024);
  let sent = 0;
  let waits: Promise<void> | undefined;
  // The reader keeps 8 MiB, the hub less, and then nothing moves any more.
  while (waits === undefined && sent < 10_000) {
    const room = link.send(packet);
    ++sent;
    const slow = new Promise((resolve) => setTimeout(resolve, 1000, "slow"));
    if ((await Promise.race([room, slow])) === "slow") waits = room;
  }
  assert.ok(waits, "it never waits");
  assert.ok(requester.transport.waiting <= 2 << 20);
  assert.equal(link.trySend(packet), false);
  for (let i = 0; i < sent; ++i) await made.receive();
  await waits;
  await link.room();
  assert.equal(link.trySend(packet), true);
});

test("values, numbers, places and the log", async (context) => {
  const hub = new Hub(context);
  const [one, other] = [await hub.plugin(), await hub.plugin()];
  one.onValue((name) => (name === "none" ? null : `${name}!`));
  const values = ["a", "none", "a"].map((name) => other.valueOf(one.id, name));
  assert.deepEqual(await Promise.all(values), ["a!", null, "a!"]);
  assert.equal(await other.valueOf(4711, "a"), null);
  const numbers = await one.reserveNumbers(3);
  assert.equal(new Set(numbers).size, 3);
  numbers.forEach((rn) => one.releaseNumber(rn));
  await assert.rejects(one.reserveNumbers(-1), fails("failed"));
  const { port } = await one.location();
  assert.ok(port > 0);
  assert.equal(one.isLogKept, false);
  one.log("nobody reads it");
  one.setPreferAda(false);
  one.debugPlugin("nothing", { debug: false });
});

const PROGRAM = `#!${process.execPath}
import("${import.meta.resolve?.("hublink") ?? ""}").then(async ({ connectToHub }) => {
  const onValue = (name) => process.env[name] ?? process.cwd();
  const plugin = await connectToHub({ onValue });
  await plugin.provide("Launched", (link) => {
    link.onPacket(() => process.kill(process.pid, "SIGKILL"));
  });
});
`;

test("the hub starts a program, which dies", async (context) => {
  const hub = new Hub(context);
  const plugin = await hub.plugin();
  const program = join(process.env["TMP"] ?? "", "launched.js");
  writeFileSync(program, PROGRAM);
  chmodSync(program, 0o755);
  plugin.setEnvironmentVariable("HUBLINK_TEST_VALUE", "told");
  const id = await plugin.launch([program], { workingDirectory: "/" });
  assert.equal(await plugin.valueOf(id, "HUBLINK_TEST_VALUE"), "told");
  assert.equal(await plugin.valueOf(id, "cwd"), "/");
  const link = await plugin.request("Launched", { patient: true });
  assert.equal(link.peerPluginId, id);
  link.send("die");
  await link.closed;
  const missing = plugin.launch([join(program, "not")]);
  await assert.rejects(missing, fails("failed"));
});

test("the end of the hub is told to all who wait", async (context) => {
  const hub = new Hub(context);
  const plugin = await hub.plugin();
  const waiting = plugin.request("Nobody", { patient: true });
  const checked = assert.rejects(waiting, fails("disconnected"));
  const record = join(process.env["TMP"] ?? "", `svc_${hub.zone}`);
  const id = /Pid = (\d+)/.exec(readFileSync(record, "utf8"))?.[1];
  process.kill(Number(id), "SIGKILL");
  await checked;
  assert.equal((await plugin.closed)?.outcome, "disconnected");
  await assert.rejects(plugin.valueOf(1, "x"), fails("disconnected"));
});
