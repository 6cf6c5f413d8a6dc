// The studio's responsiveness in Debian's headless Chromium, driven as a user would:
//
//   node bench/studio_bench.mjs [--edits N] [--opens N] [--only REGEX] [--all] [--size WxH]
//
// (QVFILTER=... picks the host, default build/release/bin/qvfilter; playwright-core comes from
// tests/browser, so run `npm ci` there once.) It writes a 24-megapixel JPEG with
// `qvfilter sample`, starts `qvfilter serve`, and measures in the page:
//   - first preview: from handing the JPEG to the page's file picker to its first preview on
//     screen (upload, reduced decode, render, encode, transfer, image decode), median of --opens;
//   - for every plug-in filter (every registered filter with --all) with its defaults: the
//     time from adding it to the chain to its preview on screen, and the median and worst time
//     from an edit of one of its controls (a slider, else a number field, a pop-up or a check
//     box) to the new preview on screen, over --edits edits;
//   - a slider drag of 40 moves 10 ms apart: edits sent, previews rendered and previews the
//     server dropped as superseded (never more than one stale render may wait).
// Prints a Markdown table and the load average before and after.
import { spawn, execFileSync } from 'node:child_process';
import { createRequire } from 'node:module';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

const here = path.dirname(fileURLToPath(import.meta.url));
const root = path.resolve(here, '..');
const require = createRequire(path.join(root, 'tests/browser/package.json'));
const { chromium } = require('playwright-core');

const args = process.argv.slice(2);
const option = (name, fallback) => {
  const i = args.indexOf(name);
  return i >= 0 && i + 1 < args.length ? args[i + 1] : fallback;
};
const EDITS = Number(option('--edits', 9));
const OPENS = Number(option('--opens', 3));
const ONLY = new RegExp(option('--only', '.'));
const ALL = args.includes('--all');
const [W, H] = option('--size', '6000x4000').split('x').map(Number);
const QVFILTER = process.env.QVFILTER || path.join(root, 'build/release/bin/qvfilter');

const median = (xs) => {
  const s = [...xs].sort((a, b) => a - b);
  return s.length ? (s.length % 2 ? s[(s.length - 1) / 2] : (s[s.length / 2 - 1] + s[s.length / 2]) / 2) : NaN;
};
const ms = (v) => (Number.isFinite(v) ? `${Math.round(v)} ms` : '—');
const load = () => os.loadavg().map((v) => v.toFixed(2)).join(' ');

const scratch = fs.mkdtempSync(path.join(os.tmpdir(), 'qvfilter-studio-bench-'));
const photo = path.join(scratch, `photo-${W}x${H}.jpg`);
execFileSync(QVFILTER, ['sample', photo, '--width', String(W), '--height', String(H)]);

const server = spawn(QVFILTER, ['serve', '--port', '0'], { stdio: ['ignore', 'pipe', 'inherit'] });
const base = await new Promise((resolve, reject) => {
  let out = '';
  server.stdout.on('data', (d) => {
    out += d;
    const m = out.match(/(http:\/\/127\.0\.0\.1:\d+\/)/);
    if (m) resolve(m[1]);
  });
  server.on('exit', (code) => reject(new Error(`qvfilter serve exited with ${code}`)));
});
const profile = fs.mkdtempSync(path.join(os.tmpdir(), 'qvfilter-bench-chromium-'));
const context = await chromium.launchPersistentContext(profile, {
  executablePath: '/usr/bin/chromium',
  headless: true,
  args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
    '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  viewport: { width: 1440, height: 900 },
});
const page = context.pages()[0] || await context.newPage();
page.on('pageerror', (e) => console.error('page error:', e.message));
await page.goto(base);
await page.waitForSelector('body[data-ready="1"]');

// Runs `action` in the page and returns the milliseconds from it to the next preview shown
// (the page counts previews once the new image has loaded), then waits until nothing is busy.
async function timed(action, arg) {
  const elapsed = await page.evaluate(async ({ action, arg }) => {
    const n = Number(document.body.dataset.previews);
    const done = new Promise((resolve) => {
      const o = new MutationObserver(() => {
        if (Number(document.body.dataset.previews) > n) { o.disconnect(); resolve(performance.now()); }
      });
      o.observe(document.body, { attributes: true, attributeFilter: ['data-previews'] });
    });
    const t = performance.now();
    // eslint-disable-next-line no-new-func
    await new Function('arg', action)(arg);
    const shown = await Promise.race([done, new Promise((r) => setTimeout(() => r(null), 60000))]);
    return shown === null ? null : shown - t;
  }, { action, arg });
  await page.waitForFunction(() => document.body.dataset.busy === '0', null, { timeout: 60000 });
  return elapsed;
}

const session = () => page.evaluate(() => document.body.dataset.session);

console.error(`load before: ${load()}`);
const loadBefore = load();

// ---- first preview of the 24 MP JPEG ----
const opens = [];
for (let i = 0; i < OPENS; i++) {
  const n = await page.evaluate(() => Number(document.body.dataset.previews));
  const t = Date.now();
  await page.setInputFiles('#open-input', photo);
  await page.waitForFunction((k) => Number(document.body.dataset.previews) > k && document.body.dataset.busy === '0', n, { timeout: 60000 });
  opens.push(Date.now() - t);
}
const previewSize = await page.evaluate(() => {
  const i = document.getElementById('after-image');
  return `${i.naturalWidth}x${i.naturalHeight}`;
});

// ---- every filter ----
const filters = (await page.evaluate(async () => (await fetch('/api/filters')).json()))
  .map((f) => f.name).filter((n) => (ALL || n.startsWith('QV')) && ONLY.test(n));

// An edit of the first control the view offers, alternating between two values; returns the
// kind of control or null.
const EDIT = `
  const params = document.getElementById('params');
  const pick = (sel) => params.querySelector(sel);
  let input = pick('[data-kind="slider"][data-key] input');
  if (input) {
    const lo = Number(input.min), hi = Number(input.max);
    input.value = String(arg % 2 ? lo + 0.35 * (hi - lo) : lo + 0.65 * (hi - lo));
    input.dispatchEvent(new Event('pointerdown'));
    input.dispatchEvent(new Event('input'));
    input.dispatchEvent(new Event('pointerup'));
    return;
  }
  input = pick('[data-kind="textField"][data-key] input');
  if (input && Number.isFinite(Number(input.value))) {
    input.value = String(Number(input.value) + (arg % 2 ? 1 : -1) * 0.1);
    input.dispatchEvent(new Event('change'));
    return;
  }
  input = pick('[data-kind="popUpButton"][data-key] select');
  if (input) {
    const ok = [...input.options].filter((o) => !o.disabled).map((o) => o.value);
    input.value = ok[arg % Math.min(ok.length, 2)] === input.value ? ok[(arg + 1) % Math.min(ok.length, 2)] : ok[arg % Math.min(ok.length, 2)];
    input.dispatchEvent(new Event('change'));
    return;
  }
  input = pick('[data-kind="checkBox"][data-key] input');
  if (input) { input.click(); return; }
  throw new Error('no control');
`;
const KIND = `
  const p = document.getElementById('params');
  if (p.querySelector('[data-kind="slider"][data-key] input')) return 'slider';
  const t = p.querySelector('[data-kind="textField"][data-key] input');
  if (t && Number.isFinite(Number(t.value))) return 'number field';
  if (p.querySelector('[data-kind="popUpButton"][data-key] select')) return 'pop-up';
  if (p.querySelector('[data-kind="checkBox"][data-key] input')) return 'check box';
  return null;
`;

const rows = [];
for (const name of filters) {
  await page.evaluate(async (id) => {
    const state = await (await fetch(`/api/sessions/${id}`)).json();
    for (const s of state.steps) await fetch(`/api/sessions/${id}/steps/${s.id}`, { method: 'DELETE' });
  }, await session());
  const add = await timed(`return addStep(arg);`, name).catch((e) => { console.error(name, e.message); return null; });
  const kind = await page.evaluate(new Function(KIND));
  const edits = [];
  if (kind) {
    for (let i = 0; i < EDITS; i++) {
      const t = await timed(EDIT, i).catch(() => null);
      if (t !== null) edits.push(t);
    }
  }
  const row = { name, add, kind, median: median(edits), worst: edits.length ? Math.max(...edits) : NaN };
  rows.push(row);
  console.error(`${name}: add ${ms(add)}, ${kind || 'no control'} edit median ${ms(row.median)} worst ${ms(row.worst)}`);
}

// ---- a slider drag ----
await page.evaluate(async (id) => {
  const state = await (await fetch(`/api/sessions/${id}`)).json();
  for (const s of state.steps) await fetch(`/api/sessions/${id}/steps/${s.id}`, { method: 'DELETE' });
}, await session());
await timed(`return addStep(arg);`, 'QVFilterBlur');
const drag = await page.evaluate(async () => {
  const counts = { edits: 0, previews: 0, superseded: 0 };
  const realFetch = window.fetch;
  window.fetch = async (url, init) => {
    const res = await realFetch(url, init);
    if (String(url).includes('/edit')) counts.edits++;
    if (String(url).includes('/preview')) { if (res.status === 204) counts.superseded++; else counts.previews++; }
    return res;
  };
  const input = document.querySelector('#params [data-kind="slider"] input');
  const lo = Number(input.min), hi = Number(input.max);
  input.dispatchEvent(new Event('pointerdown'));
  const t = performance.now();
  for (let i = 1; i <= 40; i++) {
    input.value = String(lo + (hi - lo) * (i % 2 ? 0.2 : 0.25) + i * 0.001);
    input.dispatchEvent(new Event('input'));
    await new Promise((r) => setTimeout(r, 10));
  }
  input.dispatchEvent(new Event('pointerup'));
  while (document.body.dataset.busy !== '0') await new Promise((r) => setTimeout(r, 5));
  counts.ms = performance.now() - t;
  window.fetch = realFetch;
  return counts;
});

const loadAfter = load();
console.log(`\nStudio, ${W}x${H} JPEG (${(fs.statSync(photo).size / 1e6).toFixed(1)} MB), preview ${previewSize}, ` +
  `${os.cpus().length} CPUs, load average before ${loadBefore}, after ${loadAfter}\n`);
console.log(`First preview of the JPEG (file picker to preview on screen): median ${ms(median(opens))} of ${opens.map(ms).join(', ')}\n`);
console.log('| filter | add to preview | edited control | edit to preview, median | worst |');
console.log('|---|---|---|---|---|');
for (const r of rows) console.log(`| ${r.name} | ${ms(r.add)} | ${r.kind || '—'} | ${ms(r.median)} | ${ms(r.worst)} |`);
console.log(`\nSlider drag, 40 moves 10 ms apart: ${drag.edits} edits sent, ${drag.previews} previews rendered, ` +
  `${drag.superseded} superseded, last preview ${ms(drag.ms)} after the first move`);

await context.close();
server.kill('SIGINT');
fs.rmSync(profile, { recursive: true, force: true });
fs.rmSync(scratch, { recursive: true, force: true });
