// orvo view in the system chromium (headless, through puppeteer-core): the page loads without
// errors, images and canvases are drawn and change, pause stops the frame counter, a snapshot
// downloads. Screenshots go to the output directory.
import fs from 'node:fs';
import path from 'node:path';
import { launchChromium } from './browser.mjs';
import { startViewer } from './server_process.mjs';

const [orvo, outDir, dataDir, chromium = '/usr/bin/chromium'] = process.argv.slice(2);
let failures = 0;
const check = (ok, what) => { console.log((ok ? 'ok   ' : 'FAIL ') + what); if (!ok) failures++; };
const sleep = ms => new Promise(r => setTimeout(r, ms));
fs.mkdirSync(outDir, { recursive: true });
const downloads = path.join(outDir, 'downloads');
fs.rmSync(downloads, { recursive: true, force: true });
fs.mkdirSync(downloads);

// A fingerprint of what each image and canvas shows now, and how much of it is not background.
const sample = page => page.evaluate(() => {
  const frame = Number((document.getElementById('frame').textContent.match(/\d+/) || [-1])[0]);
  const look = el => {
    const w = el.naturalWidth || el.width, h = el.naturalHeight || el.height;
    if (!w || !h) return { hash: 0, lit: 0 };
    const c = document.createElement('canvas');
    c.width = 160; c.height = Math.max(1, Math.round(160 * h / w));
    const g = c.getContext('2d');
    g.drawImage(el, 0, 0, c.width, c.height);
    const d = g.getImageData(0, 0, c.width, c.height).data;
    const bg = [d[0], d[1], d[2]];
    let hash = 0, lit = 0;
    for (let i = 0; i < d.length; i += 4) {
      hash = (hash * 31 + d[i] + 7 * d[i + 1] + 13 * d[i + 2]) >>> 0;
      if (Math.abs(d[i] - bg[0]) + Math.abs(d[i + 1] - bg[1]) + Math.abs(d[i + 2] - bg[2]) > 30) lit++;
    }
    return { hash, lit: lit / (d.length / 4) };
  };
  const ids = ['left', 'right', 'depth', 'gyro', 'accel', 'attitude'];
  const out = { frame, cloud: look(document.querySelector('#cloud canvas')) };
  for (const id of ids) out[id] = look(document.getElementById(id));
  return out;
});

// The built-in scene with its camera swaying slowly, so that the images change from frame to frame.
const sceneText = fs.readFileSync(path.join(dataDir, 'default_scene', 'scene.yml'), 'utf8')
  .replace(/oscillation_deg: 0\./, 'oscillation_deg: 3.').replace(/oscillation_hz: 0\./, 'oscillation_hz: 0.2')
  .replace(/"(intrinsics|extrinsics)\.yml"/g, (_, f) => JSON.stringify(path.join(dataDir, 'default_scene', f + '.yml')));
const scene = path.join(outDir, 'swaying_scene.yml');
fs.writeFileSync(scene, sceneText);
const server = await startViewer(orvo, scene);
const browser = await launchChromium(outDir, chromium);
const errors = [];
try {
  const page = await browser.newPage();
  page.on('console', m => { if (m.type() === 'error') errors.push('console: ' + m.text()); });
  page.on('pageerror', e => errors.push('page: ' + e.message));
  const cdp = await browser.target().createCDPSession();
  await cdp.send('Browser.setDownloadBehavior', { behavior: 'allow', downloadPath: downloads });

  // Not 'load': that waits for the MJPEG images' first parts, which a busy machine may take long to render.
  await page.goto(server.url, { waitUntil: 'domcontentloaded', timeout: 60000 });
  await page.waitForFunction(() => /frame \d+/.test(document.getElementById('frame').textContent) &&
                                   document.getElementById('depth').naturalWidth > 0, { timeout: 90000 });
  await sleep(2000);  // a few frames of plots and a cloud
  // The machine may be busy: every expectation is waited for, up to a limit, not timed.
  const until = async (test, ms = 30000) => {
    let last;
    for (const t0 = Date.now(); Date.now() - t0 < ms; await sleep(250)) if (test(last = await sample(page))) return last;
    return last;
  };
  const a = await sample(page);
  await page.screenshot({ path: path.join(outDir, 'viewer_live.png') });
  const changed = id => x => x[id].hash !== a[id].hash;
  for (const id of ['left', 'right', 'depth', 'cloud', 'gyro', 'accel', 'attitude'])
    check(a[id].lit > 0.01, `${id} is drawn (${(a[id].lit * 100).toFixed(0)}% not background)`);
  for (const id of ['left', 'depth', 'cloud', 'gyro'])
    check(changed(id)(await until(changed(id))), `${id} changes over time`);
  const b = await until(x => x.frame > a.frame);
  check(b.frame > a.frame, `frame counter advances (${a.frame} -> ${b.frame})`);

  // Pause: once the server has it, the counter stops; resume: it moves again.
  await page.click('#pause');
  await page.waitForFunction(() => document.getElementById('pause').textContent === 'resume', { timeout: 30000 });
  // Frames published before the pause may still be on their way to a slow browser: wait for the
  // counter to settle, then it must stay put.
  let settled;
  for (const t0 = Date.now(); Date.now() - t0 < 30000;) {
    const before = (await sample(page)).frame;
    await sleep(1500);
    settled = (await sample(page)).frame;
    if (settled === before) break;
  }
  await sleep(3000);
  const p2 = (await sample(page)).frame;
  check(settled === p2, `pause stops the frame counter (${settled} -> ${p2})`);
  await page.click('#pause');
  const p3 = (await until(x => x.frame > p2)).frame;
  check(p3 > p2, `resume starts it again (${p2} -> ${p3})`);

  // Matcher off: the disparity tile says so (it turns almost uniform); on: depth is back.
  await page.click('#matcher');
  const off = await until(x => x.depth.lit < 0.1);
  check(off.depth.lit < 0.1, `matcher off empties the disparity tile (${(off.depth.lit * 100).toFixed(0)}% drawn)`);
  await page.click('#matcher');
  const on = await until(x => x.depth.lit > 0.5);
  check(on.depth.lit > 0.5, 'matcher on brings the disparity back');

  // Rectify off: the server's settings come back with it (the titles follow them); a wider
  // disparity range relabels the colour bar.
  const title = () => page.$eval('#left-title', e => e.textContent);
  await page.click('#rectify');
  await page.waitForFunction(() => /raw/.test(document.getElementById('left-title').textContent), { timeout: 30000 });
  check(/raw/.test(await title()), `rectify off: the title says so (${await title()})`);
  await page.click('#rectify');
  const labels = () => page.$eval('#scale-labels', e => e.textContent);
  const before = await labels();
  await page.select('#disparities', '128');
  let after = before;
  for (let i = 0; i < 120 && after === before; i++) { await sleep(250); after = await labels(); }
  check(after !== before, `range 128 relabels the colour bar (${before} -> ${after})`);
  await page.select('#disparities', '64');

  // The snapshot is of the newest published frame: let frames made with the settings now in force
  // (rectified, matcher on) arrive first, which a slow (sanitized) build takes a while to do.
  const current = (await sample(page)).frame;
  await until(x => x.frame >= current + 3, 60000);
  await page.click('#snapshot');
  const want = f => /\.png$/.test(f) || /\.ply$/.test(f);
  for (let i = 0; i < 240 && fs.readdirSync(downloads).filter(want).length < 2; i++) await sleep(250);
  const files = fs.readdirSync(downloads);
  const png = files.find(f => f.endsWith('.png')), ply = files.find(f => f.endsWith('.ply'));
  check(png && fs.readFileSync(path.join(downloads, png)).subarray(1, 4).toString() === 'PNG', `snapshot PNG downloaded (${png})`);
  check(ply && fs.readFileSync(path.join(downloads, ply)).subarray(0, 3).toString() === 'ply', `snapshot PLY downloaded (${ply})`);

  await page.mouse.move(1050, 300);  // orbit the cloud a little, for the picture
  await page.mouse.down();
  await page.mouse.move(1000, 320, { steps: 5 });
  await page.mouse.up();
  await sleep(1500);
  await page.screenshot({ path: path.join(outDir, 'viewer.png') });
} finally {
  await browser.close();
  const code = await server.stop().catch(e => { check(false, e.message); return -1; });
  check(code === 0, `orvo view stopped cleanly on SIGTERM (exit ${code})`);
}
check(errors.length === 0, 'no errors in the console' + (errors.length ? ': ' + errors.join(' | ') : ''));
console.log(failures ? `${failures} check(s) failed` : 'all checks passed');
process.exit(failures ? 1 : 0);
