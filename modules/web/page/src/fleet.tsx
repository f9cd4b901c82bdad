import { useState } from 'preact/hooks';
import { ageText } from './format';
import { useAnswer, useNews } from './hooks';
import type { FleetRobot, FleetStatus } from './known';
import { addressOf } from './route';
import { store } from './store';

interface Answer {
  status: FleetStatus;
  robots: FleetRobot[];
  failure?: string; // Why robots cannot be told.
}

const kEach = 2000; // ms

/** The robots of the fleet, each a tile that leads into its memory. */
export function Fleet() {
  useNews();
  const { answer, error } = useAnswer<Answer>('fleet', kEach);
  if (!answer) return <p class="nothing" role={error ? 'alert' : undefined}>{error || 'Asking who is there…'}</p>;
  const { status, robots, failure } = answer;
  const trouble = error || (status.state === 'connected' && failure); // Else the state says it.
  return (
    <div class="fleet" tabIndex={0} aria-label="Robots of the fleet">
      <Standing status={status} robots={robots} />
      {trouble && <p class="error" role="alert">{trouble}</p>}
      <ul class="tiles">{robots.map((robot) => <Tile key={robot.robot} robot={robot} isOwn={robot.robot === status.robot} isFollowed={status.follows.includes(robot.robot)} />)}</ul>
    </div>
  );
}

function Standing({ status, robots }: { status: FleetStatus; robots: FleetRobot[] }) {
  if (status.state !== 'connected') {
    return <p class="verdict bad"><span aria-hidden="true">!</span>This robot, {status.robot}, is {status.state}: {status.reason}</p>;
  }
  const online = robots.filter((robot) => robot.state === 'online').length;
  return <p class="quiet">{online.toLocaleString()} of {robots.length.toLocaleString()} robots are online in the fleet “{status.fleet}” at {status.server}.</p>;
}

function Tile({ robot, isOwn, isFollowed }: { robot: FleetRobot; isOwn: boolean; isFollowed: boolean }) {
  const [error, setError] = useState('');
  const { robot: name, state } = robot;
  const isSeen = isOwn || isFollowed;
  const open = async () => {
    try {
      // What is followed has its keys under the robot's name in this memory.
      if (!isSeen) await store.call('HXFleet', 'follow', [name]);
      location.hash = addressOf('memory', new URLSearchParams(isOwn ? {} : { under: name }));
    } catch (failure) {
      setError((failure as Error).message);
    }
  };
  const leave = () => void store.call('HXFleet', 'unfollow', [name]).catch((failure: Error) => setError(failure.message));
  const figure = (of: string, count: number, isBad = false) => (
    <div class={isBad && count > 0 ? 'bad' : ''}><dt>{of}</dt><dd>{count.toLocaleString()}</dd></div>
  );
  return (
    <li class={`tile ${state}`}>
      <button type="button" class="into" disabled={!isSeen && !store.mayWrite} onClick={() => void open()}
        title={!isSeen && !store.mayWrite ? 'To bring its keys here takes the link that may write' : undefined}>
        <span class={`dot ${state === 'online' ? 'good' : 'bad'}`} aria-hidden="true" /><b>{name}</b>
        <span class="quiet">{state}</span>{isOwn && <span class="badge">this one</span>}
      </button>
      <p class="quiet">seen {seenText(robot.seen)} · {robot.host}</p>
      <dl>{figure('keys', robot.keys)}{figure('queued', robot.queued)}{figure('dropped', robot.dropped, true)}{figure('missed', robot.missed, true)}</dl>
      {isFollowed && !isOwn && (
        <div class="actions">
          <span class="badge">followed</span>
          {store.mayWrite && <button type="button" class="plain small" onClick={leave}>Follow no more</button>}
        </div>
      )}
      {error && <p class="error" role="alert">{error}</p>}
    </li>
  );
}

function seenText(seen: string): string {
  const age = ageText(Date.now() - Date.parse(seen));
  return age === 'now' ? age : `${age} ago`;
}
