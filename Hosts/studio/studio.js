// The studio's page: draws the server's view trees, sends every edit to the server (which
// applies it to the control through its binding) and shows the previews it renders.
'use strict';

const $ = (id) => document.getElementById(id);
const el = (tag, props = {}, ...children) => {
  const e = document.createElement(tag);
  for (const [k, v] of Object.entries(props)) {
    if (k === 'class') e.className = v;
    else if (k === 'dataset') Object.assign(e.dataset, v);
    else if (k.startsWith('on')) e.addEventListener(k.slice(2), v);
    else if (v !== undefined && v !== null && v !== false) e.setAttribute(k, v === true ? '' : v);
  }
  for (const c of children) if (c !== null && c !== undefined) e.append(c);
  return e;
};

const studio = {
  session: null,
  state: null,
  selected: null,   // step id
  view: null,       // the selected step's view JSON
  filters: [],
  textures: [],
  busy: 0,
  previewWanted: 0,
  previewInFlight: false,
  dragging: false,    // a slider is held: previews are drafts at half the size
  shownDraft: false,  // the preview on screen is a draft
  gesture: 0,
  compare: 'after',
  split: 0.5,
};
window.studio = studio;

// ---- server ----

class ApiError extends Error {}

async function api(method, path, body, raw) {
  const init = { method, headers: {} };
  if (body !== undefined) {
    if (raw) { init.body = body; } else { init.body = JSON.stringify(body); init.headers['Content-Type'] = 'application/json'; }
  }
  setBusy(+1);
  try {
    const res = await fetch(path, init);
    const text = await res.text();
    let data = null;
    try { data = text ? JSON.parse(text) : null; } catch { data = null; }
    if (!res.ok) throw new ApiError((data && data.error) || `${res.status} ${res.statusText}`);
    return data;
  } finally { setBusy(-1); }
}
const sessionPath = (rest = '') => `/api/sessions/${studio.session}${rest}`;

function setBusy(delta) {
  studio.busy += delta;
  document.body.dataset.busy = String(studio.busy + (studio.previewInFlight ? 1 : 0) + pendingEdits.size);
}

let toastTimer = 0;
function toast(message, kind = 'error') {
  const t = $('toast');
  t.textContent = message;
  t.className = 'toast' + (kind === 'info' ? ' info' : '');
  t.hidden = false;
  clearTimeout(toastTimer);
  toastTimer = setTimeout(() => { t.hidden = true; }, kind === 'info' ? 2500 : 6000);
}

// ---- state ----

function applyState(state) {
  studio.state = state;
  const image = state.image;
  $('empty').hidden = !!image;
  $('canvas').hidden = !image;
  $('export-button').disabled = !image;
  $('picture-info').textContent = image ? `${image.name} · ${image.width} × ${image.height}` : '';
  $('undo-button').disabled = !state.canUndo;
  $('redo-button').disabled = !state.canRedo;
  if (studio.selected !== null && !state.steps.some((s) => s.id === studio.selected)) {
    studio.selected = state.steps.length ? state.steps[state.steps.length - 1].id : null;
    studio.view = null;
  }
  drawChain();
}

async function refresh(state) {
  applyState(state);
  if (studio.selected !== null) {
    const res = await api('GET', sessionPath(`/steps/${studio.selected}`));
    studio.view = res.view;
    drawParams();
  } else {
    studio.view = null;
    drawParams();
  }
  requestPreview();
}

// ---- pictures ----

async function openFile(file) {
  if (!file) return;
  if (file.size > 200 * 1024 * 1024) { toast('That file is larger than 200 MB.'); return; }
  try {
    const state = await api('POST', sessionPath(`/image?name=${encodeURIComponent(file.name)}`), file, true);
    studio.beforeURL = null;
    await refresh(state);
  } catch (e) { toast(`${file.name}: ${e.message}`); }
}

async function openSample() {
  try {
    const state = await api('POST', sessionPath('/sample'));
    studio.beforeURL = null;
    await refresh(state);
  } catch (e) { toast(e.message); }
}

// ---- previews ----

function previewSize() {
  const r = $('stage').getBoundingClientRect();
  const side = Math.max(r.width - 48, r.height - 48) * Math.min(window.devicePixelRatio || 1, 2);
  // Sizes in steps of 128, so that resizing a little keeps the server's cached decode.
  return Math.max(256, Math.min(2048, Math.ceil(side / 128) * 128));
}

function requestPreview() {
  studio.previewWanted++;
  pumpPreview();
}

async function pumpPreview() {
  if (studio.previewInFlight || !studio.state || !studio.state.image) return;
  const want = studio.previewWanted;
  studio.previewInFlight = true;
  setBusy(0);
  try {
    const size = previewSize();
    if (studio.compare !== 'after' && !studio.beforeURL) await loadBefore(size);
    const draft = studio.dragging;
    const res = await fetch(sessionPath(`/preview?size=${size}${draft ? '&draft=1' : ''}`), { cache: 'no-store' });
    if (res.status === 200) {
      const blob = await res.blob();
      const img = $('after-image');
      await showImage(img, URL.createObjectURL(blob), () => {
        // A draft is drawn at the size of the full preview it stands in for.
        img.style.width = draft ? `${img.naturalWidth * 2}px` : '';
      });
      studio.shownDraft = draft;
      document.body.dataset.previews = String(Number(document.body.dataset.previews) + 1);
    } else if (res.status !== 204) {
      const data = await res.json().catch(() => null);
      toast((data && data.error) || `The preview failed (${res.status}).`);
    }
  } catch (e) {
    toast(e.message);
  } finally {
    studio.previewInFlight = false;
    setBusy(0);
    if (studio.previewWanted !== want) pumpPreview();
  }
}

function showImage(img, url, onload) {
  return new Promise((resolve) => {
    const old = img.dataset.url;
    img.onload = img.onerror = () => { if (old) URL.revokeObjectURL(old); if (onload) onload(); resolve(); };
    img.dataset.url = url;
    img.src = url;
  }).then(layoutCompare);
}

async function loadBefore(size) {
  const res = await fetch(sessionPath(`/preview?size=${size}&before=1`), { cache: 'no-store' });
  if (res.status !== 200) return;
  studio.beforeURL = URL.createObjectURL(await res.blob());
  await showImage($('before-image'), studio.beforeURL);
}

function setCompare(mode) {
  studio.compare = mode;
  for (const b of document.querySelectorAll('#compare button')) b.classList.toggle('on', b.dataset.mode === mode);
  if (mode !== 'after' && !studio.beforeURL && studio.state && studio.state.image) {
    loadBefore(previewSize()).then(layoutCompare);
  }
  layoutCompare();
}

function layoutCompare() {
  const before = $('before-image'), after = $('after-image'), handle = $('split-handle');
  const mode = studio.compare;
  before.hidden = mode === 'after' || !studio.beforeURL;
  after.style.visibility = mode === 'before' ? 'hidden' : '';
  handle.hidden = mode !== 'split';
  before.style.clipPath = '';
  after.style.clipPath = '';
  if (mode === 'split') {
    before.style.zIndex = 2;
    const rect = after.getBoundingClientRect();
    const canvas = $('canvas').getBoundingClientRect();
    const x = rect.left - canvas.left + rect.width * studio.split;
    handle.style.left = `${x - 1}px`;
    handle.style.top = `${rect.top - canvas.top}px`;
    handle.style.height = `${rect.height}px`;
    handle.style.zIndex = 3;
    const b = before.getBoundingClientRect();
    const cut = Math.max(0, Math.min(b.width, rect.left + rect.width * studio.split - b.left));
    before.style.clipPath = `inset(0 ${b.width - cut}px 0 0)`;
  } else {
    before.style.zIndex = 2;
  }
}

// ---- filters ----

const GENERIC_CATEGORIES = new Set(['CICategoryStillImage', 'CICategoryVideo', 'CICategoryInterlaced',
  'CICategoryNonSquarePixels', 'CICategoryHighDynamicRange', 'CICategoryBuiltIn', 'CICategoryFilterGenerator']);

function categoryName(c) {
  return c.replace(/^CICategory/, '').replace(/([a-z])([A-Z])/g, '$1 $2');
}

function primaryCategory(f) {
  return f.categories.find((c) => !GENERIC_CATEGORIES.has(c)) || f.categories[0] || 'Other';
}

function drawFilterList() {
  const query = $('filter-search').value.trim().toLowerCase();
  const list = $('filter-list');
  list.replaceChildren();
  const groups = new Map();
  for (const f of studio.filters) {
    const hay = `${f.displayName} ${f.name} ${f.categories.map(categoryName).join(' ')}`.toLowerCase();
    if (query && !query.split(/\s+/).every((w) => hay.includes(w))) continue;
    const c = primaryCategory(f);
    if (!groups.has(c)) groups.set(c, []);
    groups.get(c).push(f);
  }
  const names = [...groups.keys()].sort((a, b) => categoryName(a).localeCompare(categoryName(b)));
  for (const c of names) {
    list.append(el('div', { class: 'category' }, categoryName(c)));
    for (const f of groups.get(c).sort((a, b) => a.displayName.localeCompare(b.displayName))) {
      list.append(el('div', {
        class: 'filter-item', title: `${f.name}\nClick to add to the chain`, dataset: { filter: f.name },
        onclick: () => addStep(f.name),
      }, el('span', {}, f.displayName, f.name.startsWith('QV') ? null : el('small', {}, f.name)), el('span', { class: 'add' }, '+')));
    }
  }
  if (!names.length) list.append(el('p', { class: 'muted', style: 'padding: 0 12px' }, 'No filter matches.'));
}

async function addStep(name) {
  if (!studio.state.image) { toast('Open a picture first.', 'info'); return; }
  try {
    const res = await api('POST', sessionPath('/steps'), { filter: name });
    studio.selected = res.step;
    studio.view = res.view;
    applyState(res);
    drawParams();
    requestPreview();
  } catch (e) { toast(e.message); }
}

// ---- chain ----

function drawChain() {
  const chain = $('chain');
  const steps = studio.state ? studio.state.steps : [];
  $('chain-count').textContent = steps.length ? String(steps.length) : '';
  chain.replaceChildren();
  steps.forEach((s, i) => {
    const li = el('li', {
      class: (s.id === studio.selected ? 'selected ' : '') + (s.enabled ? '' : 'off'), dataset: { step: s.id, filter: s.filter },
      onclick: (e) => { if (!e.target.closest('button, input')) selectStep(s.id); },
    },
    el('span', { class: 'index' }, String(i + 1)),
    el('input', { type: 'checkbox', title: 'On or off', checked: s.enabled, class: 'toggle',
      onchange: (e) => stepCall('POST', `/steps/${s.id}/enabled`, { enabled: e.target.checked }) }),
    el('span', { class: 'name', title: s.filter }, s.displayName),
    el('span', { class: 'tools' },
      el('button', { title: 'Move up', class: 'up', disabled: i === 0, onclick: () => stepCall('POST', `/steps/${s.id}/move`, { position: i - 1 }) }, '↑'),
      el('button', { title: 'Move down', class: 'down', disabled: i === steps.length - 1, onclick: () => stepCall('POST', `/steps/${s.id}/move`, { position: i + 1 }) }, '↓'),
      el('button', { title: 'Remove', class: 'remove', onclick: () => stepCall('DELETE', `/steps/${s.id}`) }, '✕')));
    chain.append(li);
  });
}

async function stepCall(method, path, body) {
  try { await refresh(await api(method, sessionPath(path), body)); } catch (e) { toast(e.message); }
}

async function selectStep(id) {
  studio.selected = id;
  drawChain();
  // Until the step's view arrives the panel still shows the previous one; mark it so that
  // nothing (a test, a script) takes its controls for the new step's.
  $('params').dataset.loading = '1';
  try {
    const res = await api('GET', sessionPath(`/steps/${id}`));
    studio.view = res.view;
    drawParams();
  } catch (e) {
    delete $('params').dataset.loading;
    toast(e.message);
  }
}

// ---- the view tree ----

const controls = new Map();  // path "0.1.2" -> {node, update(node)}

function drawParams() {
  const params = $('params');
  controls.clear();
  closePicker();
  params.replaceChildren();
  delete params.dataset.loading;
  const step = studio.state && studio.state.steps.find((s) => s.id === studio.selected);
  $('params-title').textContent = step ? `${step.displayName}${step.provided ? '' : ' · generic controls'}` : 'Parameters';
  if (!studio.view || !step) {
    params.append(el('p', { class: 'muted' }, studio.state && studio.state.steps.length ? 'Choose a step of the chain.' : 'Add a filter from the list to start a chain.'));
    return;
  }
  params.dataset.filter = step.filter;
  params.append(drawView(studio.view.view, [], null));
}

function drawView(node, path, parentHeight) {
  const [x, y, w, h] = node.frame;
  const box = el('div', { class: `v k-${node.kind}`, dataset: { kind: node.kind, path: path.join('.') } });
  if (parentHeight === null) {
    box.className = 'view';
    box.style.width = `${w}px`;
    box.style.height = `${h}px`;
  } else {
    Object.assign(box.style, { left: `${x}px`, top: `${parentHeight - y - h}px`, width: `${w}px`, height: `${h}px` });
  }
  const key = node.bindings && Object.values(node.bindings)[0] && Object.values(node.bindings)[0].key;
  if (key) box.dataset.key = key;
  const control = makeControl(node, path, key);
  if (control) {
    box.append(control.element);
    controls.set(path.join('.'), control);
    control.update(node);
  }
  (node.subviews || []).forEach((sub, i) => box.append(drawView(sub, [...path, i], h)));
  return box;
}

function sendEdit(path, body) {
  queueEdit(studio.selected, path.join('.'), { control: path, ...body });
}

function makeControl(node, path, key) {
  const enabled = node.enabled !== false;
  switch (node.kind) {
    case 'label': {
      const span = el('span', { class: 'label' });
      return { element: span, update: (n) => { span.textContent = n.text; span.title = n.text; } };
    }
    case 'textField': {
      const input = el('input', { type: 'text', spellcheck: 'false', disabled: !enabled });
      input.addEventListener('change', () => sendEdit(path, { value: input.value }));
      input.addEventListener('keydown', (e) => { if (e.key === 'Enter') input.blur(); });
      return { element: input, update: (n) => { if (document.activeElement !== input) input.value = n.text; } };
    }
    case 'slider': {
      const input = el('input', { type: 'range', min: node.minValue, max: node.maxValue, disabled: !enabled,
        step: 'any' });
      let dragging = false;
      input.addEventListener('pointerdown', () => { dragging = true; studio.dragging = true; studio.gesture++; });
      const release = () => {
        if (!dragging) return;
        dragging = false;
        studio.dragging = false;
        // The full-size preview replaces the drafts shown during the drag.
        if (studio.shownDraft || studio.previewInFlight) requestPreview();
      };
      input.addEventListener('pointerup', release);
      input.addEventListener('pointercancel', release);
      input.addEventListener('change', release);
      input.addEventListener('keydown', () => { studio.gesture++; });
      input.addEventListener('input', () => sendEdit(path, { value: input.value, gesture: studio.gesture }));
      return { element: input, update: (n) => { if (!dragging) input.value = n.value; } };
    }
    case 'checkBox': {
      const box = el('input', { type: 'checkbox', disabled: !enabled });
      const label = el('label', { class: 'check' }, box, el('span', {}, node.title || ''));
      box.addEventListener('change', () => sendEdit(path, { value: box.checked ? 'true' : 'false' }));
      return { element: label, update: (n) => { box.checked = !!n.state; } };
    }
    case 'colorWell': {
      const input = el('input', { type: 'color', disabled: !enabled, title: 'Colour' });
      const alpha = el('input', { type: 'text', class: 'alpha', title: 'Opacity (0 to 1)', disabled: !enabled });
      const wrap = el('span', { class: 'well' }, input, alpha);
      let rgba = [0, 0, 0, 1];
      let gestureOpen = false;
      const send = () => sendEdit(path, { value: `${hexToRGB(input.value).map(fmt).join(' ')} ${fmt(Number(alpha.value) || 0)}`, gesture: studio.gesture });
      input.addEventListener('focus', () => { if (!gestureOpen) { studio.gesture++; gestureOpen = true; } });
      input.addEventListener('change', () => { gestureOpen = false; });
      input.addEventListener('input', send);
      alpha.addEventListener('change', () => { studio.gesture++; send(); });
      return { element: wrap, update: (n) => {
        rgba = n.color || [0, 0, 0, 1];
        input.value = rgbToHex(rgba);
        if (document.activeElement !== alpha) alpha.value = fmt(rgba[3]);
      } };
    }
    case 'imageWell': {
      const status = el('span', { class: 'status' });
      const wrap = el('span', { class: 'imagewell' }, status);
      if (key === 'inputImage') {
        status.textContent = 'the chain’s picture';
        return { element: wrap, update: () => {} };
      }
      const file = el('input', { type: 'file', accept: 'image/jpeg,image/png,image/webp', hidden: true });
      const button = el('button', { type: 'button', disabled: !enabled, onclick: () => file.click() }, 'Choose…');
      file.addEventListener('change', async () => {
        const f = file.files[0];
        if (!f) return;
        try {
          const res = await api('POST', sessionPath(`/steps/${studio.selected}/image?control=${path.join('.')}&name=${encodeURIComponent(f.name)}`), f, true);
          applyEditResult(res);
          requestPreview();
        } catch (e) { toast(e.message); }
        file.value = '';
      });
      wrap.append(button, file);
      return { element: wrap, update: (n) => {
        status.textContent = n.extent ? `image ${n.extent[2]} × ${n.extent[3]}` : 'no image';
      } };
    }
    case 'popUpButton': {
      const items = (node.menu && node.menu.items) || [];
      if (items.some((it) => textureId(it.representedObject))) return makeTexturePicker(node, path, enabled);
      const select = el('select', { disabled: !enabled });
      items.forEach((it, i) => {
        const label = it.separator ? '──────────' : `${'\u00a0\u00a0\u00a0'.repeat(it.indentationLevel || 0)}${it.title}`;
        select.append(el('option', { value: String(i), disabled: it.separator || !it.enabled }, label));
      });
      select.addEventListener('change', () => sendEdit(path, { index: Number(select.value) }));
      return { element: select, update: (n) => { select.value = String(n.selectedIndex); } };
    }
    case 'button':
      return { element: el('button', { type: 'button', disabled: true }, node.title || ''), update: () => {} };
    default:
      return null;
  }
}

function textureId(obj) {
  const s = obj && (typeof obj === 'string' ? obj : obj.url);
  return s && /^x-qvfilter-(texture|tag):/.test(s) ? s : null;
}

function thumbURL(id, size = 64) { return `/api/textures/thumbnail?id=${encodeURIComponent(id)}&size=${size}`; }

// A pop-up of textures, drawn with thumbnails: the same menu (headings, random items,
// indentation), chosen by item index as in the view.
function makeTexturePicker(node, path, enabled) {
  const button = el('button', { type: 'button', disabled: !enabled });
  const wrap = el('span', { class: 'picker' }, button);
  let current = node;
  button.addEventListener('click', () => {
    if (openPicker && openPicker.wrap === wrap) { closePicker(); return; }
    closePicker();
    const menu = el('div', { class: 'picker-menu', role: 'listbox' });
    current.menu.items.forEach((it, i) => {
      if (it.separator) { menu.append(el('div', { class: 'sep' })); return; }
      if (!it.enabled) { menu.append(el('div', { class: 'heading' }, it.title)); return; }
      const id = textureId(it.representedObject);
      const icon = id && id.startsWith('x-qvfilter-texture:') ? el('img', { src: thumbURL(id), alt: '', loading: 'lazy' })
        : el('span', { class: 'dice' }, id ? '⚄' : '∅');
      const item = el('div', { class: 'item' + (i === current.selectedIndex ? ' selected' : ''), role: 'option',
        dataset: { index: i }, style: `padding-left: ${12 + 18 * (it.indentationLevel || 0)}px`,
        onclick: () => { closePicker(); sendEdit(path, { index: i }); } }, icon, el('span', {}, it.title));
      menu.append(item);
    });
    document.body.append(menu);
    const r = button.getBoundingClientRect();
    menu.style.left = `${Math.min(r.left, window.innerWidth - 300)}px`;
    menu.style.minWidth = `${r.width}px`;
    const below = window.innerHeight - r.bottom;
    if (below > 240) menu.style.top = `${r.bottom + 2}px`; else menu.style.bottom = `${window.innerHeight - r.top + 2}px`;
    openPicker = { wrap, menu };
    const sel = menu.querySelector('.selected');
    if (sel) sel.scrollIntoView({ block: 'center' });
  });
  return { element: wrap, update: (n) => {
    current = n;
    const it = n.menu.items[n.selectedIndex];
    const id = it && textureId(it.representedObject);
    button.replaceChildren(
      id && id.startsWith('x-qvfilter-texture:') ? el('img', { src: thumbURL(id), alt: '' }) : el('span', { class: 'dice' }, id ? '⚄' : '∅'),
      el('span', { class: 'title' }, it ? it.title : '—'), el('span', { class: 'muted' }, '▾'));
  } };
}

let openPicker = null;
function closePicker() { if (openPicker) { openPicker.menu.remove(); openPicker = null; } }
document.addEventListener('pointerdown', (e) => {
  if (openPicker && !openPicker.menu.contains(e.target) && !openPicker.wrap.contains(e.target)) closePicker();
});

const fmt = (v) => String(Math.round(Number(v) * 10000) / 10000);
function rgbToHex(c) {
  return '#' + c.slice(0, 3).map((v) => Math.round(Math.max(0, Math.min(1, v)) * 255).toString(16).padStart(2, '0')).join('');
}
function hexToRGB(hex) { return [1, 3, 5].map((i) => parseInt(hex.slice(i, i + 2), 16) / 255); }

// ---- edits ----

// At most one edit on its way; later edits of a control replace its waiting one, so a slider
// drag never queues stale values.
const pendingEdits = new Map();
let editInFlight = false;

function queueEdit(stepId, controlKey, body) {
  pendingEdits.set(`${stepId}/${controlKey}`, { stepId, body });
  setBusy(0);
  pumpEdits();
}

async function pumpEdits() {
  if (editInFlight || !pendingEdits.size) return;
  const [k, edit] = pendingEdits.entries().next().value;
  pendingEdits.delete(k);
  editInFlight = true;
  try {
    const res = await api('POST', sessionPath(`/steps/${edit.stepId}/edit`), edit.body);
    // The server renders the new preview while the page updates its controls.
    requestPreview();
    if (edit.stepId === studio.selected) applyEditResult(res); else applyState(res);
  } catch (e) {
    toast(e.message);
    if (edit.stepId === studio.selected) selectStep(edit.stepId);
  } finally {
    editInFlight = false;
    setBusy(0);
    pumpEdits();
  }
}

function applyEditResult(res) {
  applyState(res);
  studio.view = res.view;
  const walk = (node, path) => {
    const c = controls.get(path.join('.'));
    if (c) c.update(node);
    (node.subviews || []).forEach((s, i) => walk(s, [...path, i]));
  };
  walk(res.view.view, []);
}

async function undoRedo(which) {
  try { await refresh(await api('POST', sessionPath(`/${which}`))); } catch (e) { toast(e.message); }
}

// ---- textures ----

let textureTag = null;
function drawTextures() {
  const tags = new Map();
  for (const t of studio.textures) for (const tag of t.tags) tags.set(tag.tag, (tags.get(tag.tag) || 0) + 1);
  const chips = $('texture-tags');
  chips.replaceChildren(el('button', { class: textureTag === null ? 'on' : '', onclick: () => { textureTag = null; drawTextures(); } }, `All ${studio.textures.length}`));
  for (const [tag, n] of [...tags].sort()) {
    chips.append(el('button', { class: textureTag === tag ? 'on' : '', dataset: { tag }, onclick: () => { textureTag = tag; drawTextures(); } }, `${tag} ${n}`));
  }
  const grid = $('texture-grid');
  grid.replaceChildren();
  for (const t of studio.textures) {
    if (textureTag !== null && !t.tags.some((x) => x.tag === textureTag)) continue;
    const usable = findTextureItem(t.identifier) !== null;
    grid.append(el('div', {
      class: 'texture-card' + (usable ? ' usable' : ''), dataset: { identifier: t.identifier },
      title: usable ? `${t.displayName}\nClick to use it in the selected step` : t.displayName,
      onclick: () => { const f = findTextureItem(t.identifier); if (f) sendEdit(f.path, { index: f.index }); },
    }, el('div', { class: 'thumb' }, el('img', { src: thumbURL(t.identifier, 192), alt: t.displayName, loading: 'lazy' })),
    el('div', { class: 'name' }, t.displayName), el('div', { class: 'tags' }, t.tags.map((x) => x.tag).join(' · '))));
  }
}

// The first texture pop-up of the selected step whose menu offers this texture.
function findTextureItem(identifier) {
  if (!studio.view) return null;
  let found = null;
  const walk = (node, path) => {
    if (found) return;
    if (node.kind === 'popUpButton' && node.enabled !== false) {
      const i = node.menu.items.findIndex((it) => textureId(it.representedObject) === identifier);
      if (i >= 0) { found = { path, index: i }; return; }
    }
    (node.subviews || []).forEach((s, j) => walk(s, [...path, j]));
  };
  walk(studio.view.view, []);
  return found;
}

// ---- export ----

async function startExport() {
  const format = $('export-format').value;
  const quality = Number($('export-quality').value) / 100;
  const bar = $('export-progress');
  const status = $('export-status');
  $('export-start').disabled = true;
  bar.hidden = false;
  bar.firstElementChild.style.width = '0';
  status.textContent = 'Rendering the full-size picture…';
  try {
    let job = await api('POST', sessionPath('/exports'), { format, quality });
    while (!job.done) {
      await new Promise((r) => setTimeout(r, 150));
      job = await api('GET', sessionPath(`/exports/${job.job}`));
      bar.firstElementChild.style.width = `${Math.round(job.progress * 100)}%`;
    }
    if (job.error) throw new ApiError(job.error);
    bar.firstElementChild.style.width = '100%';
    status.textContent = `Saved as ${job.name}.`;
    const a = el('a', { href: sessionPath(`/exports/${job.job}/file`), download: job.name, id: 'export-link' });
    document.body.append(a);
    a.click();
    a.remove();
  } catch (e) {
    status.textContent = '';
    toast(e.message);
  } finally {
    $('export-start').disabled = false;
  }
}

function recipeURL() {
  const format = $('export-format').value;
  return sessionPath(`/recipe?format=${format}&quality=${Number($('export-quality').value) / 100}`);
}

async function importRecipe(file) {
  if (!file) return;
  try {
    const res = await api('POST', sessionPath('/recipe'), await file.text(), true);
    studio.selected = res.steps.length ? res.steps[0].id : null;
    await refresh(res);
    toast(res.warnings && res.warnings.length ? res.warnings.join('\n') : `Imported ${res.steps.length} step(s).`, res.warnings && res.warnings.length ? 'error' : 'info');
  } catch (e) { toast(e.message); }
}

// ---- wiring ----

function wire() {
  $('open-button').onclick = $('empty-open').onclick = () => $('open-input').click();
  $('open-input').onchange = (e) => { openFile(e.target.files[0]); e.target.value = ''; };
  $('sample-button').onclick = $('empty-sample').onclick = openSample;
  $('undo-button').onclick = () => undoRedo('undo');
  $('redo-button').onclick = () => undoRedo('redo');
  $('filter-search').oninput = drawFilterList;
  for (const b of document.querySelectorAll('#compare button')) b.onclick = () => setCompare(b.dataset.mode);
  for (const b of document.querySelectorAll('.tabs button')) {
    b.onclick = () => {
      for (const x of document.querySelectorAll('.tabs button')) x.classList.toggle('on', x === b);
      $('filters-tab').hidden = b.dataset.tab !== 'filters';
      $('textures-tab').hidden = b.dataset.tab !== 'textures';
      if (b.dataset.tab === 'textures') drawTextures();
    };
  }
  $('export-button').onclick = () => { $('export-status').textContent = ''; $('export-progress').hidden = true; $('export-dialog').showModal(); };
  $('export-format').onchange = () => { $('quality-row').style.visibility = $('export-format').value === 'png' ? 'hidden' : ''; };
  $('export-quality').oninput = () => { $('quality-value').textContent = $('export-quality').value; };
  $('export-start').onclick = startExport;
  $('recipe-download').onclick = () => { const a = el('a', { href: recipeURL(), download: 'recipe.json' }); document.body.append(a); a.click(); a.remove(); };
  $('recipe-import').onclick = () => $('recipe-input').click();
  $('recipe-input').onchange = (e) => { importRecipe(e.target.files[0]); e.target.value = ''; };

  const stage = $('stage');
  let depth = 0;
  stage.addEventListener('dragenter', (e) => { e.preventDefault(); depth++; stage.classList.add('dragging'); });
  stage.addEventListener('dragleave', () => { if (--depth <= 0) { depth = 0; stage.classList.remove('dragging'); } });
  stage.addEventListener('dragover', (e) => e.preventDefault());
  stage.addEventListener('drop', (e) => {
    e.preventDefault();
    depth = 0;
    stage.classList.remove('dragging');
    const file = e.dataTransfer.files[0];
    if (file) openFile(file);
  });

  const handle = $('split-handle');
  handle.addEventListener('pointerdown', (e) => {
    handle.setPointerCapture(e.pointerId);
    const move = (ev) => {
      const r = $('after-image').getBoundingClientRect();
      studio.split = Math.max(0, Math.min(1, (ev.clientX - r.left) / r.width));
      layoutCompare();
    };
    handle.addEventListener('pointermove', move);
    handle.addEventListener('pointerup', () => handle.removeEventListener('pointermove', move), { once: true });
  });

  let held = null;
  document.addEventListener('keydown', (e) => {
    const typing = e.target.closest('input, select, textarea');
    if ((e.ctrlKey || e.metaKey) && e.key.toLowerCase() === 'z' && !typing) {
      e.preventDefault();
      undoRedo(e.shiftKey ? 'redo' : 'undo');
    } else if (e.key === 'b' && !typing && !e.repeat && held === null) {
      held = studio.compare;
      setCompare('before');
    }
  });
  document.addEventListener('keyup', (e) => { if (e.key === 'b' && held !== null) { setCompare(held); held = null; } });

  let resizeTimer = 0;
  window.addEventListener('resize', () => {
    layoutCompare();
    clearTimeout(resizeTimer);
    resizeTimer = setTimeout(() => { studio.beforeURL = null; if (studio.compare !== 'after') setCompare(studio.compare); requestPreview(); }, 250);
  });
  window.addEventListener('pagehide', () => {
    // The server forgets this tab's session and its working files now rather than when idle.
    if (studio.session) fetch(sessionPath(), { method: 'DELETE', keepalive: true }).catch(() => {});
  });
}

async function start() {
  wire();
  try {
    const [state, filters, textures] = await Promise.all([
      api('POST', '/api/sessions'), api('GET', '/api/filters'), api('GET', '/api/textures')]);
    studio.session = state.session;
    document.body.dataset.session = state.session;
    studio.filters = filters;
    studio.textures = textures;
    drawFilterList();
    await refresh(state);
    document.body.dataset.ready = '1';
  } catch (e) {
    toast(`The studio cannot start: ${e.message}`);
  }
}

start();
