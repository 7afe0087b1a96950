// Starts the system chromium headless for a test: a fresh profile in the output directory, no
// network of its own (updates, sync, QUIC), and no X display even when DISPLAY names one that is
// not there (as on the build machines). WebGL comes from SwiftShader, on the CPU.
import fs from 'node:fs';
import path from 'node:path';
import puppeteer from 'puppeteer-core';

export async function launchChromium(outDir, chromium = '/usr/bin/chromium') {
  const profile = path.join(outDir, 'profile');
  fs.rmSync(profile, { recursive: true, force: true });
  fs.mkdirSync(profile, { recursive: true });
  const env = { ...process.env };
  delete env.DISPLAY;
  return puppeteer.launch({
    executablePath: chromium, headless: true, userDataDir: profile, env,
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
           '--disable-background-networking', '--disable-component-update', '--disable-sync',
           '--no-proxy-server', '--enable-unsafe-swiftshader', '--use-angle=swiftshader', '--window-size=1400,1000'],
    defaultViewport: { width: 1400, height: 1000 },
  });
}
