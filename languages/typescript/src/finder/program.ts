// Where the hub's program is.

import { realpathSync, statSync } from "node:fs";
import { dirname, isAbsolute, join, resolve } from "node:path";

const HUB_NAME = "hublink";
// From the directory of an installed program to that of the hub.
const INSTALLED_HUB = "../lib/hublink/hublink";

function isProgram(path: string): boolean {
  const status = statSync(path, { throwIfNoEntry: false });
  return status !== undefined && !status.isDirectory();
}

function inPath(name: string): string | undefined {
  const directories = (process.env["PATH"] ?? "").split(":");
  return directories
    .filter((directory) => directory !== "")
    .map((directory) => join(directory, name))
    .find(isProgram);
}

/** The directory of the script that runs. */
function scriptDirectory(): string | undefined {
  const script = process.argv[1];
  if (script === undefined) return undefined;
  try {
    return dirname(realpathSync(script));
  } catch {
    return undefined;
  }
}

function candidates(program: string): (string | undefined)[] {
  if (program !== "") {
    const hasDirectory = program.includes("/") || isAbsolute(program);
    return [hasDirectory ? resolve(program) : inPath(program)];
  }
  const beside = scriptDirectory();
  const near =
    beside === undefined
      ? []
      : [join(beside, HUB_NAME), join(beside, INSTALLED_HUB)];
  return [...near, inPath(HUB_NAME)];
}

/**
 * The hub's executable without links: `program`, or a bare name in PATH. Without one it is `hublink`
 * beside this script, in `../lib/hublink` from there, or in PATH. Undefined if there is none.
 */
export function hubProgram(program: string): string | undefined {
  const found = candidates(program).find(
    (path) => path !== undefined && isProgram(path),
  );
  if (found === undefined) return undefined;
  try {
    return realpathSync(found);
  } catch {
    return undefined;
  }
}
