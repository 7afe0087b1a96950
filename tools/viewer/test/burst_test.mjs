// orvo view under hostile traffic on loopback: traversal, other methods, a burst of malformed and
// slow requests; the image stream must keep flowing and the server must still answer afterwards.
import net from 'node:net';
import { startViewer } from './server_process.mjs';

const orvo = process.argv[2];
const kBurst = 3000, kConcurrency = 50;
let failures = 0;
const check = (ok, what) => { console.log((ok ? 'ok   ' : 'FAIL ') + what); if (!ok) failures++; };

// Sends raw bytes, returns what came back before the server closed (or `waitMs` passed); with
// `firstReply`, returns on the first bytes of an answer (a burst need not wait for keep-alive).
function raw(port, bytes, waitMs = 3000, firstReply = false) {
  return new Promise(resolve => {
    const s = net.connect(port, '127.0.0.1');
    let reply = '';
    const end = () => { clearTimeout(t); s.destroy(); resolve(reply); };
    const t = setTimeout(end, waitMs);
    s.on('connect', () => (waitMs ? s.write(bytes) : s.end(bytes, end)));
    s.on('data', d => { reply += d.toString('latin1'); if (firstReply) end(); });
    s.on('error', end);
    s.on('close', end);
  });
}
const status = reply => Number((reply.match(/^HTTP\/1\.[01] (\d{3})/) || [])[1] || 0);
const get = (port, path, headers = '') => raw(port, `GET ${path} HTTP/1.1\r\nHost: x\r\nConnection: close\r\n${headers}\r\n`);

const malformed = [
  () => 'GARBAGE\r\n\r\n',
  () => 'GET / HTTP/9.9\r\n\r\n',
  () => `GET /${'A'.repeat(20000)} HTTP/1.1\r\n\r\n`,
  () => `GET / HTTP/1.1\r\n${'X: y\r\n'.repeat(2000)}\r\n`,
  () => `GET / HTTP/1.1\r\nno colon here\r\n\r\n`,
  () => 'POST / HTTP/1.1\r\nContent-Length: 999999999\r\n\r\nabc',
  () => 'GET / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n',
  () => Buffer.from(Array.from({ length: 512 }, (_, i) => (i * 131 + 7) & 255)),
  () => 'GET /stream/left.mjpg HTTP/1.1\r\nHo',  // cut short, then hung up on (kHangUp)
  () => '\r\n\r\n\r\n',
];

const kHangUp = 8;  // the request cut short: sent, then the connection is dropped
const server = await startViewer(orvo);
const port = server.port;
try {
  // Routes: only our own, only GET.
  for (const p of ['/../../etc/passwd', '/static/%2e%2e/', '/static/%2e%2e/%2e%2e/etc/passwd', '/static/..%2fviewer.js',
                   '/static/../index.html', '/etc/passwd', '/static/', '/static/missing.js'])
    check(status(await get(port, p)) === 404, `GET ${p} -> 404`);
  for (const m of ['POST', 'PUT', 'DELETE', 'PATCH', 'OPTIONS'])
    check(status(await raw(port, `${m} / HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\nConnection: close\r\n\r\n`)) === 405, `${m} / -> 405`);
  check(status(await get(port, '/control?paused=1')) === 403, 'control without its header -> 403');
  check(status(await get(port, '/control?disparities=17', 'X-Orvo-Control: 1\r\n')) === 400, 'bad disparity range -> 400');
  check(status(await get(port, '/static/viewer.js')) === 200, 'GET /static/viewer.js -> 200');

  // An image stream open through everything that follows.
  let streamBytes = 0;
  const stream = net.connect(port, '127.0.0.1', () => stream.write('GET /stream/left.mjpg HTTP/1.1\r\nHost: x\r\n\r\n'));
  stream.on('data', d => { streamBytes += d.length; });
  stream.on('error', () => {});
  await new Promise(r => setTimeout(r, 2000));
  check(streamBytes > 10000, `stream flows before the burst (${streamBytes} bytes)`);

  // Slow clients: heads that never finish.
  const slow = Array.from({ length: 10 }, () => {
    const s = net.connect(port, '127.0.0.1', () => s.write('GET / HTTP/1.1\r\nHost: x\r\n'));
    s.on('error', () => {});
    return s;
  });

  const started = Date.now();
  let sent = 0, answered = 0;
  const worker = async () => {
    while (sent < kBurst && Date.now() - started < 90000) {
      const i = sent++;
      const kind = i % malformed.length;
      const reply = await raw(port, malformed[kind](), kind === kHangUp ? 0 : 2000, true);
      if (reply.length) answered++;
    }
  };
  const before = streamBytes;
  await Promise.all(Array.from({ length: kConcurrency }, worker));
  console.log(`burst: ${sent} malformed requests in ${((Date.now() - started) / 1000).toFixed(1)} s, ${answered} answered`);
  check(sent === kBurst, `all ${kBurst} malformed requests sent within the time limit`);
  check(streamBytes - before > 10000, `stream kept flowing during the burst (${streamBytes - before} bytes)`);

  const mark = streamBytes;
  await new Promise(r => setTimeout(r, 1500));
  check(streamBytes - mark > 10000, `stream still flows after the burst (${streamBytes - mark} bytes in 1.5 s)`);
  check(status(await get(port, '/health')) === 200, 'GET /health -> 200 after the burst');
  slow.forEach(s => s.destroy());
  stream.destroy();
} finally {
  const code = await server.stop().catch(e => { check(false, e.message); return -1; });
  check(code === 0, `orvo view stopped cleanly on SIGTERM (exit ${code})`);
}
console.log(failures ? `${failures} check(s) failed` : 'all checks passed');
process.exit(failures ? 1 : 0);
