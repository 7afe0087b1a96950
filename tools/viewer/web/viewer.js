// The live viewer's page logic: image streams, telemetry events, the cloud, plots and controls.
'use strict';

const $ = id => document.getElementById(id);
const kHistorySeconds = 10;
const gyro = new StripChart($('gyro'), ['x', 'y', 'z'], ['#ff6b6b', '#69db7c', '#4dabf7'], kHistorySeconds);
const accel = new StripChart($('accel'), ['x', 'y', 'z'], ['#ff6b6b', '#69db7c', '#4dabf7'], kHistorySeconds);
const attitude = new StripChart($('attitude'), ['roll', 'pitch', 'yaw'], ['#ffa94d', '#da77f2', '#38d9a9'], kHistorySeconds);
const cloud = new CloudView($('cloud'));
let settings = null;   // the server's, from the last health event
let cloudBusy = false;
let cloudAsked = 0;

// An image stream that ended (server restarted, network gone) is opened again after a pause.
function openStream(img, path) {
  img.onerror = () => setTimeout(() => { img.src = path + '?t=' + Date.now(); }, 1000);
  img.src = path;
}
openStream($('left'), '/stream/left.mjpg');
openStream($('right'), '/stream/right.mjpg');
openStream($('depth'), '/stream/depth.mjpg');

function metres(v) { return v === Infinity ? '\u221e' : v.toFixed(v < 10 ? 2 : 1) + ' m'; }

// Labels under the colour bar: disparity 0 (far, left) to the top of the range (near, right).
function scaleLabels(disparities, depthScale) {
  const labels = [0, 0.25, 0.5, 0.75, 1].map(f => {
    const d = f * disparities;
    return depthScale > 0 ? metres(d > 0 ? depthScale / d : Infinity) : d.toFixed(0) + ' px';
  });
  $('scale-labels').replaceChildren(...labels.map(t => Object.assign(document.createElement('span'), { textContent: t })));
}

function fetchCloud() {
  if (cloudBusy || Date.now() - cloudAsked < 200) return;
  cloudBusy = true;
  cloudAsked = Date.now();
  fetch('/cloud.bin', { cache: 'no-store' })
    .then(r => (r.ok ? r.arrayBuffer() : null))
    .then(b => { if (b) cloud.update(b); })
    .catch(() => {})
    .finally(() => { cloudBusy = false; });
}

function onFrame(t) {
  $('frame').textContent = 'frame ' + t.sequence;
  const n = t.nearest;
  if (n.found) {
    $('nearest').replaceChildren(metres(n.z), Object.assign(document.createElement('small'),
      { textContent: `ahead; ${Math.abs(n.x).toFixed(2)} m ${n.x < 0 ? 'left' : 'right'} of and ` +
                     `${Math.abs(n.y).toFixed(2)} m ${n.y < 0 ? 'above' : 'below'} the optical axis` }));
  } else {
    $('nearest').textContent = settings && !settings.matcher ? 'matcher off' : 'nothing in range';
  }
  for (const s of t.imu) {
    gyro.push(s[0], s.slice(1, 4));
    accel.push(s[0], s.slice(4, 7));
    attitude.push(s[0], s.slice(7, 10));
  }
  scaleLabels(t.disparities, t.depth_scale);
  fetchCloud();
}

// The health table: what the camera and the loop are doing, counters since the start.
function onHealth(h) {
  $('state').textContent = h.state;
  $('state').classList.toggle('bad', h.state !== 'streaming');
  const rows = [
    ['camera', h.camera_fps.toFixed(1) + ' fps'], ['viewer', h.viewer_fps.toFixed(1) + ' fps'],
    ['matcher', h.settings.matcher ? h.matcher_ms.toFixed(0) + ' ms' : 'off'], ['frames', h.frames],
    ['drops', h.drops, h.drops > 0], ['discarded', h.discarded], ['incomplete', h.incomplete, h.incomplete > 0],
    ['reconnects', h.reconnects, h.reconnects > 0], ['streams open', h.watchers]];
  $('health').replaceChildren(...rows.map(([name, value, bad]) => {
    const tr = document.createElement('tr');
    tr.append(Object.assign(document.createElement('td'), { textContent: name }),
              Object.assign(document.createElement('td'), { textContent: String(value), className: bad ? 'bad' : '' }));
    return tr;
  }));
  $('left-title').textContent = h.settings.rectify ? 'left (rectified)' : 'left (raw)';
  $('right-title').textContent = h.settings.rectify ? 'right (rectified)' : 'right (raw)';
  settings = h.settings;
  $('matcher').checked = settings.matcher;
  $('matcher').disabled = $('rectify').disabled = $('disparities').disabled = !h.depth_available;
  $('rectify').checked = settings.rectify;
  $('disparities').value = String(settings.disparities);
  $('pause').textContent = settings.paused ? 'resume' : 'pause';
  $('pause').classList.toggle('on', settings.paused);
}

function connectEvents() {
  const events = new EventSource('/events');
  events.addEventListener('frame', e => onFrame(JSON.parse(e.data)));
  events.addEventListener('health', e => onHealth(JSON.parse(e.data)));
  events.onerror = () => { $('state').textContent = 'connection lost, retrying'; $('state').classList.add('bad'); };
}
connectEvents();

// Settings go to the server (the camera loop applies them); the header marks the page's own calls.
function control(query) {
  return fetch('/control?' + query, { headers: { 'X-Orvo-Control': '1' }, cache: 'no-store' })
    .then(r => (r.ok ? r.json() : null))
    .then(h => { if (h) onHealth(h); })
    .catch(() => {});
}
$('matcher').onchange = e => control('matcher=' + (e.target.checked ? 1 : 0));
$('rectify').onchange = e => control('rectify=' + (e.target.checked ? 1 : 0));
$('disparities').onchange = e => control('disparities=' + e.target.value);
$('pause').onclick = () => control('paused=' + (settings && settings.paused ? 0 : 1));

// Snapshot: the newest frame as PNG (left | right | disparity) and its point cloud as PLY.
$('snapshot').onclick = () => {
  const links = ['/snapshot.png'];
  if (settings && settings.matcher) links.push('/snapshot.ply');
  links.forEach((href, i) => setTimeout(() => {
    const a = Object.assign(document.createElement('a'), { href, download: '' });
    document.body.appendChild(a);
    a.click();
    a.remove();
  }, i * 300));
};

setInterval(() => { gyro.draw(); accel.draw(); attitude.draw(); }, 100);
