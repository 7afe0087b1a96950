// Starts `orvo view --virtual` on a free loopback port for a test and stops it again.
import { spawn } from 'node:child_process';

// Resolves to { url, port, pid, stop() } once the server has printed its address. `scene`: a scene
// file for the virtual camera (its built-in, still scene otherwise).
export function startViewer(orvo, scene = '') {
  return new Promise((resolve, reject) => {
    const child = spawn(orvo, ['view', scene ? '--virtual=' + scene : '--virtual', '--port', '0'], { stdio: ['ignore', 'pipe', 'pipe'] });
    let out = '';
    let stderr = '';
    const timer = setTimeout(() => { child.kill('SIGKILL'); reject(new Error('orvo view printed no address in 30 s: ' + stderr)); }, 30000);
    child.stderr.on('data', d => { stderr += d; });
    child.on('exit', code => { clearTimeout(timer); reject(new Error(`orvo view exited early (${code}): ${stderr}`)); });
    child.stdout.on('data', d => {
      out += d;
      const m = out.match(/http:\/\/127\.0\.0\.1:(\d+)\//);
      if (!m) return;
      clearTimeout(timer);
      child.removeAllListeners('exit');
      const stop = () => new Promise((done, fail) => {
        if (child.exitCode !== null) return done(child.exitCode);
        const kill = setTimeout(() => { child.kill('SIGKILL'); fail(new Error('orvo view did not stop within 10 s of SIGTERM')); }, 10000);
        child.on('exit', code => { clearTimeout(kill); done(code); });
        child.kill('SIGTERM');
      });
      resolve({ url: m[0], port: Number(m[1]), pid: child.pid, stop, stderr: () => stderr });
    });
  });
}
