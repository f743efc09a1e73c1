#!/usr/bin/env python3
"""The page of `hublinkctl trace --html` in a headless browser: page_test.py HUBLINKCTL"""
import pathlib
import subprocess
import sys
import tempfile
import time
import unittest

from browser import Browser

HUBLINKCTL = ""
SESSION = pathlib.Path(__file__).parent.parent / "trace" / "session.log"
ESCAPE = "\ue00c"
DOWN = "\ue015"


def long_log(messages):
    """That many messages of 40 plugins that ask each other for services."""
    lines, plugins = [], 40

    def line(plugin, text):
        stamp = 13440040483000 + 7 * len(lines)
        lines.append(f"{stamp // 1000}.{stamp % 1000:03}: Plugin {plugin}:\t {text}\n")

    for rn in range(100, 100 + messages // 4):
        asker, provider = rn % plugins + 1, rn * 7 % plugins + 1
        line(asker, f'RECV: RequestServiceConnection: serviceName:"S{provider}", '
                    f'client_cookie:{rn:#x}')
        line(provider, f"SEND: ConnectionRequestedEvent: requesting_plugin_id:{asker:#x}, "
                       f"serviceRN:{provider:#x}, remoteRN:{rn:#x}")
        line(provider, f"RECV: ConnectionAcceptedEvent: serviceRN:{provider:#x}, remoteRN:{rn:#x}, "
                       "accept:0x1")
        line(asker, f'SEND: ConnectionReplyEvent: serviceName:"S{provider}", localRN:{rn:#x}, '
                    f"wasFound:0x1, wasAccepted:0x1, serviceRN:{provider:#x}, "
                    f"plugin_id:{provider:#x}, client_cookie:{rn:#x}")
    return "".join(lines)


class PageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.browser = Browser()
        cls.addClassCleanup(cls.browser.close)
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)

    def open(self, log):
        page = str(self.folder / "page.html")
        subprocess.run([HUBLINKCTL, "trace", str(log), "--html", page], check=True)
        self.browser.open("file://" + page)

    def count(self):
        return self.browser.texts("#count")[0]

    def names(self):
        """What the rows that are drawn begin with."""
        return [text.split("  ")[0] for text in self.browser.texts(".row .says")]

    def tearDown(self):
        self.assertEqual(self.browser.complaints(), [])
        self.assertEqual(self.browser.run("performance.getEntriesByType('resource').length"), 0)

    def test_filters(self):
        self.open(SESSION)
        everything = self.count()
        self.assertEqual(self.browser.texts("#lanes b"), ["hub", "1", "2", "3", "4", "5"])
        titles = self.browser.run(
            "[...document.querySelectorAll('#lanes span')].map((s) => s.title)")
        self.assertEqual(titles[4:], ["renderer (4): Render", "plugin 5\nrenderer (6)"])
        self.browser.click("#plugins summary")
        self.browser.click("#plugins label:nth-child(6)")
        self.assertEqual(self.names(), ["Connection to plugin ID 5 down in negotiation stage 2."])
        self.browser.click("#plugins label:nth-child(6)")
        self.browser.click("#plugins label:nth-child(2)")
        self.browser.click("#messages summary")
        self.browser.run("[...document.querySelectorAll('#messages label')]"
                         ".find((l) => l.innerText.startsWith('ConnectionReplyEvent')).click()")
        self.assertEqual(self.names(), ["ConnectionReplyEvent"])
        self.assertEqual(self.browser.texts("#lanes b"), ["hub", "1"])
        self.assertEqual(len(self.browser.texts("#panel .request")), 1)
        self.browser.click("#clear")
        self.assertEqual(self.count(), everything)
        self.assertEqual(self.browser.run("document.querySelectorAll('input:checked').length"), 0)

    def test_search(self):
        self.open(SESSION)
        self.browser.type("#search", "</SCRIPT>")
        self.assertEqual(self.browser.texts(".row .says"),
                         ['LogMessageEvent  message="first line ⏎ second, "quoted" </script> ⏎ "'])
        self.assertEqual(self.browser.texts("mark"), ["</script>"])
        self.browser.type("#search", "nowhere in it")
        self.assertEqual(self.names(), [])
        self.browser.click("#nothing button")
        self.assertGreater(len(self.names()), 20)

    def test_request(self):
        self.open(SESSION)
        whole = ["RequestServiceConnection", "Launching plugin renderer.", "PluginId",
                 "RegisterServiceList", "RNBlockReservedEvent", "ConnectionRequestedEvent",
                 "ConnectionAcceptedEvent", "ConnectionReplyEvent",
                 "Connection to plugin ID 2 down.", "ConnectionDroppedEvent"]
        self.browser.click(".row:nth-of-type(16)")
        self.assertEqual(self.browser.texts(".step b"), whole)
        self.assertEqual(self.browser.texts("#panel td"),
                         ["serviceRN", "11", "remoteRN", "12", "accept", "1"])
        self.assertIn("accepted by plugin 4", self.browser.texts(".card")[0])
        self.assertEqual(len(self.browser.texts(".row.mine")), 8)  # the others are further down
        self.browser.click(".step:last-child")
        self.assertEqual(self.browser.texts("#panel > h2"), ["ConnectionDroppedEvent"])
        self.assertEqual(len(self.browser.texts(".row.picked")), 1)
        self.browser.click(".only")
        self.assertEqual(self.names(), whole)
        self.assertEqual(self.browser.texts("#lanes b"), ["hub", "2", "4"])
        self.assertEqual(len(self.browser.texts("#drawing .received")), 3)
        self.browser.press("#search", ESCAPE)
        self.assertEqual(len(self.browser.texts(".row.mine")), 0)
        self.browser.click(".tabs button:nth-child(2)")
        self.assertEqual(len(self.browser.texts(".request")), 4)
        self.browser.click(".request:last-of-type")
        self.assertIn("unable to connect", self.browser.texts(".card")[0])

    def test_keyboard_and_colours(self):
        self.open(SESSION)
        colour = "getComputedStyle(document.body).backgroundColor"
        before = self.browser.run(colour)
        self.browser.click("#theme")
        self.assertNotEqual(self.browser.run(colour), before)
        self.browser.click(".row")
        self.browser.press("#scroller", DOWN)
        self.assertEqual(self.browser.texts("#panel > h2"), ["RequestLocation"])

    def test_twenty_thousand_messages(self):
        log = self.folder / "long.log"
        log.write_text(long_log(20000))

        def timed(action, *arguments):
            begin = time.monotonic()
            action(*arguments)
            self.assertLess(time.monotonic() - begin, 2.5)

        timed(self.open, log)
        self.assertEqual(self.count(), "20000 lines")
        timed(self.browser.type, "#search", "s17")
        self.assertEqual(self.count(), "250 of 20000 lines")
        timed(self.browser.click, "#clear")
        self.browser.click("#messages summary")
        timed(self.browser.click, "#messages label")
        self.assertEqual(self.count(), "5000 of 20000 lines")
        self.browser.click("#clear")
        timed(self.browser.run, "(document.querySelector('#scroller').scrollTop = 1e9)")
        self.browser.run("new Promise((done) => requestAnimationFrame(() => setTimeout(done)))")
        self.assertLess(len(self.names()), 100)
        timed(self.browser.click, ".row:last-child")
        self.assertEqual(len(self.browser.texts(".step")), 4)


if __name__ == "__main__":
    HUBLINKCTL = str(pathlib.Path(sys.argv.pop(1)).resolve())
    unittest.main()
