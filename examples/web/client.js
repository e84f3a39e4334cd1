// Example client of the Tiv RFID WebSocket Service: lists the readers and the service version,
// and shows every tag and smart card as it is read, on which reader, and when it was lifted.
// Plain browser JavaScript, no build step.
'use strict';

const DEFAULT_PORT = 8036;
// Protocol 1 says nothing about readers, re-reports or removals.
const PROTOCOL = 'tiv-rfid.2';
const FIRST_RETRY_DELAY_MS = 1000;
const LONGEST_RETRY_DELAY_MS = 10000;
// A card left on a reader is reported again every 15 s; keep the page from growing forever.
const MOST_READS_SHOWN = 200;

const CARD_KINDS = {
  TAG: 'RFID tag',
  SC: 'Smart card',
};

// The service port from "?port=", or the default when it is missing or not a port number.
function servicePort(search) {
  const text = new URLSearchParams(search).get('port');
  if (text === null) {
    return DEFAULT_PORT;
  }
  const port = Number(text);
  if (/^[0-9]+$/.test(text) && port >= 1 && port <= 65535) {
    return port;
  }
  console.warn(`Ignoring the port "${text}" given in the address; using ${DEFAULT_PORT}.`);
  return DEFAULT_PORT;
}

// The message if it is one the service sends, otherwise null after a console warning:
// a page that stops on one odd message would be worse than one that skips it.
function parseMessage(data) {
  if (typeof data !== 'string') {
    console.warn('Ignoring a binary message from the service.');
    return null;
  }
  let message;
  try {
    message = JSON.parse(data);
  } catch (error) {
    console.warn('Ignoring a message that is not JSON:', data);
    return null;
  }
  if (message === null || typeof message !== 'object' || Array.isArray(message)) {
    console.warn('Ignoring a message that is not a JSON object:', data);
    return null;
  }
  if (message.error !== null && message.error !== undefined) {
    console.warn('Ignoring a message that reports an error:', data);
    return null;
  }
  const isText = (key) => typeof message[key] === 'string';
  const isSeq = () => Number.isInteger(message.seq) && message.seq >= 0;
  const isRead = () => isText('tag_id') && isText('reader') && typeof message.repeat === 'boolean' && isSeq();
  const wellFormed = {
    TAG: () => isRead() && isText('uid'),
    SC: isRead,
    REMOVED: () => isText('tag_id') && isText('reader') && isSeq(),
    READER: () => isText('name') && (message.event === 'CONNECTED' || message.event === 'DISCONNECTED'),
    VERSION: () => isText('version'),
  }[message.type];
  if (!wellFormed || !wellFormed()) {
    console.warn('Ignoring an unexpected message:', data);
    return null;
  }
  return message;
}

// A WebSocket that comes back by itself: after a close it tries again, waiting longer after
// every failed attempt, up to a limit, and from the start again once it is connected.
class ServiceConnection {
  constructor(url, { onStateChange, onMessage }) {
    this.url = url;
    this.onStateChange = onStateChange;
    this.onMessage = onMessage;
    this.retryDelay = FIRST_RETRY_DELAY_MS;
  }

  open() {
    this.onStateChange('connecting');
    // The browser refuses the connection if the service does not pick this protocol, so
    // every message that arrives is a protocol 2 one.
    const socket = new WebSocket(this.url, PROTOCOL);
    socket.onopen = () => {
      this.retryDelay = FIRST_RETRY_DELAY_MS;
      this.onStateChange('connected');
    };
    socket.onmessage = (event) => {
      const message = parseMessage(event.data);
      if (message) {
        this.onMessage(message);
      }
    };
    // An error is always followed by a close, which is where the retry is planned.
    socket.onclose = () => {
      const delay = this.retryDelay;
      this.retryDelay = Math.min(this.retryDelay * 2, LONGEST_RETRY_DELAY_MS);
      this.onStateChange('disconnected', delay);
      setTimeout(() => this.open(), delay);
    };
  }
}

// Everything the page shows, kept in the page itself.
class ClientView {
  constructor(document, address) {
    this.document = document;
    this.readerItems = new Map();
    this.tapCount = 0;
    this.everConnected = false;

    this.element('address').textContent = address;
    const certificatePage = address.replace(/^wss:/, 'https:') + '/';
    this.element('hint-link').href = certificatePage;
    this.element('hint-link').textContent = certificatePage;
  }

  element(id) {
    return this.document.getElementById(id);
  }

  showState(state, retryDelay) {
    const texts = {
      connecting: 'Connecting…',
      connected: 'Connected',
      disconnected: `Disconnected, trying again in ${Math.round(retryDelay / 1000)} s`,
    };
    this.element('connection').dataset.state = state;
    this.element('connection-text').textContent = texts[state];

    if (state === 'connected') {
      this.everConnected = true;
    }
    // The hint only helps while the service has never been reached from this page.
    this.element('hint').hidden = this.everConnected || state !== 'disconnected';
    // The service greets every new connection with its readers and version, so a stale
    // list must not survive a lost connection.
    if (state !== 'connected') {
      this.clearReaders();
      this.element('version').textContent = '–';
    }
  }

  show(message) {
    switch (message.type) {
      case 'READER':
        if (message.event === 'CONNECTED') {
          this.addReader(message.name);
        } else {
          this.removeReader(message.name);
        }
        break;
      case 'VERSION':
        this.element('version').textContent = message.version;
        break;
      case 'REMOVED':
        this.markLifted(message.reader, message.tag_id);
        break;
      default:
        this.addRead(message);
    }
  }

  addReader(name) {
    if (this.readerItems.has(name)) {
      return;
    }
    const item = this.document.createElement('li');
    item.textContent = name;
    this.element('readers').append(item);
    this.readerItems.set(name, item);
    this.element('no-readers').hidden = true;
  }

  removeReader(name) {
    const item = this.readerItems.get(name);
    if (item) {
      item.remove();
      this.readerItems.delete(name);
    }
    this.element('no-readers').hidden = this.readerItems.size > 0;
  }

  clearReaders() {
    for (const name of [...this.readerItems.keys()]) {
      this.removeReader(name);
    }
  }

  addRead({ type, tag_id: id, reader, repeat }) {
    const row = this.document.createElement('tr');
    row.dataset.type = type;
    row.dataset.id = id;
    row.dataset.reader = reader;
    row.dataset.repeat = String(repeat);

    const badge = this.document.createElement('span');
    badge.className = 'badge';
    badge.textContent = type;
    badge.title = CARD_KINDS[type];
    const code = this.document.createElement('code');
    code.textContent = id === '' ? '(empty)' : id;
    const idCell = [code];
    if (repeat) {
      const again = this.document.createElement('span');
      again.className = 'again';
      again.textContent = 'again';
      again.title = 'Still on the reader: reported again, not a new tap';
      idCell.push(' ', again);
    }

    row.insertCell().append(this.timeNow());
    row.insertCell().append(badge);
    row.insertCell().textContent = reader;
    row.insertCell().append(...idCell);
    row.insertCell(); // filled in when the card is lifted
    const rows = this.element('reads').tBodies[0];
    rows.prepend(row);
    while (rows.rows.length > MOST_READS_SHOWN) {
      rows.lastElementChild.remove();
    }

    // Re-reports are the same card lying there, not someone laying it again.
    if (!repeat) {
      this.tapCount += 1;
      this.element('read-count').textContent = String(this.tapCount);
    }
    this.element('no-reads').hidden = true;
  }

  timeNow() {
    const now = new Date();
    const time = this.document.createElement('time');
    time.dateTime = now.toISOString();
    time.textContent = now.toLocaleTimeString([], { hour12: false });
    return time;
  }

  // Shown on the card's newest row on that reader: earlier rows are older taps or re-reports of
  // the same stay. The row may be gone already, dropped by the cap.
  markLifted(reader, id) {
    const row = [...this.element('reads').tBodies[0].rows]
      .find((candidate) => candidate.dataset.reader === reader && candidate.dataset.id === id);
    if (!row || row.dataset.lifted) {
      return;
    }
    const time = this.timeNow();
    row.dataset.lifted = time.dateTime;
    row.cells[row.cells.length - 1].append('lifted ', time);
  }
}

const address = `wss://127.0.0.1:${servicePort(window.location.search)}`;
const view = new ClientView(document, address);
const connection = new ServiceConnection(address, {
  onStateChange: (state, retryDelay) => view.showState(state, retryDelay),
  onMessage: (message) => view.show(message),
});
connection.open();
