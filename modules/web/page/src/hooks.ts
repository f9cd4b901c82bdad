import { useEffect, useLayoutEffect, useReducer, useState } from 'preact/hooks';
import { route, type Route } from './route';
import { store } from './store';

// Who listens does so as a layout effect, in the step that draws the component first: an effect comes some frames later,
// and what happens between is missed.

/** Draws the component again when the store has news. */
export function useNews(): void {
  const [, again] = useReducer((count: number) => count + 1, 0);
  useLayoutEffect(() => store.onNews(() => again(undefined as never)), []);
}

/** Draws the component again with what comes, but no more than so often. */
export function useFrames(each: number): void {
  const [, again] = useReducer((count: number) => count + 1, 0);
  useLayoutEffect(() => {
    let last = 0;
    let waiting = 0;
    const draw = () => {
      waiting = 0;
      last = performance.now();
      again(undefined as never);
    };
    const unlisten = store.onFrame(() => {
      const left = last + each - performance.now();
      // What comes too soon is drawn later: it may be the last for long.
      if (left <= 0) draw();
      else waiting ||= window.setTimeout(draw, left);
    });
    return () => {
      clearTimeout(waiting);
      unlisten();
    };
  }, [each]);
}

/** Asks the server now, and again every so many milliseconds while the page is looked at. What was told last stays. */
export function useAnswer<T>(op: string, each: number): { answer: T | null; error: string } {
  const [answer, setAnswer] = useState<T | null>(null);
  const [error, setError] = useState('');
  useEffect(() => {
    const ask = () => void store.connection.ask(op).then((told) => {
      setAnswer(told as unknown as T);
      setError('');
    }, (failure: Error) => setError(failure.message));
    ask();
    const again = setInterval(() => void (document.hidden || ask()), each);
    return () => clearInterval(again);
  }, [store.status]);
  return { answer, error };
}

export function useRoute(): Route {
  const [current, set] = useState(route);
  useLayoutEffect(() => {
    const listener = () => set(route());
    addEventListener('hashchange', listener);
    return () => removeEventListener('hashchange', listener);
  }, []);
  return current;
}

/** A piece of the browser's own memory. */
export function useKept<T>(name: string, otherwise: T): [T, (value: T) => void] {
  const [value, set] = useState<T>(() => {
    try {
      return JSON.parse(localStorage.getItem(`korvo-${name}`) ?? 'null') ?? otherwise;
    } catch {
      return otherwise;
    }
  });
  const keep = (next: T) => {
    set(next);
    try {
      localStorage.setItem(`korvo-${name}`, JSON.stringify(next));
    } catch {
      // Without room it is kept until the page goes.
    }
  };
  return [value, keep];
}
