// The side of an editor: looks for the words that are typed, by the service "CodeIndex".
//
//   node editor.js [-hl_zone ZONE | -hl_connect_hublink_port PORT]
//
// One word on each line; the places where it stands are shown. An index that goes is waited for
// again, and a word that was asked for meanwhile with it.

import { stdin, stdout } from "node:process";
import { createInterface } from "node:readline";
import { connectToHub, HublinkError, type Plugin } from "hublink";
import { CodeIndexEditor } from "./codeindex.js";

const MOST_HITS = 10;

function show(text: string): void {
  stdout.write(text + "\n");
}

/** The index that is there, or the next one. */
class Index {
  private side: Promise<CodeIndexEditor> | undefined;

  constructor(private readonly plugin: Plugin) {}

  /** Waits for one, for as long as it takes. */
  get(): Promise<CodeIndexEditor> {
    this.side ??= this.find();
    return this.side;
  }

  private async find(): Promise<CodeIndexEditor> {
    const link = await this.plugin.request("CodeIndex", {
      patient: true,
      timeout: -1,
    });
    void link.closed.then(() => {
      this.side = undefined;
      if (!this.plugin.isConnected) return;
      show("editor: the index has gone");
      void this.get().catch(() => undefined); // whoever asks is told
    });
    return new CodeIndexEditor(link, {
      onUpdated: ({ files, words }) =>
        show(`editor: the index knows ${files} files, ${words} words`),
      onHit: ({ path, line, text }) => show(`${path}:${line}: ${text.trim()}`),
    });
  }
}

/** Looks for a word, again if the index goes in between. */
async function search(index: Index, word: string): Promise<void> {
  for (;;) {
    const side = await index.get();
    try {
      const { hits } = await side.search({ word, limit: MOST_HITS });
      show(`editor: ${hits} lines with ${word}`);
      return;
    } catch (error) {
      if (!(error instanceof HublinkError) || error.outcome !== "link ended")
        throw error;
    }
  }
}

async function main(): Promise<void> {
  const plugin = await connectToHub();
  const index = new Index(plugin);
  void index.get().catch(() => undefined);
  show("editor: ready");
  const words = createInterface({ input: stdin });
  void plugin.closed.then(() => words.close());
  for await (const line of words) {
    const word = line.trim();
    if (word) await search(index, word);
  }
  await plugin.close();
}

try {
  await main();
} catch (error) {
  console.error(
    `editor: ${error instanceof Error ? error.message : String(error)}`,
  );
  process.exitCode = 1;
}
