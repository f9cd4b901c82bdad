import type { ComponentChildren } from 'preact';
import { bytesText, durationText, timeText } from './format';
import { useAnswer, useNews } from './hooks';
import type { Expectation, Production, Report } from './known';
import { addressOf } from './route';

interface Answer {
  report: Report | null;
  expectations: Expectation[] | null;
}

const kEach = 3000; // ms

export const KeyLink = ({ name }: { name: string }) => <a href={addressOf('memory', new URLSearchParams({ key: name }))}>{name}</a>;

/** How the memory is: what is wrong first, then who is slow, behind, expected, and for whom something is produced. */
export function Health() {
  useNews();
  const { answer, error } = useAnswer<Answer>('health', kEach);
  if (error && !answer) return <p class="nothing" role="alert">{error}</p>;
  if (!answer) return <p class="nothing">Asking how it is…</p>;
  const { report, expectations } = answer;
  if (!report) return <p class="nothing">The module journal, which knows how the memory is, does not run in this broker.</p>;
  return (
    <div class="health" tabIndex={0} aria-label="Health of the memory">
      <Verdict wrong={report.wrong} />
      <Figures report={report} />
      <div class="cards">
        <Card title="Subscribers by their last call" count={report.subscriptions} isEmpty={report.slowest.length === 0} none="Nobody has been called yet.">
          <Table heads={['Subscriber', 'Event', 'Took']}>
            {report.slowest.map((each) => (
              <tr key={`${each.module} ${each.key}`} class={(each.lastCall ?? 0) >= 0.1 ? 'bad' : ''}>
                <td>{each.module}<span class="quiet">.{each.method}</span></td>
                <td><KeyLink name={each.key ?? ''} /></td>
                <td class="figure">{durationText(each.lastCall ?? 0)}</td>
              </tr>
            ))}
          </Table>
        </Card>
        <Card title="Followers" count={report.followers.length} isEmpty={report.followers.length === 0} none="Nobody follows.">
          <Table heads={['Who', 'Behind', 'Missed']}>
            {report.followers.map((each, i) => (
              <tr key={i} class={each.gaps > 0 ? 'bad' : ''}>
                <td>{each.who || 'the broker itself'}{each.paused && <span class="quiet"> paused</span>}</td>
                <td class="figure">{each.behind.toLocaleString()}</td>
                <td class="figure">{each.gaps.toLocaleString()}</td>
              </tr>
            ))}
          </Table>
        </Card>
        {expectations && <Freshness expectations={expectations} />}
        <Productions productions={report.extractors} />
        <Several report={report} />
        {report.dropped.length > 0 && (
          <Card title="Subscriptions that have ended" count={report.dropped.length} isEmpty={false}>
            <Table heads={['Subscriber', 'Event', 'When', 'Why']}>
              {report.dropped.slice(-12).reverse().map((each, i) => (
                <tr key={i}><td>{each.module}</td><td><KeyLink name={each.event} /></td><td class="figure">{timeText(each.time / 1000)}</td><td>{each.why}</td></tr>
              ))}
            </Table>
          </Card>
        )}
      </div>
    </div>
  );
}

function Verdict({ wrong }: { wrong: string[] }) {
  if (wrong.length === 0) return <p class="verdict good"><span aria-hidden="true">✓</span>Nothing is wrong.</p>;
  return (
    <section class="verdict bad" aria-label="What is wrong">
      <span aria-hidden="true">!</span>
      <ul>{wrong.map((sentence) => <li key={sentence}>{sentence}</li>)}</ul>
    </section>
  );
}

function Figures({ report }: { report: Report }) {
  const rate = typeof report.changesPerSecond === 'number' ? Math.round(report.changesPerSecond).toLocaleString() : '–';
  const figures: [string, string][] = [
    [report.keys.toLocaleString(), 'keys'],
    [rate, 'changes a second'],
    [report.subscriptions.toLocaleString(), 'subscriptions'],
    [bytesText(report.residentBytes), `memory of process ${report.process}`],
    [String(report.calls.length), 'calls under way'],
    [String(report.waits.length), 'raises that wait'],
  ];
  return <dl class="figures">{figures.map(([figure, of]) => <div key={of}><dt>{of}</dt><dd>{figure}</dd></div>)}</dl>;
}

function Card({ title, count, isEmpty, none, children }:
    { title: string; count: number; isEmpty: boolean; none?: string; children: ComponentChildren }) {
  return (
    <section class="card" aria-label={title}>
      <h2>{title} <span class="quiet">{count.toLocaleString()}</span></h2>
      {isEmpty ? <p class="quiet">{none}</p> : children}
    </section>
  );
}

export function Table({ heads, children }: { heads: string[]; children: ComponentChildren }) {
  return <table><thead><tr>{heads.map((head) => <th key={head} scope="col">{head}</th>)}</tr></thead><tbody>{children}</tbody></table>;
}

function Freshness({ expectations }: { expectations: Expectation[] }) {
  const sorted = [...expectations].sort((a, b) => Number(b[3]) - Number(a[3]));
  return (
    <Card title="Keys that are expected" count={expectations.length} isEmpty={expectations.length === 0} none="None: korvo expect names them.">
      <Table heads={['Key', 'Written', 'At least every']}>
        {sorted.slice(0, 40).map(([key, age, limit, isOverdue]) => (
          <tr key={key} class={isOverdue ? 'bad' : ''}>
            <td><KeyLink name={key} /></td><td class="figure">{durationText(age)} ago</td><td class="figure">{durationText(limit)}</td>
          </tr>
        ))}
      </Table>
    </Card>
  );
}

export const forWhomText = (production: Production): string =>
  production.for.map((each) => each.module).join(', ') || 'nobody';

function Productions({ productions }: { productions: Production[] }) {
  return (
    <Card title="Extractors" count={productions.length} isEmpty={productions.length === 0} none="No event has one.">
      <Table heads={['Extractor', 'Event', 'For']}>
        {productions.slice(0, 60).map((each) => (
          <tr key={`${each.extractor} ${each.event}`} class={each.failure || each.forNobody ? 'bad' : ''}>
            <td>{each.extractor}{!each.there && <span class="quiet"> not there</span>}</td>
            <td><KeyLink name={each.event} /></td>
            <td>{each.failure ?? forWhomText(each)}</td>
          </tr>
        ))}
      </Table>
    </Card>
  );
}

function Several({ report }: { report: Report }) {
  const several = Array.isArray(report.severalAuthors) ? report.severalAuthors : [];
  if (several.length === 0) return null;
  return (
    <Card title="Keys with several authors" count={several.length} isEmpty={false}>
      <Table heads={['Key', 'Authors']}>
        {several.map((each) => <tr key={each.key}><td><KeyLink name={each.key} /></td><td>{each.authors.map((author) => author || 'the broker itself').join(', ')}</td></tr>)}
      </Table>
    </Card>
  );
}
