import { useEffect, useRef, useState } from 'preact/hooks';
import { bytesText } from './format';
import { useNews } from './hooks';
import type { Recording } from './known';
import { store } from './store';

const stateText = (recorder: Recording): string =>
  !recorder.recording ? 'Not recording' : recorder.paused ? 'Recording, paused' : 'Recording';

/** Where a recorder runs: whether it records, and what can be done with it. */
export function Recorder() {
  useNews();
  const [isOpen, setIsOpen] = useState(false);
  const panel = useRef<HTMLDivElement>(null);
  const { recorder } = store;
  useEffect(() => {
    if (!isOpen) return;
    const leave = (event: Event) => {
      const isElsewhere = event instanceof KeyboardEvent ? event.key === 'Escape' : !panel.current?.contains(event.target as Node);
      if (isElsewhere) setIsOpen(false);
    };
    addEventListener('pointerdown', leave);
    addEventListener('keydown', leave);
    return () => {
      removeEventListener('pointerdown', leave);
      removeEventListener('keydown', leave);
    };
  }, [isOpen]);
  if (!recorder) return null;
  return (
    <div class="recorder" ref={panel}>
      <button type="button" class="plain" aria-expanded={isOpen} onClick={() => setIsOpen(!isOpen)}>
        <span class={`lamp ${recorder.failure ? 'bad' : recorder.recording && !recorder.paused ? 'on' : ''}`} aria-hidden="true" />
        <span class="word">{stateText(recorder)}</span>
      </button>
      {isOpen && <Panel recorder={recorder} />}
    </div>
  );
}

function Panel({ recorder }: { recorder: Recording }) {
  const [note, setNote] = useState('');
  const [outcome, setOutcome] = useState<{ text: string; isError: boolean } | null>(null);
  const perform = (method: string, given: unknown[], done: string) => void store.call('HXRecorder', method, given).then(
    (value) => setOutcome({ text: typeof value === 'string' && value ? `${done}: ${value}` : done, isError: false }),
    (failure: Error) => setOutcome({ text: failure.message, isError: true }));
  const { recording, paused, blackBox } = recorder;
  return (
    <div class="popover" role="dialog" aria-label="Recorder">
      {recording && (
        <dl>
          <dt>File</dt><dd>{recorder.file}</dd>
          <dt>Changes</dt><dd>{recorder.changes?.toLocaleString()}<span class="quiet"> · {bytesText(recorder.bytes ?? 0)}</span></dd>
          {!!recorder.missed && <><dt>Missed</dt><dd class="overdue">{recorder.missed.toLocaleString()}</dd></>}
        </dl>
      )}
      {recorder.failure && <p class="error">{recorder.failure}</p>}
      {blackBox && <p class="quiet">The black box has the last {Math.round(blackBox.seconds)} s, {bytesText(blackBox.bytes)}.</p>}
      {store.mayWrite && (
        <>
          <div class="actions">
            {!recording && <button type="button" class="main" onClick={() => perform('start', [''], 'Recording')}>Record</button>}
            {recording && <button type="button" onClick={() => perform('stop', [], 'Written')}>Stop</button>}
            {recording && <button type="button" onClick={() => perform(paused ? 'resume' : 'pause', [], paused ? 'Going on' : 'Paused')}>{paused ? 'Go on' : 'Pause'}</button>}
            {recording && <button type="button" onClick={() => perform('split', [], 'Another file')}>Split</button>}
            {blackBox && <button type="button" onClick={() => perform('saveBlackBox', [], 'Saved')}>Save black box</button>}
          </div>
          <form class="note" onSubmit={(event) => {
            event.preventDefault();
            perform('note', [note], 'Noted');
            setNote('');
          }}>
            <input aria-label="Note" placeholder="Note this moment" value={note} onInput={(event) => setNote(event.currentTarget.value)} />
            <button type="submit" disabled={!note}>Note</button>
          </form>
        </>
      )}
      {outcome && <p class={outcome.isError ? 'error' : 'quiet'} role={outcome.isError ? 'alert' : 'status'}>{outcome.text}</p>}
    </div>
  );
}
