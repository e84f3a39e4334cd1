// Opens the example web client in headless Chromium against a running service and reports
// on standard output, one word a line, what the page has come to show:
//   READY  connected, with exactly the expected readers and version
//   LOST   (--restart) the service went away and the page dropped its readers
//   BACK   (--restart) connected again, the readers and version rebuilt from the new greeting
//   SEEN   (--tag ID) a tag with that ID is listed
// The caller acts between the steps (stops the service, lays the tag). Exits 0 after the last
// step, 1 with the reason on standard error when a step does not come.
//
//   node drive-web-client.mjs --port 8036 --cert localhost.pem --reader "Reader A" \
//        --version 0.25 [--restart] [--tag 04a10b7f] [--screenshot page.png] [--step-timeout ms]
import { parseArgs } from 'node:util';

import { forwardConsole, launchChromium, readPage, serveDirectory, webClientDir } from './browser.mjs';

const { values: options } = parseArgs({
  options: {
    port: { type: 'string' },
    cert: { type: 'string' },
    reader: { type: 'string', multiple: true, default: [] },
    version: { type: 'string' },
    restart: { type: 'boolean', default: false },
    tag: { type: 'string' },
    screenshot: { type: 'string' },
    'step-timeout': { type: 'string', default: '120000' },
  },
});
if (!options.port || !options.cert || !options.version) {
  console.error('--port, --cert and --version are required');
  process.exit(2);
}
const stepTimeout = Number(options['step-timeout']);

// Progress with the time on standard error, for the reader of a failed run.
function note(text) {
  process.stderr.write(`drive-web-client ${new Date().toISOString()}: ${text}\n`);
}

function report(step) {
  note(step);
  process.stdout.write(`${step}\n`);
}

// Readers are listed in the order they were announced, which a page that connects while the
// service is still listing them may see differently: compare them as a set.
async function waitForGreeting(page) {
  await page.waitForFunction(({ readers, version }) => {
    const shown = [...document.querySelectorAll('#readers li')].map((item) => item.textContent);
    return document.getElementById('connection').dataset.state === 'connected'
      && document.getElementById('version').textContent === version
      && JSON.stringify(shown.sort()) === JSON.stringify(readers);
  }, { readers: [...options.reader].sort(), version: options.version }, { timeout: stepTimeout, polling: 100 });
}

async function waitForLostConnection(page) {
  await page.waitForFunction(() => document.getElementById('connection').dataset.state === 'disconnected'
      && document.querySelectorAll('#readers li').length === 0
      && document.getElementById('version').textContent === '–',
  undefined, { timeout: stepTimeout, polling: 100 });
}

async function run(page) {
  const site = await serveDirectory(webClientDir);
  try {
    await page.goto(`${site.url}index.html?port=${options.port}`);
    note('page loaded');
    await waitForGreeting(page);
    report('READY');
    if (options.restart) {
      await waitForLostConnection(page);
      report('LOST');
      await waitForGreeting(page);
      report('BACK');
    }
    if (options.tag) {
      await page.locator(`#reads tbody tr[data-type="TAG"][data-id="${options.tag}"]`)
        .first().waitFor({ timeout: stepTimeout });
    }
    if (options.screenshot) {
      await page.screenshot({ path: options.screenshot, fullPage: true });
    }
    if (options.tag) {
      report('SEEN');
    }
  } finally {
    await site.close();
  }
}

let browser;
try {
  note('starting Chromium');
  browser = await launchChromium({ trustedCertificateFile: options.cert });
} catch (error) {
  console.error(`drive-web-client: ${error.message}`);
  process.exit(1);
}
let failed = false;
try {
  const page = await browser.newPage({ viewport: { width: 1000, height: 600 } });
  forwardConsole(page);
  try {
    await run(page);
  } catch (error) {
    failed = true;
    note(error.message);
    // Best effort: the browser may be gone already.
    try {
      note(`the page shows ${JSON.stringify(await readPage(page))}`);
      if (options.screenshot) {
        await page.screenshot({ path: options.screenshot.replace(/(\.png)?$/, '-failed.png'), fullPage: true });
      }
    } catch {
      // Nothing more to tell.
    }
  }
} finally {
  await browser.close();
}
process.exit(failed ? 1 : 0);
