// A fleet's hub.
import { spawn, spawnSync } from 'node:child_process';
import { existsSync, mkdtempSync, rmSync } from 'node:fs';
import { createServer } from 'node:net';
import { tmpdir } from 'node:os';
import { dirname, join } from 'node:path';

export const hasFleet = (program) =>
  existsSync(join(dirname(program), 'korvo-fleet')) && !spawnSync('nats-server', ['--version']).error;

async function freePort() {
  const listener = createServer();
  await new Promise((resolve) => listener.listen(0, '127.0.0.1', resolve));
  const { port } = listener.address();
  await new Promise((resolve) => listener.close(resolve));
  return port;
}

export class Hub {
  static async start(program) {
    const hub = new Hub();
    const port = await freePort();
    hub.address = `nats://localhost:${port}`;
    hub.folder = mkdtempSync(join(tmpdir(), 'korvo-'));
    const words = ['fleet', 'hub', '--port', String(port), '--folder', hub.folder];
    hub.process = spawn(program, words, { stdio: ['ignore', 'pipe', 'inherit'] });
    await new Promise((resolve, reject) => {
      hub.process.stdout.on('data', (text) => void (String(text).includes(String(port)) && resolve()));
      hub.process.on('exit', (status) => reject(new Error(`the hub ended with ${status}`)));
    });
    return hub;
  }

  async end() {
    this.process.removeAllListeners('exit');
    // It writes to its folder until it has ended.
    const ended = new Promise((resolve) => this.process.on('exit', resolve));
    this.process.kill();
    await ended;
    rmSync(this.folder, { recursive: true, force: true, maxRetries: 20 });
  }
}
