"""Interfaces on links: calls in calls, chains, failures, and two versions that meet."""

import asyncio
import contextlib
import os

from .support import HubTest, generate, hublink

from hublink import _wire

TALK = """
# Talk
# with a \\ and "quotes".
spec Talk
side asker { source 1 destination 2 }
side teller { source 2 destination 1 }
from asker to teller {
  # Goes down by one level.
  Down two-way "level:%u4% | sum:%u4% "
  Hold two-way packet 0x41 "| "
  Ask two-way "what:%str% | answer:%str% "
  Note nullable text "text:%str% data:{n:%u4% bytes:%dar%(n, %u1%) } where:{at:%fn% in:%u8% } "
}
from teller to asker {
  Up two-way "level:%u4% | sum:%u4% "
  Tell "text:%str% "
  Now entry 0x12 packet 0x12 "text:%str% "
  InChain entry 0x06 packet 0x02 "text:%str% "
}
"""

# Names that mean something in Python.
ODD = """
spec Odd
side klass { }
side other { }
from klass to other {
  None nullable str "str:%str% list:{n:%u4% d:*(n)[%str%] } bytes:{n:%u4% d:%dar%(n, %u1%) } "
    "more:{n:%u4% d:%dar%(n, %u1%) } text:%str% self:%u4% is:{in:{typing:%u1% } } "
  Str two-way "| str:%str% text:%str% "
}
"""

NEWER = TALK.replace("what:%str%", "how:%u4% what:%str%").replace(
    "  Hold", '  New two-way "| "\n  Hold').replace("answer:%str%", "answer:%str% more:%str%")

talk, newer = generate(TALK), generate(NEWER)


class Teller(talk.TalkTeller):
    def __init__(self, link):
        super().__init__(link)
        self.got, self.release = [], asyncio.Event()

    async def on_down(self, message):
        if message.level == 0:
            return talk.DownReply(0)
        reply = await self.up(talk.Up(message.level - 1))
        return talk.DownReply(reply.sum + message.level)

    async def on_hold(self, message):
        await self.tell(talk.Tell("within"))
        await self.in_chain(talk.InChain("chained"))
        await self.release.wait()
        return talk.HoldReply()

    async def on_ask(self, message):
        if message.what == "wait":
            await self.release.wait()
        if message.what == "no":
            raise hublink.Refused("not today")
        if message.what == "wrong":
            return 7
        return talk.AskReply(message.what + "!")

    async def on_note(self, message):
        await asyncio.sleep(0)
        self.got.append(message)


class NewTeller(newer.TalkTeller):
    def on_down(self, message):
        return newer.DownReply(message.level)

    def on_hold(self, message):
        return newer.HoldReply()

    def on_new(self, message):
        return newer.NewReply()

    def on_ask(self, message):
        return newer.AskReply(f"{message.how} {message.what}", "more")


class Asker(talk.TalkAsker):
    def __init__(self, link):
        super().__init__(link)
        self.got = []

    async def on_up(self, message):
        if message.level == 0:
            return talk.UpReply(0)
        reply = await self.down(talk.Down(message.level - 1))
        return talk.UpReply(reply.sum + message.level)

    def on_tell(self, message):
        self.got.append(message.text)

    on_now = on_in_chain = on_tell


class InterfaceTest(HubTest):
    async def pair(self, teller=Teller, asker=Asker):
        near, far = await self.linked()
        ends = asker(near), teller(far)
        await self.soon(ends[0].ready())
        await self.soon(ends[1].ready())
        return ends

    async def test_docs(self):
        self.assertIn('Talk with a \\ and "quotes".\n', talk.__doc__)
        for documented in (talk.Down, talk.TalkAsker.down, talk.TalkTeller.on_down):
            self.assertEqual(documented.__doc__, "Goes down by one level.")
        self.assertRaises(TypeError, talk.TalkTeller, None)  # calls have to be answered

    async def test_names(self):
        odd = generate(ODD)
        value = odd.None_(None, ["a"], b"b", b"c", "d", 5)
        value.is_.in_.typing_ = True
        tags = range(len(odd.OddKlass._tables.tags))
        layout = odd.OddKlass._tables.sent[0].fields
        self.assertEqual(layout.decode(layout.encode(value), tags), value)
        self.assertTrue(callable(odd.OddKlass.none) and callable(odd.OddKlass.str))

    async def test_calls_within_calls(self):
        asker, _ = await self.pair()
        replies = await self.soon(asyncio.gather(
            *(asker.down(talk.Down(level)) for level in (0, 9, 3))))
        self.assertEqual([reply.sum for reply in replies], [0, 45, 6])
        connection = asker._endpoint._connection
        self.assertEqual((connection.calls, connection.handlers, connection._questions),
                         ({}, 0, 0))

    async def test_who_holds_others_gets_only_what_belongs_to_the_call(self):
        asker, teller = await self.pair()
        call = asyncio.ensure_future(asker.hold())
        await self.until(lambda: "chained" in asker.got)
        for message in (talk.Tell("outside"), talk.InChain("outside too"), talk.Now("at once")):
            self.assertTrue(teller.try_send(message))
        await self.until(lambda: "at once" in asker.got)
        self.assertEqual(asker.got, ["within", "chained", "at once"])
        teller.release.set()
        await self.soon(call)
        await self.until(lambda: len(asker.got) == 5)
        self.assertEqual(asker.got[3:], ["outside", "outside too"])

    async def test_values_and_order(self):
        asker, teller = await self.pair()
        sent = [talk.Note(None if number % 2 else "é\udc80", bytes(range(number)),
                          talk.NoteWhere("a/../b", (1 << 64) - 1)) for number in range(50)]
        for note in sent:
            await asker.note(note)
        await self.until(lambda: len(teller.got) == 50)
        for note in sent:
            note.where.at = os.path.join(os.getcwd(), "b")
        self.assertEqual(teller.got, sent)

    async def test_values_that_do_not_fit(self):
        asker, _ = await self.pair()
        for value in (talk.Note("a\0b"), talk.Note(where=talk.NoteWhere(in_=1 << 64)),
                      talk.Note(where=talk.NoteWhere(at=None)), talk.Note(data=[256]),
                      talk.Note(data=7), talk.Note(text=5)):
            with self.assertRaises(hublink.OutOfRange) as caught:
                await asker.note(value)
            self.assertIn("Note", str(caught.exception))
        for level in (1 << 31, -(1 << 31) - 1, 0.5, "1", None):
            with self.assertRaises(hublink.OutOfRange):
                await asker.down(talk.Down(level))

    async def test_failures(self):
        asker, teller = await self.pair()
        for what, text in (("no", "not today"), ("wrong", "on_ask has to give a AskReply")):
            with self.assertRaises(hublink.Refused) as caught, self.quiet(what == "wrong"):
                await asker.ask(talk.Ask(what))
            self.assertIn(text, str(caught.exception))
        with self.assertRaises(hublink.CallTimedOut):
            await asker.ask(talk.Ask("wait"), timeout=0.01)
        cancelled = asyncio.ensure_future(asker.ask(talk.Ask("wait")))
        await asyncio.sleep(0)
        cancelled.cancel()
        teller.release.set()
        self.assertEqual((await asker.ask(talk.Ask("then"))).answer, "then!")  # late ones are gone
        teller.release.clear()
        ended = asyncio.ensure_future(asker.ask(talk.Ask("wait")))
        await asyncio.sleep(0)
        teller.link.close()
        with self.assertRaises(hublink.LinkEnded):
            await self.soon(ended)
        with self.assertRaises(hublink.LinkEnded):
            await asker.note(talk.Note())
        self.assertEqual(asker._endpoint._connection.calls, {})

    def quiet(self, fails):
        return self.assertLogs("hublink") if fails else contextlib.nullcontext()

    async def test_nobody_speaks_the_interface(self):
        near, _ = await self.linked()
        asker = Asker(near)
        for work in (asker.ask(talk.Ask(), timeout=0.01), asker.ready(0.01)):
            with self.assertRaises(hublink.CallTimedOut):
                await work
        self.assertRaises(hublink.NotSupported, asker.try_send, talk.Note())
        self.assertRaises(ValueError, Asker, near)

    async def test_what_came_before_the_side_comes_first(self):
        near, far = await self.linked()
        Teller(far)
        await self.until(lambda: near._strays)  # its record
        asker = Asker(near)
        tables = asker._tables
        number = [message.name for message in tables.received].index("Tell")
        header = _wire.Header(near.remote_rn, near.local_rn, 9, 0, _wire.BINARY, number, 2, 9, 1)
        near._take(header, tables.received[number].fields.encode(talk.Tell("early")))
        await self.until(lambda: asker.got)
        self.assertEqual(asker.got, ["early"])

    async def test_versions(self):
        class NewAsker(newer.TalkAsker):
            def on_up(self, message):
                return newer.UpReply(0)

        asker, teller = await self.pair(NewTeller)
        self.assertEqual(await asker.ask(talk.Ask("x")), talk.AskReply("0 x"))
        self.assertEqual((teller.knows("Up"), asker.knows("New"), asker.knows("Nothing")),
                         (True, True, False))
        asker, _ = await self.pair(Teller, NewAsker)
        self.assertEqual(await asker.ask(newer.Ask(3, "x")), newer.AskReply("x!"))
        self.assertEqual((asker.knows("Ask"), asker.knows("New"), asker.knows_field("more"),
                          asker.knows_field("what")), (True, False, False, True))
        with self.assertRaises(hublink.NotSupported):
            await asker.new()
        self.assertEqual((asker.peer_name, asker.peer_vstamp), ("teller", "1"))

    async def test_packets_beside_messages(self):
        asker, teller = await self.pair()
        await asker.link.send(b"packet")
        await asker.note(talk.Note("note"))
        self.assertEqual(await self.soon(teller.link.receive()), b"packet")
        await self.until(lambda: teller.got)
