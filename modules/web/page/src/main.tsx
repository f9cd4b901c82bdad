import { render } from 'preact';
import { useEffect, useState } from 'preact/hooks';
import { Events } from './events';
import { Fleet } from './fleet';
import { rateText } from './format';
import { useFrames, useKept, useNews, useRoute } from './hooks';
import { Health } from './health';
import { Memory } from './memory';
import { Plots } from './plots';
import { Recorder } from './recorder';
import { isKiosk, kViews, lastAddressOf, tradeToken, type View } from './route';
import { Services } from './services';
import { store } from './store';
import { Wiring } from './wiring';

const kNames: Record<View, string> = { memory: 'Memory', plots: 'Plots', events: 'Events', wiring: 'Wiring', services: 'Services', health: 'Health', fleet: 'Fleet' };
const kMarks: Record<View, string> = {
  memory: 'M3 5h4M3 10h4M3 15h4M10 5h7M10 10h7M10 15h7',
  plots: 'M3 16 L7 9 L11 12 L17 4',
  events: 'M4 16V9M8 16V4M12 16v-6M16 16V7',
  wiring: 'M5 5h0M5 15h0M15 10h0M5 5 C10 5 10 10 15 10M5 15 C10 15 10 10 15 10',
  services: 'M4 4h12v5H4zM4 12h12v4H4z',
  health: 'M2 11h4l2-6 4 11 2-5h4',
  fleet: 'M3 3h5v5H3zM12 3h5v5h-5zM3 12h5v5H3zM12 12h5v5h-5z',
};
const kSchemes = ['auto', 'dark', 'light'];

function Pulse() {
  useFrames(500);
  const isOpen = store.status === 'open' && !store.trouble;
  return (
    <span class="pulse quiet">
      {isOpen && <>{store.keys.toLocaleString()} keys · <span class="rate">{rateText(store.changeRate) || '0/s'}</span></>}
    </span>
  );
}

/** What is wrong with the way to the robot; nothing while all is well. */
function Trouble() {
  const [now, setNow] = useState(Date.now());
  useEffect(() => {
    const clock = setInterval(() => setNow(Date.now()), 1000);
    return () => clearInterval(clock);
  }, []);
  const isLost = store.status === 'lost';
  if (!isLost && !store.trouble) return null;
  const since = store.lostAt ? ` for ${Math.max(0, Math.round((now - store.lostAt) / 1000))} s` : '';
  return (
    <div class="trouble" role="alert">
      {isLost ? `The robot does not answer${since}. What you see is how it was; this page comes back by itself.` : `The memory is out of reach: ${store.trouble}`}
    </div>
  );
}

/** Who drags a key over "Plots" wants to drop it there. */
function turnTo(view: View, event: DragEvent): void {
  if (view === 'plots' && event.dataTransfer?.types.includes('text/x-korvo-key')) location.hash = lastAddressOf(view);
}

function App({ isRefused }: { isRefused: boolean }) {
  useNews();
  const { view } = useRoute();
  const [scheme, setScheme] = useKept('scheme', 'auto');
  useEffect(() => {
    const light = matchMedia('(prefers-color-scheme: light)');
    const show = () => void (document.documentElement.dataset.scheme = scheme !== 'auto' ? scheme : light.matches ? 'light' : 'dark');
    show();
    light.addEventListener('change', show);
    return () => light.removeEventListener('change', show);
  }, [scheme]);
  useEffect(() => void (document.title = store.broker ? `${store.broker} · Korvo` : 'Korvo'), [store.broker]);
  const isLost = store.status === 'lost' || store.trouble !== '';
  return (
    <div class={`app${isLost ? ' lost' : ''}${isKiosk() ? ' kiosk' : ''}`}>
      <header class="top">
        <h1><span class={`dot ${isLost ? 'bad' : store.status === 'open' ? 'good' : ''}`} aria-hidden="true" />{store.broker || 'Korvo'}</h1>
        <nav aria-label="Views">
          {kViews.filter((each) => each !== 'fleet' || each === view || store.fleet).map((each) => (
            <a key={each} href={each === view ? `#/${each}` : lastAddressOf(each)} aria-current={each === view ? 'page' : undefined}
              onDragEnter={(event) => turnTo(each, event)}>
              <svg viewBox="0 0 20 20" aria-hidden="true"><path d={kMarks[each]} /></svg><span>{kNames[each]}</span>
            </a>
          ))}
        </nav>
        <Recorder />
        <Pulse />
        {store.status === 'open' && !store.mayWrite && <span class="badge">view only</span>}
        <button type="button" class="plain scheme" aria-label={`Colours: ${scheme}`} title={`Colours: ${scheme}`}
          onClick={() => setScheme(kSchemes[(kSchemes.indexOf(scheme) + 1) % kSchemes.length])}>{scheme === 'auto' ? '◐' : scheme === 'dark' ? '●' : '○'}</button>
      </header>
      <Trouble />
      {isRefused && <div class="trouble" role="alert">The token of this link is not, or not any more, the server's. It prints a link when it starts.</div>}
      <main>
        {view === 'memory' && <Memory />}
        {view === 'plots' && <Plots />}
        {view === 'events' && <Events />}
        {view === 'wiring' && <Wiring />}
        {view === 'services' && <Services />}
        {view === 'health' && <Health />}
        {view === 'fleet' && <Fleet />}
      </main>
    </div>
  );
}

async function start(): Promise<void> {
  const isRefused = await tradeToken();
  render(<App isRefused={isRefused} />, document.getElementById('app')!);
  store.start();
}

void start();
