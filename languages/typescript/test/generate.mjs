// Compiles the interfaces of the tests with the stpc that HUBLINK_STPC names.
import { execFileSync } from "node:child_process";
import { mkdirSync } from "node:fs";

const root = new URL("../../../", import.meta.url).pathname;
const stpc = process.env.HUBLINK_STPC ?? `${root}build/release/bin/stpc`;

function compile(catalogue, directory) {
  const output = new URL(`generated/${directory}`, import.meta.url).pathname;
  mkdirSync(output, { recursive: true });
  execFileSync(
    stpc,
    [catalogue, "--language", "typescript", "--output", output],
    { stdio: "inherit" },
  );
}

const vectors = `${root}languages/vectors`;
compile(`${vectors}/vectors.stp`, "1");
compile(`${vectors}/vectors_2.stp`, "2");
