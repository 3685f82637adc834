// The chain studio page: the chain as a form, the picture before and after it, and the chain
// file. Every change sends the whole chain to the server, which runs it through the library and
// answers with the chain text and the time of each step; the pictures come as raw 16-bit data.
'use strict';

const $ = (id) => document.getElementById(id);

const state = {
  table: [],          // step kinds: {name, help, params: [{label, type, min, max, initial, help}]}
  steps: [],          // the form: [{name, values: [...]}]
  note: '',           // the text after the last block of the loaded file, kept on saving
  image: null,        // {width, height, version, label}
  before: null,       // Uint16Array of the source picture
  after: null,        // Uint16Array of the shown step's output
  run: 0,             // the server's run whose outputs are shown
  times: [],
  selected: -1,       // the step whose output is shown; -1: the last one
  sent: 0,            // requests sent and answered, so that a late answer is dropped
  zoom: 0, panX: 0, panY: 0,
};

function setStatus(text, isError) {
  $('status').textContent = text;
  $('status').classList.toggle('error', !!isError);
}

async function api(path, body) {
  const init = body === undefined ? {} : {
    method: 'POST', headers: {'Content-Type': 'application/json'}, body: JSON.stringify(body)};
  const response = await fetch(path, init);
  const data = await response.json().catch(() => ({error: response.statusText}));
  if (!response.ok) {
    const error = new Error(data.error || ('HTTP ' + response.status));
    error.status = response.status;
    throw error;
  }
  return data;
}

async function fetchPixels(query) {
  const response = await fetch('/api/image?' + query);
  if (!response.ok) {
    const error = new Error('HTTP ' + response.status);
    error.status = response.status;
    throw error;
  }
  return new Uint16Array(await response.arrayBuffer());
}

// ---- the chain form ----------------------------------------------------------------------

function kindOf(name) { return state.table.find((k) => k.name === name); }

function renderSteps() {
  const list = $('steps');
  list.textContent = '';
  state.steps.forEach((step, index) => {
    const kind = kindOf(step.name);
    const item = document.createElement('li');
    item.className = 'step' + (index === shownStep() ? ' selected' : '');
    item.dataset.index = index;
    const head = document.createElement('div');
    head.className = 'head';
    head.title = 'show the output of this step';
    const name = document.createElement('span');
    name.className = 'name';
    name.textContent = (index + 1) + '. ' + step.name;
    const ms = document.createElement('span');
    ms.className = 'ms';
    const time = state.times[index];
    ms.textContent = time ? time.ms.toFixed(1) + ' ms' : '';
    head.append(name, ms);
    for (const [label, title, action] of [
      ['\u2191', 'move up', () => move(index, -1)],
      ['\u2193', 'move down', () => move(index, +1)],
      ['\u00d7', 'remove', () => remove(index)]]) {
      const button = document.createElement('button');
      button.textContent = label;
      button.title = title;
      button.addEventListener('click', (event) => { event.stopPropagation(); action(); });
      head.append(button);
    }
    head.addEventListener('click', () => selectStep(index));
    item.append(head);
    const fields = document.createElement('div');
    fields.className = 'fields';
    const help = document.createElement('div');
    help.className = 'help';
    help.textContent = kind.help;
    fields.append(help);
    kind.params.forEach((param, k) => {
      const id = 'step' + index + 'param' + k;
      const label = document.createElement('label');
      label.htmlFor = id;
      label.textContent = param.label + (param.type === 'int' ? '' : ' (decimal)');
      label.title = param.help + ' (' + param.min + ' to ' + param.max + ')';
      const input = document.createElement('input');
      input.id = id;
      input.type = 'number';
      input.min = param.min;
      input.max = param.max;
      input.step = param.type === 'int' ? '1' : 'any';
      input.value = step.values[k];
      input.dataset.label = param.label;
      input.addEventListener('input', () => {
        const value = Number(input.value);
        const ok = input.value.trim() !== '' && Number.isFinite(value) &&
                   value >= param.min && value <= param.max &&
                   (param.type !== 'int' || Number.isInteger(value));
        input.classList.toggle('bad', !ok);
        if (ok) {
          step.values[k] = value;
          schedule();
        }
      });
      fields.append(label, input);
    });
    item.append(fields);
    list.append(item);
  });
}

function move(index, by) {
  const to = index + by;
  if (to < 0 || to >= state.steps.length) return;
  [state.steps[index], state.steps[to]] = [state.steps[to], state.steps[index]];
  state.selected = -1;
  renderSteps();
  schedule();
}

function remove(index) {
  state.steps.splice(index, 1);
  state.selected = -1;
  renderSteps();
  schedule();
}

function addStep() {
  const kind = kindOf($('addKind').value);
  state.steps.push({name: kind.name, values: kind.params.map((p) => p.initial)});
  state.selected = -1;
  renderSteps();
  schedule();
}

function shownStep() {
  return state.selected >= 0 ? state.selected : state.steps.length - 1;
}

async function selectStep(index) {
  state.selected = index === state.steps.length - 1 ? -1 : index;
  renderSteps();
  await showStep();
}

// ---- processing ----------------------------------------------------------------------------

let timer = 0;
function schedule() {
  clearTimeout(timer);
  timer = setTimeout(process, 120);
}

async function process() {
  if (!state.image) return;
  const ticket = ++state.sent;
  setStatus('processing\u2026');
  document.body.dataset.busy = '1';
  try {
    const result = await api('/api/process', {steps: state.steps});
    if (ticket !== state.sent) return;
    state.run = result.run;
    state.times = result.times;
    $('chainText').textContent = result.text + state.note;
    renderSteps();
    renderTimes(result.totalMs);
    await showStep();
    if (ticket !== state.sent) return;
    setStatus('done in ' + result.totalMs.toFixed(0) + ' ms');
    document.body.dataset.run = String(result.run);
  } catch (error) {
    if (ticket !== state.sent || error.status === 409) return;  // a newer request took over
    setStatus(error.message, true);
  } finally {
    if (ticket === state.sent) delete document.body.dataset.busy;
  }
}

async function showStep() {
  const index = shownStep();
  let label;
  if (index < 0) {
    state.after = state.before;
    label = 'after: no steps, the picture as it is';
  } else {
    try {
      state.after = await fetchPixels('step=' + index + '&run=' + state.run);
    } catch (error) {
      if (error.status === 409) return;  // replaced by a newer run
      throw error;
    }
    label = 'after: output of step ' + (index + 1) + ' (' + state.steps[index].name + ')' +
            (index === state.steps.length - 1 ? ', the result' : '');
  }
  $('showing').textContent = label;
  draw();
}

function renderTimes(totalMs) {
  const body = $('times').tBodies[0];
  body.textContent = '';
  state.times.forEach((t, i) => {
    const row = body.insertRow();
    row.insertCell().textContent = (i + 1) + '. ' + t.name + (t.reused ? ' (unchanged)' : '');
    row.insertCell().textContent = t.ms.toFixed(1);
  });
  const row = body.insertRow();
  row.insertCell().textContent = 'this run';
  row.insertCell().textContent = totalMs.toFixed(1);
}

// ---- chain files ---------------------------------------------------------------------------

async function loadChain(name) {
  const result = await api('/api/chain/load', {name});
  const report = result.report;
  const box = $('report');
  box.textContent = '';
  const title = document.createElement('div');
  title.textContent = name + ': ' + report.summary;
  box.append(title);
  const list = document.createElement('ol');
  for (const block of report.blocks) {
    const item = document.createElement('li');
    item.className = block.outcome.replace(' ', '-');
    item.textContent = '[' + block.name + '] ' + block.outcome +
                       (block.detail ? ': ' + block.detail : '');
    list.append(item);
  }
  box.append(list);
  for (const note of report.notes) {
    const item = document.createElement('div');
    item.textContent = note;
    box.append(item);
  }
  const clean = report.hasBlocks && !report.fails && report.notes.length === 0 &&
                report.blocks.every((b) => b.outcome === 'runs');
  box.hidden = clean;
  state.steps = report.steps.map((s) => ({name: s.name, values: s.values.slice()}));
  state.note = report.note;
  state.selected = -1;
  $('fileName').value = name;
  renderSteps();
  schedule();
}

async function saveChain() {
  const name = $('fileName').value.trim();
  try {
    const result = await api('/api/chain/save', {name, steps: state.steps, note: state.note});
    $('saveStatus').textContent = 'saved ' + result.name + ' (' + result.bytes + ' bytes)';
    await refreshFiles(result.name);
  } catch (error) {
    $('saveStatus').textContent = 'not saved: ' + error.message;
  }
}

async function refreshFiles(select) {
  const s = await api('/api/state');
  const files = $('files');
  files.textContent = '';
  for (const name of s.files) {
    files.add(new Option(name, name, false, name === select));
  }
  return s;
}

// ---- the viewer ----------------------------------------------------------------------------

const view = $('view');
const offscreen = {before: document.createElement('canvas'), after: document.createElement('canvas')};

// The values below which and above which 0.5 % of the pixels lie.
function percentileWindow(pixels) {
  const counts = new Uint32Array(65536);
  for (let i = 0; i < pixels.length; ++i) counts[pixels[i]]++;
  const cut = pixels.length * 0.005;
  let low = 0, high = 65535, sum = 0;
  for (let v = 0; v < 65536; ++v) { sum += counts[v]; if (sum > cut) { low = v; break; } }
  sum = 0;
  for (let v = 65535; v >= 0; --v) { sum += counts[v]; if (sum > cut) { high = v; break; } }
  return high > low ? [low, high] : [low, low + 1];
}

function manualWindow() {
  const level = Number($('level').value), width = Number($('window').value);
  return [level - width / 2, level + width / 2];
}

function render(pixels, canvas) {
  const {width, height} = state.image;
  canvas.width = width;
  canvas.height = height;
  const [low, high] = $('autoWindow').checked ? percentileWindow(pixels) : manualWindow();
  const scale = 255 / (high - low);
  const invert = $('invert').checked;
  const lut = new Uint8ClampedArray(65536);
  for (let v = 0; v < 65536; ++v) {
    const g = Math.min(255, Math.max(0, (v - low) * scale));
    lut[v] = invert ? 255 - g : g;
  }
  const context = canvas.getContext('2d');
  const data = context.createImageData(width, height);
  const out = new Uint32Array(data.data.buffer);
  for (let i = 0; i < pixels.length; ++i) {
    const g = lut[pixels[i]];
    out[i] = 0xff000000 | (g << 16) | (g << 8) | g;
  }
  context.putImageData(data, 0, 0);
  return [low, high];
}

let windows = {before: [0, 65535], after: [0, 65535]};

function draw() {
  if (!state.before) return;
  windows.before = render(state.before, offscreen.before);
  windows.after = render(state.after || state.before, offscreen.after);
  paint();
  drawHistogram();
}

function fitZoom() {
  const {width, height} = state.image;
  const side = $('mode').value === 'side' ? 2 : 1;
  return Math.min(view.clientWidth / (width * side), view.clientHeight / height);
}

function paint() {
  if (!state.image) return;
  view.width = view.clientWidth;
  view.height = view.clientHeight;
  const context = view.getContext('2d');
  context.imageSmoothingEnabled = state.zoom !== 0 && state.zoom < 1;
  context.fillStyle = '#101418';
  context.fillRect(0, 0, view.width, view.height);
  const zoom = state.zoom || fitZoom();
  $('zoomLabel').textContent = Math.round(zoom * 100) + ' %';
  const {width, height} = state.image;
  const mode = $('mode').value;
  const pane = mode === 'side' ? view.width / 2 : view.width;
  // The picture's point at the pane's centre, moved by the pan.
  const cx = width / 2 + state.panX, cy = height / 2 + state.panY;
  const x0 = pane / 2 - cx * zoom, y0 = view.height / 2 - cy * zoom;
  const put = (canvas, offset) =>
    context.drawImage(canvas, offset + x0, y0, width * zoom, height * zoom);
  if (mode === 'side') {
    context.save();
    context.beginPath(); context.rect(0, 0, pane, view.height); context.clip();
    put(offscreen.before, 0);
    context.restore();
    context.save();
    context.beginPath(); context.rect(pane, 0, pane, view.height); context.clip();
    put(offscreen.after, pane);
    context.restore();
    context.fillStyle = '#cfd4da';
    context.fillRect(pane - 1, 0, 2, view.height);
  } else if (mode === 'before') {
    put(offscreen.before, 0);
  } else {
    put(offscreen.after, 0);
    if (mode === 'split') {
      const at = view.width * Number($('split').value) / 100;
      context.save();
      context.beginPath(); context.rect(0, 0, at, view.height); context.clip();
      put(offscreen.before, 0);
      context.restore();
      context.fillStyle = '#ffd34d';
      context.fillRect(at - 1, 0, 2, view.height);
    }
  }
  view.dataset.painted = String(state.run);
}

function drawHistogram() {
  const canvas = $('histogram');
  const context = canvas.getContext('2d');
  const bins = canvas.width;
  context.clearRect(0, 0, bins, canvas.height);
  const series = [[state.before, 'rgba(120,130,140,0.6)'], [state.after, 'rgba(47,111,179,0.8)']];
  const counts = series.map(([pixels]) => {
    const c = new Float64Array(bins);
    if (pixels) for (let i = 0; i < pixels.length; ++i) c[pixels[i] * bins >> 16]++;
    return c;
  });
  let top = 1;
  for (const c of counts) for (const v of c) top = Math.max(top, Math.log1p(v));
  counts.forEach((c, s) => {
    context.fillStyle = series[s][1];
    for (let b = 0; b < bins; ++b) {
      const h = Math.log1p(c[b]) / top * canvas.height;
      context.fillRect(b, canvas.height - h, 1, h);
    }
  });
  const [low, high] = windows.after;
  context.strokeStyle = '#d0451b';
  for (const v of [low, high]) {
    const x = v * bins / 65536;
    context.beginPath(); context.moveTo(x, 0); context.lineTo(x, canvas.height); context.stroke();
  }
}

function imagePoint(event) {
  const rect = view.getBoundingClientRect();
  const zoom = state.zoom || fitZoom();
  const mode = $('mode').value;
  const pane = mode === 'side' ? rect.width / 2 : rect.width;
  let x = event.clientX - rect.left;
  if (mode === 'side' && x >= pane) x -= pane;
  const y = event.clientY - rect.top;
  const {width, height} = state.image;
  return [Math.floor((x - pane / 2) / zoom + width / 2 + state.panX),
          Math.floor((y - rect.height / 2) / zoom + height / 2 + state.panY)];
}

let drag = null;
view.addEventListener('mousedown', (e) => { drag = [e.clientX, e.clientY]; });
window.addEventListener('mouseup', () => { drag = null; });
view.addEventListener('mousemove', (e) => {
  if (!state.image) return;
  if (drag) {
    const zoom = state.zoom || fitZoom();
    state.panX -= (e.clientX - drag[0]) / zoom;
    state.panY -= (e.clientY - drag[1]) / zoom;
    drag = [e.clientX, e.clientY];
    paint();
  }
  const [x, y] = imagePoint(e);
  const {width, height} = state.image;
  if (x >= 0 && y >= 0 && x < width && y < height) {
    const i = y * width + x;
    $('pixel').textContent = 'x ' + x + ', y ' + y + ': before ' + state.before[i] +
                             ', after ' + (state.after ? state.after[i] : '');
  }
});
view.addEventListener('wheel', (e) => {
  e.preventDefault();
  setZoom((state.zoom || fitZoom()) * (e.deltaY < 0 ? 1.25 : 0.8));
}, {passive: false});

function setZoom(zoom) {
  state.zoom = zoom === 0 ? 0 : Math.min(32, Math.max(0.02, zoom));
  if (zoom === 0) { state.panX = 0; state.panY = 0; }
  paint();
}

// ---- start ---------------------------------------------------------------------------------

async function loadPicture(s) {
  state.image = s.image;
  $('imageLabel').textContent = s.image.label + ' (' + s.image.width + ' \u00d7 ' +
                                s.image.height + ')';
  state.before = await fetchPixels('step=source');
  state.after = state.before;
  draw();
}

async function waitForPicture(s) {
  const progress = $('acquireProgress');
  progress.hidden = false;
  while (!s.image) {
    if (s.acquireError) {
      setStatus('exposure failed: ' + s.acquireError, true);
      progress.hidden = true;
      return s;
    }
    setStatus('exposure running (progress ' + s.progress + ' of 11)');
    progress.value = s.progress;
    await new Promise((resolve) => setTimeout(resolve, 200));
    s = await api('/api/state');
  }
  progress.hidden = true;
  return s;
}

async function acquire() {
  try {
    await api('/api/acquire', {});
    let s = await api('/api/state');
    const version = state.image ? state.image.version : 0;
    while (s.acquiring || (s.image && s.image.version === version && !s.acquireError)) {
      $('acquireProgress').hidden = false;
      $('acquireProgress').value = s.progress;
      setStatus('exposure running (progress ' + s.progress + ' of 11)');
      await new Promise((resolve) => setTimeout(resolve, 200));
      s = await api('/api/state');
      if (!s.acquiring) break;
    }
    $('acquireProgress').hidden = true;
    if (s.acquireError) { setStatus('exposure failed: ' + s.acquireError, true); return; }
    await loadPicture(s);
    schedule();
  } catch (error) {
    setStatus(error.message, true);
  }
}

async function start() {
  let s = await api('/api/state');
  state.table = s.steps;
  for (const kind of state.table) $('addKind').add(new Option(kind.name, kind.name));
  $('folder').textContent = 'folder: ' + s.chainFolder;
  $('fileName').value = s.chainName;
  await refreshFiles(s.chainName);
  if (s.canAcquire) {
    $('acquire').hidden = false;
    $('acquire').addEventListener('click', acquire);
  }
  if (!s.image) s = await waitForPicture(s);
  if (!s.image) return;
  await loadPicture(s);
  try {
    await loadChain(s.chainName);
  } catch (error) {
    setStatus(s.chainName + ': ' + error.message + ' (starting with an empty chain)', true);
    state.steps = [];
    renderSteps();
    schedule();
  }
}

$('addStep').addEventListener('click', addStep);
$('save').addEventListener('click', saveChain);
$('load').addEventListener('click', () => loadChain($('files').value).catch(
    (error) => setStatus(error.message, true)));
for (const id of ['mode', 'split']) $(id).addEventListener('input', paint);
for (const id of ['invert', 'autoWindow', 'level', 'window']) $(id).addEventListener('input', draw);
$('zoomFit').addEventListener('click', () => setZoom(0));
$('zoomOne').addEventListener('click', () => setZoom(1));
$('zoomIn').addEventListener('click', () => setZoom((state.zoom || fitZoom()) * 1.5));
$('zoomOut').addEventListener('click', () => setZoom((state.zoom || fitZoom()) / 1.5));
window.addEventListener('resize', paint);
start().catch((error) => setStatus(error.message, true));
