import { useEffect, useRef, useState } from 'preact/hooks';
import { Chart, labelOf, type ChartControl } from './chart';
import { timeText } from './format';
import { useNews, useRoute } from './hooks';
import { partOf, partText } from './parttext';
import { setParameter } from './route';
import { store, type Series } from './store';

const panelsOf = (text: string): string[][] => (text ? text.split('|').map((panel) => panel.split(',').filter(Boolean)) : []);
const textOf = (panels: string[][]): string => panels.filter((panel) => panel.length > 0).map((panel) => panel.join(',')).join('|');

/** Series by their parts, kept while some panel has them. */
function useSeries(parts: string[]): Map<string, Series> {
  const held = useRef(new Map<string, Series>());
  const [, again] = useState(0);
  const wanted = [...new Set(parts)].sort().join(',');
  useEffect(() => {
    const now = new Set(wanted.split(',').filter(Boolean));
    for (const [part, series] of held.current) {
      if (now.has(part)) continue;
      store.removeSeries(series);
      held.current.delete(part);
    }
    for (const part of now) {
      if (held.current.has(part)) continue;
      const { key, path } = partOf(part);
      held.current.set(part, store.addSeries(key, path));
    }
    again((count) => count + 1);
  }, [wanted]);
  useEffect(() => () => {
    for (const series of held.current.values()) store.removeSeries(series);
    held.current.clear();
  }, []);
  return held.current;
}

export function Plots() {
  useNews();
  const { parameters } = useRoute();
  const panels = panelsOf(parameters.get('p') ?? '');
  const seconds = Number(parameters.get('s') ?? 60) || 60;
  const series = useSeries(panels.flat());
  const [text, setText] = useState('');
  const change = (next: string[][]) => setParameter('p', textOf(next));
  const add = (key: string, panel: number) => {
    const { key: name, path } = splitTyped(key);
    const part = partText(name, path);
    const next = panels.map((parts) => [...parts]);
    if (panel < next.length) {
      if (!next[panel].includes(part)) next[panel].push(part);
    } else {
      next.push([part]);
    }
    change(next);
  };
  return (
    <div class="plots">
      <div class="tools">
        <form class="filter" onSubmit={(event) => {
          event.preventDefault();
          if (text.trim()) add(text.trim(), panels.length);
          setText('');
        }}>
          <KeyInput value={text} onValue={setText} />
          <button type="submit">Plot</button>
        </form>
        <span class="grow" />
        <label class="inline">Show <select value={String(seconds)} onChange={(event) => setParameter('s', event.currentTarget.value)}>
          {[10, 30, 60, 300, 600].map((each) => <option key={each} value={each}>{each < 60 ? `${each} s` : `${each / 60} min`}</option>)}
        </select></label>
      </div>
      {panels.length === 0 && (
        <div class="nothing drop" onDragOver={(event) => event.preventDefault()} onDrop={(event) => add(keyOf(event), 0)}>
          <p>Nothing is plotted yet.</p>
          <p class="quiet">Type the name of a key with numbers above, or choose “Plot” where a key is shown.
            An element of a list or a map: <code>Arm/Pose[x]</code>.</p>
        </div>
      )}
      <div class="panels">
        {panels.map((parts, i) => (
          <Panel key={parts.join(',')} series={parts.map((part) => series.get(part)).filter((each) => each !== undefined) as Series[]}
            seconds={seconds}
            onDrop={(event) => add(keyOf(event), i)}
            onAdd={(key) => add(key, i)}
            onRemove={(one) => change(panels.map((other, j) => (j === i ? other.filter((part) => series.get(part) !== one) : other)))}
            onClose={() => change(panels.filter((_, j) => j !== i))} />
        ))}
      </div>
    </div>
  );
}

const keyOf = (event: DragEvent): string => {
  event.preventDefault();
  return event.dataTransfer?.getData('text/x-korvo-key') ?? '';
};

/** "Arm/Pose[x][0]" as a person types it. */
function splitTyped(text: string): { key: string; path: string[] } {
  const found = /^(.*?)((?:\[[^\]]*\])+)$/.exec(text);
  if (!found) return { key: text, path: [] };
  return { key: found[1], path: [...found[2].matchAll(/\[([^\]]*)\]/g)].map((each) => each[1]) };
}

function KeyInput({ value, onValue }: { value: string; onValue: (text: string) => void }) {
  const [names, set] = useState<string[]>([]);
  useEffect(() => {
    if (!value) return;
    const later = setTimeout(() => void store.find(value).then((found) => set(found.twigs.slice(0, 30).map((twig) => twig.path)), () => {}), 80);
    return () => clearTimeout(later);
  }, [value]);
  return (
    <>
      <input list="plot-keys" placeholder="Key to plot" aria-label="Key to plot" value={value} onInput={(event) => onValue(event.currentTarget.value)} />
      <datalist id="plot-keys">{names.map((name) => <option key={name} value={name} />)}</datalist>
    </>
  );
}

interface PanelOptions {
  series: Series[];
  seconds: number;
  onDrop: (event: DragEvent) => void;
  onAdd: (key: string) => void;
  onRemove: (series: Series) => void;
  onClose: () => void;
}

function Panel({ series, seconds, onDrop, onAdd, onRemove, onClose }: PanelOptions) {
  const [isPaused, setIsPaused] = useState(false);
  const [isAdding, setIsAdding] = useState(false);
  const [text, setText] = useState('');
  const control = useRef<ChartControl>();
  const name = series.map(labelOf).join(', ');
  const clear = () => {
    for (const each of series) {
      each.times = [];
      each.values = [];
    }
    control.current?.resetZoom();
  };
  return (
    <section class="panel" aria-label={name} onDragOver={(event) => event.preventDefault()} onDrop={onDrop}>
      <header>
        {series.map((each, i) => (
          <span class={`chip c${i % 6}`} key={each.number}>{labelOf(each)}
            {series.length > 1 && <button type="button" class="plain small" aria-label={`Remove ${labelOf(each)}`} onClick={() => onRemove(each)}>✕</button>}</span>
        ))}
        <button type="button" class="plain small" aria-label="Add a key to this plot" onClick={() => setIsAdding(!isAdding)}>Add</button>
        <span class="grow" />
        <button type="button" class="plain" aria-pressed={isPaused} onClick={() => setIsPaused(!isPaused)}>{isPaused ? 'Go on' : 'Pause'}</button>
        <button type="button" class="plain" onClick={() => control.current?.resetZoom()}>Whole</button>
        <button type="button" class="plain" onClick={clear}>Clear</button>
        <button type="button" class="plain" onClick={() => save('korvo.csv', csvOf(series))}>CSV</button>
        <button type="button" class="plain" onClick={() => savePicture(control.current)}>PNG</button>
        <button type="button" class="plain" aria-label={`Close the plot of ${name}`} onClick={onClose}>✕</button>
      </header>
      {isAdding && (
        <form class="filter" onSubmit={(event) => { event.preventDefault(); if (text.trim()) onAdd(text.trim()); }}>
          <KeyInput value={text} onValue={setText} /><button type="submit">Add</button>
        </form>
      )}
      {series.length > 0 && <Chart series={series} seconds={seconds} height={240} isPaused={isPaused} onReady={(ready) => void (control.current = ready)} />}
    </section>
  );
}

function csvOf(series: Series[]): Blob {
  const lines = ['time,key,value'];
  const quoted = (text: string) => (/[",\n]/.test(text) ? `"${text.replace(/"/g, '""')}"` : text);
  for (const each of series) {
    each.times.forEach((time, i) => {
      const value = each.values[i];
      if (value !== null) lines.push(`${new Date(time).toISOString()},${quoted(labelOf(each))},${value}`);
    });
  }
  return new Blob([`${lines.join('\n')}\n`], { type: 'text/csv' });
}

function savePicture(control: ChartControl | undefined): void {
  control?.plot.root.querySelector('canvas')?.toBlob((picture) => picture && save(`korvo ${timeText(Date.now())}.png`, picture));
}

function save(name: string, content: Blob): void {
  const link = document.createElement('a');
  link.href = URL.createObjectURL(content);
  link.download = name;
  link.click();
  setTimeout(() => URL.revokeObjectURL(link.href), 1000);
}
