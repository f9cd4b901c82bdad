import { useEffect, useState } from 'preact/hooks';
import { pretty, timeText } from './format';
import { useFrames, useNews, useRoute } from './hooks';
import { isUnder, Under } from './under';
import { setParameter } from './route';
import { store, type Watched } from './store';

interface Method {
  id: number;
  name: string;
  text: string;
  parameters: { name: string; text: string; type: string }[];
  here: boolean;
  /** It takes arguments that only it knows. */
  dynamic: boolean;
  result?: { type: string; text: string };
}

interface Service {
  service: string;
  text: string;
  methods: Method[];
  signals: { name: string; signature: string }[];
}

export function Services() {
  useNews();
  const { parameters } = useRoute();
  const [names, setNames] = useState<string[]>([]);
  const chosen = parameters.get('service') ?? '';
  const under = parameters.get('under') ?? '';
  useEffect(() => {
    const ask = () => void store.connection.ask('services').then((answer) => setNames(answer.services as string[]), () => {});
    ask();
    const again = setInterval(ask, 3000);
    return () => clearInterval(again);
  }, [store.status]);
  return (
    <div class={chosen ? 'services split' : 'services'}>
      <nav class="list" aria-label="Services">
        <Under name={under} />
        {names.filter((name) => isUnder(name, under)).map((name) => (
          <button type="button" key={name} class="plain" aria-current={name === chosen} onClick={() => setParameter('service', name)}>{name}</button>
        ))}
        {names.length === 0 && <p class="nothing">Asking who is there…</p>}
      </nav>
      {chosen ? <Details key={chosen} name={chosen} /> : <p class="nothing">Choose a service to see what it offers.</p>}
    </div>
  );
}

function Details({ name }: { name: string }) {
  const [service, setService] = useState<Service | null>(null);
  const [error, setError] = useState('');
  const [text, setText] = useState('');
  useEffect(() => {
    store.connection.ask('service', { service: name }).then((answer) => {
      setService(answer as unknown as Service);
      setError('');
    }, (failure: Error) => setError(failure.message));
  }, [name, store.status]);
  if (error) return <p class="nothing" role="alert">{error}</p>;
  if (!service) return <p class="nothing" />;
  const wanted = text.toLowerCase();
  const methods = service.methods.filter((method) => method.name.toLowerCase().includes(wanted));
  return (
    <section class="service" aria-label={name} tabIndex={0}>
      <header><h2>{name}</h2><button type="button" class="plain close" aria-label="Close" onClick={() => setParameter('service', '')}>✕</button></header>
      {service.text && <p>{service.text}</p>}
      {service.methods.length > 8 && (
        <div class="filter"><input type="search" placeholder="Find a method" aria-label="Find a method" value={text} onInput={(event) => setText(event.currentTarget.value)} /></div>
      )}
      {methods.map((method) => <MethodForm key={method.id} service={name} method={method} />)}
      {service.signals.length > 0 && <h3>Signals</h3>}
      {service.signals.map((signal) => <SignalForm key={signal.name} service={name} signal={signal} />)}
    </section>
  );
}

/** What was typed for a parameter, as JSON. */
function argumentOf(text: string, type: string): unknown {
  if (type === 'string') return text;
  if (type === 'bool') return text === 'true';
  try {
    return JSON.parse(text.trim());
  } catch {
    if (type === 'value') return text; // Any value: a word needs no quotes.
    throw new Error(`${text || 'nothing'} is no ${type}; lists stand in brackets, maps in braces, texts in quotes`);
  }
}

const kAnyArguments = [{ name: 'Arguments', text: 'all of them', type: 'list' }];

function MethodForm({ service, method }: { service: string; method: Method }) {
  const parameters = method.dynamic ? kAnyArguments : method.parameters;
  const [texts, setTexts] = useState<string[]>(parameters.map(({ type }) => (type === 'bool' ? 'false' : method.dynamic ? '[]' : '')));
  const [outcome, setOutcome] = useState<{ text: string; isError: boolean } | null>(null);
  const [isRunning, setIsRunning] = useState(false);
  const call = async () => {
    setIsRunning(true);
    try {
      const given = parameters.map((parameter, i) => argumentOf(texts[i], parameter.type));
      const answer = await store.connection.ask('call', { service, method: method.id, arguments: method.dynamic ? given[0] : given });
      const text = 'value' in answer ? pretty(answer.value) : typeof answer.thing === 'string' ? `a ${answer.thing}` : 'Done.';
      setOutcome({ text, isError: false });
    } catch (failure) {
      setOutcome({ text: (failure as Error).message, isError: true });
    }
    setIsRunning(false);
  };
  const signature = method.dynamic ? '…' : parameters.map((parameter) => `${parameter.name || 'value'}: ${parameter.type}`).join(', ');
  return (
    <details class="method">
      <summary><b>{method.name}</b><span class="quiet">({signature}){method.result ? ` → ${method.result.type}` : ''}</span></summary>
      {method.text && <p>{method.text}</p>}
      {method.result?.text && <p class="quiet">Gives {method.result.text}</p>}
      {method.here ? <p class="quiet">It means something inside the robot's own process only.</p> : (
        <form onSubmit={(event) => { event.preventDefault(); void call(); }}>
          {parameters.map((parameter, i) => (
            <label class="field wide" key={i}>
              <span>{parameter.name || `Argument ${i + 1}`} <span class="quiet">{parameter.type}{parameter.text && ` · ${parameter.text}`}</span></span>
              {parameter.type === 'bool'
                ? <select value={texts[i]} onChange={(event) => setTexts(texts.map((text, j) => (j === i ? event.currentTarget.value : text)))}><option>false</option><option>true</option></select>
                : <input value={texts[i]} autoComplete="off" onInput={(event) => setTexts(texts.map((text, j) => (j === i ? event.currentTarget.value : text)))} />}
            </label>
          ))}
          {store.mayWrite && <div class="actions"><button type="submit" disabled={isRunning}>{isRunning ? 'Running…' : 'Call'}</button></div>}
        </form>
      )}
      {outcome && <pre class={outcome.isError ? 'outcome error' : 'outcome'} role={outcome.isError ? 'alert' : 'status'} tabIndex={0}>{outcome.text}</pre>}
    </details>
  );
}

function SignalForm({ service, signal }: { service: string; signal: { name: string; signature: string } }) {
  const [text, setText] = useState('[]');
  const [error, setError] = useState('');
  const watched = store.signals.get(`${service}.${signal.name}`);
  const fail = (failure: Error) => setError(failure.message);
  const emit = async () => {
    try {
      await store.connection.ask('emit', { service, signal: signal.name, arguments: JSON.parse(text) as unknown });
      setError('');
    } catch (failure) {
      fail(failure as Error);
    }
  };
  const watch = () => store.watchSignal(service, signal.name, !watched).then(() => setError(''), fail);
  return (
    <details class="method">
      <summary><b>{signal.name}</b><span class="quiet">{signal.signature}</span>{watched && <span class="badge">watched</span>}</summary>
      <div class="actions">
        <button type="button" aria-pressed={watched !== undefined} onClick={() => void watch()}>{watched ? 'Watch no more' : 'Watch'}</button>
      </div>
      {watched && <Emissions watched={watched} />}
      {store.mayWrite && (
        <form onSubmit={(event) => { event.preventDefault(); void emit(); }}>
          <label class="field wide">Arguments, as a list<input value={text} onInput={(event) => setText(event.currentTarget.value)} /></label>
          <div class="actions"><button type="submit">Emit</button></div>
        </form>
      )}
      {error && <p class="error" role="alert">{error}</p>}
    </details>
  );
}

function Emissions({ watched }: { watched: Watched }) {
  useFrames(200);
  return (
    <>
      <p class="quiet" role="status">{watched.count.toLocaleString()} emissions since</p>
      <ol class="history">
        {watched.latest.slice(-20).reverse().map(([values, time], i) => <li key={i}><time>{timeText(time)}</time><span>{values.map(pretty).join(', ') || '()'}</span></li>)}
      </ol>
    </>
  );
}
