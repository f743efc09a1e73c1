"""A headless browser, led by the WebDriver protocol (https://www.w3.org/TR/webdriver2/)."""
import json
import os
import subprocess
import urllib.request

ELEMENT = "element-6066-11e4-a52e-4f735466cecf"


class Browser:
    def __init__(self):
        self.driver = subprocess.Popen(["chromedriver", "--port=0"], stdout=subprocess.PIPE,
                                       text=True)
        line = next(line for line in self.driver.stdout if "started successfully on port" in line)
        self.base = f"http://127.0.0.1:{line.split()[-1].rstrip('.')}/session"
        arguments = ["--headless=new", "--disable-gpu", "--window-size=1440,900"]
        if os.getuid() == 0:  # the browser's own sandbox refuses root
            arguments.append("--no-sandbox")
        capabilities = {"browserName": "chrome", "goog:chromeOptions": {"args": arguments},
                        "goog:loggingPrefs": {"browser": "ALL"}}
        answer = self._call("POST", "", {"capabilities": {"alwaysMatch": capabilities}})
        self.base += "/" + answer["sessionId"]

    def close(self):
        try:
            self._call("DELETE", "")
        finally:
            self.driver.terminate()
            self.driver.wait()
            self.driver.stdout.close()

    def _call(self, method, path, body=None):
        data = None if body is None else json.dumps(body).encode()
        headers = {"Content-Type": "application/json"}
        request = urllib.request.Request(self.base + path, data, headers, method=method)
        with urllib.request.urlopen(request, timeout=60) as response:
            return json.load(response)["value"]

    def open(self, url):
        self._call("POST", "/url", {"url": url})

    def prefer(self, scheme):
        """As if the user liked "light" or "dark" pages."""
        features = [{"name": "prefers-color-scheme", "value": scheme}]
        self._call("POST", "/goog/cdp/execute", {"cmd": "Emulation.setEmulatedMedia",
                                                 "params": {"features": features}})

    def run(self, script, *arguments):
        """The value of a JavaScript expression; arguments are `arguments[0]` and so on."""
        return self._call("POST", "/execute/sync", {"script": "return " + script,
                                                    "args": list(arguments)})

    def find(self, selector):
        return self._call("POST", "/element", {"using": "css selector", "value": selector})[ELEMENT]

    def press_active(self, keys):
        """Keys for what has the focus."""
        actions = [{"type": kind, "value": key} for key in keys for kind in ("keyDown", "keyUp")]
        self._call("POST", "/actions", {"actions": [{"type": "key", "id": "keys",
                                                     "actions": actions}]})

    def click(self, selector):
        """Clicks as a mouse does: what is covered or out of sight is an error."""
        self._call("POST", f"/element/{self.find(selector)}/click", {})

    def press(self, selector, keys):
        self._call("POST", f"/element/{self.find(selector)}/value", {"text": keys})

    def type(self, selector, text):
        """Instead of what the field holds."""
        self._call("POST", f"/element/{self.find(selector)}/clear", {})
        self.press(selector, text)

    def texts(self, selector):
        return self.run("[...document.querySelectorAll(arguments[0])].map((e) => e.innerText)",
                        selector)

    def complaints(self):
        return self._call("POST", "/se/log", {"type": "browser"})
