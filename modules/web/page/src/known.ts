// What modules tell of the memory: as HXJournal and HXFreshness give it. Times are microseconds, durations seconds.

export interface Subscriber {
  module: string;
  method: string;
  since: number;
  there: boolean;
  process: string;
  lastCall?: number;
  key?: string;
}
export interface Wait {
  event: string;
  who: string;
  forWhom: string;
  lasts: number;
}
export interface Production {
  extractor: string;
  event: string;
  there: boolean;
  for: { module: string; since: number; asked: boolean; subscribed: boolean; failure?: string }[];
  forNobody?: boolean;
  failure?: string;
}
export interface Explanation {
  last: { time: number; what: string; author: string; revision: number } | string;
  rate: { second: number; minute: number } | string;
  reach?: number;
  subscribers: Subscriber[];
  calls: { subscriber: string; lasts: number }[];
  waits: Wait[];
  extractor: Production | null;
  mapped: { service: string; signal: string; there: boolean }[];
  odd: string[];
}
export interface Report {
  wrong: string[];
  process: number;
  residentBytes: number;
  keys: number;
  recording: boolean;
  changesPerSecond: number | string;
  subscriptions: number;
  slowest: Subscriber[];
  calls: { event: string; subscriber: string; lasts: number }[];
  waits: Wait[];
  dropped: { event: string; module: string; why: string; time: number }[];
  followers: { who: string; behind: number; gaps: number; paused: boolean }[];
  extractors: Production[];
  severalAuthors: { key: string; authors: string[]; retyped: number }[] | string;
}
/** How this robot stands with its fleet: as HXFleet tells it. */
export interface FleetStatus {
  state: 'connected' | 'cut' | 'away' | 'refused' | 'left';
  reason: string;
  robot: string;
  fleet: string;
  server: string;
  /** The robots whose keys are in this memory, under their names. */
  follows: string[];
}
/** A robot of the fleet, as it told last. */
export interface FleetRobot {
  robot: string;
  state: 'online' | 'off';
  seen: string;
  host: string;
  version: string;
  queued: number;
  dropped: number;
  missed: number;
  keys: number;
}
/** [key, seconds since it was written, seconds that it may stay unwritten, whether it is overdue] */
export type Expectation = [key: string, age: number, limit: number, isOverdue: boolean];
/** As HXRecorder tells it; but for the first, only while it records. */
export interface Recording {
  recording: boolean;
  paused?: boolean;
  file?: string;
  changes?: number;
  bytes?: number;
  missed?: number;
  failure?: string;
  blackBox?: { bytes: number; seconds: number; files: number };
}
