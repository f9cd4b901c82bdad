import { useEffect, useRef } from 'preact/hooks';
import uPlot from 'uplot';
import { briefNumber } from './format';
import { store, type Series } from './store';

const kColours = ['--line1', '--line2', '--line3', '--line4', '--line5', '--line6'];
const kPointsKept = 60000; // Of a series: minutes at full rate, and a bound whatever comes.

export interface ChartControl {
  plot: uPlot;
  resetZoom: () => void;
}

interface Options {
  series: Series[];
  seconds: number;
  height: number;
  isSmall?: boolean;
  isPaused?: boolean;
  onReady?: (control: ChartControl) => void;
}

const styleOf = (name: string): string => getComputedStyle(document.documentElement).getPropertyValue(name).trim();
export const labelOf = (series: Series): string => series.key + series.path.map((step) => `[${step}]`).join('');

function aligned(series: Series[]): uPlot.AlignedData {
  for (const each of series) {
    const beyond = each.times.length - kPointsKept;
    if (beyond > kPointsKept / 10) {
      each.times.splice(0, beyond);
      each.values.splice(0, beyond);
    }
  }
  const tables = series.map((each) => [each.times.map((time) => time / 1000), each.values] as uPlot.AlignedData);
  if (tables.length === 0) return [[]];
  // Where another line has a point, this one has none, and is drawn through; a gap of its own stays one.
  return tables.length === 1 ? tables[0] : uPlot.join(tables, tables.map((table) => table.slice(1).map(() => 2)));
}

/** Lines over time. They run with the robot until somebody looks closer. */
export function Chart({ series, seconds, height, isSmall, isPaused, onReady }: Options) {
  const holder = useRef<HTMLDivElement>(null);
  const paused = useRef(false);
  paused.current = isPaused ?? false;
  const names = series.map(labelOf).join('\n');

  useEffect(() => {
    const element = holder.current!;
    let isZoomed = false;
    const axis: uPlot.Axis = {
      stroke: () => styleOf('--quiet'),
      grid: { stroke: () => styleOf('--grid'), width: 1 },
      ticks: { stroke: () => styleOf('--grid'), width: 1 },
      font: '11px system-ui, sans-serif',
    };
    const plot = new uPlot(
      {
        width: Math.max(120, element.clientWidth),
        height,
        legend: { show: !isSmall, live: true },
        cursor: { drag: { x: !isSmall, y: false }, points: { size: 6 }, show: !isSmall || true },
        scales: { x: { time: true } },
        axes: [
          { ...axis, size: 30, space: 70 },
          { ...axis, size: 58, values: (_, splits) => splits.map(briefNumber) },
        ],
        series: [
          {},
          ...series.map((each, i) => ({
            label: labelOf(each),
            stroke: () => styleOf(kColours[i % kColours.length]),
            width: 1.6,
            points: { show: false },
            value: (_: uPlot, value: number | null) => (value === null || value === undefined ? '–' : briefNumber(value)),
          })),
        ],
        hooks: { setSelect: [() => void (isZoomed = true)] },
      },
      [[], ...series.map(() => [])] as unknown as uPlot.AlignedData,
      element,
    );
    const draw = () => {
      if (paused.current || isZoomed) return;
      plot.batch(() => {
        plot.setData(aligned(series), false);
        const newest = Date.now() / 1000;
        plot.setScale('x', { min: newest - seconds, max: newest });
      });
    };
    draw();
    let last = 0;
    const unlisten = store.onFrame(() => {
      const now = performance.now();
      if (now - last < 33) return;
      last = now;
      draw();
    });
    const clock = window.setInterval(draw, 1000); // Time goes on when nothing changes.
    const observer = new ResizeObserver(() => plot.setSize({ width: Math.max(120, element.clientWidth), height }));
    observer.observe(element);
    // The colours of lines are read when they are drawn.
    const scheme = new MutationObserver(() => plot.redraw());
    scheme.observe(document.documentElement, { attributeFilter: ['data-scheme'] });
    const resetZoom = () => {
      isZoomed = false;
      draw();
    };
    plot.over.addEventListener('dblclick', resetZoom);
    onReady?.({ plot, resetZoom });
    return () => {
      unlisten();
      clearInterval(clock);
      observer.disconnect();
      scheme.disconnect();
      plot.destroy();
    };
  }, [names, seconds, height]);
  return <div class="chart" ref={holder} role="img" aria-label={`Plot of ${series.map(labelOf).join(', ')}`} />;
}
