import { useEffect, useRef, useState } from 'preact/hooks';
import { useNews } from './hooks';
import { addressOf } from './route';
import { store, type Twig } from './store';

interface Answer {
  events: { key: string; subscribers: string[] }[];
  modules: { name: string; extracts: string[] }[];
  cut: boolean;
}

interface Box {
  name: string;
  x: number;
  y: number;
  isKey: boolean;
}

interface Edge {
  from: Box;
  to: Box;
  key: string;
}

const kWidth = 230;
const kStep = 34;
const kColumns = [10, 385, 760];

/** Those who produce on the left, events in the middle, those who are told on the right. */
function layOut(answer: Answer, authors: Map<string, string>): { boxes: Box[]; edges: Edge[]; height: number } {
  const keys = answer.events.map((event) => event.key).sort();
  const extractors = answer.modules.filter((module) => module.extracts.length > 0);
  const producers = new Set(extractors.map((module) => module.name));
  for (const author of authors.values()) producers.add(author);
  const listeners = new Set(answer.events.flatMap((event) => event.subscribers));
  const columns = [[...producers].sort(), keys, [...listeners].sort()];
  const most = Math.max(...columns.map((column) => column.length), 1);
  const boxes = columns.map((names, column) => {
    const gap = (most * kStep) / Math.max(1, names.length);
    return new Map(names.map((name, i) => [name, { name, x: kColumns[column], y: 10 + gap * (i + 0.5) - kStep / 2, isKey: column === 1 }]));
  });
  const edges: Edge[] = [];
  const add = (column: number, from: string, to: string, key: string) => {
    const start = boxes[column].get(from);
    const end = boxes[column + 1].get(to);
    if (start && end) edges.push({ from: start, to: end, key });
  };
  for (const module of extractors) for (const key of module.extracts) add(0, module.name, key, key);
  for (const [key, author] of authors) if (!extractors.some((module) => module.name === author && module.extracts.includes(key))) add(0, author, key, key);
  for (const event of answer.events) for (const name of event.subscribers) add(1, event.key, name, event.key);
  return { boxes: boxes.flatMap((column) => [...column.values()]), edges, height: most * kStep + 20 };
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
    store.watch('wiring', twigs.map((twig) => twig.id));
    const seen = new Map<number, number>();
    let known = authors;
    const unlisten = store.onFrame(() => {
      const found = new Map(known);
      for (const twig of twigs) {
        const row = store.rows.get(twig.id);
        if (!row) continue;
        const author = store.authorOf(row.facts);
        if (author) found.set(twig.path, author);
        if (seen.has(twig.id) && seen.get(twig.id) !== row.count) light(twig.path);
        seen.set(twig.id, row.count);
      }
      if (JSON.stringify([...found]) !== JSON.stringify([...known])) setAuthors((known = found));
    });
    return () => {
      unlisten();
      store.watch('wiring', []);
    };
  }, [twigs]);

  const light = (key: string) => {
    for (const element of picture.current?.querySelectorAll(`[data-key="${CSS.escape(key)}"]`) ?? []) {
      element.animate([{ stroke: 'var(--accent)', strokeWidth: 2.5 }, {}], { duration: 700, easing: 'ease-out' });
    }
  };

  if (error) return <p class="nothing" role="alert">{error}</p>;
  if (!answer) return <p class="nothing">Asking who is there…</p>;
  if (answer.events.length === 0) return <p class="nothing">There are no events yet. What modules raise and subscribe to is drawn here.</p>;
  const { boxes, edges, height } = layOut(answer, authors);
  return (
    <div class="wiring" tabIndex={0} aria-label="Wiring of the robot">
      <div class="columns" aria-hidden="true"><span>produced by</span><span>event</span><span>told to</span></div>
      <svg ref={picture} viewBox={`0 0 1000 ${height}`} role="group" aria-label={`${answer.events.length} events and who produces and hears them`}>
        {edges.map((edge, i) => (
          <path key={i} class="edge" data-key={edge.key}
            d={`M${edge.from.x + kWidth} ${edge.from.y + 13} C${edge.from.x + kWidth + 70} ${edge.from.y + 13} ${edge.to.x - 70} ${edge.to.y + 13} ${edge.to.x} ${edge.to.y + 13}`} />
        ))}
        {boxes.map((box) => (
          <g key={`${box.x} ${box.name}`}>
            <title>{box.name}</title>
            <rect class={box.isKey ? 'box event' : 'box'} data-key={box.isKey ? box.name : undefined} x={box.x} y={box.y} width={kWidth} height={26} rx={box.isKey ? 13 : 5} />
            {box.isKey
              ? <a href={addressOf('memory', new URLSearchParams({ key: box.name }))}><text x={box.x + 12} y={box.y + 17}>{shortened(box.name)}</text></a>
              : <text x={box.x + 12} y={box.y + 17}>{shortened(box.name)}</text>}
          </g>
        ))}
      </svg>
      {answer.cut && <p class="quiet">Only the first {answer.events.length} events are drawn.</p>}
    </div>
  );
}

const shortened = (name: string): string => (name.length > 31 ? `…${name.slice(-30)}` : name);
