import { setParameter } from './route';

/** Whether a name is below another; everything is below the empty one. */
export const isUnder = (name: string, under: string): boolean => !under || name.startsWith(`${under}/`);

/** What the view is narrowed to, as another robot's part of the memory; a click shows all again. */
export function Under({ name }: { name: string }) {
  if (!name) return null;
  return (
    <button type="button" class="under" aria-label={`Only ${name}: show all`} onClick={() => setParameter('under', '')}>
      {name}<span aria-hidden="true"> ✕</span>
    </button>
  );
}
