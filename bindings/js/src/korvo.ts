// The robot in JavaScript: its memory, services and signals, over the port of the page. It speaks by the page's own code.
import { authorOf, isNumber, typeOf, type Batch, type ChildEntry, type TypeName } from '../../../modules/web/page/src/batch';
import { Connection } from '../../../modules/web/page/src/connection';

/** What a key can have. A 64-bit int that a number would change is a bigint; bytes are the text that they spell. */
export type Value = null | boolean | number | bigint | string | Value[] | { [name: string]: Value };
/** What the memory distinguishes where JavaScript has one number. */
export type Type = 'Bool' | 'Int' | 'Int64' | 'Float' | 'Double' | 'String' | 'List' | 'Map';
export type Status = 'connecting' | 'open' | 'lost' | 'refused';

/** How a key stands, told by `watch`. */
export interface Change {
  key: string;
  /** Null too where there is no such key (any more): see `type`. */
  value: Value;
  type: Type | 'Binary' | 'Invalid' | 'none';
  /** When it was written last, in milliseconds since the epoch. */
  time: number;
  /** How often it has been written, as far as the server has followed it; rises by more than one where writes were skipped. */
  count: number;
  /** Who wrote it last, as far as that is known. */
  author: string;
}

export interface Parameter {
  name: string;
  type: string;
  text: string;
}
export interface Method {
  name: string;
  text: string;
  parameters: Parameter[];
  result?: { type: string; text: string };
}
/** What a service offers. */
export interface Service {
  service: string;
  text: string;
  methods: Method[];
  signals: { name: string; signature: string }[];
}

/** A WebSocket as browsers have it, and as the package `ws` gives it to Node. */
export type WebSocketClass = new (address: string) => WebSocket;

export interface Options {
  /** The token of the link that the server printed, to look or to write. */
  token?: string;
  /** Where the surroundings have none: Node before 22. Without it the package `ws` is looked for. */
  WebSocket?: WebSocketClass;
}

/** Ends what it was given for. */
export type Stop = () => void;

interface Watching {
  keys: readonly string[];
  callback: (changes: Change[]) => unknown;
  /** What it knows of each key: so it is told nothing twice, though others have keys told anew. */
  told: Map<string, string>;
}
interface Listening {
  service: string;
  signal: string;
  callback: (...values: Value[]) => unknown;
}

async function usualWebSocket(): Promise<WebSocketClass> {
  if (typeof globalThis.WebSocket === 'function') return globalThis.WebSocket;
  try {
    const name = 'ws'; // Not for bundlers to find.
    return (await import(name)).WebSocket as WebSocketClass;
  } catch {
    throw new Error('there is no WebSocket here: install the package ws, or pass one as the option WebSocket');
  }
}

/** [type, value] as the server tells it. */
function valueOf([type, told]: [Type, unknown]): Value {
  if (type !== 'Int64') return told as Value;
  const number = Number(told);
  return Number.isSafeInteger(number) ? number : BigInt(told as string);
}

/**
 * Connects to the page's server of a robot: `korvo web`, or `korvo run --module web`.
 *
 * @param address  As it prints it; `#token=…` in it is the token.
 * @throws When nobody answers there, or the token is not the server's.
 */
export async function connect(address = 'http://127.0.0.1:8765', options: Options = {}): Promise<Robot> {
  const url = new URL(address);
  const token = options.token ?? /^#token=([\w-]+)/.exec(url.hash)?.[1];
  url.protocol = url.protocol === 'https:' ? 'wss:' : 'ws:';
  url.pathname = '/page';
  url.hash = '';
  url.search = token ? `?token=${token}` : '';
  const Socket = options.WebSocket ?? (await usualWebSocket());
  const robot = new Robot(new Connection({ open: () => new Socket(url.href), probe: () => Promise.resolve() }));
  await robot.greeted(address);
  return robot;
}

/**
 * A robot whose page's server is connected. A lost connection comes back by itself, with what is watched and listened to; what is
 * asked meanwhile is refused. Writing and calling need the token to write.
 */
export class Robot {
  /** The broker's name. */
  broker = '';
  mayWrite = false;
  /** Called whenever the connection comes or goes. */
  onStatus: (status: Status) => void = () => {};

  private readonly watching = new Set<Watching>();
  private readonly listening = new Set<Listening>();
  private ids = new Map<string, number>();
  private authors: string[] = [''];
  private keyCount = -1;
  private isResolving = false;
  private isOutdated = false;
  private greeting: { resolve: () => void; reject: (error: Error) => void } | null = null;

  /** @internal Made by `connect`. */
  constructor(private readonly connection: Connection) {
    connection.onStatus = (status) => this.becomes(status);
    connection.onMessage = (message) => this.hear(message);
    connection.onBatch = (batch) => void this.take(batch);
  }

  /** @internal */
  greeted(address: string): Promise<void> {
    return new Promise((resolve, reject) => {
      this.greeting = {
        resolve,
        reject: () => {
          this.close();
          reject(new Error(`nobody answers at ${address}, or the token is not that of the server`));
        },
      };
      this.connection.connect();
    });
  }

  get status(): Status {
    return this.connection.status;
  }

  close(): void {
    this.connection.close();
  }

  // --- The memory -------------------------------------------------------------------------------------------------------

  /** @throws When there is no such key. */
  async get(key: string): Promise<Value> {
    const [value] = await this.getAll([key]);
    if (value === undefined) throw new Error(`the memory has no key ${key}`);
    return value;
  }

  /** The values of several keys, read at once; undefined where there is no such key. */
  async getAll(keys: readonly string[]): Promise<(Value | undefined)[]> {
    return (await this.readAll(keys)).map((each) => (each ? valueOf(each) : undefined));
  }

  private async readAll(keys: readonly string[]): Promise<([Type, unknown] | null)[]> {
    return (await this.connection.ask('values', { keys })).values as ([Type, unknown] | null)[];
  }

  /**
   * Writes a value.
   *
   * @param type  Where the kind of number matters: without, a number without fraction is an Int, another one a Double.
   */
  async set(key: string, value: Value, type?: Type): Promise<void> {
    await this.write('set', key, value, type);
  }

  /** Raises an event: whoever is subscribed has been called when this resolves. */
  async raise(key: string, value: Value = null, type?: Type): Promise<void> {
    await this.write('raise', key, value, type);
  }

  async raiseMicro(key: string, value: Value = null, type?: Type): Promise<void> {
    await this.write('raiseMicro', key, value, type);
  }

  private async write(op: string, key: string, value: Value, type?: Type): Promise<void> {
    // Only as its own digits does an integer of 64 bits come across whole.
    if (typeof value === 'bigint') await this.connection.ask(op, { key, type: type ?? 'Int64' }, String(value));
    else await this.connection.ask(op, { key, value, ...(type && { type }) });
  }

  async describe(key: string, description: string): Promise<void> {
    await this.connection.ask('describe', { key, value: description });
  }

  async remove(key: string): Promise<void> {
    await this.connection.ask('remove', { key });
  }

  /** The names of keys that have a text in them: a thousand at most, and how many there are. */
  async find(text: string): Promise<{ total: number; keys: string[] }> {
    const answer = await this.connection.ask('find', { text });
    return { total: answer.total as number, keys: (answer.rows as ChildEntry[]).map(([, name]) => name) };
  }

  /** Kind, description, history, subscribers of a key, and as `explanation` all that the journal knows of it. */
  async about(key: string): Promise<Record<string, Value>> {
    return (await this.connection.ask('about', { key })) as Record<string, Value>;
  }

  /**
   * Has a callback called with how keys stand: all of them at first, then what has changed. It gets the latest value of each,
   * and not the next ones before it has returned, or what it has returned has resolved: so it is never called faster than it is.
   *
   * @param keys  Whether they are there or not.
   */
  watch(keys: readonly string[], callback: (changes: Change[]) => unknown): Stop {
    const one = { keys, callback, told: new Map() };
    this.watching.add(one);
    void this.resolve();
    return () => {
      this.watching.delete(one);
      void this.resolve();
    };
  }

  // --- Services ---------------------------------------------------------------------------------------------------------

  async services(): Promise<string[]> {
    return (await this.connection.ask('services')).services as string[];
  }

  async service(name: string): Promise<Service> {
    return (await this.connection.ask('service', { service: name })) as unknown as Service;
  }

  /** Calls a method by its name and its number of arguments. @throws What the method throws. */
  async call(service: string, method: string, ...given: Value[]): Promise<Value> {
    const described = await this.connection.ask('service', { service });
    const named = (described.methods as (Method & { id: number })[]).filter((each) => each.name === method);
    const found = named.find((each) => each.parameters.length === given.length) ?? named[0];
    if (!found) throw new Error(`${service} has no method ${method}`);
    return ((await this.connection.ask('call', { service, method: found.id, arguments: given })).value ?? null) as Value;
  }

  async emit(service: string, signal: string, ...values: Value[]): Promise<void> {
    await this.connection.ask('emit', { service, signal, arguments: values });
  }

  /** Has a callback called with what a signal carries, emission by emission. It is connected when this resolves. */
  async listen(service: string, signal: string, callback: (...values: Value[]) => unknown): Promise<Stop> {
    const one = { service, signal, callback };
    this.listening.add(one);
    try {
      await this.connection.ask('listen', { service, signal, on: true });
    } catch (failure) {
      this.listening.delete(one);
      throw failure;
    }
    return () => {
      this.listening.delete(one);
      const isWanted = [...this.listening].some((each) => each.service === service && each.signal === signal);
      if (!isWanted) this.connection.send({ op: 'listen', service, signal, on: false });
    };
  }

  // --- What comes -------------------------------------------------------------------------------------------------------

  private becomes(status: Status): void {
    if (status === 'lost') this.greeting?.reject(new Error());
    if (status === 'open') {
      // Another connection knows nothing of this one, and has other numbers for everything.
      this.ids.clear();
      for (const { told } of this.watching) told.clear();
      this.authors = [''];
      this.keyCount = -1;
      for (const { service, signal } of this.listening) this.connection.send({ op: 'listen', service, signal, on: true });
      void this.resolve();
    }
    this.onStatus(status);
  }

  private hear(message: Record<string, unknown>): void {
    if (message.op !== 'hello') return;
    this.broker = message.broker as string;
    this.mayWrite = message.mayWrite as boolean;
    this.greeting?.resolve();
    this.greeting = null;
  }

  /** Finds the numbers of what is watched, and says which those are. Keys come and go; then it is called again. */
  private async resolve(): Promise<void> {
    this.isOutdated = true;
    if (this.isResolving) return;
    this.isResolving = true;
    try {
      while (this.isOutdated && this.status === 'open') {
        this.isOutdated = false;
        const keys = [...new Set([...this.watching].flatMap((each) => each.keys))];
        const rows = (await this.connection.ask('resolve', { keys })).rows as ChildEntry[];
        this.ids = new Map(rows.map(([id, name]) => [name, id]));
        // What was not watched before is told whether it changes or not.
        this.connection.send({ op: 'watch', ids: [] });
        this.connection.send({ op: 'watch', ids: [...this.ids.values()] });
        await this.tell(keys.filter((key) => !this.ids.has(key)).map(gone));
      }
    } catch {
      // The connection is lost; with the next one it is done again.
    } finally {
      this.isResolving = false;
    }
  }

  private async take(batch: Batch): Promise<void> {
    if (batch.rest.authors) this.authors.push(...batch.rest.authors);
    const names = new Map([...this.ids].map(([key, id]) => [id, key]));
    const rows = [...batch.ids.keys()].filter((i) => names.has(batch.ids[i]));
    try {
      // Of what is no number a batch has what fits a line.
      const isWhole = (i: number) => isNumber(typeOf(batch.facts[i])) && typeOf(batch.facts[i]) !== 'Int64';
      const asked = rows.filter((i) => !isWhole(i)).map((i) => names.get(batch.ids[i])!);
      const read = new Map(asked.length ? zip(asked, await this.readAll(asked)) : []);
      const changes = rows.map((i) => this.changeOf(batch, i, names.get(batch.ids[i])!, read));
      await this.tell(changes);
    } catch (failure) {
      if (this.status === 'open') reportLater(failure);
    }
    this.connection.send({ op: 'drawn', number: batch.number });
    const { keys } = batch.rest;
    if (keys !== undefined && keys !== this.keyCount) {
      this.keyCount = keys;
      void this.resolve();
    }
  }

  private changeOf(batch: Batch, i: number, key: string, read: Map<string, [Type, unknown] | null>): Change {
    const told: TypeName = typeOf(batch.facts[i]);
    const common = { key, time: batch.times[i], count: batch.counts[i], author: this.authors[authorOf(batch.facts[i])] ?? '' };
    if (!read.has(key)) return { ...common, type: told, value: told === 'Bool' ? batch.values[i] !== 0 : batch.values[i] };
    const found = read.get(key);
    return found ? { ...common, type: found[0], value: valueOf(found) } : gone(key);
  }

  private async tell(changes: Change[]): Promise<void> {
    for (const { keys, callback, told } of [...this.watching]) {
      const wanted = changes.filter((change) => keys.includes(change.key) && told.get(change.key) !== mark(change));
      if (wanted.length === 0) continue;
      for (const change of wanted) told.set(change.key, mark(change));
      try {
        await callback(wanted);
      } catch (failure) {
        reportLater(failure);
      }
    }
  }
}

const gone = (key: string): Change => ({ key, value: null, type: 'none', time: 0, count: 0, author: '' });
const mark = ({ type, count, time }: Change): string => (type === 'none' ? type : `${count} ${time}`);
const zip = <A, B>(left: A[], right: B[]): [A, B][] => left.map((each, i) => [each, right[i]]);

/** A callback that throws is its program's fault, which hears of it as of any other; the others are called all the same. */
function reportLater(failure: unknown): void {
  queueMicrotask(() => {
    throw failure;
  });
}
