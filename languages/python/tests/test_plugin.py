"""Plugins, services and links through a real hub."""

import asyncio
import os
import shutil
import signal
import subprocess
import sys
import unittest.mock

from .support import HubTest, hublink

from hublink import _credentials, _place


class PluginTest(HubTest):
    async def test_two_find_one_hub(self):
        first, second = await self.soon(asyncio.gather(self.plugin(), self.plugin()))
        self.assertEqual({first.id, second.id}, {1, 2})
        self.assertEqual(await second.count_plugins(), (2, 2))
        second.set_persistent(False)
        self.assertEqual(await second.count_plugins(), (1, 2))
        self.assertEqual((await first.location()).port, hublink.find_hub(self.choice))

    async def test_both_roads(self):
        first = await self.plugin()
        port = (await first.location()).port
        family = first._connection._transport.get_extra_info("socket").family
        self.assertEqual(family.name, "AF_UNIX")
        for road in ({"choice": hublink.HubChoice(tcp_only=True)}, {"choice": None}):
            await self.plugin(port=port, **road)
        tcp = await self.plugin(argv=["me", "-HL_connect_hublink_port", str(port)],
                                choice=hublink.HubChoice(port=port, tcp_only=True))
        family = tcp._connection._transport.get_extra_info("socket").family
        self.assertEqual(family.name, "AF_INET")

    async def test_no_hub(self):
        with self.assertRaises(hublink.HubNotFound) as caught:
            await self.plugin(start=False)
        self.assertEqual(caught.exception.outcome, hublink.HubSearch.NONE)
        self.assertIn("no record", str(caught.exception))
        for program in ("/nonexistent/hublink", "/bin/false"):
            with self.assertRaises(hublink.HubNotFound) as caught:
                await self.plugin(choice=hublink.HubChoice(zone="test", program=program))
            self.assertEqual(caught.exception.outcome, hublink.HubSearch.FAILED)
        self.assertEqual(os.listdir(self.scratch), [], "the lock is given back")
        self.assertIsNone(hublink.find_hub(self.choice))

    async def test_a_stranger_is_no_hub(self):
        me, nobody = os.geteuid(), 65534
        user = nobody if me == 0 else me  # only root can have a listener of somebody else's
        listener = subprocess.Popen([sys.executable, "-c", LISTENER, str(user)],
                                    stdout=subprocess.PIPE, stdin=subprocess.PIPE)
        self.addCleanup(listener.communicate)
        port = int(listener.stdout.readline())
        with unittest.mock.patch("os.geteuid", lambda: me if me == 0 else nobody):
            for table in (False, True):
                netlink = _credentials._Unavailable if table else None
                with unittest.mock.patch.object(
                        _credentials, "_ask_netlink",
                        side_effect=netlink, wraps=_credentials._ask_netlink):
                    with self.assertRaises(hublink.HubNotFound) as caught:
                        await self.plugin(port=port)
                self.assertEqual(caught.exception.outcome, hublink.HubSearch.STRANGER)
                self.assertIn(f"another user ({user})", str(caught.exception))

    async def test_somebody_else_has_the_name(self):
        if os.geteuid() != 0:
            self.skipTest("only root can give files away")
        usual, own = self.scratch / "svc_test", self.scratch / "hublink_0"
        usual.write_text("Port = 1\nPid = 1\n")
        os.chown(usual, 65534, 65534)
        self.addCleanup(shutil.rmtree, own)  # this process is no hub to be ended
        key = _place.RecordKey("test", None)
        self.assertEqual((key.read(), key.obstacle()), ((-1, -1), ""))
        self.assertEqual(own.stat().st_mode & 0o777, 0o700)
        (own / "svc_test").write_text(f"Port = 7\nPid = {os.getpid()}\n")
        self.assertEqual(hublink.find_hub(self.choice), 7)
        async with key.locked() as held:
            self.assertTrue(held and (own / "svc_test.lock").exists())
        self.assertEqual(os.listdir(own), ["svc_test"])
        (own / "svc_test").unlink()
        own.chmod(0o755)  # then it isn't this user's alone
        with self.assertRaises(hublink.HubNotFound) as caught:
            await self.plugin()
        self.assertEqual(caught.exception.outcome, hublink.HubSearch.FAILED)
        self.assertIn("belongs to another user", str(caught.exception))
        usual.unlink()

    async def test_request_and_packets(self):
        provider, requester = await self.plugin(), await self.plugin()
        requests, ended = [], asyncio.Event()

        async def mirror(link):
            link.on_end(ended.set)
            async for packet in link:
                await link.send(packet)

        async def accept(request):
            requests.append(request)
            return "yes" in request.pairs
        service = await provider.provide("Mirror", mirror, accept)
        link = await requester.request("Mirror", pairs=["a", "yes"], plugin_id=provider.id)
        self.assertEqual(requests, [("Mirror", requester.id, ["a", "yes"])])
        for size in (0, 1, 64, 3 << 20):
            data = os.urandom(size)
            await link.send(memoryview(data))
            self.assertEqual(await self.soon(link.receive()), data)
        with self.assertRaises(hublink.CallTimedOut):
            await link.receive(0.01)
        with self.assertRaises(hublink.TooLarge):
            await link.send(bytes(1 << 28))
        await self.check_failures(requester, provider)
        link.close()
        await self.soon(ended.wait())
        with self.assertRaises(hublink.LinkEnded):
            await link.send(b"")
        service.withdraw()
        await provider.count_plugins()
        self.assertIsNone(await requester.find_provider("Mirror"))

    async def check_failures(self, requester, provider):
        self.assertEqual(await requester.find_provider("Mirror"), provider.id)
        for wanted, outcome, options in (
                ("Mirror", hublink.Outcome.REFUSED, {}),
                ("Nothing", hublink.Outcome.NOT_FOUND, {}),
                ("Nothing", hublink.Outcome.NOT_FOUND, {"wait": True, "timeout": 0.2}),
                ("Mirror", hublink.Outcome.TIMED_OUT, {"timeout": 0})):
            with self.assertRaises(hublink.RequestFailed) as caught:
                await requester.request(wanted, **options)
            self.assertEqual(caught.exception.outcome, outcome)

    async def test_who_waits_for_a_provider(self):
        requester, provider = await self.plugin(), await self.plugin()
        asked = asyncio.ensure_future(requester.request("Later", wait=True))
        self.assertIsNone(await requester.find_provider("Later"))
        await provider.provide("Later", lambda link: None)
        self.assertEqual((await self.soon(asked)).peer_plugin_id, provider.id)

    async def test_a_handler_that_fails_closes_its_link(self):
        def fail(link):
            raise ValueError("on purpose")
        with self.assertLogs("hublink"):
            near, far = await self.linked(fail)
            await self.soon(near.wait_ended())
        self.assertFalse(far.is_up)

    async def test_cancelling_leaves_nothing_behind(self):
        provider, requester = await self.plugin(), await self.plugin()
        answer, links = asyncio.Event(), []

        async def accept(request):
            await answer.wait()
            return True
        await provider.provide("Slow", links.append, accept)
        asked = asyncio.ensure_future(requester.request("Slow"))
        await requester.count_plugins()  # the hub has the request
        asked.cancel()
        with self.assertRaises(asyncio.CancelledError):
            await asked
        answer.set()
        await self.until(lambda: links and not links[0].is_up)
        self.assertEqual(requester._links, {})
        self.assertEqual(requester._replies._open, {})
        offer = asyncio.ensure_future(requester.provide("Gone", print))
        await asyncio.sleep(0)
        offer.cancel()
        await requester.count_plugins()
        await requester.count_plugins()
        self.assertEqual(requester._services, {})
        self.assertIsNone(await requester.find_provider("Gone"))
        self.assertEqual(requester._connection._questions, 0)

    async def test_senders_wait(self):
        near, far = await self.linked()
        near._plugin.set_send_limit(1 << 20)
        sent = 0
        os.kill(self.hub_process(), signal.SIGSTOP)
        while near.try_send(bytes(1 << 16)):
            sent += 1
            self.assertLess(sent, 256, "there is no limit")
        waiting = asyncio.ensure_future(near.send(b"last"))
        room = asyncio.ensure_future(near.wait_room())
        await asyncio.sleep(0)
        self.assertFalse(waiting.done())
        os.kill(self.hub_process(), signal.SIGCONT)
        await self.soon(asyncio.gather(waiting, room))
        for _ in range(sent):
            self.assertEqual(await self.soon(far.receive()), bytes(1 << 16))
        self.assertEqual(await self.soon(far.receive()), b"last")

    async def test_what_nobody_takes_is_not_read(self):
        near, far = await self.linked()
        far._plugin.set_receive_limit(1 << 20)
        for _ in range(64):
            await near.send(bytes(1 << 16))
        await self.until(lambda: not far._connection._reading)
        self.assertLess(far._connection._unread, 3 << 20)
        await self.soon(far._plugin.count_plugins())  # who waits for an answer reads
        for _ in range(64):
            await self.soon(far.receive())
        self.assertEqual(far._connection._unread, 0)

    async def test_order_and_ends(self):
        near, far = await self.linked()
        got = []

        async def take(packet):
            await asyncio.sleep(0)
            got.append(packet)
        wanted = [b"%d" % number for number in range(500)]
        for packet in wanted[:100]:
            await near.send(packet)
        far.on_packet(take)
        far.on_end(lambda: got.append("end"))
        for packet in wanted[100:]:
            await near.send(packet)
        near.close()
        await self.until(lambda: "end" in got)
        self.assertEqual(got, wanted + ["end"])

    async def test_many_wait_for_one(self):
        near, far = await self.linked()
        got, gate = [], asyncio.Event()

        def take(packet):
            got.append(packet)
            return gate.wait() if len(got) == 1 else None
        far.on_packet(take)
        for number in range(5000):
            await near.send(b"%d" % number)
        await near._plugin.count_plugins()
        gate.set()
        await self.until(lambda: len(got) == 5000)
        self.assertEqual(got, [b"%d" % number for number in range(5000)])

    async def test_values_and_the_rest(self):
        first, second = await self.plugin(), await self.plugin()
        self.assertIsNone(await first.request_value(second.id, "name"))

        async def value(name):
            return None if name == "none" else name + "!"
        second.on_value_request(value)
        self.assertEqual(await first.request_value(second.id, "name"), "name!")
        self.assertIsNone(await first.request_value(second.id, "none"))
        rns = await first.reserve_rns(3)
        self.assertEqual(len(set(rns)), 3)
        for rn in rns:
            first.release_rn(rn)
        first.set_environment_variable("A", "b")
        first.debug_plugin("x", False)
        first.set_prefer_ada(False)
        first.set_working_dir(self.scratch)
        await first.provide("Here", print)
        self.assertIsNone(await second.find_provider("Here", working_dir="/nowhere"))
        self.assertEqual(await second.find_provider("Here", working_dir=self.scratch), first.id)
        first.log("a line")
        self.assertFalse(first.is_log_kept)

    async def test_the_hub_starts_a_plugin(self):
        script = self.scratch / "started"
        script.write_text(STARTED.format(python=sys.executable, path=sys.path[0]))
        script.chmod(0o755)
        plugin = await self.plugin()
        number = await self.soon(plugin.launch([str(script), "argument"]))
        link = await self.soon(plugin.request("Started", plugin_id=number))
        self.assertEqual(await self.soon(link.receive()), b"argument")
        with self.assertRaises(hublink.LaunchFailed):
            await self.soon(plugin.launch(["/nonexistent"]))
        with self.assertRaises(hublink.LaunchFailed):
            await self.soon(plugin.connect_plugin("127.0.0.1", 1))

    async def test_the_hub_goes(self):
        near, far = await self.linked()
        fifo, script = self.scratch / "fifo", self.scratch / "silent"
        os.mkfifo(fifo)
        script.write_text(f"#!/bin/sh\nexec cat {fifo}\n")
        script.chmod(0o755)
        asked = asyncio.ensure_future(near._plugin.launch([str(script)]))
        with await self.soon(asyncio.get_running_loop().run_in_executor(None, open, fifo, "w")):
            await self.check_end(near, far, asked)

    async def check_end(self, near, far, asked):
        os.kill(self.hub_process(), 9)
        with self.assertRaises(hublink.Disconnected):
            await self.soon(asked)
        await self.soon(near._plugin.wait_closed())
        with self.assertRaises(hublink.LinkEnded):
            await near.receive()
        self.assertFalse(far.is_up and near.is_up)
        with self.assertRaises(hublink.RequestFailed) as caught:
            await near._plugin.request("Test")
        self.assertEqual(caught.exception.outcome, hublink.Outcome.DISCONNECTED)
        await self.plugin()  # a new one, under the old one's record


LISTENER = """
import os, socket, sys
os.setuid(int(sys.argv[1]))
listener = socket.create_server(("127.0.0.1", 0))
print(listener.getsockname()[1], flush=True)
sys.stdin.read()
"""

STARTED = """#!{python}
import asyncio, sys
sys.path.insert(0, {path!r})
import hublink

async def greet(link):
    await link.send(sys.argv[-1].encode())

async def main():
    async with hublink.connect(sys.argv) as plugin:
        await plugin.provide("Started", greet)
        await plugin.wait_closed()

asyncio.run(main())
"""
