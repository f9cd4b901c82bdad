import { useEffect, useState } from 'preact/hooks';
import { durationText, timeText } from './format';
import { useFrames, useRoute } from './hooks';
import type { Subscriber } from './known';
import { isUnder, Under } from './under';
import { addressOf } from './route';
import { store } from './store';

const kShown = 400;

/** The raises of events as they come, and where in the last minute they lie. */
export function Events() {
  useFrames(200);
  const under = useRoute().parameters.get('under') ?? '';
  const [text, setText] = useState('');
  const [frozen, setFrozen] = useState<typeof store.raises | null>(null);
  useEffect(() => {
    store.showTimeLine(true);
    return () => store.showTimeLine(false);
  }, []);
  const wanted = text.toLowerCase();
  const raises = (frozen ?? store.raises).filter(([, key]) => isUnder(key, under) && key.toLowerCase().includes(wanted));
  return (
    <div class="events">
      <div class="tools">
        <Under name={under} />
        <div class="filter"><input type="search" placeholder="Find an event" aria-label="Find an event" value={text} onInput={(event) => setText(event.currentTarget.value)} /></div>
        <span class="grow" />
        <span class="quiet">{raises.length.toLocaleString()} raises</span>
        <button type="button" class="plain" aria-pressed={frozen !== null} onClick={() => setFrozen(frozen ? null : store.raises)}>{frozen ? 'Go on' : 'Pause'}</button>
      </div>
      <Lanes raises={raises} />
      {raises.length === 0 && <p class="nothing">No event has been raised while this page looked on.</p>}
      <ol class="raises" tabIndex={0} aria-label="Raises, the latest first">
        {raises.slice(-kShown).reverse().map(([number, key, value, time, author, isMicro]) => (
          <li key={number}>
            <time>{timeText(time)}</time>
            <a href={addressOf('memory', new URLSearchParams({ key }))}>{key}</a>
            <span class="what">{value}</span>
            <span class="quiet">{isMicro ? 'micro' : ''}</span>
            <span class="quiet">{store.authors[author] ?? ''}</span>
          </li>
        ))}
      </ol>
    </div>
  );
}

/** Who is called for some keys, asked now and then. */
function useSubscribers(keys: string[]): Record<string, Subscriber[]> {
  const [told, set] = useState<Record<string, Subscriber[]>>({});
  const wanted = keys.join('\n');
  useEffect(() => {
    if (!wanted) return;
    const ask = () => void store.connection.ask('subscribers', { keys: wanted.split('\n') })
      .then((answer) => set((answer.subscribers ?? {}) as Record<string, Subscriber[]>), () => {});
    ask();
    const again = setInterval(() => void (document.hidden || ask()), 2000);
    return () => clearInterval(again);
  }, [wanted, store.status]);
  return told;
}

/** Those who are called, the slowest first, and how long the last call took. */
function Called({ subscribers }: { subscribers: Subscriber[] }) {
  const sorted = [...subscribers].sort((a, b) => (b.lastCall ?? 0) - (a.lastCall ?? 0));
  return (
    <span class="called">
      {sorted.map((each) => (
        <span key={`${each.module} ${each.method}`} class={(each.lastCall ?? 0) >= 0.1 ? 'badge bad' : 'badge'}>
          {each.module} {each.lastCall === undefined ? '' : durationText(each.lastCall)}
        </span>
      ))}
    </span>
  );
}

/** Each event a line, each raise a mark, the last minute from left to right; behind it who was called, and how long. */
function Lanes({ raises }: { raises: typeof store.raises }) {
  const kSpan = 60000;
  const kLanes = 12;
  const now = Date.now();
  const recent = raises.filter(([, , , time]) => now - time < kSpan);
  const counts = new Map<string, number>();
  for (const [, key] of recent) counts.set(key, (counts.get(key) ?? 0) + 1);
  const keys = [...counts.keys()].sort().slice(0, kLanes);
  const subscribers = useSubscribers(keys);
  if (keys.length === 0) return null;
  return (
    <div class="lanes" role="group" aria-label={`The last minute of ${keys.length} events, and who was called for them`}>
      {keys.map((key) => (
        <div class="lane" key={key}>
          <span class="label">{key}</span>
          <svg viewBox="0 0 600 10" preserveAspectRatio="none" aria-hidden="true">
            {recent.filter(([, other]) => other === key).slice(-300).map(([number, , , time]) => (
              <rect key={number} x={600 - ((now - time) / kSpan) * 600} y="0" width="1.6" height="10" />
            ))}
          </svg>
          <span class="quiet">{counts.get(key)}</span>
          <Called subscribers={subscribers[key] ?? []} />
        </div>
      ))}
    </div>
  );
}
