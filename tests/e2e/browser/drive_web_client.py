#!/usr/bin/env python3
"""Opens the example web client in headless Chromium against a running service and reports on
standard output, one word a line, what the page has come to show:
  READY  connected, with exactly the expected readers and version
  SEEN   (--tag ID) a tag with that ID is listed
The caller acts between the steps (stops the service, lays the tag). Exits 0 after the last
step, 1 with the reason on standard error when a step does not come.

  python3 drive_web_client.py --port 8036 --cert localhost.pem --reader "Reader A" \\
      --version 0.25 [--tag 04a10b7f] [--screenshot page.png] [--step-timeout ms]
"""
import argparse
import datetime
import json
import signal
import sys

from webdriver import READ_PAGE, Browser, StaticSite, WebDriverError

# Readers are listed in the order they were announced, which a page that connects while the
# service is still listing them may see differently: compare them as a set.
GREETING_SHOWN = """
const [readers, version] = arguments;
const shown = [...document.querySelectorAll('#readers li')].map((item) => item.textContent);
return document.getElementById('connection').dataset.state === 'connected'
  && document.getElementById('version').textContent === version
  && JSON.stringify(shown.sort()) === JSON.stringify(readers);
"""

TAG_LISTED = """
return [...document.querySelectorAll('#reads tbody tr')]
  .some((row) => row.dataset.type === 'TAG' && row.dataset.id === arguments[0]);
"""


def note(text):
    """Progress with the time on standard error, for the reader of a failed run."""
    print(f"drive_web_client {datetime.datetime.now().isoformat(timespec='milliseconds')}: {text}",
          file=sys.stderr, flush=True)


def report(step):
    note(step)
    print(step, flush=True)


def run(browser, options, timeout):
    readers = sorted(options.reader)
    with StaticSite() as site:
        browser.open(f"{site.url}index.html?port={options.port}")
        note("page loaded")
        browser.wait_for(GREETING_SHOWN, timeout, readers, options.version)
        report("READY")
        if options.tag:
            browser.wait_for(TAG_LISTED, timeout, options.tag)
        if options.screenshot:
            browser.screenshot(options.screenshot)
        if options.tag:
            report("SEEN")


def main():
    parser = argparse.ArgumentParser(description="Drives the example web client in headless Chromium.")
    parser.add_argument("--port", required=True)
    parser.add_argument("--cert", required=True)
    parser.add_argument("--reader", action="append", default=[])
    parser.add_argument("--version", required=True)
    parser.add_argument("--tag")
    parser.add_argument("--screenshot")
    parser.add_argument("--step-timeout", type=int, default=120000, help="milliseconds")
    options = parser.parse_args()

    # The test ends us with SIGTERM: leave through the context managers, which close Chromium.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))

    note("starting Chromium")
    try:
        with Browser(trusted_certificate=options.cert) as browser:
            try:
                run(browser, options, options.step_timeout / 1000)
            except (TimeoutError, WebDriverError) as error:
                note(str(error))
                # Best effort: the browser may be gone already.
                try:
                    note(f"the page shows {json.dumps(browser.execute(READ_PAGE))}")
                    for entry in browser.console():
                        note(f"page {entry['level']}: {entry['text']}")
                    if options.screenshot:
                        browser.screenshot(options.screenshot.removesuffix(".png") + "-failed.png")
                except (OSError, WebDriverError):
                    pass
                return 1
    except WebDriverError as error:
        print(f"drive_web_client: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
