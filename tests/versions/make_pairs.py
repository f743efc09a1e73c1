"""Makes random pairs of versions of an interface, and a test in which they talk.

Each pair comes from one pool of messages and fields. A version takes some of them, in any order,
and stpc compiles both. The source that is written has a test for each pair: either side of one
version talks to the other side of the other (exchange.h).
"""
import argparse
import copy
import pathlib
import random
import subprocess

SCALARS = {"u1": "bool", "u2": "std::uint16_t", "u4": "std::int32_t", "u8": "std::uint64_t",
           "f4": "float", "f8": "double", "str": "const char*", "fn": "const char*"}
NUMBERS = ["u1", "u2", "u4", "u8", "f4", "f8"]
SIDES = ["left", "right"]


class Scalar:
    def __init__(self, pool, names, kinds=tuple(SCALARS)):
        self.name, self.kind = names.pop(), pool.choice(kinds)

    def version(self, _):
        return self

    def format(self):
        return f"{self.name}:%{self.kind}% "

    def members(self, _, reply=False):
        text = "gen_text" if reply else "const char*"
        return [(text if SCALARS[self.kind] == "const char*" else SCALARS[self.kind], self.name)]

    def walk(self, holder):
        return f'io("{self.name}", {holder}{self.name});'


class Array:
    """A count field, in some cases a field behind it, and the array."""

    def __init__(self, pool, names):
        self.count, self.name = names.pop(), names.pop()
        self.packed = pool.random() < 0.3
        self.kind = pool.choice(NUMBERS if self.packed else list(SCALARS))
        self.between = Scalar(pool, names, ["u4"]) if pool.random() < 0.3 else None

    def version(self, pool):
        chosen = copy.copy(self)
        chosen.between = self.between if pool.random() < 0.7 else None
        return chosen

    def format(self):
        form = "%dar%({}, %{}%)" if self.packed else "*({})[%{}%]"
        inner = form.format(self.count, self.kind)
        between = self.between.format() if self.between else ""
        return f"{self.count}:%u4% {between}{self.name}:{inner} "

    def type(self):
        element = "std::uint8_t" if self.kind == "u1" else SCALARS[self.kind]
        return f"STPArray<{element}>"

    def members(self, scope):
        between = self.between.members(scope) if self.between else []
        return between + [(self.type(), self.name)]

    def walk(self, holder):
        between = self.between.walk(holder) if self.between else ""
        return f'{between}io("{self.name}", {holder}{self.name});'


class Block:
    def __init__(self, pool, names, depth):
        self.name = names.pop()
        inside = pool.sample(NAMES, len(NAMES))
        if pool.random() < 0.4:  # the common form: a count and its array, under the same two names
            self.fields = [Array(pool, inside)]
            self.fields[0].count, self.fields[0].name = "count", "data"
        else:
            self.fields = fields(pool, inside, depth + 1)

    def version(self, pool):
        chosen = copy.copy(self)
        chosen.fields = subset(pool, self.fields)
        return chosen if chosen.fields else None

    def isArray(self):
        [first, *others] = self.fields
        return not others and isinstance(first, Array) and not first.between

    def format(self):
        return f"{self.name}:{{{''.join(f.format() for f in self.fields)}}} "

    def members(self, scope):
        block = f"typename {scope}_{self.name}"
        return [(self.fields[0].type() if self.isArray() else block, self.name)]

    def walk(self, holder):
        inside = (f'io("{self.fields[0].name}", {holder}{self.name});' if self.isArray() else
                  "".join(f.walk(f"{holder}{self.name}.") for f in self.fields))
        return f'io.open("{self.name}");{inside}io.close("{self.name}");'


NAMES = [a + b for a in "adgkprtw" for b in ("ax", "el", "iz", "o3", "Up", "y_a")]


def fields(pool, names, depth=0):
    made = []
    for _ in range(pool.randint(2, 6 - depth)):
        kind = pool.random()
        made.append(Block(pool, names, depth) if kind < 0.25 and depth < 3 else
                    Array(pool, names) if kind < 0.5 else Scalar(pool, names))
    return made


def subset(pool, all_fields):
    chosen = [f.version(pool) for f in all_fields if pool.random() < 0.75]
    if pool.random() < 0.5:
        pool.shuffle(chosen)
    return [f for f in chosen if f]


class Message:
    def __init__(self, pool, number):
        names = pool.sample(NAMES, len(NAMES))
        self.name, self.sender, self.twoWay = f"M{number}", number % 2, pool.random() < 0.3
        self.fields = fields(pool, names)
        self.reply = [Scalar(pool, names) for _ in range(pool.randint(0, 4))] if self.twoWay else []

    def version(self, pool):
        chosen = copy.copy(self)
        chosen.fields, chosen.reply = subset(pool, self.fields), subset(pool, self.reply)
        return chosen

    def line(self):
        kind = "two-way " if self.twoWay else ""
        reply = "| " + "".join(f.format() for f in self.reply) if self.twoWay else ""
        return f'  {self.name} {kind}"{"".join(f.format() for f in self.fields)}{reply}"\n'

    def members(self):
        return [m for f in self.fields for m in f.members(f"Side::{self.name}")]

    def structs(self):
        """What the message carries, and its reply, as types that are filled and shown."""
        replies = [m for f in self.reply for m in f.members("", reply=True)]
        for suffix, held, parts in (("", self.members(), self.fields),
                                    ("_reply", replies, self.reply))[:1 + self.twoWay]:
            lines = "".join(f" {t} {n}{{}};" for t, n in held)
            walk = "".join(f.walk("") for f in parts)
            yield (f"template <class Side> struct {self.name}{suffix} {{{lines}\n"
                   f" void walk([[maybe_unused]] auto& io) {{ {walk} }} }};\n")

    def handler(self):
        def argument(t, n):
            plain = t.removeprefix("typename Side::")
            return f"const {plain}& {n}" if plain != t else f"{t} {n}"
        held = self.members()
        replies = [m for f in self.reply for m in f.members("", reply=True)]
        arguments = [argument(*m) for m in held] + [f"{t}& {n}" for t, n in replies]
        answer = ""
        if self.twoWay:
            moves = "".join(f"{n} = std::move(given.{n});" for _, n in replies)
            answer = f"V::{self.name}_reply<Self> given{{}}; talk->answer(given); {moves}"
        values = ", ".join(n for _, n in held)
        return (f"void {self.name}({', '.join(arguments)}) override {{\n"
                f"  V::{self.name}<Self> got{{{values}}};\n"
                f'  talk->arrived("{self.name}", got); {answer} }}\n')

    def send(self):
        values = [f"given.{n}" for _, n in self.members()]
        values += [f"&reply.{n}" for f in self.reply for _, n in f.members("", reply=True)]
        rest = ["&patience"] if self.twoWay else ["false", "nullptr"]
        call = f"sender.{self.name}({', '.join(values + rest + ['&status'])});"
        if self.twoWay:
            call = (f"V::{self.name}_reply<Self> reply{{}}; const bool answered = {call} "
                    f"talk.checkReply(reply, answered);")
        return (f"{{ V::{self.name}<Self> given{{}}; STPStatus status; talk.fill(given);\n"
                f'  {call} talk.check("{self.name}", receiver, status); }}\n')


def catalogue(name, messages):
    lines = "".join(f"side {side} {{ }}\n" for side in SIDES)
    for sender, (a, b) in enumerate((SIDES, SIDES[::-1])):
        sent = "".join(m.line() for m in messages if m.sender == sender)
        lines += f"from {a} to {b} {{\n{sent}}}\n"
    return f"spec {name}\n{lines}"


def version_code(name, messages, folder):
    code = f"namespace {name} {{\nnamespace V = {name};\n"
    for side in SIDES:
        code += f'namespace {side} {{\n#include "{folder}/{name.lower()}_{side}_impl.cpp"\n}}\n'
    code += "".join(s for m in messages for s in m.structs())
    for sender, side in enumerate(SIDES):
        sent = [m for m in messages if m.sender == sender]
        code += (f"struct {side}_end : {side}::{name}_{side}_Impl {{\n"
                 + f" using Self = {side}_end; Talk* talk = nullptr;\n"
                 + "".join(m.handler() for m in messages if m.sender != sender)
                 + " static void sendAll(Self& sender, const STPSpecClass& receiver,"
                 + " Talk& talk) {\n"
                 + "  [[maybe_unused]] PumpingHandler patience(talk.pair);\n"
                 + "".join(m.send() for m in sent) + "} };\n")
    return code + "}\n"


def make_pair(number, pool, stpc, folder):
    messages = [Message(pool, i) for i in range(8)]
    code = ""
    for name in (f"Old{number}", f"New{number}"):
        chosen = [m.version(pool) for m in messages if m is messages[0] or pool.random() < 0.85]
        path = folder / f"{name}.stp"
        path.write_text(catalogue(name, chosen))
        subprocess.run([stpc, path, "--output", folder], check=True)
        code += version_code(name, chosen, folder)
    old, new = f"Old{number}", f"New{number}"
    code += f"TEST(Versions, Pair{number}) {{\n"
    for a, b in ((old, new), (new, old)):
        code += f"  talkBothWays<{a}::left_end, {b}::right_end>({number});\n"
    return code + "}\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--seed", type=int, required=True)
    parser.add_argument("--first", type=int, required=True, help="number of the first pair")
    parser.add_argument("--pairs", type=int, required=True)
    parser.add_argument("--stpc", required=True)
    parser.add_argument("--output", type=pathlib.Path, required=True, help="the source to write")
    arguments = parser.parse_args()
    folder = arguments.output.parent
    folder.mkdir(parents=True, exist_ok=True)
    code = '#include "versions/exchange.h"\n'
    for number in range(arguments.first, arguments.first + arguments.pairs):
        pool = random.Random(f"{arguments.seed}/{number}")
        code += make_pair(number, pool, arguments.stpc, folder)
    arguments.output.write_text(code)


main()
