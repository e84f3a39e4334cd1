#!/usr/bin/env python3
"""The example web client in headless Chromium against the service that tiv-demo runs on
virtual readers: the page speaks protocol 2, lists the readers and the version, and shows a tag
laid on a reader with that reader's name. When the service drops its connection (here for a
message far too long), it reconnects by itself, is greeted again, keeps its reads and shows the
tag still lying there as a re-report. A tag taken away shows as lifted on that reader only.

  python3 web_client_test.py TIV-DEMO WEB-CLIENT-DIR VERSION

Chromium is spoken to over its DevTools pipe (file descriptors 3 and 4), so no driver is needed.
"""
import functools
import http.server
import json
import os
import re
import select
import shutil
import subprocess
import sys
import tempfile
import threading
import time

CHROMIUM = os.environ.get("TIV_CHROMIUM", "/usr/bin/chromium")
# Chromium's first start on a loaded two-core machine, and the service's ~15 s reader refresh.
TIMEOUT = 90

# Keeps the page's sockets within reach of the test.
KEEP_SOCKETS = """window.WebSocket = class extends WebSocket {
  constructor(...args) { super(...args); (window.sockets ||= []).push(this); }
};"""
PROTOCOL = "tiv-rfid.2"
PAGE = """({
  sockets: window.sockets?.length ?? 0,
  protocols: (window.sockets ?? []).map((socket) => socket.protocol),
  state: document.getElementById('connection')?.dataset.state ?? null,
  version: document.getElementById('version')?.textContent ?? null,
  readers: [...document.querySelectorAll('#readers li')].map((item) => item.textContent).sort(),
  reads: [...document.querySelectorAll('#reads tbody tr')].map((row) => ({
    card: `${row.dataset.type} ${row.dataset.id}`,
    reader: row.dataset.reader,
    repeat: row.dataset.repeat,
    lifted: Boolean(row.dataset.lifted) && row.cells[row.cells.length - 1].textContent.startsWith('lifted '),
  })),
})"""


def note(text):
    print(f"{time.strftime('%H:%M:%S')} {text}", file=sys.stderr, flush=True)


class Chromium:
    def __init__(self, home):
        to_browser, self.commands = os.pipe()
        self.replies, from_browser = os.pipe()

        def hand_over_pipes():
            os.dup2(to_browser, 3)
            os.dup2(from_browser, 4)

        # Any certificate: each run of the demo makes a new one. No sandbox: tests run as root.
        self.process = subprocess.Popen(
            [CHROMIUM, "--headless=new", "--no-sandbox", "--disable-gpu", "--no-first-run",
             "--disable-background-networking", "--disable-component-update", "--ignore-certificate-errors",
             f"--user-data-dir={home}/profile", "--remote-debugging-pipe", "about:blank"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=open(f"{home}/chromium.log", "w"),
            env={**os.environ, "HOME": home}, preexec_fn=hand_over_pipes, close_fds=False)
        os.close(to_browser)
        os.close(from_browser)
        self.buffer = b""
        self.last_id = 0
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        self.call("Page.enable", self.session)
        self.call("Page.addScriptToEvaluateOnNewDocument", self.session, source=KEEP_SOCKETS)

    def call(self, method, session=None, **params):
        self.last_id += 1
        message = {"id": self.last_id, "method": method, "params": params}
        if session:
            message["sessionId"] = session
        os.write(self.commands, json.dumps(message).encode() + b"\0")
        while True:
            while b"\0" not in self.buffer:
                if not select.select([self.replies], [], [], TIMEOUT)[0]:
                    raise TimeoutError(f"Chromium did not answer {method}")
                data = os.read(self.replies, 65536)
                if not data:
                    raise EOFError("Chromium ended")
                self.buffer += data
            line, self.buffer = self.buffer.split(b"\0", 1)
            reply = json.loads(line)
            if reply.get("id") == self.last_id:
                if "error" in reply:
                    raise RuntimeError(f"{method}: {reply['error']}")
                return reply["result"]

    def evaluate(self, expression):
        reply = self.call("Runtime.evaluate", self.session, expression=expression, returnByValue=True)
        if "exceptionDetails" in reply:
            raise RuntimeError(f"{expression}: {reply['exceptionDetails']}")
        return reply["result"]

    def wait_for(self, what, condition):
        deadline = time.monotonic() + TIMEOUT
        while not condition(shown := self.evaluate(PAGE)["value"]):
            if time.monotonic() > deadline:
                raise TimeoutError(f"no {what}; the page shows {shown}")
            time.sleep(0.1)
        note(f"{what}: {shown}")
        return shown

    def close(self):
        self.process.terminate()
        self.process.wait()


def start_demo(program):
    """tiv-demo, fed commands through its standard input, with its port and its readers."""
    demo = subprocess.Popen([program, "--port", "0"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True, bufsize=1)
    port, readers = None, []  # in the demo's order: reader N is readers[N]
    for line in demo.stdout:
        note(f"demo: {line.rstrip()}")
        if found := re.search(r"running on wss://127\.0\.0\.1:(\d+)", line):
            port = int(found[1])
        if found := re.match(r'\s*reader \d = "(.*)"', line):
            readers.append(found[1])
        if len(readers) == 2:
            threading.Thread(target=lambda: [note(f"demo: {line.rstrip()}") for line in demo.stdout],
                             daemon=True).start()
            return demo, port, readers
    raise RuntimeError("tiv-demo did not start")


def main(demo_program, web_client, version):
    home = tempfile.mkdtemp(prefix="tiv-browser-")
    quiet = type("Quiet", (http.server.SimpleHTTPRequestHandler,), {"log_message": lambda *_: None})
    handler = functools.partial(quiet, directory=web_client)
    # Served over http, the way the README suggests opening the page.
    site = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
    threading.Thread(target=site.serve_forever, daemon=True).start()
    demo = browser = None
    try:
        demo, port, readers = start_demo(demo_program)
        browser = Chromium(home)
        browser.call("Page.navigate", browser.session,
                     url=f"http://127.0.0.1:{site.server_address[1]}/index.html?port={port}")
        # A page without the subprotocol gets protocol 1 and would never see readers or removals.
        greeted = lambda page: (page["state"] == "connected" and page["version"] == version
                                and page["readers"] == sorted(readers) and set(page["protocols"]) == {PROTOCOL})
        browser.wait_for("greeting", greeted)

        # The same tag on both readers: its removal from one must not mark it lifted on the other.
        tag = "TAG 04a10b7f"
        rows = lambda page, reader: [read for read in page["reads"] if read["card"] == tag and read["reader"] == reader]
        for number, reader in enumerate(readers):
            demo.stdin.write(f"tag {number} 04a10b7f\n")
            # The oldest row: the service's re-report may already have followed it.
            page = browser.wait_for(f"tag on {reader}", lambda page: rows(page, reader))
            if rows(page, reader)[-1]["repeat"] != "false":
                raise AssertionError(f"a tap was shown as a re-report: {page}")

        browser.evaluate("window.sockets[0].send('x'.repeat(70000))")
        # The new greeting re-reports the tags still lying there, after the readers, before the version.
        repeated = lambda page: all(rows(page, reader)[0]["repeat"] == "true" for reader in readers)
        page = browser.wait_for("new greeting", lambda page: page["sockets"] == 2 and greeted(page) and repeated(page))
        if not all(rows(page, reader)[-1]["repeat"] == "false" for reader in readers):
            raise AssertionError(f"the reads were not kept: {page}")

        demo.stdin.write("remove 0\n")
        page = browser.wait_for("lift", lambda page: rows(page, readers[0])[0]["lifted"])
        if any(read["lifted"] for read in rows(page, readers[1])):
            raise AssertionError(f"the tag was shown lifted from the reader it still lies on: {page}")
        demo.stdin.write("quit\n")
        if demo.wait(TIMEOUT) != 0:
            raise RuntimeError(f"tiv-demo ended with status {demo.returncode}")
    finally:
        if demo and demo.poll() is None:
            demo.kill()
        if browser:
            browser.close()
        site.shutdown()
        shutil.rmtree(home, ignore_errors=True)
    print("PASS")


if __name__ == "__main__":
    main(*sys.argv[1:])
