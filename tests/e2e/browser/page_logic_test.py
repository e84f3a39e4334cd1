#!/usr/bin/env python3
"""The example web client against a stand-in for the browser's WebSocket: what it does with odd
messages, reader events and a lost connection, none of which the real service can be made to
send."""
import json
import unittest

from webdriver import READ_PAGE, Browser, StaticSite

# Replaces WebSocket before the page's scripts run. Each socket the page opens is kept in
# window.__sockets; the test makes it open, deliver messages and close.
FAKE_WEBSOCKET = """
window.__sockets = [];
window.WebSocket = class {
  constructor(url) {
    this.url = new URL(url).href; // as the real one reports it
    this.readyState = 0;
    window.__sockets.push(this);
  }
  send() {}
  close() {}
};
window.__serve = (index, messages, thenClose) => {
  const socket = window.__sockets[index];
  socket.readyState = 1;
  socket.onopen?.({});
  for (const message of messages) {
    const data = message.binary ? new Blob([message.binary]) : message;
    socket.onmessage?.({ data });
  }
  if (thenClose) {
    socket.readyState = 3;
    socket.onclose?.({ code: 1006 });
  }
};
"""

SOCKETS_OPENED = "return window.__sockets && window.__sockets.length >= arguments[0];"
VERSION_SHOWN = "return document.getElementById('version').textContent === arguments[0];"
WARNINGS = "return window.__console.filter((entry) => entry.level === 'warn').map((entry) => entry.text);"
SOCKET_URLS = "return window.__sockets.map((socket) => socket.url);"
TIMEOUT = 60


def reader(name, event="CONNECTED"):
    return json.dumps({"error": None, "event": event, "name": name, "type": "READER"})


def version(text):
    return json.dumps({"error": None, "type": "VERSION", "version": text})


def card(kind, identifier):
    return json.dumps({"error": None, "tag_id": identifier, "type": kind})


class WebClientPageLogic(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.site = StaticSite().__enter__()
        cls.addClassCleanup(cls.site.__exit__, None, None, None)
        cls.browser = Browser().__enter__()
        cls.addClassCleanup(cls.browser.close)
        cls.browser.cdp("Page.addScriptToEvaluateOnNewDocument", {"source": FAKE_WEBSOCKET})

    def open_page(self, query):
        self.browser.open(f"{self.site.url}index.html{query}")
        self.browser.wait_for(SOCKETS_OPENED, TIMEOUT, 1)

    def serve(self, index, messages, then_close=False):
        self.browser.execute("window.__serve(...arguments);", index, messages, then_close)

    def test_shows_readers_version_and_reads_newest_first_skipping_what_is_not_a_service_message(self):
        self.open_page("?port=9123")
        self.serve(0, [
            reader("Reader A"),
            reader("Reader B"),
            "not JSON",
            "[1, 2]",
            json.dumps({"error": None, "type": "TAG"}),
            json.dumps({"error": None, "event": "GONE", "name": "Reader A", "type": "READER"}),
            json.dumps({"error": None, "type": "PING"}),
            json.dumps({"error": "reader jammed", "tag_id": "ff", "type": "TAG"}),
            {"binary": card("TAG", "ee")},
            card("TAG", "04a1b2c3"),
            card("SC", "0102030405060708"),
            card("TAG", "<b>x</b>"),
            reader("Reader A", "DISCONNECTED"),
            reader("Reader B"),
            reader("Reader C", "DISCONNECTED"),
            # Last, so that everything before it has been handled once it shows.
            version("0.25"),
        ])
        self.browser.wait_for(VERSION_SHOWN, TIMEOUT, "0.25")

        self.assertEqual(self.browser.execute(SOCKET_URLS), ["wss://127.0.0.1:9123/"])
        self.assertEqual(self.browser.execute(READ_PAGE), {
            "state": "connected",
            "version": "0.25",
            "readers": ["Reader B"],
            "reads": ["TAG <b>x</b>", "SC 0102030405060708", "TAG 04a1b2c3"],
        })
        # Shown as text, never as markup.
        self.assertEqual(self.browser.execute("return document.querySelector('#reads code').textContent;"),
                         "<b>x</b>")
        warnings = self.browser.execute(WARNINGS)
        self.assertEqual(len(warnings), 7, "\n".join(warnings))

    def test_after_a_lost_connection_it_reconnects_and_rebuilds_the_readers_from_the_new_greeting(self):
        self.open_page("?port=70000")
        self.serve(0, [reader("Old reader"), version("0.25"), card("TAG", "aa")], then_close=True)
        self.browser.wait_for(SOCKETS_OPENED, TIMEOUT, 2)
        self.serve(1, [reader("New reader"), version("0.26")])
        self.browser.wait_for(VERSION_SHOWN, TIMEOUT, "0.26")

        self.assertEqual(self.browser.execute(SOCKET_URLS), ["wss://127.0.0.1:8036/"] * 2)
        self.assertEqual(self.browser.execute(READ_PAGE), {
            "state": "connected",
            "version": "0.26",
            "readers": ["New reader"],
            "reads": ["TAG aa"],
        })
        self.assertRegex("\n".join(self.browser.execute(WARNINGS)), 'port "70000"')


if __name__ == "__main__":
    unittest.main(verbosity=2)
