// File names as all sides of this system make them absolute.

// The components behind the root without `.`, `..` and empty ones. Only names in front of a `..` are
// taken out with it: one that stands at the start stays.
function withoutRelatives(path: string): string {
  const kept: string[] = [];
  let floor = 0;
  for (const part of path.split("/")) {
    if (part === "" || part === ".") continue;
    if (part === ".." && kept.length > floor) {
      kept.pop();
    } else {
      kept.push(part);
      if (part === "..") floor = kept.length;
    }
  }
  return kept.join("/") + (path.endsWith("/") && kept.length > 0 ? "/" : "");
}

function cleaned(path: string): string {
  let rest = path.replaceAll("\\", "/");
  let root = "";
  const server = /^\/\/[^/]+/.exec(rest);
  if (server) {
    root = server[0];
  } else if (/^[a-z]:/i.test(rest)) {
    root = rest.slice(0, 2).toUpperCase();
  }
  rest = rest.slice(root.length);
  if (rest.startsWith("/")) {
    root += "/";
    rest = rest.slice(1);
  }
  return root + (/[/.][/.]/.test("/" + rest) ? withoutRelatives(rest) : rest);
}

/** `name` with the working directory in front, unless it is empty or absolute. */
export function absolutePath(name: string | null): string | null {
  if (name === null || name === "") return name;
  if (/^[/\\~]|^.:/.test(name)) return cleaned(name);
  return cleaned(`${process.cwd()}/${name}`) || ".";
}
