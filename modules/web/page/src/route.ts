// What is shown stands in the address, behind the #, so that a link shows the same view.

export type View = 'memory' | 'plots' | 'events' | 'wiring' | 'services' | 'health';
export const kViews: View[] = ['memory', 'plots', 'events', 'wiring', 'services', 'health'];

export interface Route {
  view: View;
  parameters: URLSearchParams;
}

/** What each view showed last, so that it shows the same when one comes back to it. */
const lastQueries = new Map<View, string>();

/** Where a click on a view's name leads. */
export const lastAddressOf = (view: View): string => addressOf(view, new URLSearchParams(lastQueries.get(view) ?? ''));

export function route(): Route {
  const [path, query = ''] = location.hash.replace(/^#\/?/, '').split('?');
  const view = kViews.find((each) => each === path) ?? 'memory';
  lastQueries.set(view, query);
  return { view, parameters: new URLSearchParams(query) };
}

export function addressOf(view: View, parameters: URLSearchParams): string {
  const query = parameters.toString();
  return `#/${view}${query ? `?${query}` : ''}`;
}

/** Changes a parameter of the present view without a step in the browser's history. */
export function setParameter(name: string, value: string): void {
  const { view, parameters } = route();
  if (value) parameters.set(name, value);
  else parameters.delete(name);
  history.replaceState(null, '', addressOf(view, parameters));
  dispatchEvent(new HashChangeEvent('hashchange'));
}

export const isKiosk = (): boolean => new URLSearchParams(location.search).has('kiosk');

/** A token in the address becomes a cookie, and leaves the address. @return Whether there was one that was wrong. */
export async function tradeToken(): Promise<boolean> {
  const found = /^#token=([\w-]+)/.exec(location.hash);
  if (!found) return false;
  history.replaceState(null, '', location.pathname + location.search);
  const answer = await fetch('/token', { method: 'POST', body: found[1] });
  return !answer.ok;
}
