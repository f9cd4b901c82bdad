// What is shown stands in the address, behind the #, so that a link shows the same view.

export type View = 'memory' | 'plots' | 'events' | 'wiring' | 'services' | 'health' | 'fleet';
export const kViews: View[] = ['memory', 'plots', 'events', 'wiring', 'services', 'health', 'fleet'];
/** Views that can be narrowed to what is under a name, as another robot's part of the memory is. */
const kNarrowed: View[] = ['memory', 'events', 'services'];

export interface Route {
  view: View;
  parameters: URLSearchParams;
}

/** What each view showed last, so that it shows the same when one comes back to it. */
const lastQueries = new Map<View, string>();

let lastUnder = '';

/** Where a click on a view's name leads. */
export function lastAddressOf(view: View): string {
  const parameters = new URLSearchParams(lastQueries.get(view) ?? '');
  if (kNarrowed.includes(view)) narrow(parameters, lastUnder);
  return addressOf(view, parameters);
}

function narrow(parameters: URLSearchParams, under: string): void {
  if (under) parameters.set('under', under);
  else parameters.delete('under');
}

export function route(): Route {
  const [path, query = ''] = location.hash.replace(/^#\/?/, '').split('?');
  const view = kViews.find((each) => each === path) ?? 'memory';
  const parameters = new URLSearchParams(query);
  lastQueries.set(view, query);
  if (kNarrowed.includes(view)) lastUnder = parameters.get('under') ?? '';
  return { view, parameters };
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
