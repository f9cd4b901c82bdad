import { durationText, rateText, timeText } from './format';
import { forWhomText, Table } from './health';
import type { Explanation } from './known';

/** What is known of a key beside its value: who changes it how often, who hears of it and how long that takes. */
export function Explained({ known }: { known: Explanation }) {
  const { rate, last, subscribers, calls, waits, extractor, mapped } = known;
  return (
    <section class="explained" aria-label="What is known of it">
      {known.odd.map((sentence) => <p key={sentence} class="odd"><span aria-hidden="true">! </span>{sentence}</p>)}
      <dl>
        {typeof rate === 'object' && <><dt>Rate</dt><dd>{rateText(rate.second) || '0/s'}<span class="quiet"> · over a minute {rateText(rate.minute) || '0/s'}</span></dd></>}
        {typeof last === 'object' && <><dt>Last</dt><dd>{last.what} by {last.author || 'the broker itself'}<span class="quiet"> · {timeText(last.time / 1000)}</span></dd></>}
        {extractor && <><dt>Extractor</dt><dd>{extractor.extractor}<span class="quiet"> · {extractor.failure ?? `for ${forWhomText(extractor)}`}</span></dd></>}
        {mapped.map((each) => (
          <><dt>Mapped</dt><dd>{each.service}.{each.signal}{!each.there && <span class="quiet"> · not there</span>}</dd></>
        ))}
      </dl>
      {subscribers.length > 0 && (
        <Table heads={['Subscriber', 'Took', 'Where']}>
          {subscribers.map((each) => (
            <tr key={`${each.module} ${each.method}`} class={(each.lastCall ?? 0) >= 0.1 || !each.there ? 'bad' : ''}>
              <td>{each.module}<span class="quiet">.{each.method}</span></td>
              <td class="figure">{each.lastCall === undefined ? '–' : durationText(each.lastCall)}</td>
              <td class="quiet">{each.there ? each.process : 'not there'}</td>
            </tr>
          ))}
        </Table>
      )}
      {calls.map((call) => <p key={call.subscriber} class="odd">{call.subscriber} is being called, for {durationText(call.lasts)}</p>)}
      {waits.map((wait, i) => <p key={i} class="odd">{wait.who || 'somebody'} waits for {wait.forWhom || 'another raise'}, for {durationText(wait.lasts)}</p>)}
    </section>
  );
}
