// A broker with a page, and a browser that looks at it.
import { spawn } from 'node:child_process';
import { mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { chromium } from 'playwright-core';

export const kToken = 'write-token-of-the-test';

export class Robot {
  constructor(program) {
    this.program = program;
    this.folder = mkdtempSync(join(tmpdir(), 'korvo-'));
    this.port = 0;
  }

  get address() {
    return `http://127.0.0.1:${this.port}`;
  }
  get environment() {
    return {
      ...process.env,
      XDG_RUNTIME_DIR: this.folder,
      KORVO_WEB_PORT: String(this.port),
      KORVO_WEB_ALLOW_WRITE: '1',
      KORVO_WEB_WRITE_TOKEN: kToken,
    };
  }

  /** Starts it, at the port that it had before. */
  async start(name = 'robot') {
    this.process = spawn(this.program, ['run', '--name', name, '--module', 'hosttelemetry', '--module', 'web'], {
      env: this.environment,
      stdio: ['ignore', 'ignore', 'pipe'],
    });
    let log = '';
    await new Promise((resolve, reject) => {
      this.process.stderr.on('data', (bytes) => {
        log += bytes;
        const found = /the page is at http:\/\/127\.0\.0\.1:(\d+)\//.exec(log);
        if (!found) return;
        this.port = Number(found[1]);
        if (log.includes('is running')) resolve();
      });
      this.process.on('exit', (status) => reject(new Error(`the broker ended with ${status}:\n${log}`)));
    });
  }

  /** Runs a command against it. */
  async korvo(...words) {
    const child = spawn(this.program, words, { env: this.environment, stdio: ['ignore', 'pipe', 'inherit'] });
    let text = '';
    for await (const bytes of child.stdout) text += bytes;
    return text.trim();
  }

  async kill(signal = 'SIGKILL') {
    if (!this.process || this.process.exitCode !== null || this.process.signalCode !== null) return;
    this.process.removeAllListeners('exit');
    const ended = new Promise((resolve) => this.process.on('exit', resolve));
    this.process.kill(signal);
    await ended;
  }

  async end() {
    await this.kill();
    rmSync(this.folder, { recursive: true, force: true });
  }
}

export function launch() {
  const quiet = ['--no-sandbox', '--disable-dev-shm-usage', '--disable-gpu', '--disable-quic', '--no-first-run',
    '--disable-background-networking', '--disable-component-update', '--disable-sync'];
  return chromium.launch({ executablePath: process.env.KORVO_CHROMIUM, args: quiet });
}
