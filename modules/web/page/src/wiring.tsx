import { useEffect, useRef, useState } from 'preact/hooks';
import { isKey, kindOf } from './batch';
import { useNews } from './hooks';
import { addressOf } from './route';
import { store, type Twig } from './store';

interface Answer {
  events: { key: string; subscribers: string[] }[];
  modules: { name: string; extracts: string[] }[];
  mappings?: [service: string, signal: string, event: string][];
  data: [path: string, id: number, keys: number, authors: string[]][];
  cut: boolean;
}

type Kind = 'event' | 'data' | 'party' | 'signal';
type Flow = 'raises' | 'extracts' | 'maps' | 'tells';

interface Box {
  name: string;
  title: string;
  x: number;
  y: number;
  kind: Kind;
  href?: string;
}

interface Edge {
  from: Box;
  to: Box;
  key: string;
  flow: Flow;
}

const kWidth = 230;
const kStep = 34;
const kColumns = [10, 385, 760];
const keyAddress = (key: string): string => addressOf('memory', new URLSearchParams({ key }));
const groupAddress = (find: string): string => addressOf('memory', new URLSearchParams({ find }));

/** Who produces on the left, events and data in the middle, who is told on the right. */
class Picture {
  readonly edges: Edge[] = [];
  private readonly columns = [new Map<string, Box>(), new Map<string, Box>(), new Map<string, Box>()];

  constructor(answer: Answer, authors: Map<string, string>) {
    for (const { key } of answer.events) this.box(1, key, 'event', key, keyAddress(key));
    for (const [path, , keys] of answer.data) {
      this.box(1, path, 'data', keys > 1 ? `${path} · ${keys} keys` : path, keys > 1 ? groupAddress(path) : keyAddress(path));
    }
    for (const { name, extracts } of answer.modules) for (const key of extracts) this.link(this.box(0, name, 'party'), key, 'extracts');
    for (const [service, signal, event] of answer.mappings ?? []) this.link(this.box(0, `${service}.${signal}`, 'signal'), event, 'maps');
    for (const [path, , , by] of answer.data) for (const author of by) this.link(this.box(0, author, 'party'), path, 'raises');
    for (const [key, author] of authors) this.link(this.box(0, author, 'party'), key, 'raises');
    for (const { key, subscribers } of answer.events) {
      for (const name of subscribers) this.edges.push({ from: this.columns[1].get(key)!, to: this.box(2, name, 'party'), key, flow: 'tells' });
    }
    this.place();
  }

  get boxes(): Box[] {
    return this.columns.flatMap((column) => [...column.values()]);
  }
  get height(): number {
    return Math.max(...this.columns.map((column) => column.size), 1) * kStep + 20;
  }

  private box(column: number, name: string, kind: Kind, title = name, href?: string): Box {
    const known = this.columns[column].get(name);
    if (known) return known;
    const made: Box = { name, title, x: kColumns[column], y: 0, kind, href };
    this.columns[column].set(name, made);
    return made;
  }

  private link(from: Box, key: string, flow: Flow): void {
    const to = this.columns[1].get(key);
    if (!to || this.edges.some((edge) => edge.from === from && edge.to === to)) return;
    this.edges.push({ from, to, key, flow });
  }

  /** Boxes stand where what they are joined to stands, so that lines cross little. */
  private place(): void {
    const height = this.height - 20;
    const spread = (boxes: Box[]) => {
      const gap = height / Math.max(1, boxes.length);
      boxes.forEach((box, i) => void (box.y = 10 + gap * (i + 0.5) - kStep / 2));
    };
    const middle = [...this.columns[1].values()].sort((a, b) => a.kind.localeCompare(b.kind) * -1 || a.name.localeCompare(b.name));
    spread(middle);
    for (const column of [0, 2]) {
      const weight = (box: Box) => {
        const joined = this.edges.filter((edge) => edge.from === box || edge.to === box).map((edge) => (column === 0 ? edge.to.y : edge.from.y));
        return joined.reduce((sum, y) => sum + y, 0) / Math.max(1, joined.length);
      };
      spread([...this.columns[column].values()].map((box) => ({ box, at: weight(box) })).sort((a, b) => a.at - b.at).map(({ box }) => box));
    }
  }
}

/** The robot's wiring, which lights up where something flows. */
export function Wiring() {
  useNews();
  const [answer, setAnswer] = useState<Answer | null>(null);
  const [twigs, setTwigs] = useState<Twig[]>([]);
  const [authors, setAuthors] = useState(new Map<string, string>());
  const [error, setError] = useState('');
  const picture = useRef<SVGSVGElement>(null);

  useEffect(() => {
    const ask = () =>
      store.connection.ask('wiring').then(async (told) => {
        setAnswer(told as unknown as Answer);
        setError('');
        setTwigs(await store.resolve((told as unknown as Answer).events.map((event) => event.key)));
      }).catch((failure: Error) => setError(failure.message));
    void ask();
    const again = setInterval(ask, 4000);
    return () => clearInterval(again);
  }, [store.status]);

  useEffect(() => {
    const groups = (answer?.data ?? []).map(([path, id]) => ({ path, id }));
    const watched = [...twigs, ...groups];
    store.watch('wiring', watched.map(({ id }) => id));
    const seen = new Map<number, number>();
    let known = authors;
    const unlisten = store.onFrame(() => {
      const found = new Map(known);
      for (const { id, path } of watched) {
        const row = store.rows.get(id);
        if (!row) continue;
        const author = isKey(row.facts) && kindOf(row.facts) !== 'Data' ? store.authorOf(row.facts) : '';
        if (author) found.set(path, author);
        if (seen.has(id) && seen.get(id) !== row.count) light(path);
        seen.set(id, row.count);
      }
      if (JSON.stringify([...found]) !== JSON.stringify([...known])) setAuthors((known = found));
    });
    return () => {
      unlisten();
      store.watch('wiring', []);
    };
  }, [twigs, answer]);

  const light = (key: string) => {
    const accent = getComputedStyle(document.documentElement).getPropertyValue('--accent').trim();
    for (const element of picture.current?.querySelectorAll(`[data-key="${CSS.escape(key)}"]`) ?? []) {
      if (element.getAnimations().length > 0) continue; // What flows all the time glows steadily.
      const { stroke, strokeWidth } = getComputedStyle(element);
      element.animate([{ stroke: accent, strokeWidth: '2.6px' }, { stroke, strokeWidth }], { duration: 700, easing: 'ease-out' });
    }
  };

  if (error) return <p class="nothing" role="alert">{error}</p>;
  if (!answer) return <p class="nothing">Asking who is there…</p>;
  if (answer.events.length + answer.data.length === 0) return <p class="nothing">There are no keys yet. Who writes, raises and hears them is drawn here.</p>;
  const drawn = new Picture(answer, authors);
  const flows = [...new Set(drawn.edges.map((edge) => edge.flow))];
  return (
    <div class="wiring" tabIndex={0} aria-label="Wiring of the robot">
      <div class="columns" aria-hidden="true"><span>produced by</span><span>key</span><span>told to</span></div>
      <svg ref={picture} viewBox={`0 0 1000 ${drawn.height}`} role="group" aria-label={`${answer.events.length} events and ${answer.data.length} groups of data, who produces and who hears them`}>
        {drawn.edges.map(({ from, to, key, flow }, i) => (
          <path key={i} class={`edge ${flow}`} data-key={key}
            d={`M${from.x + kWidth} ${from.y + 13} C${from.x + kWidth + 70} ${from.y + 13} ${to.x - 70} ${to.y + 13} ${to.x} ${to.y + 13}`} />
        ))}
        {drawn.boxes.map((box) => (
          <g key={`${box.x} ${box.name}`}>
            <title>{box.title}</title>
            <rect class={`box ${box.kind}`} data-key={box.href ? box.name : undefined} x={box.x} y={box.y} width={kWidth} height={26} rx={box.href ? 13 : 5} />
            {box.href
              ? <a href={box.href}><text x={box.x + 12} y={box.y + 17}>{shortened(box.title)}</text></a>
              : <text x={box.x + 12} y={box.y + 17}>{shortened(box.title)}</text>}
          </g>
        ))}
      </svg>
      <ul class="legend" aria-label="Lines">
        {flows.map((flow) => <li key={flow}><svg viewBox="0 0 34 8" aria-hidden="true"><path class={`edge ${flow}`} d="M0 4H34" /></svg>{kFlows[flow]}</li>)}
      </ul>
      {answer.cut && <p class="quiet">Only the first {answer.events.length} events are drawn.</p>}
    </div>
  );
}

const kFlows: Record<Flow, string> = { raises: 'writes or raises', extracts: 'extracts when somebody listens', maps: 'signal, raised as event', tells: 'is told' };

const shortened = (name: string): string => (name.length > 31 ? `…${name.slice(-30)}` : name);
