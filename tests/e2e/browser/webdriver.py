"""Headless Debian Chromium through Debian's chromedriver, spoken to over the W3C WebDriver
protocol with nothing but the standard library; and a static file server for the page.

Chromium runs with a throw-away HOME and profile, no sandbox (tests run as root), and without
the calls home that a closed machine would refuse.
"""
import base64
import functools
import http.server
import json
import os
import shutil
import socket
import subprocess
import tempfile
import threading
import time
import urllib.error
import urllib.request

CHROMIUM = os.environ.get("TIV_CHROMIUM", "/usr/bin/chromium")
CHROMEDRIVER = os.environ.get("TIV_CHROMEDRIVER", "/usr/bin/chromedriver")
WEB_CLIENT_DIR = os.path.normpath(os.path.join(os.path.dirname(__file__), "../../../examples/web"))

CHROMIUM_ARGS = ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                 "--disable-background-networking", "--disable-component-update", "--disable-sync",
                 "--window-size=1000,600"]

# Runs in every document before its own scripts: keeps what the page logs, for the test to read.
CONSOLE_CAPTURE = """
window.__console = [];
for (const level of ['log', 'info', 'warn', 'error']) {
  const original = console[level].bind(console);
  console[level] = (...parts) => {
    window.__console.push({ level, text: parts.map((part) => String(part)).join(' ') });
    original(...parts);
  };
}
window.addEventListener('error', (event) => window.__console.push({ level: 'pageerror', text: String(event.message) }));
"""


class WebDriverError(RuntimeError):
    pass


def spki_fingerprint(certificate_file):
    """What --ignore-certificate-errors-spki-list takes: base64 of SHA-256 over the public key."""
    data = None
    for command in (["x509", "-in", certificate_file, "-noout", "-pubkey"], ["pkey", "-pubin", "-outform", "DER"],
                    ["dgst", "-sha256", "-binary"]):
        data = subprocess.run(["openssl", *command], input=data, check=True, capture_output=True).stdout
    return base64.b64encode(data).decode()


def _free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Browser:
    """One chromedriver and one Chromium session; use it as a context manager."""

    def __init__(self, trusted_certificate=None):
        for program, package in ((CHROMIUM, "chromium"), (CHROMEDRIVER, "chromium-driver")):
            if not os.access(program, os.X_OK):
                raise WebDriverError(f"{program} is missing: install Debian's {package} package "
                                     "(bash scripts/install-deps.sh --tests)")
        self.args = list(CHROMIUM_ARGS)
        if trusted_certificate:
            self.args.append("--ignore-certificate-errors-spki-list=" + spki_fingerprint(trusted_certificate))
        self.home = tempfile.mkdtemp(prefix="tiv-chromium-home-")
        self.driver = None
        self.session = None

    def __enter__(self):
        try:
            self._start()
        except BaseException:
            self.close()
            raise
        return self

    def __exit__(self, *exc):
        self.close()

    def _start(self):
        # A port that looked free can be taken before chromedriver binds it: try fresh ones.
        for _ in range(3):
            self.port = _free_port()
            self.driver_log = open(os.path.join(self.home, "chromedriver.log"), "w+b")
            self.driver = subprocess.Popen(
                [CHROMEDRIVER, f"--port={self.port}"], stdin=subprocess.DEVNULL,
                stdout=self.driver_log, stderr=subprocess.STDOUT,
                env={**os.environ, "HOME": self.home})
            if self._wait_until_ready():
                break
            output = self._driver_output()
            self._stop_driver()
        else:
            raise WebDriverError("chromedriver did not start: " + output)
        capabilities = {"browserName": "chrome",
                        "goog:chromeOptions": {"binary": CHROMIUM, "args": self.args}}
        reply = self._call("POST", "/session", {"capabilities": {"alwaysMatch": capabilities}})
        self.session = reply["sessionId"]
        self.cdp("Page.addScriptToEvaluateOnNewDocument", {"source": CONSOLE_CAPTURE})

    def _wait_until_ready(self):
        deadline = time.monotonic() + 30
        while time.monotonic() < deadline:
            if self.driver.poll() is not None:
                return False
            try:
                if self._call("GET", "/status").get("ready"):
                    return True
            except (OSError, WebDriverError):
                pass
            time.sleep(0.05)
        return False

    def _driver_output(self):
        self.driver_log.seek(0)
        return self.driver_log.read().decode(errors="replace")[-2000:]

    def _call(self, method, path, body=None):
        data = json.dumps(body).encode() if body is not None else None
        request = urllib.request.Request(f"http://127.0.0.1:{self.port}{path}", data=data, method=method,
                                         headers={"Content-Type": "application/json"})
        try:
            with urllib.request.urlopen(request, timeout=120) as response:
                payload = json.load(response)
        except urllib.error.HTTPError as error:
            try:
                value = json.load(error).get("value", {})
                # Chromium's own words come after the first line; the stack trace after them.
                message = f"{value.get('error')}: {value.get('message', '')}".split("\nStacktrace:")[0]
            except ValueError:
                message = str(error)
            raise WebDriverError(f"{method} {path}: {message}") from None
        return payload.get("value")

    def _session_call(self, method, path, body=None):
        return self._call(method, f"/session/{self.session}{path}", body)

    def cdp(self, command, params):
        """A DevTools command, for what WebDriver itself cannot do."""
        return self._session_call("POST", "/goog/cdp/execute", {"cmd": command, "params": params})

    def open(self, url):
        self._session_call("POST", "/url", {"url": url})

    def execute(self, script, *args):
        """Runs the body of a function in the page; its return value comes back as JSON."""
        return self._session_call("POST", "/execute/sync", {"script": script, "args": list(args)})

    def wait_for(self, script, timeout, *args, interval=0.1):
        """Polls a script until it returns something true; returns that, or raises on timeout."""
        deadline = time.monotonic() + timeout
        while True:
            value = self.execute(script, *args)
            if value:
                return value
            if time.monotonic() > deadline:
                raise TimeoutError(f"timed out after {timeout:.0f} s waiting for: {script.strip()[:200]}")
            time.sleep(interval)

    def console(self):
        return self.execute("return window.__console || [];")

    def screenshot(self, path):
        with open(path, "wb") as file:
            file.write(base64.b64decode(self._session_call("GET", "/screenshot")))

    def _stop_driver(self):
        if self.driver and self.driver.poll() is None:
            self.driver.terminate()
            try:
                self.driver.wait(10)
            except subprocess.TimeoutExpired:
                self.driver.kill()
                self.driver.wait()
        self.driver = None
        if getattr(self, "driver_log", None):
            self.driver_log.close()
            self.driver_log = None

    def close(self):
        if self.session:
            try:
                self._session_call("DELETE", "")
            except (OSError, WebDriverError):
                pass
            self.session = None
        self._stop_driver()
        shutil.rmtree(self.home, ignore_errors=True)


class _QuietHandler(http.server.SimpleHTTPRequestHandler):
    def log_message(self, *args):
        pass


class StaticSite:
    """Serves a directory on a free loopback port: an http://127.0.0.1 origin may open a wss
    connection to 127.0.0.1 where a file:// page might not."""

    def __init__(self, directory=WEB_CLIENT_DIR):
        handler = functools.partial(_QuietHandler, directory=directory)
        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
        self.url = f"http://127.0.0.1:{self.server.server_address[1]}/"
        self.thread = threading.Thread(target=self.server.serve_forever, daemon=True)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *exc):
        self.server.shutdown()
        self.server.server_close()


# What the page shows, in plain values.
READ_PAGE = """
return {
  state: document.getElementById('connection').dataset.state,
  version: document.getElementById('version').textContent,
  readers: [...document.querySelectorAll('#readers li')].map((item) => item.textContent),
  reads: [...document.querySelectorAll('#reads tbody tr')].map((row) => `${row.dataset.type} ${row.dataset.id}`),
};
"""
