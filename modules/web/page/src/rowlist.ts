import { hasChildren, isByAddress, isKey, isNumber, kindOf, typeOf } from './batch';
import { ageText, glanceText, rateText } from './format';
import { store, type Row, type Twig } from './store';

export const kRowHeight = 30;
const kSpare = 6; // Rows beyond each edge of the view.
const kGlow = 900; // ms
const kIsCalm = matchMedia('(prefers-reduced-motion: reduce)');

export interface Line {
  twig: Twig;
  depth: number;
  /** Shown by its whole name: a pinned one, or one that was searched for. */
  isLoose: boolean;
}

/** One line on the screen, whatever key it shows at the moment. */
class Cells {
  readonly element = document.createElement('div');
  private readonly name = this.cell('name');
  private readonly twisty = document.createElement('span');
  private readonly label = document.createElement('span');
  private readonly valueCell = this.cell('value');
  private readonly value = document.createElement('span');
  private readonly trend = document.createElement('canvas');
  private readonly type = this.cell('type');
  private readonly rate = this.cell('rate');
  private readonly age = this.cell('age');
  private readonly author = this.cell('author');
  private readonly shown = new Map<HTMLElement, string>();
  line: Line | null = null;
  private glowed = 0;
  private drawn = 0;

  constructor() {
    this.element.className = 'row';
    this.element.setAttribute('role', 'row');
    this.twisty.className = 'twisty';
    this.twisty.setAttribute('aria-hidden', 'true');
    this.label.className = 'label';
    this.name.append(this.twisty, this.label);
    this.trend.className = 'trend';
    this.trend.setAttribute('aria-hidden', 'true');
    const holder = this.cell('trendcell');
    holder.append(this.trend);
    this.valueCell.append(this.value);
    this.element.append(this.name, this.valueCell, holder, this.type, this.rate, this.age, this.author);
  }

  private cell(className: string): HTMLElement {
    const cell = document.createElement('div');
    cell.className = className;
    cell.setAttribute('role', 'gridcell');
    return cell;
  }

  /** @return Whether it was another text before. */
  private write(cell: HTMLElement, text: string): boolean {
    if (this.shown.get(cell) === text) return false;
    this.shown.set(cell, text);
    cell.textContent = text;
    return true;
  }

  show(line: Line, index: number, isSelected: boolean): void {
    if (this.line?.twig !== line.twig) {
      this.glowed = Date.now(); // What appears has not changed.
      this.drawn = 0;
    }
    this.line = line;
    const { twig, depth } = line;
    const hasMore = !line.isLoose && hasChildren(twig.facts);
    this.element.style.transform = `translateY(${index * kRowHeight}px)`;
    this.element.id = `row-${index}`;
    this.element.setAttribute('aria-rowindex', String(index + 1));
    this.element.setAttribute('aria-level', String(depth + 1));
    this.element.setAttribute('aria-selected', String(isSelected));
    if (hasMore) this.element.setAttribute('aria-expanded', String(twig.isOpen));
    else this.element.removeAttribute('aria-expanded');
    this.element.draggable = isKey(twig.facts);
    this.name.style.paddingLeft = `${8 + depth * 18}px`;
    this.twisty.textContent = hasMore ? (twig.isOpen ? '▾' : '▸') : '';
    this.write(this.label, twig.name || '(nothing)');
    this.label.title = twig.path;
  }

  update(now: number): void {
    if (!this.line) return;
    const { twig } = this.line;
    const row = store.rows.get(twig.id);
    const facts = row?.facts ?? twig.facts;
    this.element.classList.toggle('group', !isKey(facts));
    const type = typeOf(facts);
    if (!isKey(facts)) return this.updateGroup(row, now);
    if (row) store.measure(row, now);
    const isNew = this.write(this.value, row ? row.text ?? glanceText(row.value, type) : '');
    this.value.className = `${isNumber(type) ? 'number' : 'text'} t${type}`;
    this.write(this.type, kindOf(facts) === 'Data' ? type : `${type} · ${kindOf(facts) === 'Event' ? 'event' : 'micro'}`);
    this.write(this.rate, row ? rateText(row.rate) : '');
    this.write(this.age, row ? ageText(now - row.time) : '');
    this.write(this.author, isByAddress(facts) ? 'by address' : store.authorOf(facts));
    const isStale = row !== undefined && row.usualRate > 0.2 && now - row.time > Math.max(3000, 5000 / row.usualRate);
    const isOverdue = store.expected.get(twig.path)?.[3] ?? false;
    this.element.classList.toggle('stale', isStale && !isOverdue);
    this.element.classList.toggle('overdue', isOverdue);
    if (row && isNew) this.glow(row, now);
    if (row) this.draw(row);
  }

  private updateGroup(row: Row | undefined, now: number): void {
    const { twig } = this.line!;
    if (row) store.measure(row, now);
    const keys = row ? row.value : twig.keys;
    this.value.className = 'count';
    this.write(this.value, `${keys.toLocaleString()} ${keys === 1 ? 'key' : 'keys'}`);
    for (const cell of [this.type, this.age, this.author]) this.write(cell, '');
    this.write(this.rate, row ? rateText(row.rate) : '');
    this.element.classList.remove('stale', 'overdue');
    if (row && !twig.isOpen) this.glow(row, now);
    if (this.drawn) this.clear();
  }

  private glow(row: Row, now: number): void {
    if (row.changedAt <= this.glowed || kIsCalm.matches) return;
    // What changes all the time glows steadily instead of flickering.
    if (now - this.glowed < 250) return;
    this.glowed = now;
    this.value.animate([{ backgroundColor: 'var(--glow)' }, { backgroundColor: 'transparent' }], { duration: kGlow, easing: 'ease-out' });
  }

  private clear(): void {
    this.trend.getContext('2d')!.clearRect(0, 0, this.trend.width, this.trend.height);
    this.drawn = 0;
  }

  private draw(row: Row): void {
    const { trend } = row;
    if (trend.length < 2) return void (this.drawn && this.clear());
    if (this.drawn === row.trendAt) return;
    this.drawn = row.trendAt;
    const scale = devicePixelRatio || 1;
    const width = 88;
    const height = 20;
    if (this.trend.width !== width * scale) {
      this.trend.width = width * scale;
      this.trend.height = height * scale;
    }
    const context = this.trend.getContext('2d')!;
    context.setTransform(scale, 0, 0, scale, 0, 0);
    context.clearRect(0, 0, width, height);
    const least = Math.min(...trend);
    const span = Math.max(...trend) - least || 1;
    const isFlat = Math.max(...trend) === least;
    context.strokeStyle = getComputedStyle(this.element).getPropertyValue('--line').trim();
    context.lineWidth = 1.4;
    context.lineJoin = 'round';
    context.beginPath();
    trend.forEach((value, i) => {
      const x = width - 2 - (trend.length - 1 - i) * ((width - 4) / 47);
      const y = isFlat ? height / 2 : height - 3 - ((value - least) / span) * (height - 6);
      if (i === 0) context.moveTo(x, y);
      else context.lineTo(x, y);
    });
    context.stroke();
  }
}

/** A long list of which only what is in view is there. Rows have one height, and elements go from row to row. */
export class RowList {
  private readonly spacer = document.createElement('div');
  private readonly cells: Cells[] = [];
  private lines: Line[] = [];
  private selected = -1;
  private first = -1;
  private readonly observer: ResizeObserver;
  private readonly unlisten: () => void;
  private readonly clock: number;

  onSelect: (line: Line) => void = () => {};
  onToggle: (line: Line) => void = () => {};

  constructor(private readonly view: HTMLElement, private readonly part: string) {
    this.spacer.className = 'spacer';
    this.spacer.setAttribute('role', 'presentation');
    view.append(this.spacer);
    view.addEventListener('scroll', () => this.paint(), { passive: true });
    view.addEventListener('click', (event) => this.click(event));
    view.addEventListener('dragstart', (event) => this.drag(event));
    this.observer = new ResizeObserver(() => this.repaint());
    this.observer.observe(view);
    this.unlisten = store.onFrame(() => this.update());
    this.clock = window.setInterval(() => this.update(), 1000); // Ages grow without a change.
  }

  end(): void {
    this.observer.disconnect();
    this.unlisten();
    clearInterval(this.clock);
    store.watch(this.part, []);
  }

  setLines(lines: Line[], selectedPath: string): void {
    this.lines = lines;
    this.selected = lines.findIndex((line) => line.twig.path === selectedPath && isKey(line.twig.facts));
    this.spacer.style.height = `${lines.length * kRowHeight}px`;
    this.view.setAttribute('aria-rowcount', String(lines.length));
    this.repaint();
  }

  select(index: number): void {
    if (index < 0 || index >= this.lines.length) return;
    this.selected = index;
    const top = index * kRowHeight;
    if (top < this.view.scrollTop) this.view.scrollTop = top;
    else if (top + kRowHeight > this.view.scrollTop + this.view.clientHeight) this.view.scrollTop = top + kRowHeight - this.view.clientHeight;
    this.repaint();
  }

  key(event: KeyboardEvent): void {
    const line = this.lines[this.selected];
    const page = Math.max(1, Math.floor(this.view.clientHeight / kRowHeight) - 1);
    const steps: Record<string, number> = { ArrowDown: 1, ArrowUp: -1, PageDown: page, PageUp: -page, Home: -1e9, End: 1e9 };
    if (event.key in steps) {
      this.select(Math.max(0, Math.min(this.lines.length - 1, this.selected + steps[event.key])));
    } else if (line && event.key === 'ArrowRight' && !line.isLoose && hasChildren(line.twig.facts) && !line.twig.isOpen) {
      this.onToggle(line);
    } else if (line && event.key === 'ArrowLeft') {
      if (!line.isLoose && line.twig.isOpen) this.onToggle(line);
      else this.select(this.lines.findIndex((each) => each.twig === line.twig.parent));
    } else if (line && (event.key === 'Enter' || event.key === ' ')) {
      if (isKey(line.twig.facts)) this.onSelect(line);
      else this.onToggle(line);
    } else {
      return;
    }
    event.preventDefault();
  }

  private click(event: MouseEvent): void {
    const element = (event.target as HTMLElement).closest('.row');
    const cells = this.cells.find((each) => each.element === element);
    if (!cells?.line) return;
    const { line } = cells;
    this.selected = this.lines.indexOf(line);
    const isTwisty = (event.target as HTMLElement).closest('.twisty') !== null;
    if (!isKey(line.twig.facts) || isTwisty) this.onToggle(line);
    else this.onSelect(line);
    this.repaint();
  }

  private drag(event: DragEvent): void {
    const element = (event.target as HTMLElement).closest('.row');
    const line = this.cells.find((each) => each.element === element)?.line;
    if (line) event.dataTransfer?.setData('text/x-korvo-key', line.twig.path);
  }

  private repaint(): void {
    this.first = -1;
    this.paint();
  }

  private paint(): void {
    const first = Math.max(0, Math.floor(this.view.scrollTop / kRowHeight) - kSpare);
    if (first === this.first) return;
    this.first = first;
    const count = Math.min(this.lines.length - first, Math.ceil(this.view.clientHeight / kRowHeight) + 2 * kSpare);
    while (this.cells.length < count) {
      const cells = new Cells();
      this.cells.push(cells);
      this.spacer.append(cells.element);
    }
    this.cells.forEach((cells, i) => {
      cells.element.hidden = i >= count;
      if (i >= count) cells.line = null;
      else cells.show(this.lines[first + i], first + i, first + i === this.selected);
    });
    if (this.selected >= 0) this.view.setAttribute('aria-activedescendant', `row-${this.selected}`);
    const ids = this.lines.slice(first, first + count).map((line) => line.twig.id);
    store.watch(this.part, ids);
    this.update();
  }

  private update(): void {
    const now = Date.now();
    for (const cells of this.cells) if (cells.line) cells.update(now);
  }
}
