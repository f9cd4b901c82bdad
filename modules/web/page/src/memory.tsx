import { useEffect, useMemo, useRef, useState } from 'preact/hooks';
import { KeyView, NewKey } from './keyview';
import { useKept, useNews, useRoute } from './hooks';
import { Under } from './under';
import { route, setParameter } from './route';
import { RowList, type Line } from './rowlist';
import { store, type Twig } from './store';

/** The tree below a name as lines: what is pinned first, then what is open. */
function linesOf(pinned: Twig[], under: string): Line[] {
  const lines: Line[] = pinned.map((twig) => ({ twig, depth: 0, isLoose: true }));
  const add = (twigs: Twig[], depth: number) => {
    for (const twig of twigs) {
      lines.push({ twig, depth, isLoose: false });
      if (twig.isOpen && twig.children) add(twig.children, depth + 1);
    }
  };
  add(store.under(under)?.children ?? [], 0);
  return lines;
}

/** Keys by what is typed, asked again now and then, since keys come and go. */
function useFound(text: string, under: string): { total: number; twigs: Twig[] } | null {
  const [found, set] = useState<{ total: number; twigs: Twig[] } | null>(null);
  useEffect(() => {
    if (!text) return set(null);
    let isOver = false;
    const ask = () =>
      store.find(text, under).then((answer) => {
        if (isOver) return;
        set((before) => (before && before.total === answer.total && sameIds(before.twigs, answer.twigs) ? before : answer));
      }, () => {});
    const first = setTimeout(ask, 60);
    const again = setInterval(ask, 2000);
    return () => {
      isOver = true;
      clearTimeout(first);
      clearInterval(again);
    };
  }, [text, under, store.status]);
  return text ? found : null;
}

const sameIds = (a: Twig[], b: Twig[]): boolean => a.length === b.length && a.every((twig, i) => twig.id === b[i].id);

function usePinned(keys: string[]): Twig[] {
  const [twigs, set] = useState<Twig[]>([]);
  const wanted = keys.join('\n');
  useEffect(() => void store.resolve(keys).then(set, () => {}), [wanted, store.status, store.keys]);
  return twigs;
}

export function Memory() {
  useNews();
  const { parameters } = useRoute();
  const selected = parameters.get('key') ?? '';
  const under = parameters.get('under') ?? '';
  const [text, setText] = useState(parameters.get('find') ?? '');
  const [pins, setPins] = useKept<string[]>('pins', []);
  const [isNew, setIsNew] = useState(false);
  const view = useRef<HTMLDivElement>(null);
  const list = useRef<RowList>();
  const filter = useRef<HTMLInputElement>(null);
  const found = useFound(text, under);
  const pinned = usePinned(under ? pins.filter((pin) => pin.startsWith(`${under}/`)) : pins);

  const lines = useMemo(
    () => (found ? found.twigs.map((twig) => ({ twig, depth: 0, isLoose: true })) : linesOf(pinned, under)),
    [found, pinned, under, store.shape],
  );

  useEffect(() => {
    list.current = new RowList(view.current!, 'memory');
    list.current.onSelect = (line) => setParameter('key', line.twig.path);
    list.current.onToggle = (line) => store.toggle(line.twig);
    return () => list.current!.end();
  }, []);
  useEffect(() => list.current!.setLines(lines, selected), [lines, selected]);
  useEffect(() => store.reveal(under), [under, store.shape]);
  useEffect(() => {
    const slash = (event: KeyboardEvent) => {
      if (event.key !== '/' || (event.target as HTMLElement).closest('input, textarea, select')) return;
      event.preventDefault();
      filter.current?.focus();
    };
    addEventListener('keydown', slash);
    return () => removeEventListener('keydown', slash);
  }, []);

  const type = (value: string) => {
    setText(value);
    if (route().view === 'memory') setParameter('find', value);
  };
  const pin = (key: string) => setPins(pins.includes(key) ? pins.filter((each) => each !== key) : [...pins, key]);

  return (
    <div class={selected || isNew ? 'memory split' : 'memory'}>
      <section class="tree" aria-label="Keys">
        <div class="tools">
          <Under name={under} />
          <div class="filter">
            <input ref={filter} type="search" placeholder="Find a key" aria-label="Find a key" value={text}
              onInput={(event) => type(event.currentTarget.value)}
              onKeyDown={(event) => {
                if (event.key === 'Escape') type('');
                if (event.key === 'ArrowDown') view.current?.focus();
              }} />
            <kbd aria-hidden="true">/</kbd>
          </div>
          {found && <span class="quiet" role="status">{found.total.toLocaleString()} found{found.total > found.twigs.length ? `, the first ${found.twigs.length} shown` : ''}</span>}
          <span class="grow" />
          {!text && <button type="button" class="plain" onClick={() => store.collapseAll()}>Collapse</button>}
          {store.mayWrite && <button type="button" onClick={() => { setParameter('key', ''); setIsNew(true); }}>New key</button>}
        </div>
        <div class="heads" aria-hidden="true">
          <span class="name">Key</span><span class="value">Value</span><span class="trendcell">Trend</span><span class="type">Type</span>
          <span class="rate">Rate</span><span class="age">Age</span><span class="author">By</span>
        </div>
        <div class="rows" ref={view} role="treegrid" tabIndex={0} aria-label="Keys of the memory"
          onKeyDown={(event) => list.current?.key(event)} />
        {lines.length === 0 && <Nothing text={text} isFound={found !== null} under={under} />}
      </section>
      {isNew && !selected && <NewKey onClose={() => setIsNew(false)} />}
      {selected && <KeyView key={selected} name={selected} isPinned={pins.includes(selected)} onPin={() => pin(selected)}
        onClose={() => setParameter('key', '')} />}
    </div>
  );
}

function Nothing({ text, isFound, under }: { text: string; isFound: boolean; under: string }) {
  if (text) return <p class="nothing">{isFound ? `No key has “${text}” in its name.` : ''}</p>;
  if (under && store.isComplete) return <p class="nothing">Nothing is known of {under} yet.</p>;
  return <p class="nothing">{store.isComplete ? 'The memory has no keys yet.' : store.status === 'open' ? 'Reading the memory…' : ''}</p>;
}
