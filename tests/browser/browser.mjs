// A browser without a window.
import { chromium } from 'playwright-core';

export function launch() {
  const quiet = ['--no-sandbox', '--disable-dev-shm-usage', '--disable-gpu', '--disable-quic', '--no-first-run',
    '--disable-background-networking', '--disable-component-update', '--disable-sync',
    '--host-resolver-rules=MAP rebound.example 127.0.0.1'];
  return chromium.launch({ executablePath: process.env.KORVO_CHROMIUM, args: quiet });
}
