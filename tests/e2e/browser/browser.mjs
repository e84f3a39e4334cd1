// Headless Debian Chromium for the browser tests, and a static file server for the page.
import { createHash, X509Certificate } from 'node:crypto';
import { existsSync } from 'node:fs';
import { mkdtemp, readFile, rm } from 'node:fs/promises';
import { createServer } from 'node:http';
import { tmpdir } from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

export const webClientDir = fileURLToPath(new URL('../../../examples/web/', import.meta.url));

const chromiumPath = process.env.TIV_CHROMIUM || '/usr/bin/chromium';

// Chromium on this closed machine: no sandbox as root, no calls home, no GPU.
const chromiumArgs = [
  '--no-sandbox',
  '--disable-gpu',
  '--disable-quic',
  '--no-first-run',
  '--disable-background-networking',
  '--disable-component-update',
  '--disable-sync',
];

async function loadChromium() {
  try {
    return (await import('playwright-core')).chromium;
  } catch (error) {
    throw new Error(`playwright-core is missing (${error.code ?? error.message}); ` +
      'install it with: bash scripts/install-browser-test-deps.sh');
  }
}

// What Chromium's --ignore-certificate-errors-spki-list takes: base64 of SHA-256 over the
// certificate's SubjectPublicKeyInfo.
export function spkiFingerprint(certificatePem) {
  const spki = new X509Certificate(certificatePem).publicKey.export({ type: 'spki', format: 'der' });
  return createHash('sha256').update(spki).digest('base64');
}

// Launches Chromium with a throw-away HOME; Playwright gives it a new empty profile.
// `trustedCertificateFile` is a PEM file whose key Chromium accepts without a CA.
export async function launchChromium({ trustedCertificateFile } = {}) {
  if (!existsSync(chromiumPath)) {
    throw new Error(`Chromium is missing at ${chromiumPath}; install Debian's chromium package ` +
      '(bash scripts/install-deps.sh)');
  }
  const chromium = await loadChromium();
  const args = [...chromiumArgs];
  if (trustedCertificateFile) {
    const pem = await readFile(trustedCertificateFile, 'utf8');
    args.push(`--ignore-certificate-errors-spki-list=${spkiFingerprint(pem)}`);
  }
  const home = await mkdtemp(path.join(tmpdir(), 'tiv-chromium-home-'));
  try {
    const browser = await chromium.launch({
      executablePath: chromiumPath,
      headless: true,
      args,
      env: { ...process.env, HOME: home },
    });
    browser.on('disconnected', () => rm(home, { recursive: true, force: true }));
    return browser;
  } catch (error) {
    await rm(home, { recursive: true, force: true });
    throw error;
  }
}

const contentTypes = {
  '.html': 'text/html; charset=utf-8',
  '.js': 'text/javascript; charset=utf-8',
  '.css': 'text/css; charset=utf-8',
};

// Serves the files directly inside `directory` on a free loopback port: an http://127.0.0.1
// origin may open a wss connection to 127.0.0.1 where a file:// page might not.
export async function serveDirectory(directory) {
  const server = createServer(async (request, response) => {
    const name = path.basename(decodeURIComponent(new URL(request.url, 'http://x').pathname)) || 'index.html';
    try {
      const body = await readFile(path.join(directory, name));
      response.writeHead(200, { 'Content-Type': contentTypes[path.extname(name)] ?? 'application/octet-stream' });
      response.end(body);
    } catch {
      response.writeHead(404).end();
    }
  });
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  return {
    url: `http://127.0.0.1:${server.address().port}/`,
    close: () => new Promise((resolve) => server.close(resolve)),
  };
}

// Passes the page's console to our standard error, where a failing test shows it.
export function forwardConsole(page) {
  page.on('console', (message) => process.stderr.write(`page ${message.type()}: ${message.text()}\n`));
  page.on('pageerror', (error) => process.stderr.write(`page error: ${error.stack ?? error}\n`));
}

// What the page shows, in plain values.
export function readPage(page) {
  return page.evaluate(() => ({
    state: document.getElementById('connection').dataset.state,
    version: document.getElementById('version').textContent,
    readers: [...document.querySelectorAll('#readers li')].map((item) => item.textContent),
    reads: [...document.querySelectorAll('#reads tbody tr')].map((row) => `${row.dataset.type} ${row.dataset.id}`),
  }));
}
