// What the server sends at once. See modules/web/src/page/batch.h.

export interface Batch {
  number: number;
  ids: Uint32Array;
  counts: Uint32Array;
  facts: Uint32Array;
  values: Float64Array;
  times: Float64Array;
  series: Uint32Array;
  lengths: Uint32Array;
  pointTimes: Float64Array;
  pointValues: Float64Array;
  rest: Rest;
}

export type ChildEntry = [id: number, name: string, facts: number, keys: number];
export type RaiseEntry = [number: number, key: string, value: string, time: number, author: number, isMicro: boolean];

export interface KeyState {
  key: string;
  gone?: boolean;
  id: number;
  value: unknown;
  whole: boolean;
  facts: number;
  time: number;
  revision: number;
  nth: number;
}

export interface Rest {
  texts?: [row: number, text: string][];
  authors?: string[];
  keys?: number;
  changes?: number;
  complete?: boolean;
  reopen?: boolean;
  moved?: [parent: number, child: ChildEntry | number][];
  raises?: RaiseEntry[];
  raisesLeftOut?: number;
  key?: KeyState;
  emitted?: [signal: string, count: number, latest: [values: unknown[], time: number][]][];
}

const kMark = 0x3142574b;

export function decode(buffer: ArrayBuffer): Batch {
  const [mark, number, rows, series, points, json] = new Uint32Array(buffer, 0, 6);
  if (mark !== kMark) throw new Error('this is no batch');
  let at = 24;
  const decimals = (count: number) => {
    const column = new Float64Array(buffer, at, count);
    at += 8 * count;
    return column;
  };
  const integers = (count: number) => {
    const column = new Uint32Array(buffer, at, count);
    at += 4 * count;
    return column;
  };
  const values = decimals(rows);
  const times = decimals(rows);
  const pointTimes = decimals(points);
  const pointValues = decimals(points);
  const ids = integers(rows);
  const counts = integers(rows);
  const facts = integers(rows);
  const seriesIds = integers(series);
  const lengths = integers(series);
  const rest: Rest = json ? JSON.parse(new TextDecoder().decode(new Uint8Array(buffer, at, json))) : {};
  return { number, ids, counts, facts, values, times, series: seriesIds, lengths, pointTimes, pointValues, rest };
}

// --- What is packed into a node's facts ---------------------------------------------------------------------------

export const kTypes = ['Invalid', 'Bool', 'Int', 'Int64', 'Float', 'Double', 'String', 'Binary', 'List', 'Map'] as const;
export type TypeName = (typeof kTypes)[number];
export const typeOf = (facts: number): TypeName => kTypes[facts & 15] ?? 'Invalid';
export const kindOf = (facts: number): string => ['Unknown', 'Data', 'Data', 'Event', 'MicroEvent'][(facts >> 4) & 7] ?? '';
export const isByAddress = (facts: number): boolean => ((facts >> 10) & 1) === 1;
export const isKey = (facts: number): boolean => ((facts >> 11) & 1) === 1;
export const hasChildren = (facts: number): boolean => ((facts >> 12) & 1) === 1;
export const authorOf = (facts: number): number => facts >>> 16;
export const isNumber = (type: TypeName): boolean => ['Bool', 'Int', 'Int64', 'Float', 'Double'].includes(type);
