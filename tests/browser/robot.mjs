// A broker with a page.
import { spawn } from 'node:child_process';
import { mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';

export const kToken = 'write-token-of-the-test';
const kWriter = new URL('writer.py', import.meta.url).pathname;

export class Robot {
  constructor(program, name = 'robot') {
    this.program = program;
    this.name = name;
    this.folder = mkdtempSync(join(tmpdir(), 'korvo-'));
    this.port = 0;
    this.hub = ''; // Of its fleet; none for a robot that is in none.
    this.parameters = []; // Patterns of keys that viewers are offered.
    this.origins = ['https://viewer.example']; // Whose pages are let in.
  }

  get address() {
    return `http://127.0.0.1:${this.port}`;
  }
  get environment() {
    return {
      ...process.env,
      XDG_RUNTIME_DIR: this.folder,
    };
  }
  get settings() {
    return [
      `name = "${this.name}"`,
      '[modules.hosttelemetry]',
      '[modules.recorder]',
      `folder = "${join(this.folder, 'recordings')}"`,
      'min-free = "1MiB"',
      'black-box = "30s"',
      '[modules.web]',
      `port = ${this.port}`,
      'allow-write = true',
      `write-token = "${kToken}"`,
      `parameters = ${JSON.stringify(this.parameters)}`,
      `allow-origins = ${JSON.stringify(this.origins)}`,
      ...(this.hub ? ['[modules.fleet]', `url = "${this.hub}"`, `robot = "${this.name}"`] : []),
    ].join('\n');
  }

  /** Starts it, at the port that it had before. */
  async start() {
    const file = join(this.folder, 'robot.toml');
    writeFileSync(file, this.settings);
    this.process = spawn(this.program, ['run', file], {
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

  /** Has writer.py write keys for a while. @return How many changes a second the memory took. */
  async write(keys, rate, seconds) {
    const socket = join(this.folder, 'korvo', `${this.name}.sock`);
    const words = [kWriter, socket, keys, rate, seconds].map(String);
    const child = spawn('python3', words, { stdio: ['ignore', 'pipe', 'inherit'] });
    let printed = '';
    for await (const bytes of child.stdout) printed += bytes;
    return Number(printed);
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
