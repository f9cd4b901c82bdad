import { useEffect, useMemo, useRef, useState } from 'preact/hooks';
import { isByAddress, isNumber, kindOf, typeOf, type KeyState } from './batch';
import { Chart } from './chart';
import { Explained } from './explained';
import type { Explanation } from './known';
import { Parts } from './parts';
import { Editor, kEditable, rawOf, type Draft } from './editor';
import { ageText, durationText, numberText, pretty, timeText } from './format';
import { useFrames, useKept } from './hooks';
import { addressOf } from './route';
import { store, type Series } from './store';

interface About {
  description?: string;
  kind?: string;
  history?: unknown;
  subscribers?: string[];
  explanation?: Explanation;
}

interface Prepared {
  key: string;
  op: 'set' | 'raise' | 'raiseMicro';
  draft: Draft;
}

const textOf = (state: KeyState): string => {
  const type = typeOf(state.facts);
  return isNumber(type) ? numberText(Number(state.value), type) : type === 'String' ? String(state.value) : pretty(state.value);
};

/** All that is known of a key, and what can be done with it. */
export function KeyView({ name, isPinned, onPin, onClose }: { name: string; isPinned: boolean; onPin: () => void; onClose: () => void }) {
  useFrames(0);
  const [about, setAbout] = useState<About>({});
  const state = store.key?.key === name ? store.key : null;
  const heading = useRef<HTMLHeadingElement>(null);
  const text = useMemo(() => (state && !state.gone ? textOf(state) : ''), [state]); // Drawn often, and may be long.

  const ask = () => void store.connection.ask('about', { key: name }).then((answer) => setAbout(answer as About), () => {});
  useEffect(() => {
    store.lookAt(name);
    heading.current?.focus({ preventScroll: true });
    return () => store.lookAt('');
  }, [name]);
  useEffect(() => {
    ask();
    const again = setInterval(ask, 3000);
    return () => clearInterval(again);
  }, [name, store.status]);

  if (state?.gone) {
    return (
      <aside class="key" aria-label={name}>
        <Head name={name} heading={heading} onClose={onClose} />
        <p class="nothing">There is no key of this name now. It shows here once it is there.</p>
      </aside>
    );
  }
  const type = state ? typeOf(state.facts) : 'Invalid';
  return (
    <aside class="key" aria-label={name}>
      <Head name={name} heading={heading} onClose={onClose} />
      {state && (
        <>
          <div class="badges">
            <span class="badge">{type}</span>
            <span class="badge">{kindOf(state.facts)}</span>
            {isByAddress(state.facts) && <span class="badge warm" title="Somebody holds its address and may change it unseen">by address</span>}
            <span class="grow" />
            {isNumber(type) && <a class="button plain" href={addressOf('plots', new URLSearchParams({ p: name }))}>Plot</a>}
            <button type="button" class="plain" aria-pressed={isPinned} onClick={onPin}>{isPinned ? '★ Pinned' : '☆ Pin'}</button>
          </div>
          <pre class={`large t${type}`} tabIndex={0} aria-label="Value">{text}</pre>
          {!state.whole && <p class="quiet">It is too long to be shown whole.</p>}
          {isNumber(type) && <MiniPlot name={name} />}
          {(type === 'List' || type === 'Map') && state.whole && <Parts name={name} value={state.value} />}
          <dl>
            <dt>Changed</dt><dd>{timeText(state.time)}{state.time > 0 && <span class="quiet"> · {ageText(Date.now() - state.time)}</span>}</dd>
            <dt>By</dt><dd>{store.authorOf(state.facts) || <span class="quiet">not known</span>}</dd>
            <dt>Changes</dt><dd>{state.nth.toLocaleString()}{state.revision > 0 && <span class="quiet"> · revision {state.revision}</span>}</dd>
            <Expected name={name} />
            {about.subscribers && !about.explanation && <><dt>Subscribers</dt><dd>{about.subscribers.length > 0 ? about.subscribers.join(', ') : <span class="quiet">none</span>}</dd></>}
          </dl>
          {about.explanation && <Explained known={about.explanation} />}
          <Description name={name} text={about.description ?? ''} onDone={ask} />
          {store.mayWrite && <Writing key={`${name} ${type}`} name={name} state={state} onClose={onClose} />}
          <History history={about.history} />
        </>
      )}
    </aside>
  );
}

/** How often it is to be written, where somebody has said so. */
function Expected({ name }: { name: string }) {
  const expected = store.expected.get(name);
  if (!expected) return null;
  const [, , limit, isOverdue] = expected;
  return <><dt>Expected</dt><dd class={isOverdue ? 'overdue' : ''}>every {durationText(limit)}{isOverdue && ' · overdue'}</dd></>;
}

function Head({ name, heading, onClose }: { name: string; heading?: { current: HTMLHeadingElement | null }; onClose: () => void }) {
  const cut = name.lastIndexOf('/') + 1;
  return (
    <header>
      <h2 ref={heading} tabIndex={-1}><span class="quiet">{name.slice(0, cut)}</span><wbr />{name.slice(cut)}</h2>
      <button type="button" class="plain close" aria-label="Close" onClick={onClose}>✕</button>
    </header>
  );
}

function MiniPlot({ name }: { name: string }) {
  const [series, set] = useState<Series | null>(null);
  useEffect(() => {
    const made = store.addSeries(name, []);
    set(made);
    return () => store.removeSeries(made);
  }, [name]);
  return series && <Chart series={[series]} seconds={60} height={120} isSmall />;
}

function Description({ name, text, onDone }: { name: string; text: string; onDone: () => void }) {
  const [draft, setDraft] = useState<string | null>(null);
  const [error, setError] = useState('');
  if (!store.mayWrite && !text) return null;
  if (draft === null) {
    return (
      <p class="description">
        {text || <span class="quiet">No description.</span>}{' '}
        {store.mayWrite && <button type="button" class="plain small" onClick={() => setDraft(text)}>{text ? 'Change' : 'Describe'}</button>}
      </p>
    );
  }
  const save = () => store.connection.ask('describe', { key: name, value: draft }).then(() => {
    setDraft(null);
    setError('');
    onDone();
  }, (failure: Error) => setError(failure.message));
  return (
    <form class="description" onSubmit={(event) => { event.preventDefault(); void save(); }}>
      <label class="field wide">Description<textarea rows={2} value={draft} onInput={(event) => setDraft(event.currentTarget.value)} /></label>
      <div class="actions">
        <button type="submit">Describe</button>
        <button type="button" class="plain" onClick={() => setDraft(null)}>Cancel</button>
      </div>
      {error && <p class="error" role="alert">{error}</p>}
    </form>
  );
}

function Writing({ name, state, onClose }: { name: string; state: KeyState; onClose: () => void }) {
  const type = typeOf(state.facts);
  const kind = kindOf(state.facts);
  const [draft, setDraft] = useState<Draft>({ type: kEditable.includes(type) ? type : 'String', text: kEditable.includes(type) ? textOf(state) : '' });
  const [error, setError] = useState('');
  const [done, setDone] = useState('');
  const [asks, setAsks] = useState(false);
  const [prepared, setPrepared] = useKept<Prepared[]>('prepared', []);
  const mine = prepared.filter((each) => each.key === name);

  const perform = async (op: string, what: Draft | null) => {
    setError('');
    try {
      await store.connection.ask(op, { key: name, ...(what ? { type: what.type } : {}) }, what ? rawOf(what) : undefined);
      setDone(op === 'set' ? 'Set' : op === 'remove' ? 'Removed' : 'Raised');
      setTimeout(() => setDone(''), 1500);
      if (op === 'remove') onClose();
    } catch (failure) {
      setError((failure as Error).message);
    }
  };
  const usual = kind === 'Data' ? 'set' : kind === 'Event' ? 'raise' : 'raiseMicro';
  return (
    <form class="writing" onSubmit={(event) => { event.preventDefault(); void perform(usual, draft); }}>
      <h3>Write</h3>
      <Editor draft={draft} onDraft={setDraft} />
      <div class="actions">
        {kind === 'Data' ? <button type="submit" class="main">Set</button> : <button type="submit" class="main">Raise</button>}
        {kind === 'Data' && <button type="button" onClick={() => void perform('raise', draft)}>Raise as event</button>}
        <button type="button" class="plain" title="Keep this write as a button"
          onClick={() => setPrepared([...prepared, { key: name, op: usual, draft }])}>Prepare</button>
        <span class="grow" />
        {asks
          ? <><button type="button" class="danger" onClick={() => void perform('remove', null)}>Remove {name}</button>
              <button type="button" class="plain" onClick={() => setAsks(false)}>Keep</button></>
          : <button type="button" class="plain danger" onClick={() => setAsks(true)}>Remove…</button>}
      </div>
      {error && <p class="error" role="alert">{error}</p>}
      <p class="done" role="status">{done}</p>
      {mine.length > 0 && (
        <div class="prepared" role="group" aria-label="Prepared writes">
          {mine.map((each, i) => (
            <span class="pair" key={i}>
              <button type="button" onClick={() => void perform(each.op, each.draft)}>{each.op === 'set' ? 'Set' : 'Raise'} {each.draft.text.slice(0, 24)}</button>
              <button type="button" class="plain small" aria-label={`Forget ${each.draft.text.slice(0, 24)}`}
                onClick={() => setPrepared(prepared.filter((other) => other !== each))}>✕</button>
            </span>
          ))}
        </div>
      )}
    </form>
  );
}

/** Each entry is [value, seconds, microseconds of that second]. */
function History({ history }: { history: unknown }) {
  if (!Array.isArray(history) || history.length === 0) return null;
  const entries = (history as [unknown, number, number][]).slice().reverse();
  return (
    <details open>
      <summary>Last {entries.length} raises</summary>
      <ol class="history">
        {entries.map(([value, seconds, micros], i) => (
          <li key={i}><time>{timeText(seconds * 1000 + micros / 1000)}</time> <span>{pretty(value)}</span></li>
        ))}
      </ol>
    </details>
  );
}

export function NewKey({ onClose }: { onClose: () => void }) {
  const [name, setName] = useState('');
  const [draft, setDraft] = useState<Draft>({ type: 'Int', text: '0' });
  const [error, setError] = useState('');
  const create = async (op: string) => {
    setError('');
    try {
      if (!name) throw new Error('a key needs a name');
      await store.connection.ask(op, { key: name, type: draft.type }, rawOf(draft));
      location.hash = addressOf('memory', new URLSearchParams({ key: name }));
      onClose();
    } catch (failure) {
      setError((failure as Error).message);
    }
  };
  return (
    <aside class="key" aria-label="New key">
      <Head name="New key" onClose={onClose} />
      <form class="writing" onSubmit={(event) => { event.preventDefault(); void create('set'); }}>
        <label class="field wide">Name<input value={name} placeholder="Arm/Speed" autoComplete="off" onInput={(event) => setName(event.currentTarget.value)} /></label>
        <Editor draft={draft} onDraft={setDraft} />
        <div class="actions">
          <button type="submit" class="main">Set</button>
          <button type="button" onClick={() => void create('raise')}>Raise as event</button>
        </div>
        {error && <p class="error" role="alert">{error}</p>}
      </form>
    </aside>
  );
}
