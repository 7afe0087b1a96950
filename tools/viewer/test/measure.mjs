// What one open page costs the camera loop: orvo view --virtual (the still built-in scene at
// 30 fps) watched for a while with no page, with one page in chromium, and with that page's
// matcher off (images and telemetry only). Prints a table and saves a screenshot of the page;
// not a pass/fail test.
import fs from 'node:fs';
import { launchChromium } from './browser.mjs';
import { startViewer } from './server_process.mjs';

const [orvo, outDir, seconds = '15'] = process.argv.slice(2);
const sleep = ms => new Promise(r => setTimeout(r, ms));
fs.mkdirSync(outDir, { recursive: true });
const server = await startViewer(orvo);
const health = () => fetch(server.url + 'health').then(r => r.json());
const cpuTicks = pid => fs.readFileSync(`/proc/${pid}/stat`, 'utf8').split(') ')[1].split(' ').slice(11, 13)
  .reduce((a, b) => a + Number(b), 0);
const ticksPerSecond = 100;  // USER_HZ on Linux

async function window(label) {
  await sleep(3000);  // settle
  const h0 = await health(), c0 = cpuTicks(server.pid), t0 = Date.now();
  await sleep(Number(seconds) * 1000);
  const h1 = await health(), c1 = cpuTicks(server.pid), s = (Date.now() - t0) / 1000;
  const row = {
    label, camera_fps: (h1.frames - h0.frames) / s, drops: h1.drops - h0.drops, discarded: h1.discarded - h0.discarded,
    viewer_fps: h1.viewer_fps, matcher_ms: h1.matcher_ms, cpu: (c1 - c0) / ticksPerSecond / s * 100,
  };
  console.log(`${label.padEnd(28)} camera ${row.camera_fps.toFixed(1)} fps, drops ${row.drops}, discarded ${row.discarded}, ` +
              `published ${row.viewer_fps.toFixed(1)} fps, matcher ${row.matcher_ms.toFixed(0)} ms, orvo CPU ${row.cpu.toFixed(0)}%`);
  return row;
}

let browser;
try {
  await window('no page');
  browser = await launchChromium(outDir);
  const page = await browser.newPage();
  await page.goto(server.url, { waitUntil: 'load' });
  await window('one page, matcher on');
  const main = await (await page.$('main')).boundingBox();  // the page without the empty bottom
  await page.screenshot({ path: outDir + '/viewer_still.png', clip: { x: 0, y: 0, width: 1400, height: main.y + main.height } });
  await page.click('#matcher');
  await window('one page, matcher off');
  await page.close();
  await window('page closed again');
} finally {
  if (browser) await browser.close();
  await server.stop();
}
