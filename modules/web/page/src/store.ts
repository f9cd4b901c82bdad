import { authorOf, hasChildren, isKey, isNumber, typeOf, type Batch, type ChildEntry, type KeyState, type RaiseEntry } from './batch';
import { Connection, type Status } from './connection';
import type { Expectation, FleetStatus, Recording } from './known';

/** A group or a key of the tree. */
export interface Twig {
  id: number;
  name: string;
  path: string;
  parent: Twig | null;
  facts: number;
  keys: number;
  isOpen: boolean;
  /** Null until the server has told. */
  children: Twig[] | null;
}

/** What is known of a row that is, or was, in view. */
export interface Row {
  value: number;
  text: string | null;
  time: number;
  count: number;
  facts: number;
  rate: number;
  usualRate: number;
  changedAt: number;
  windowAt: number;
  windowCount: number;
  trend: number[];
  trendAt: number;
}

/** A signal that is watched: how often it was emitted since, and the latest of it. */
export interface Watched {
  count: number;
  latest: [values: unknown[], time: number][];
}

export interface Series {
  number: number;
  key: string;
  path: string[];
  times: number[];
  values: (number | null)[];
}

const kTrend = 48;
const kTrendEach = 120; // ms
const kRowsKept = 4000;
const kAutoOpen = 220;
const kSortable = 5000;
const kRaisesKept = 1500;
const kEmissionsKept = 100;
const kStandingEach = 2000; // ms
const collator = new Intl.Collator(undefined, { numeric: true });

type Listener = () => void;

/** All that the page knows. Views listen for frames, which follow the server's batches, and for changes of what there is. */
export class Store {
  readonly connection = new Connection();
  readonly root: Twig = { id: 0, name: '', path: '', parent: null, facts: 0, keys: 0, isOpen: true, children: null };
  readonly rows = new Map<number, Row>();
  readonly series = new Map<number, Series>();
  status: Status = 'connecting';
  trouble = '';
  broker = '';
  mayWrite = false;
  isComplete = false;
  keys = 0;
  changeRate = 0;
  authors: string[] = [''];
  raises: RaiseEntry[] = [];
  key: KeyState | null = null;
  signals = new Map<string, Watched>();
  /** Keys that are to be written in time. */
  expected = new Map<string, Expectation>();
  /** Null where no recorder runs. */
  recorder: Recording | null = null;
  /** Null where the robot is in no fleet. */
  fleet: FleetStatus | null = null;
  /** Counts changes of the tree's shape. */
  shape = 0;
  lostAt = 0;

  private twigs = new Map<number, Twig>([[0, this.root]]);
  private openPaths = new Set<string>(['']);
  private autoOpenLeft = kAutoOpen;
  private frames = new Set<Listener>();
  private news = new Set<Listener>();
  private watched = new Map<string, number[]>();
  private watchText = '';
  private keyName = '';
  private showsTimeLine = false;
  private lastSeries = 0;
  private changesBefore: { count: number; at: number } | null = null;

  start(): void {
    this.connection.onStatus = (status) => this.becomes(status);
    this.connection.onMessage = (message) => this.hear(message);
    this.connection.onBatch = (batch) =>
      requestAnimationFrame(() => {
        this.apply(batch);
        for (const listener of this.frames) listener();
        this.connection.send({ op: 'drawn', number: batch.number });
      });
    this.connection.connect();
    setInterval(() => void (document.hidden || this.askStanding()), kStandingEach);
  }

  /** Where no module tells of it nothing is expected, and nothing recorded. */
  private async askStanding(): Promise<void> {
    if (this.status !== 'open') return;
    const answer = await this.connection.ask('standing').catch(() => ({}) as Record<string, unknown>);
    this.expected = new Map(((answer.expectations ?? []) as Expectation[]).map((each) => [each[0], each]));
    const recorder = (answer.recorder ?? null) as Recording | null;
    const fleet = (answer.fleet ?? null) as FleetStatus | null;
    const isNew = JSON.stringify([recorder, fleet]) !== JSON.stringify([this.recorder, this.fleet]);
    this.recorder = recorder;
    this.fleet = fleet;
    if (isNew) this.tell();
  }

  /** Called after each batch, inside the browser's frame. */
  onFrame(listener: Listener): () => void {
    this.frames.add(listener);
    return () => void this.frames.delete(listener);
  }
  /** Called when something changes that is no row: status, shape, rights. */
  onNews(listener: Listener): () => void {
    this.news.add(listener);
    return () => void this.news.delete(listener);
  }
  tell(): void {
    for (const listener of this.news) listener();
  }

  // --- What is looked at --------------------------------------------------------------------------------------------

  toggle(twig: Twig): void {
    this.autoOpenLeft = 0;
    if (twig.isOpen) this.close(twig);
    else this.open(twig);
    ++this.shape;
    this.tell();
  }

  /** What is under a name; the empty one is all. Null until the server has told of it. */
  under(path: string): Twig | null {
    let twig: Twig | undefined = this.root;
    for (const name of path ? path.split('/') : []) twig = twig?.children?.find((each) => each.name === name);
    return twig ?? null;
  }

  /** Opens what leads to a name and is known. */
  reveal(path: string): void {
    for (let end = path.indexOf('/'); path; end = path.indexOf('/', end + 1)) {
      const twig = this.under(end < 0 ? path : path.slice(0, end));
      if (twig && !twig.isOpen) this.open(twig);
      if (end < 0) return;
    }
  }

  private open(twig: Twig): void {
    twig.isOpen = true;
    this.openPaths.add(twig.path);
    this.connection.send({ op: 'open', id: twig.id });
  }

  private close(twig: Twig): void {
    twig.isOpen = false;
    this.openPaths.delete(twig.path);
    this.connection.send({ op: 'close', id: twig.id });
  }

  collapseAll(): void {
    this.autoOpenLeft = 0;
    for (const twig of this.twigs.values()) if (twig.parent && twig.isOpen) this.close(twig);
    ++this.shape;
    this.tell();
  }

  /** What is in view, part by part of the page. */
  watch(part: string, ids: number[]): void {
    this.watched.set(part, ids);
    const all = [...new Set([...this.watched.values()].flat())].sort((a, b) => a - b);
    const text = JSON.stringify({ op: 'watch', ids: all });
    if (text === this.watchText) return;
    this.watchText = text;
    this.connection.send(text);
    if (this.rows.size > kRowsKept) for (const id of this.rows.keys()) if (!all.includes(id)) this.rows.delete(id);
  }

  lookAt(key: string): void {
    if (key === this.keyName) return;
    this.keyName = key;
    this.key = null;
    this.connection.send({ op: 'key', key: key || null });
  }

  showTimeLine(on: boolean): void {
    this.showsTimeLine = on;
    this.raises = [];
    this.connection.send({ op: 'events', on });
  }

  async watchSignal(service: string, signal: string, on: boolean): Promise<void> {
    const name = `${service}.${signal}`;
    if (on) this.signals.set(name, { count: 0, latest: [] });
    else this.signals.delete(name);
    this.tell();
    try {
      await this.connection.ask('listen', { service, signal, on });
    } catch (failure) {
      this.signals.delete(name);
      throw failure;
    }
  }

  private noteEmissions(emitted: NonNullable<Batch['rest']['emitted']>): void {
    for (const [name, count, latest] of emitted) {
      const watched = this.signals.get(name);
      if (!watched) continue;
      watched.count += count;
      watched.latest = [...watched.latest, ...latest].slice(-kEmissionsKept);
    }
  }

  addSeries(key: string, path: string[]): Series {
    const series: Series = { number: ++this.lastSeries, key, path, times: [], values: [] };
    this.series.set(series.number, series);
    this.sendSeries();
    this.connection.send({ op: 'history', series: series.number, seconds: 600 });
    return series;
  }

  removeSeries(series: Series): void {
    this.series.delete(series.number);
    this.sendSeries();
  }

  private sendSeries(): void {
    const series = [...this.series.values()].map(({ number, key, path }) => ({ series: number, key, path }));
    this.connection.send({ op: 'plot', series });
  }

  // --- What comes -----------------------------------------------------------------------------------------------------

  private becomes(status: Status): void {
    if (status === 'lost' && this.status === 'open') {
      this.lostAt = Date.now();
      for (const each of this.series.values()) this.breakOff(each);
    }
    this.status = status;
    if (status === 'open') this.beginAnew();
    this.tell();
  }

  /** Another connection knows nothing of what we looked at, and has other numbers for everything. */
  private beginAnew(): void {
    this.rows.clear();
    this.twigs = new Map([[0, this.root]]);
    this.root.children = null;
    this.authors = [''];
    this.watchText = '';
    this.watched.clear();
    this.changesBefore = null;
    this.isComplete = false;
    this.open(this.root);
    this.sendSeries();
    if (this.keyName) this.connection.send({ op: 'key', key: this.keyName });
    if (this.showsTimeLine) this.connection.send({ op: 'events', on: true });
    for (const name of this.signals.keys()) {
      const dot = name.lastIndexOf('.');
      this.connection.send({ op: 'listen', service: name.slice(0, dot), signal: name.slice(dot + 1), on: true });
    }
    ++this.shape;
  }

  private breakOff(series: Series): void {
    const last = series.times.at(-1);
    if (last === undefined || series.values.at(-1) === null) return;
    series.times.push(last + 1);
    series.values.push(null);
  }

  private hear(message: Record<string, any>): void {
    if (message.op === 'hello') {
      this.broker = message.broker;
      this.mayWrite = message.mayWrite;
    } else if (message.op === 'state') {
      if (message.trouble && !this.trouble) for (const each of this.series.values()) this.breakOff(each);
      this.trouble = message.trouble;
      if (message.trouble) this.lostAt = Date.now();
    } else if (message.op === 'open') {
      this.fill(message.id, message.children);
    } else if (message.op === 'history') {
      this.prepend(message.series, message.times, message.values);
    }
    this.tell();
  }

  private fill(id: number, entries: ChildEntry[]): void {
    const twig = this.twigs.get(id);
    if (!twig) return;
    twig.children = [];
    for (const entry of entries) twig.children.push(this.twigOf(twig, entry));
    this.sort(twig.children);
    ++this.shape;
    for (const child of twig.children) {
      if (!hasChildren(child.facts) || child.isOpen) continue;
      if (this.openPaths.has(child.path)) this.open(child);
      else if (child.keys <= this.autoOpenLeft) {
        this.autoOpenLeft -= child.keys;
        this.open(child);
      }
    }
  }

  private twigOf(parent: Twig, [id, name, facts, keys]: ChildEntry): Twig {
    const path = parent.parent ? `${parent.path}/${name}` : name;
    const known = this.twigs.get(id);
    if (known) {
      known.facts = facts;
      known.keys = keys;
      return known;
    }
    const twig: Twig = { id, name, path, parent, facts, keys, isOpen: false, children: null };
    this.twigs.set(id, twig);
    return twig;
  }

  private sort(children: Twig[]): void {
    if (children.length <= kSortable) children.sort((a, b) => collator.compare(a.name, b.name));
  }

  private move(moved: NonNullable<Batch['rest']['moved']>): void {
    const changed = new Set<Twig>();
    for (const [parentId, entry] of moved) {
      const parent = this.twigs.get(parentId);
      if (!parent?.children) continue;
      const id = typeof entry === 'number' ? entry : entry[0];
      const isKnown = this.twigs.has(id);
      if (typeof entry === 'number') {
        parent.children = parent.children.filter((child) => child.id !== id);
        this.twigs.delete(id);
      } else {
        const child = this.twigOf(parent, entry);
        if (!isKnown) parent.children.push(child);
        if (!isKnown && hasChildren(child.facts) && child.keys <= this.autoOpenLeft) {
          this.autoOpenLeft -= child.keys;
          this.open(child);
        }
      }
      changed.add(parent);
    }
    for (const parent of changed) this.sort(parent.children!);
    ++this.shape;
  }

  private prepend(number: number, times: number[], values: number[]): void {
    const series = this.series.get(number);
    if (!series) return;
    const first = series.times[0] ?? Infinity;
    const older = times.filter((time) => time < first).length;
    series.times = [...times.slice(0, older), ...series.times];
    series.values = [...values.slice(0, older), ...series.values];
  }

  private apply(batch: Batch): void {
    const now = Date.now();
    for (let i = 0; i < batch.ids.length; ++i) this.applyRow(batch, i, now);
    for (const [i, text] of batch.rest.texts ?? []) this.rows.get(batch.ids[i])!.text = text;
    let at = 0;
    for (let i = 0; i < batch.series.length; ++i) {
      this.extend(batch.series[i], batch, at, batch.lengths[i]);
      at += batch.lengths[i];
    }
    this.applyRest(batch.rest, now);
  }

  private applyRow(batch: Batch, i: number, now: number): void {
    const id = batch.ids[i];
    let row = this.rows.get(id);
    if (!row) {
      row = { value: 0, text: null, time: 0, count: batch.counts[i], facts: 0, rate: 0, usualRate: 0, changedAt: 0, windowAt: now,
              windowCount: batch.counts[i], trend: [], trendAt: 0 };
      this.rows.set(id, row);
    } else if (row.count !== batch.counts[i]) {
      row.changedAt = now;
    }
    row.count = batch.counts[i];
    row.facts = batch.facts[i];
    row.value = batch.values[i];
    row.time = batch.times[i];
    row.text = null;
    const twig = this.twigs.get(id);
    if (twig) {
      twig.facts = row.facts;
      if (!isKey(row.facts)) twig.keys = row.value;
    }
    if (!isNumber(typeOf(row.facts)) || now - row.trendAt < kTrendEach) return;
    row.trendAt = now;
    row.trend.push(row.value);
    if (row.trend.length > kTrend) row.trend.shift();
  }

  /** Changes a second, over the last second or so. */
  measure(row: Row, now: number): void {
    const passed = now - row.windowAt;
    if (passed < 1000) return;
    row.rate = (((row.count - row.windowCount) >>> 0) * 1000) / passed;
    row.usualRate = Math.max(row.rate, row.usualRate * 0.98);
    row.windowAt = now;
    row.windowCount = row.count;
  }

  private extend(number: number, batch: Batch, at: number, length: number): void {
    const series = this.series.get(number);
    if (!series) return;
    for (let i = at; i < at + length; ++i) {
      const last = series.times.at(-1) ?? -Infinity;
      // Clocks that are set back would make lines run backwards.
      if (batch.pointTimes[i] <= last) continue;
      series.times.push(batch.pointTimes[i]);
      series.values.push(batch.pointValues[i]);
    }
  }

  private applyRest(rest: Batch['rest'], now: number): void {
    if (rest.emitted) this.noteEmissions(rest.emitted);
    if (rest.authors) this.authors.push(...rest.authors);
    if (rest.key) this.key = rest.key;
    if (rest.raises) this.raises = [...this.raises, ...rest.raises].slice(-kRaisesKept);
    if (rest.reopen) for (const path of this.openPaths) for (const twig of this.twigs.values()) if (twig.path === path) this.open(twig);
    if (rest.moved) this.move(rest.moved);
    this.countChanges(rest.changes ?? 0, now);
    const hasNews = rest.moved || rest.keys !== this.keys || rest.complete !== this.isComplete;
    this.keys = rest.keys ?? this.keys;
    this.isComplete = rest.complete ?? this.isComplete;
    if (hasNews) this.tell();
  }

  private countChanges(count: number, now: number): void {
    this.changesBefore ??= { count, at: now };
    const passed = now - this.changesBefore.at;
    if (passed < 1000) return;
    this.changeRate = (((count - this.changesBefore.count) >>> 0) * 1000) / passed;
    this.changesBefore = { count, at: now };
  }

  // --- What is asked ----------------------------------------------------------------------------------------------------

  /** @param under  Only what is below this name; empty for all. */
  async find(text: string, under = ''): Promise<{ total: number; twigs: Twig[] }> {
    const answer = await this.connection.ask('find', { text, under });
    return { total: answer.total as number, twigs: (answer.rows as ChildEntry[]).map((entry) => this.loose(entry)) };
  }

  /** Calls a method of a service by its name. */
  async call(service: string, method: string, given: unknown[] = []): Promise<unknown> {
    const described = await this.connection.ask('service', { service });
    const found = (described.methods as { id: number; name: string }[]).find((each) => each.name === method);
    if (!found) throw new Error(`${service} has no method ${method}`);
    return (await this.connection.ask('call', { service, method: found.id, arguments: given })).value;
  }

  async resolve(keys: string[]): Promise<Twig[]> {
    if (keys.length === 0) return [];
    const answer = await this.connection.ask('resolve', { keys });
    return (answer.rows as ChildEntry[]).map((entry) => this.loose(entry));
  }

  /** A key by its whole name, outside the tree. */
  private loose([id, path, facts, keys]: ChildEntry): Twig {
    return { id, name: path, path, parent: null, facts, keys, isOpen: false, children: null };
  }

  authorOf(facts: number): string {
    return this.authors[authorOf(facts)] ?? '';
  }
}

export const store = new Store();
