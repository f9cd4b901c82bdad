import { decode, type Batch } from './batch';

export type Status = 'connecting' | 'open' | 'lost' | 'refused';
type Answer = Record<string, unknown>;
type Waiting = { resolve: (answer: Answer) => void; reject: (error: Error) => void };

const kFirstRetry = 250;
const kLastRetry = 2000;

/** What opens the way to a server, and says whether one is there. */
export interface Way {
  open(): WebSocket;
  /** Rejects when nobody is there. */
  probe(): Promise<unknown>;
}

/** From where the page came. Browsers report each WebSocket that fails, so a quiet request looks first. */
const kHome: Way = {
  open: () => new WebSocket(`${location.protocol === 'https:' ? 'wss' : 'ws'}://${location.host}/page`),
  probe: () => fetch('/', { method: 'HEAD', cache: 'no-store' }),
};

/** The way to the server: comes back by itself, and says when it is not there. */
export class Connection {
  status: Status = 'connecting';
  onStatus: (status: Status) => void = () => {};
  onMessage: (message: Answer) => void = () => {};
  onBatch: (batch: Batch) => void = () => {};

  private socket: WebSocket | null = null;
  private isClosed = false;
  private waiting = new Map<number, Waiting>();
  private lastTag = 0;
  private retry = kFirstRetry;

  constructor(private readonly way: Way = kHome) {}

  connect(): void {
    const socket = this.way.open();
    socket.binaryType = 'arraybuffer';
    socket.onopen = () => {
      this.retry = kFirstRetry;
      this.become('open');
    };
    socket.onmessage = (event) => this.hear(event.data);
    socket.onerror = () => {}; // Its close follows.
    socket.onclose = () => this.lose();
    this.socket = socket;
  }

  /** For good. */
  close(): void {
    this.isClosed = true;
    this.socket?.close();
  }

  send(wish: object | string): void {
    if (!this.socket || this.socket.readyState !== this.socket.OPEN) return;
    this.socket.send(typeof wish === 'string' ? wish : JSON.stringify(wish));
  }

  /** Asks for something, and gives the answer or the error in the server's own words. */
  ask(op: string, wish: object = {}, rawValue?: string): Promise<Answer> {
    if (this.status !== 'open') return Promise.reject(new Error('there is no connection'));
    const tag = ++this.lastTag;
    let text = JSON.stringify({ op, tag, ...wish });
    // Integers of 64 bits would lose digits on their way through a number.
    if (rawValue !== undefined) text = `${text.slice(0, -1)},"value":${rawValue}}`;
    return new Promise((resolve, reject) => {
      this.waiting.set(tag, { resolve, reject });
      this.send(text);
    });
  }

  private hear(data: string | ArrayBuffer): void {
    if (typeof data !== 'string') return this.onBatch(decode(data));
    const message = JSON.parse(data) as Answer;
    const waiting = typeof message.tag === 'number' ? this.waiting.get(message.tag) : undefined;
    if (!waiting) return this.onMessage(message);
    this.waiting.delete(message.tag as number);
    if (typeof message.error === 'string') waiting.reject(new Error(message.error));
    else waiting.resolve(message);
  }

  private lose(): void {
    for (const each of this.waiting.values()) each.reject(new Error('the connection was lost'));
    this.waiting.clear();
    this.become('lost');
    if (this.isClosed) return;
    setTimeout(() => this.reconnect(), this.retry);
    this.retry = Math.min(this.retry * 1.6, kLastRetry);
  }

  private async reconnect(): Promise<void> {
    if (this.isClosed) return;
    try {
      await this.way.probe();
    } catch {
      return this.lose();
    }
    if (!this.isClosed) this.connect();
  }

  private become(status: Status): void {
    if (this.status === status) return;
    this.status = status;
    this.onStatus(status);
  }
}
