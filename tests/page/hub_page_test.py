#!/usr/bin/env python3
"""The page of `hublinkctl serve` in a headless browser, on a hub under load:

    hub_page_test.py BIN
"""
import http.client
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

from browser import Browser

BIN = pathlib.Path()
PLUGINS = 100
HOSTILE = '<img src=x onerror="document.title=1">'
TAB, ENTER, ESCAPE, DOWN = "\ue004", "\ue007", "\ue00c", "\ue015"


class HubPageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.environment = dict(os.environ, TMP=folder.name)
        port = str(cls.start(BIN / "hublinkctl", "start", "--stay", "--json")["port"])
        cls.url = cls.start(BIN / "hublinkctl", "serve", "--json")["url"]
        cls.start(BIN / "busy_plugins", port, str(PLUGINS), HOSTILE, tells=False)
        named = pathlib.Path(folder.name) / HOSTILE
        shutil.copy(BIN / "busy_plugins", named)
        cls.start(named, port, "6", tells=False)
        silent = pathlib.Path(folder.name) / "silent"
        silent.write_text("#!/bin/sh\nexec sleep 30\n")
        silent.chmod(0o755)
        cls.start(BIN / "hublinkctl", "launch", "--timeout", "60", silent, tells=False)
        cls.browser = Browser()
        cls.addClassCleanup(cls.browser.close)

    @classmethod
    def start(cls, *command, tells=True):
        """The object that it prints, if it tells one."""
        process = subprocess.Popen(command, env=cls.environment, stdout=subprocess.PIPE, text=True)

        def end():
            process.terminate()
            process.wait()
            process.stdout.close()

        cls.addClassCleanup(end)
        text = ""
        while tells and not text.endswith("}\n"):
            text += process.stdout.readline()
        return json.loads(text) if tells else None

    def ask(self, path, method="GET", **headers):
        connection = http.client.HTTPConnection(self.url.split("/")[2], timeout=20)
        connection.request(method, path, headers=headers)
        answer = connection.getresponse()
        text = answer.read().decode()
        connection.close()
        return answer.status, text

    def wait(self, expression):
        for _ in range(200):
            value = self.browser.run(expression)
            if value:
                return value
            time.sleep(0.1)
        self.fail(expression)

    def setUp(self):
        self.browser.prefer("light")
        self.browser.open(self.url)
        self.wait(f"document.querySelectorAll('.cell.plugin').length >= {PLUGINS + 7}")

    def tearDown(self):
        self.assertEqual(self.browser.complaints(), [])

    def count_of(self, selector):
        return self.browser.run(f"document.querySelectorAll('{selector}').length")

    def test_picture(self):
        self.wait("hub.packetRate > 1000")
        cells = [self.count_of(f"#{side} .cell.plugin") for side in ("asks", "provides")]
        self.assertEqual(sum(cells), self.browser.run("hub.plugins.size"))
        names = self.browser.texts(".group h3 > :first-child")
        self.assertIn("busy_plugins", names)
        self.assertIn("Service #", names)
        self.assertIn("/s", self.browser.texts("#asks .group:not(.alone) h3 small")[1])
        self.assertGreaterEqual(self.count_of("#edges path"), 4)
        self.assertIn("silent", self.browser.texts("#provides .cell.launch .full"))
        self.wait("document.querySelectorAll('#provides .cell.slow').length == 1")
        self.assertEqual(self.browser.texts("#figures .slow"), ["1 slow"])
        self.wait("document.querySelectorAll('#events li').length > 100")
        self.assertIn("receiver slow", self.browser.texts("#events b.bad"))
        within = self.browser.run("[...document.querySelectorAll('.cell')].every((cell) => "
                                  "cell.getBoundingClientRect().right <= "
                                  "document.querySelector('aside').getBoundingClientRect().left)")
        self.assertTrue(within)

    def test_texts_of_others(self):
        self.assertIn(HOSTILE, self.browser.texts("#services .full"))
        self.assertIn(HOSTILE, self.browser.texts(".group h3 > :first-child"))
        self.browser.click("#services .alone .cell")
        self.assertEqual(self.browser.texts("#panel > h2"), [HOSTILE])
        self.wait(f"[...document.querySelectorAll('#events li')].some((row) => "
                  f"row.textContent.includes({json.dumps(HOSTILE)}))")
        self.assertEqual(self.browser.run("document.images.length"), 0)
        self.assertTrue(self.browser.run("document.title").startswith("Hub on "))

    def test_keyboard(self):
        self.browser.press_active("/")
        self.browser.press_active("#2")
        self.wait("document.querySelectorAll('.cell.found').length > 0")
        self.browser.press_active(ESCAPE)
        self.assertEqual(self.browser.run("document.querySelectorAll('.searched').length"), 0)
        self.browser.press_active([TAB] * 3)
        self.assertTrue(self.browser.run("document.activeElement.matches('.cell')"))
        self.browser.press_active([DOWN, DOWN, ENTER])
        title = self.browser.run("document.activeElement.title")
        self.assertRegex(self.browser.texts("#panel > h2")[0], r" #\d+$")
        self.assertTrue(title.startswith(self.browser.texts("#panel > h2")[0]))
        self.assertIn("process", self.browser.texts("#panel td"))
        self.assertGreater(self.count_of("#edges .own"), 0)
        self.browser.press_active([TAB, TAB, ENTER])
        self.assertNotIn(self.browser.texts("#panel > h2")[0], title)
        self.browser.press_active(ESCAPE)
        self.assertEqual(self.browser.run("document.querySelectorAll('.picked').length"), 0)

    def test_dark(self):
        colours = "[document.body, document.querySelector('.group')].map((e) => " \
                  "getComputedStyle(e).backgroundColor.match(/\\d+/g).map(Number)[0])"
        self.assertGreater(min(self.browser.run(colours)), 200)
        self.browser.prefer("dark")
        self.assertLess(max(self.browser.run(colours)), 60)

    def test_only_its_own_host_and_origin(self):
        port = self.url.rstrip("/").rsplit(":", 1)[1]
        for path in ("/", "/metrics", "/api/all", "/api/events"):
            for headers in ({"Host": f"evil.example:{port}"}, {"Host": "127.0.0.1"},
                            {"Origin": "http://evil.example"}, {"Origin": "null"},
                            {"Sec-Fetch-Site": "cross-site"}):
                self.assertEqual(self.ask(path, **headers)[0], 403, (path, headers))
        for method in ("POST", "PUT", "DELETE", "OPTIONS", "HEAD"):
            self.assertEqual(self.ask("/api/all", method)[0], 405, method)
        own = {"Host": f"localhost:{port}", "Origin": f"http://localhost:{port}"}
        status, text = self.ask("/api/plugins", **own)
        self.assertEqual(status, 200)
        self.assertGreaterEqual(len(json.loads(text)), PLUGINS)
        self.assertIn("\nhublink_packets_total ", self.ask("/metrics")[1])
        self.assertEqual(self.ask("/api/none")[0], 404)

    @unittest.skipIf(os.getuid(), "becoming another user takes root")
    def test_only_its_own_user(self):
        child = os.fork()
        if child == 0:
            refused = False
            try:
                os.setuid(65534)
                refused = self.ask("/metrics") == (403, "asked by another user\n")
            finally:
                os._exit(not refused)
        self.assertEqual(os.waitpid(child, 0)[1], 0)


if __name__ == "__main__":
    BIN = pathlib.Path(sys.argv.pop(1)).resolve()
    unittest.main()
