import { addressOf } from './route';
import { partText } from './parttext';

const kShown = 60;

/** Where in a value numbers are, as far as anybody would look for them. */
function numbersIn(value: unknown, path: string[] = [], found: string[][] = []): string[][] {
  if (found.length > kShown || path.length > 8) return found;
  if (typeof value === 'number' || typeof value === 'boolean') found.push(path);
  else if (Array.isArray(value)) value.forEach((part, i) => numbersIn(part, [...path, String(i)], found));
  else if (value && typeof value === 'object') for (const [name, part] of Object.entries(value)) numbersIn(part, [...path, name], found);
  return found;
}

/** The numbers of a list or a map: to be dragged into a plot, or plotted by a click. */
export function Parts({ name, value }: { name: string; value: unknown }) {
  const paths = numbersIn(value);
  if (paths.length === 0) return null;
  return (
    <div class="parts" role="group" aria-label="Plot a part of it">
      {paths.slice(0, kShown).map((path) => (
        <a key={path.join('~')} class="part" draggable href={addressOf('plots', new URLSearchParams({ p: partText(name, path) }))}
          onDragStart={(event) => event.dataTransfer?.setData('text/x-korvo-key', name + path.map((step) => `[${step}]`).join(''))}>
          {path.join('.')}
        </a>
      ))}
      {paths.length > kShown && <span class="quiet">and more</span>}
    </div>
  );
}
