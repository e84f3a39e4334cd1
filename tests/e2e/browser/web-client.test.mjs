// The example web client against a mocked service socket: what it does with odd messages,
// reader events and a lost connection, none of which the real service can be made to send.
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';

import { forwardConsole, launchChromium, readPage, serveDirectory, webClientDir } from './browser.mjs';

const reader = (name, event = 'CONNECTED') => JSON.stringify({ error: null, event, name, type: 'READER' });
const version = (text) => JSON.stringify({ error: null, type: 'VERSION', version: text });
const card = (type, id) => JSON.stringify({ error: null, tag_id: id, type });

let browser;
let site;

before(async () => {
  browser = await launchChromium();
  site = await serveDirectory(webClientDir);
});

after(async () => {
  await browser?.close();
  await site?.close();
});

// A page whose socket is served by `serve(route, connectionNumber)`; also collects its warnings.
async function openPage(query, serve) {
  const page = await browser.newPage();
  forwardConsole(page);
  const warnings = [];
  page.on('console', (message) => message.type() === 'warning' && warnings.push(message.text()));
  const urls = [];
  await page.routeWebSocket(() => true, (route) => {
    urls.push(route.url());
    serve(route, urls.length);
  });
  await page.goto(`${site.url}index.html${query}`);
  return { page, warnings, urls };
}

const waitForVersion = (page, text) =>
  page.waitForFunction((expected) => document.getElementById('version').textContent === expected, text);

test('shows readers, version and reads newest first, skipping what is not a service message', async () => {
  const { page, warnings, urls } = await openPage('?port=9123', (route) => {
    for (const message of [
      reader('Reader A'),
      reader('Reader B'),
      'not JSON',
      '[1, 2]',
      JSON.stringify({ error: null, type: 'TAG' }),
      JSON.stringify({ error: null, event: 'GONE', name: 'Reader A', type: 'READER' }),
      JSON.stringify({ error: null, type: 'PING' }),
      JSON.stringify({ error: 'reader jammed', tag_id: 'ff', type: 'TAG' }),
      Buffer.from(card('TAG', 'ee')),
      card('TAG', '04a1b2c3'),
      card('SC', '0102030405060708'),
      card('TAG', '<b>x</b>'),
      reader('Reader A', 'DISCONNECTED'),
      reader('Reader B'),
      reader('Reader C', 'DISCONNECTED'),
      // Last, so that everything before it has been handled once it shows.
      version('0.25'),
    ]) {
      route.send(message);
    }
  });
  await waitForVersion(page, '0.25');

  assert.deepEqual(urls, ['wss://127.0.0.1:9123/']);
  assert.deepEqual(await readPage(page), {
    state: 'connected',
    version: '0.25',
    readers: ['Reader B'],
    reads: ['TAG <b>x</b>', 'SC 0102030405060708', 'TAG 04a1b2c3'],
  });
  assert.equal(await page.locator('#reads code').first().textContent(), '<b>x</b>');
  assert.equal(warnings.length, 7, warnings.join('\n'));
  await page.close();
});

test('after a lost connection it reconnects and rebuilds the readers from the new greeting', async () => {
  const { page, warnings, urls } = await openPage('?port=70000', (route, connection) => {
    if (connection === 1) {
      route.send(reader('Old reader'));
      route.send(version('0.25'));
      route.send(card('TAG', 'aa'));
      route.close();
    } else {
      route.send(reader('New reader'));
      route.send(version('0.26'));
    }
  });
  await waitForVersion(page, '0.26');

  assert.deepEqual(urls, ['wss://127.0.0.1:8036/', 'wss://127.0.0.1:8036/']);
  assert.deepEqual(await readPage(page), {
    state: 'connected',
    version: '0.26',
    readers: ['New reader'],
    reads: ['TAG aa'],
  });
  assert.match(warnings.join('\n'), /port "70000"/);
  await page.close();
});
