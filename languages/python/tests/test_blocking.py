"""The face for scripts, used from several threads."""

import asyncio
import threading

from .support import HubTest, generate, hublink

from hublink import blocking

COUNTER = """
spec Counter
side user { }
side counter { }
from user to counter { Count two-way "by:%u4% | total:%u4% " }
"""

counter = generate(COUNTER)


class Count(counter.CounterCounter):
    total = 0

    def on_count(self, message):
        self.total += message.by
        return counter.CountReply(self.total)


class BlockingTest(HubTest):
    async def test_scripts(self):
        await self.soon(asyncio.get_running_loop().run_in_executor(None, self.run_scripts))

    def run_scripts(self):
        with blocking.connect(choice=self.choice) as plugin:
            with blocking.connect(choice=self.choice) as other:
                self.run_links(plugin, other)
                self.run_calls(plugin, other)
                waiting = threading.Thread(target=other.wait_closed)
                waiting.start()
            waiting.join()
            self.assertRaises(hublink.Disconnected, other.count_plugins)
            other.close()
        with self.assertRaises(hublink.HubNotFound):
            blocking.connect(choice=hublink.HubChoice(zone="other", program="/nonexistent"))

    def run_links(self, plugin, other):
        def mirror(link):
            for packet in link:
                link.send(packet)

        service = plugin.provide("Mirror", mirror, lambda request: request.pairs != ["no"])
        plugin.on_value_request(lambda name: name * 2)
        self.assertEqual(other.request_value(plugin.id, "ab"), "abab")
        with self.assertRaises(hublink.RequestFailed):
            other.request("Mirror", pairs=["no"])
        with other.request("Mirror") as link:
            def talk(number):
                link.send(b"%d" % number)
            threads = [threading.Thread(target=talk, args=(number,)) for number in range(8)]
            for thread in threads:
                thread.start()
            self.assertEqual({link.receive(30) for _ in threads}, {b"%d" % n for n in range(8)})
            self.assertRaises(hublink.CallTimedOut, link.receive, 0.01)
        self.assertEqual(list(link), [])
        service.withdraw()
        self.assertIsNone(other.find_provider("Mirror"))

    def run_calls(self, plugin, other):
        done = threading.Event()

        def count(link):
            link.attach(Count)
            link.wait_ended()
            done.set()

        plugin.provide("Counter", count)
        link = other.request("Counter")
        user = link.attach(counter.CounterUser)
        for total in (2, 4):
            self.assertEqual(other.run(user.count(counter.Count(2))).total, total)
        link.close()
        self.assertTrue(done.wait(30))
