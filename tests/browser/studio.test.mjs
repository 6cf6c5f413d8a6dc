// The studio in headless Chromium: `qvfilter serve` on a free loopback port, the page driven
// as a user would (sample picture, filters with their own views and generic controls,
// textures by tag and by name, a two-step chain, export of the picture and the recipe).
// Screenshots of every provided view are written under QV_TEST_ARTIFACTS.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { spawn, execFileSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { chromium } from 'playwright-core';

const QVFILTER = process.env.QVFILTER || path.resolve('../../build/release/bin/qvfilter');
const ARTIFACTS = process.env.QV_TEST_ARTIFACTS || path.resolve('../../build/release/tests/browser-artifacts');
const PROVIDED = ['QVFilterBlur', 'QVFilterColorComposite', 'QVFilterBlurComposite', 'QVFilterNoiseComposite',
  'QVFilterTextureComposite', 'QVFilterTextureTile', 'QVFilterGradientComposite', 'QVFilterTextureBorder',
  'QVFilterOffsetComposite', 'QVFilterScaleComposite'];

let server, base, context, page, profile, pictures;

// A picture file written by `qvfilter sample` into this run's scratch folder.
function picture(name, width, height) {
  const file = path.join(pictures, name);
  if (!fs.existsSync(file)) execFileSync(QVFILTER, ['sample', file, '--width', String(width), '--height', String(height)]);
  return file;
}

before(async () => {
  fs.mkdirSync(ARTIFACTS, { recursive: true });
  server = spawn(QVFILTER, ['serve', '--port', '0'], { stdio: ['ignore', 'pipe', 'inherit'] });
  base = await new Promise((resolve, reject) => {
    let out = '';
    server.stdout.on('data', (d) => {
      out += d;
      const m = out.match(/(http:\/\/127\.0\.0\.1:\d+\/)/);
      if (m) resolve(m[1]);
    });
    server.on('exit', (code) => reject(new Error(`qvfilter serve exited with ${code}`)));
    setTimeout(() => reject(new Error('qvfilter serve printed no address')), 20000);
  });
  profile = fs.mkdtempSync(path.join(os.tmpdir(), 'qvfilter-chromium-'));
  pictures = fs.mkdtempSync(path.join(os.tmpdir(), 'qvfilter-pictures-'));
  context = await chromium.launchPersistentContext(profile, {
    executablePath: '/usr/bin/chromium',
    headless: true,
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
    viewport: { width: 1440, height: 900 },
    acceptDownloads: true,
  });
  page = context.pages()[0] || await context.newPage();
  page.on('pageerror', (e) => { throw e; });
  await page.goto(base);
  await page.waitForSelector('body[data-ready="1"]');
});

after(async () => {
  if (context) await context.close();
  if (server) {
    const exited = new Promise((resolve) => server.on('exit', resolve));
    server.kill('SIGINT');
    await exited;
  }
  if (profile) fs.rmSync(profile, { recursive: true, force: true });
  if (pictures) fs.rmSync(pictures, { recursive: true, force: true });
});

// ---- helpers ----

const previews = () => page.evaluate(() => Number(document.body.dataset.previews));
async function settle(since) {
  await page.waitForFunction((n) => Number(document.body.dataset.previews) > n && document.body.dataset.busy === '0',
    since, { timeout: 20000 });
}
// Does `action` and waits for the preview it causes.
async function andPreview(action) {
  const n = await previews();
  await action();
  await settle(n);
}

// The preview's pixels, summarised: size and a hash of every byte.
const previewPixels = () => page.evaluate(() => {
  const img = document.getElementById('after-image');
  const c = document.createElement('canvas');
  c.width = img.naturalWidth; c.height = img.naturalHeight;
  const g = c.getContext('2d');
  g.drawImage(img, 0, 0);
  const d = g.getImageData(0, 0, c.width, c.height).data;
  let h = 2166136261;
  for (let i = 0; i < d.length; i++) h = Math.imul(h ^ d[i], 16777619);
  return `${c.width}x${c.height}:${h >>> 0}`;
});

const session = () => page.evaluate(() => document.body.dataset.session);
async function api(p) {
  return page.evaluate(async (url) => (await fetch(url)).json(), `/api/sessions/${await session()}${p}`);
}
const selectedStep = () => page.evaluate(() => window.studio.selected);
const inputs = async () => (await api(`/steps/${await selectedStep()}`)).view.inputs;

async function clearChain() {
  while (await page.locator('#chain li').count()) {
    await andPreview(() => page.locator('#chain li .remove').first().click());
  }
}

async function addFilter(name) {
  await page.fill('#filter-search', name);
  await andPreview(() => page.click(`.filter-item[data-filter="${name}"]`));
  await page.waitForSelector(`#params[data-filter="${name}"]`);
}

// One edit of the first control of `kind` (bound to `key` when given); returns the key it is
// bound to.
async function editControl(kind, key = null) {
  const box = page.locator(`#params [data-kind="${kind}"]${key ? `[data-key="${key}"]` : '[data-key]'}`).first();
  key = await box.getAttribute('data-key');
  await andPreview(async () => {
    if (kind === 'slider') {
      await box.locator('input').evaluate((input) => {
        const lo = Number(input.min), hi = Number(input.max), v = Number(input.value);
        const target = Math.abs(v - (lo + 0.3 * (hi - lo))) > 0.05 * (hi - lo) ? lo + 0.3 * (hi - lo) : lo + 0.7 * (hi - lo);
        input.value = String(target);
        input.dispatchEvent(new Event('pointerdown'));
        input.dispatchEvent(new Event('input'));
        input.dispatchEvent(new Event('pointerup'));
      });
    } else if (kind === 'textField') {
      const input = box.locator('input');
      const v = Number(await input.inputValue());
      await input.fill(String(Number.isFinite(v) && v !== 0 ? Math.round(v * 0.5 * 100) / 100 + 0.25 : 0.75));
      await input.press('Enter');
    } else if (kind === 'checkBox') {
      await box.locator('input').click();
    } else if (kind === 'colorWell') {
      await box.locator('input[type=color]').evaluate((input) => {
        input.value = input.value === '#c02a1e' ? '#1e3cc0' : '#c02a1e';
        input.dispatchEvent(new Event('focus'));
        input.dispatchEvent(new Event('input'));
      });
    } else if (kind === 'popUpButton') {
      if (await box.locator('select').count()) {
        const next = await box.locator('select').evaluate((s) => {
          const options = [...s.options];
          const i = options.findIndex((o, j) => j > s.selectedIndex && !o.disabled) >= 0
            ? options.findIndex((o, j) => j > s.selectedIndex && !o.disabled)
            : options.findIndex((o, j) => j !== s.selectedIndex && !o.disabled);
          return options[i].value;
        });
        await box.locator('select').selectOption(next);
      } else {
        await box.locator('.picker > button').click();
        // A texture (an item with a thumbnail) other than the one chosen.
        await page.locator('.picker-menu .item:not(.selected):has(img)').first().click();
      }
    }
  });
  return key;
}

// ---- tests ----

test('opens the sample picture with a first preview', async () => {
  const t = Date.now();
  await andPreview(() => page.click('#sample-button'));
  const size = await page.evaluate(() => [document.getElementById('after-image').naturalWidth, document.getElementById('after-image').naturalHeight]);
  assert.ok(size[0] > 200 && size[1] > 100, `preview size ${size}`);
  assert.match(await page.textContent('#picture-info'), /sample\.jpg · 2400 × 1600/);
  console.log(`sample opened and previewed in ${Date.now() - t} ms`);
});

test('each provided view is drawn, and edits of every kind of control change the input and the picture', async () => {
  for (const name of PROVIDED) {
    await clearChain();
    await addFilter(name);
    const state = await api('');
    assert.equal(state.steps.length, 1);
    assert.equal(state.steps[0].provided, true, `${name} hands out its own view`);
    await page.screenshot({ path: path.join(ARTIFACTS, `view-${name}.png`) });
    const kinds = await page.$$eval('#params [data-kind][data-key]', (boxes) => [...new Set(boxes.map((b) => b.dataset.kind))]);
    assert.ok(kinds.length > 0, `${name} shows bound controls`);
    for (const kind of kinds) {
      if (kind === 'label' || kind === 'imageWell') continue;
      const beforeInputs = await inputs();
      const beforePixels = await previewPixels();
      const key = await editControl(kind);
      const afterInputs = await inputs();
      assert.notDeepEqual(afterInputs[key], beforeInputs[key], `${name}: the ${kind} changes ${key}`);
      if (kind !== 'checkBox') {
        assert.notEqual(await previewPixels(), beforePixels, `${name}: the ${kind} (${key}) changes the preview`);
      }
    }
  }
});

test('a generic filter is drawn from its attributes and edited the same way', async () => {
  await clearChain();
  await addFilter('QVFilterBorder');
  assert.equal((await api('')).steps[0].provided, false);
  await page.screenshot({ path: path.join(ARTIFACTS, 'view-generic-QVFilterBorder.png') });
  for (const [kind, bound] of [['slider', 'inputWidth'], ['textField', 'inputWidth'], ['colorWell', 'inputColor']]) {
    const beforeInputs = await inputs();
    const beforePixels = await previewPixels();
    const key = await editControl(kind, bound);
    assert.notDeepEqual((await inputs())[key], beforeInputs[key], `the ${kind} changes ${key}`);
    assert.notEqual(await previewPixels(), beforePixels, `the ${kind} (${key}) changes the preview`);
  }
  // The slider range of generic sliders is the attributes' slider range.
  const range = await page.locator('#params [data-kind="slider"] input').first().evaluate((i) => [Number(i.min), Number(i.max)]);
  assert.ok(range[1] > range[0]);
});

test('textures are chosen by tag (random) and by name', async () => {
  await clearChain();
  await addFilter('QVFilterTextureComposite');
  const picker = page.locator('#params [data-key="inputTextureName"] .picker > button');
  await picker.click();
  const random = page.locator('.picker-menu .item', { hasText: '(Random)' }).first();
  await andPreview(() => random.click());
  let values = await inputs();
  assert.match(JSON.stringify(values.inputTextureName), /x-qvfilter-tag:/);
  assert.match(JSON.stringify(values.inputTextureIdentifier), /x-qvfilter-texture:/);
  const pixels = await previewPixels();
  await picker.click();
  // A texture other than the one the tag resolved to.
  const index = await page.evaluate((current) => {
    const find = (node) => node.kind === 'popUpButton' && node.bindings.selectedObject.key === 'inputTextureName'
      ? node : (node.subviews || []).map(find).find(Boolean);
    const items = find(window.studio.view.view).menu.items;
    return items.findIndex((it) => typeof it.representedObject === 'string' &&
      it.representedObject.startsWith('x-qvfilter-texture:') && it.representedObject !== current);
  }, values.inputTextureIdentifier.url);
  const named = page.locator(`.picker-menu .item[data-index="${index}"]`);
  const title = (await named.textContent()).trim();
  await andPreview(() => named.click());
  values = await inputs();
  assert.match(JSON.stringify(values.inputTextureName), /x-qvfilter-texture:/);
  assert.equal(await picker.locator('.title').textContent(), title);
  assert.notEqual(await previewPixels(), pixels);

  // The catalogue tab lists textures by tag, with thumbnails.
  await page.click('.tabs button[data-tab="textures"]');
  await page.click('#texture-tags button[data-tag="mask"]');
  const cards = page.locator('#texture-grid .texture-card');
  assert.ok(await cards.count() > 0);
  await page.waitForFunction(() => [...document.querySelectorAll('#texture-grid img')].slice(0, 3).every((i) => i.complete && i.naturalWidth > 0));
  await page.click('.tabs button[data-tab="filters"]');
});

test('a two-step chain exports a picture that the exported recipe reproduces', async () => {
  await clearChain();
  await addFilter('QVFilterColorControls');
  await editControl('slider');
  await addFilter('QVFilterTextureComposite');
  await editControl('popUpButton');
  const state = await api('');
  assert.deepEqual(state.steps.map((s) => s.filter), ['QVFilterColorControls', 'QVFilterTextureComposite']);

  const dir = fs.mkdtempSync(path.join(ARTIFACTS, 'export-'));
  await page.click('#export-button');
  await page.selectOption('#export-format', 'png');
  const [recipeDownload] = await Promise.all([page.waitForEvent('download'), page.click('#recipe-download')]);
  const recipePath = path.join(dir, 'recipe.json');
  await recipeDownload.saveAs(recipePath);
  const [imageDownload] = await Promise.all([page.waitForEvent('download'), page.click('#export-start')]);
  const pagePath = path.join(dir, 'page.png');
  await imageDownload.saveAs(pagePath);
  await page.waitForSelector('#export-status:has-text("Saved as")');
  await page.click('#export-dialog button[value="cancel"]');

  const recipe = JSON.parse(fs.readFileSync(recipePath, 'utf8'));
  assert.equal(recipe.images.photo.file, 'sample.jpg');
  assert.equal(recipe.chain.length, 2);
  execFileSync(QVFILTER, ['sample', path.join(dir, 'sample.jpg'), '--width', '2400', '--height', '1600']);
  execFileSync(QVFILTER, ['run', recipePath, '-o', path.join(dir, 'run.png')]);
  const a = fs.readFileSync(pagePath), b = fs.readFileSync(path.join(dir, 'run.png'));
  assert.ok(a.length > 1000);
  assert.ok(a.equals(b), 'the page\'s download and `qvfilter run` of its recipe are the same file');
  await page.screenshot({ path: path.join(ARTIFACTS, 'chain.png') });
});

test('steps are reordered, switched off and removed, and a slider drag previews as it moves', async () => {
  await clearChain();
  await addFilter('QVFilterColorControls');
  await addFilter('QVFilterBlur');
  const both = await previewPixels();
  await andPreview(() => page.locator('#chain li').nth(1).locator('.up').click());
  assert.deepEqual((await api('')).steps.map((s) => s.filter), ['QVFilterBlur', 'QVFilterColorControls']);
  await andPreview(() => page.locator('#chain li').nth(0).locator('input.toggle').click());
  assert.equal((await api('')).steps[0].enabled, false);
  assert.notEqual(await previewPixels(), both, 'switching the blur off changes the picture');
  await andPreview(() => page.locator('#chain li').nth(0).locator('input.toggle').click());

  // A real drag of the blur's radius slider: previews arrive while the button is down.
  await page.locator('#chain li').nth(0).click();
  await page.waitForSelector('#params[data-filter="QVFilterBlur"]:not([data-loading])');
  const slider = page.locator('#params [data-kind="slider"] input').first();
  await slider.waitFor({ state: 'visible' });
  const box = await slider.boundingBox();
  assert.ok(box, 'the radius slider is laid out');
  const start = await previews();
  const shown = () => page.evaluate(() => {
    const img = document.getElementById('after-image');
    return { natural: img.naturalWidth, drawn: Math.round(img.getBoundingClientRect().width) };
  });
  const full = await shown();
  const widths = [];
  await page.mouse.move(box.x + 4, box.y + box.height / 2);
  await page.mouse.down();
  for (let i = 1; i <= 12; i++) {
    await page.mouse.move(box.x + 4 + (box.width - 8) * i / 12, box.y + box.height / 2);
    await page.waitForTimeout(120);
    widths.push(await shown());
    if (i === 6) await page.screenshot({ path: path.join(ARTIFACTS, 'drag-draft.png') });
  }
  const during = await previews();
  await page.mouse.up();
  await page.waitForFunction(() => document.body.dataset.busy === '0');
  assert.ok(during > start + 1, `previews during the drag: ${during - start}`);
  // While the slider is held the previews are drafts at half the size, drawn as large as the
  // full preview; the full preview is back once it is let go.
  const drafts = widths.filter((w) => Math.abs(w.natural - full.natural / 2) <= 1);
  assert.ok(drafts.length > 0, `half-size drafts during the drag: ${JSON.stringify(widths)} (full ${full.natural})`);
  assert.ok(drafts.every((w) => Math.abs(w.drawn - full.drawn) <= 2), `drafts drawn at the full preview's size: ${JSON.stringify(drafts)} vs ${full.drawn}`);
  assert.deepEqual(await shown(), full, 'the full-size preview replaces the drafts after the drag');
  const radius = (await inputs()).inputRadius;
  assert.ok(radius > 90, `the drag to the end sets the radius near its maximum (${radius})`);
  // One undo takes the whole drag back.
  const n = await previews();
  await page.click('#undo-button');
  await settle(n);
  assert.notEqual((await inputs()).inputRadius, radius);
  assert.ok((await inputs()).inputRadius < 20);

  await andPreview(() => page.locator('#chain li').nth(1).locator('.remove').click());
  assert.deepEqual((await api('')).steps.map((s) => s.filter), ['QVFilterBlur']);
});

test('two tabs have sessions of their own', async () => {
  const other = await context.newPage();
  await other.goto(base);
  await other.waitForSelector('body[data-ready="1"]');
  const mine = await session();
  const theirs = await other.evaluate(() => document.body.dataset.session);
  assert.notEqual(theirs, mine);
  const theirState = await other.evaluate(async (id) => (await fetch(`/api/sessions/${id}`)).json(), theirs);
  assert.equal(theirState.steps.length, 0);
  assert.equal(theirState.image, null);
  assert.ok((await api('')).steps.length > 0);
  await other.close();
});

test('undo and redo restore the chain and the inputs', async () => {
  const stepsBefore = (await api('')).steps.length;
  const n = await previews();
  await page.click('#undo-button');
  await settle(n);
  const afterUndo = await api('');
  assert.ok(afterUndo.canRedo);
  const m = await previews();
  await page.click('#redo-button');
  await settle(m);
  assert.equal((await api('')).steps.length, stepsBefore);
});

// Rows of the preview, from its top edge down its middle column, whose pixel is close to rgb.
const edgeRows = (rgb) => page.evaluate((c) => {
  const img = document.getElementById('after-image');
  const canvas = document.createElement('canvas');
  canvas.width = img.naturalWidth; canvas.height = img.naturalHeight;
  const g = canvas.getContext('2d');
  g.drawImage(img, 0, 0);
  const x = Math.floor(canvas.width / 2);
  const d = g.getImageData(x, 0, 1, canvas.height).data;
  let rows = 0;
  while (rows < canvas.height && [0, 1, 2].every((k) => Math.abs(d[rows * 4 + k] - c[k]) < 40)) rows++;
  return { rows, width: canvas.width };
}, rgb);

test('a border in the preview is as wide, for its size, as in the full-size picture', async () => {
  await andPreview(() => page.click('#sample-button'));
  await clearChain();
  await addFilter('QVFilterBorder');
  await andPreview(() => page.locator('#params [data-kind="colorWell"][data-key="inputColor"] input[type=color]').evaluate((input) => {
    input.value = '#ff0000';
    input.dispatchEvent(new Event('focus'));
    input.dispatchEvent(new Event('input'));
  }));
  const field = page.locator('#params [data-kind="textField"][data-key="inputWidth"] input');
  await andPreview(async () => { await field.fill('80'); await field.press('Enter'); });
  assert.equal((await inputs()).inputWidth, 80, 'the filter keeps the width the user set');
  const { rows, width } = await edgeRows([255, 0, 0]);
  // The sample is 2400 pixels wide: the border is 80 of them, so 80 × width / 2400 of the preview's.
  const expected = 80 * width / 2400;
  assert.ok(Math.abs(rows - expected) <= 2, `border of ${rows} preview rows, expected ${expected.toFixed(1)} (preview ${width} wide)`);
  await page.screenshot({ path: path.join(ARTIFACTS, 'preview-border-scaled.png') });
});

test('a picture opens from the file picker', async () => {
  const file = picture('picked.jpg', 1200, 900);
  const [chooser] = await Promise.all([page.waitForEvent('filechooser'), page.click('#open-button')]);
  await andPreview(() => chooser.setFiles(file));
  assert.match(await page.textContent('#picture-info'), /picked\.jpg · 1200 × 900/);
  const size = await page.evaluate(() => [document.getElementById('after-image').naturalWidth, document.getElementById('after-image').naturalHeight]);
  assert.ok(Math.abs(size[0] / size[1] - 4 / 3) < 0.01, `the preview has the picture's shape (${size})`);
  await page.screenshot({ path: path.join(ARTIFACTS, 'open-file-picker.png') });
});

// A DataTransfer holding one file, made in the page from the bytes of `file`.
function dataTransferOf(file, name, type) {
  return page.evaluateHandle(({ b64, name, type }) => {
    const bytes = Uint8Array.from(atob(b64), (c) => c.charCodeAt(0));
    const transfer = new DataTransfer();
    transfer.items.add(new File([bytes], name, { type }));
    return transfer;
  }, { b64: fs.readFileSync(file).toString('base64'), name, type });
}

test('a picture dropped on the page opens', async () => {
  const transfer = await dataTransferOf(picture('dropped.png', 900, 1200), 'dropped.png', 'image/png');
  await page.dispatchEvent('#stage', 'dragenter', { dataTransfer: transfer });
  await page.dispatchEvent('#stage', 'dragover', { dataTransfer: transfer });
  assert.ok(await page.locator('#stage.dragging').count(), 'the page shows where to drop while a file is held over it');
  await page.screenshot({ path: path.join(ARTIFACTS, 'drop-over.png') });
  await andPreview(() => page.dispatchEvent('#stage', 'drop', { dataTransfer: transfer }));
  assert.equal(await page.locator('#stage.dragging').count(), 0);
  assert.match(await page.textContent('#picture-info'), /dropped\.png · 900 × 1200/);
  const size = await page.evaluate(() => [document.getElementById('after-image').naturalWidth, document.getElementById('after-image').naturalHeight]);
  assert.ok(Math.abs(size[0] / size[1] - 3 / 4) < 0.01, `the preview has the picture's shape (${size})`);
  await page.screenshot({ path: path.join(ARTIFACTS, 'drop-opened.png') });
});

test('a file that is not a picture is refused with a message on the page, by the picker and by a drop', async () => {
  const text = path.join(pictures, 'notes.jpg');
  fs.writeFileSync(text, 'These are notes, not a picture.\n');
  const info = await page.textContent('#picture-info');
  const [chooser] = await Promise.all([page.waitForEvent('filechooser'), page.click('#open-button')]);
  await chooser.setFiles(text);
  await page.waitForSelector('#toast:not([hidden])');
  assert.match(await page.textContent('#toast'), /not an image/);
  assert.equal(await page.textContent('#picture-info'), info, 'the open picture stays');
  await page.screenshot({ path: path.join(ARTIFACTS, 'refused-not-an-image.png') });
  await page.evaluate(() => { document.getElementById('toast').hidden = true; });

  const transfer = await dataTransferOf(text, 'notes.jpg', 'image/jpeg');
  await page.dispatchEvent('#stage', 'drop', { dataTransfer: transfer });
  await page.waitForSelector('#toast:not([hidden])');
  assert.match(await page.textContent('#toast'), /not an image/);
  assert.equal(await page.textContent('#picture-info'), info);
  await page.evaluate(() => { document.getElementById('toast').hidden = true; });
});

test('an image well takes a chosen file: the input and the preview change, and a non-image is refused', async () => {
  await clearChain();
  await addFilter('QVFilterWatermark');
  const well = page.locator('#params [data-kind="imageWell"][data-key="inputWatermarkImage"]');
  assert.match(await well.textContent(), /no image/);
  const beforeInputs = await inputs();
  const beforePixels = await previewPixels();
  const [chooser] = await Promise.all([page.waitForEvent('filechooser'), well.locator('button').click()]);
  await andPreview(() => chooser.setFiles(picture('mark.png', 400, 200)));
  await page.waitForFunction(() => /400 × 200/.test(document.querySelector('#params [data-key="inputWatermarkImage"]').textContent));
  const afterInputs = await inputs();
  assert.notDeepEqual(afterInputs.inputWatermarkImage, beforeInputs.inputWatermarkImage, 'the well sets inputWatermarkImage');
  assert.ok(afterInputs.inputWatermarkImage, 'inputWatermarkImage holds an image');
  assert.notEqual(await previewPixels(), beforePixels, 'the watermark shows in the preview');
  await page.screenshot({ path: path.join(ARTIFACTS, 'image-well.png') });

  const text = path.join(pictures, 'notes.jpg');
  const [again] = await Promise.all([page.waitForEvent('filechooser'), well.locator('button').click()]);
  await again.setFiles(text);
  await page.waitForSelector('#toast:not([hidden])');
  assert.match(await page.textContent('#toast'), /not an image/);
  assert.deepEqual(await inputs(), afterInputs, 'a refused file leaves the input as it was');
  await page.evaluate(() => { document.getElementById('toast').hidden = true; });

  // The recipe names the chosen file.
  const recipe = await page.evaluate(async (id) => (await fetch(`/api/sessions/${id}/recipe`)).json(), await session());
  assert.match(recipe.chain[0].inputs.inputWatermarkImage, /^@/);
  assert.match(recipe.images[recipe.chain[0].inputs.inputWatermarkImage.slice(1)].file, /mark\.png$/);
});
