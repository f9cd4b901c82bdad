import type { TypeName } from './batch';

/** The shortest text that reads back as the same 32-bit float. */
function shortFloat(value: number): string {
  for (let digits = 1; digits < 9; ++digits) {
    const text = value.toPrecision(digits);
    if (Math.fround(Number(text)) === value) return String(Number(text));
  }
  return String(value);
}

export function numberText(value: number, type: TypeName): string {
  if (type === 'Bool') return value ? 'true' : 'false';
  const text = type === 'Float' ? shortFloat(value) : String(value);
  const isDecimal = type === 'Float' || type === 'Double';
  return isDecimal && /^-?\d+$/.test(text) ? `${text}.0` : text;
}

/** As a row shows it: as many digits as one can compare at a glance. */
export function glanceText(value: number, type: TypeName): string {
  const isLong = type === 'Double' && Number.isFinite(value) && !Number.isInteger(value) && String(value).length > 10;
  return numberText(isLong ? Number(value.toPrecision(9)) : value, type);
}

/** For axes and legends: few digits, and thousands by their letters. */
export function briefNumber(value: number): string {
  const size = Math.abs(value);
  if (size >= 1e15 || (size > 0 && size < 1e-4)) return value.toExponential(2);
  for (const [unit, letter] of [[1e12, 'T'], [1e9, 'G'], [1e6, 'M'], [1e4, 'k']] as const) {
    if (size >= unit) return `${Number((value / (letter === 'k' ? 1e3 : unit)).toPrecision(4))}${letter}`;
  }
  return String(Number(value.toPrecision(6)));
}

export function ageText(milliseconds: number): string {
  const seconds = Math.max(0, milliseconds) / 1000;
  if (seconds < 1) return 'now';
  if (seconds < 60) return `${Math.floor(seconds)} s`;
  if (seconds < 3600) return `${Math.floor(seconds / 60)} min`;
  if (seconds < 86400) return `${Math.floor(seconds / 3600)} h`;
  return `${Math.floor(seconds / 86400)} d`;
}

/** Seconds as one reads them: 0.35 ms, 12 s. */
export function durationText(seconds: number): string {
  if (seconds < 1e-3) return `${Math.round(seconds * 1e6)} µs`;
  if (seconds < 1) return `${Number((seconds * 1e3).toPrecision(2))} ms`;
  return seconds < 10 ? `${Number(seconds.toPrecision(2))} s` : ageText(seconds * 1000);
}

export function bytesText(bytes: number): string {
  return bytes < 1 << 30 ? `${Math.round(bytes / (1 << 20))} MiB` : `${(bytes / (1 << 30)).toFixed(1)} GiB`;
}

export function rateText(rate: number): string {
  if (rate < 0.05) return '';
  if (rate < 10) return `${rate.toFixed(1)}/s`;
  return rate < 10000 ? `${Math.round(rate)}/s` : `${(rate / 1000).toFixed(1)}k/s`;
}

const kClock = new Intl.DateTimeFormat(undefined, { hour: '2-digit', minute: '2-digit', second: '2-digit', hour12: false });

/** Time of day with milliseconds; the date before it when that is another day. */
export function timeText(milliseconds: number): string {
  if (!milliseconds) return '';
  const date = new Date(milliseconds);
  const clock = `${kClock.format(date)}.${String(date.getMilliseconds()).padStart(3, '0')}`;
  return date.toDateString() === new Date().toDateString() ? clock : `${date.toLocaleDateString()} ${clock}`;
}

export function pretty(value: unknown): string {
  return typeof value === 'string' ? value : JSON.stringify(value, null, 2) ?? 'nothing';
}
