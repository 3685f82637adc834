// The chain studio in a real browser: Debian's Chromium, headless, driven by playwright-core.
//
//   node studio_test.mjs --veltrano build/release/bin/veltrano [--artefacts DIR]
//
// Starts "veltrano studio" on the demo's picture with a copy of the default chain, then as a
// user would: waits for the chain to load as steps, adds a step, changes the CLAHE clip limit
// and the new step's brightness, checks that the picture shown changes each time, saves the
// chain and checks the file, runs the saved file through "veltrano process" and compares the
// result with the picture the page shows, shows an intermediate step, and loads a chain file
// with mistakes to see the report. Screenshots land in the artefacts folder. Exits non-zero on
// the first failed check.
import {spawn, spawnSync} from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import {fileURLToPath} from 'node:url';
import {chromium} from 'playwright-core';

const here = path.dirname(fileURLToPath(import.meta.url));
const repo = path.resolve(here, '..', '..');

function option(name, fallback) {
  const at = process.argv.indexOf('--' + name);
  return at > 0 && at + 1 < process.argv.length ? process.argv[at + 1] : fallback;
}
const veltrano = path.resolve(option('veltrano', path.join(repo, 'build/release/bin/veltrano')));
const artefacts = path.resolve(option('artefacts', path.join(here, 'artefacts')));
const browserPath = option('chromium', '/usr/bin/chromium');

function check(condition, what) {
  if (!condition) throw new Error('check failed: ' + what);
  console.log('ok   ' + what);
}

// FNV-1a over 16-bit values; the page computes the same over what it shows.
function digest(values) {
  let h = 0x811c9dc5;
  for (let i = 0; i < values.length; ++i) { h ^= values[i]; h = Math.imul(h, 0x01000193) >>> 0; }
  return h;
}

function run(args) {
  const result = spawnSync(veltrano, args, {encoding: 'utf8'});
  if (result.status !== 0) {
    throw new Error('veltrano ' + args.join(' ') + ' failed: ' + (result.error || '') + '\n' + result.stdout + result.stderr);
  }
  return result.stdout;
}

const work = fs.mkdtempSync(path.join(os.tmpdir(), 'veltrano-studio-browser-'));
fs.mkdirSync(artefacts, {recursive: true});
let studio = null;
let browser = null;
let failed = false;
try {
  run(['demo', '--out', path.join(work, 'demo')]);
  const picture = path.join(work, 'demo', 'corrected.png');
  const chains = path.join(work, 'chains');
  fs.mkdirSync(chains);
  const defaultChain = fs.readFileSync(path.join(repo, 'chains', 'default.chain'), 'utf8');
  fs.writeFileSync(path.join(chains, 'default.chain'), defaultChain);
  fs.writeFileSync(path.join(chains, 'odd.chain'),
                   '[Smooth_Med]\nradius=1;\nend\n[CLAHE]\npeak=200;\nbins=1024;\nend\n' +
                   '[Clahe]\npeak=200;\nbins=1024;\nrows=6;\ncols=4;\nend\n[BC]\nb=1;\nc=1;\nend\n');

  studio = spawn(veltrano, ['studio', '--image', picture, '--chain',
                            path.join(chains, 'default.chain'), '--no-browser'],
                 {stdio: ['ignore', 'pipe', 'inherit']});
  const address = await new Promise((resolve, reject) => {
    let seen = '';
    const timer = setTimeout(() => reject(new Error('the studio printed no address')), 20000);
    studio.stdout.on('data', (chunk) => {
      seen += chunk;
      const match = seen.match(/http:\/\/127\.0\.0\.1:\d+\//);
      if (match) { clearTimeout(timer); resolve(match[0]); }
    });
    studio.on('exit', (code) => reject(new Error('the studio ended with ' + code + ': ' + seen)));
  });
  console.log('studio at ' + address);

  browser = await chromium.launch({executablePath: browserPath, headless: true,
                                   args: ['--no-sandbox', '--disable-gpu']});
  const page = await browser.newPage({viewport: {width: 1400, height: 900}});
  const pageErrors = [];
  page.on('pageerror', (error) => pageErrors.push(error.message));
  // Nothing may be fetched from anywhere but the studio.
  const foreign = [];
  page.on('request', (request) => {
    if (!request.url().startsWith(address)) foreign.push(request.url());
  });

  const settled = (previous) => page.waitForFunction((prev) => {
    const run = document.body.dataset.run;
    return run && run !== prev && !document.body.dataset.busy &&
           document.getElementById('view').dataset.painted === run;
  }, previous, {timeout: 60000});
  const shown = () => page.evaluate(() => {
    let h = 0x811c9dc5;
    const a = state.after;
    for (let i = 0; i < a.length; ++i) { h ^= a[i]; h = Math.imul(h, 0x01000193) >>> 0; }
    return {run: document.body.dataset.run, digest: h,
            canvas: document.getElementById('view').toDataURL(),
            text: document.getElementById('chainText').textContent,
            steps: document.querySelectorAll('#steps > li').length};
  });

  await page.goto(address);
  await settled(undefined);
  let now = await shown();
  check(now.steps === 5, 'the default chain loads as 5 steps');
  check(now.text.includes('[CLAHE]\nclip limit=200;'), 'the chain text shows the CLAHE block');
  await page.screenshot({path: path.join(artefacts, 'studio.png')});

  // Add a step: brightness and contrast, which leave the picture as it is at 0 and 1.
  await page.selectOption('#addKind', 'BC');
  await page.click('#addStep');
  await settled(now.run);
  let next = await shown();
  check(next.steps === 6, 'the added step is the sixth');
  check(next.text.includes('[BC]\nbrightness=0;\ncontrast=1;\nend\n'), 'the text has the new block');
  check(next.digest === now.digest, 'brightness 0 and contrast 1 leave the result as it was');
  now = next;

  // The CLAHE clip limit: the picture must change.
  const started = Date.now();
  await page.fill('#steps > li:nth-child(3) input[data-label="clip limit"]', '50');
  await settled(now.run);
  console.log('     a new clip limit was shown after ' + (Date.now() - started) + ' ms');
  next = await shown();
  check(next.text.includes('clip limit=50;'), 'the text follows the new clip limit');
  check(next.digest !== now.digest, 'the result changes with the clip limit');
  check(next.canvas !== now.canvas, 'the picture on screen changes with the clip limit');
  now = next;

  await page.fill('#steps > li:nth-child(6) input[data-label="brightness"]', '-2000');
  await settled(now.run);
  next = await shown();
  check(next.digest !== now.digest && next.canvas !== now.canvas,
        'the result changes with the brightness');
  now = next;

  // An out-of-range value is marked and not sent.
  await page.fill('#steps > li:nth-child(1) input[data-label="radius"]', '500');
  await page.waitForTimeout(500);
  check(await page.$eval('#steps > li:nth-child(1) input', (e) => e.classList.contains('bad')),
        'a median radius of 500 is marked as outside the limits');
  check((await shown()).run === now.run, 'and nothing is processed for it');
  await page.fill('#steps > li:nth-child(1) input[data-label="radius"]', '1');
  await settled(now.run);
  next = await shown();
  check(next.digest === now.digest, 'back at radius 1 the result is as before');
  now = next;

  // Save, and run the saved file through the program.
  await page.fill('#fileName', 'tuned.chain');
  await page.click('#save');
  await page.waitForFunction(() =>
    document.getElementById('saveStatus').textContent.startsWith('saved'));
  const saved = fs.readFileSync(path.join(chains, 'tuned.chain'), 'utf8');
  check(saved.includes('clip limit=50;') && saved.includes('[BC]\nbrightness=-2000;\ncontrast=1;\nend'),
        'the saved file holds the new values');
  check(saved.includes('The default chain of "veltrano demo"'), 'the note after the blocks is kept');
  check(fs.readFileSync(path.join(chains, 'default.chain'), 'utf8') === defaultChain,
        'the chain the studio started from is untouched');
  check(fs.readdirSync(chains).every((n) => !n.startsWith('.')), 'no temporary file is left');
  const raw = path.join(work, 'processed.raw');
  run(['process', '--chain', path.join(chains, 'tuned.chain'), '--in', picture, '--out', raw]);
  const floats = new Float32Array(fs.readFileSync(raw).buffer.slice(0));
  check(digest(Uint16Array.from(floats)) === now.digest,
        'veltrano process on the saved file gives the picture the page shows');

  // An intermediate step's output on click.
  await page.click('#steps > li:nth-child(2) .head .name');
  await page.waitForFunction(() =>
    document.getElementById('showing').textContent.includes('step 2 (WLN)'));
  next = await shown();
  check(next.digest !== now.digest, 'the output of step 2 differs from the result');

  // A chain file with mistakes: the report says what the library does with it.
  await page.selectOption('#files', 'odd.chain');
  const beforeLoad = (await shown()).run;
  await page.click('#load');
  await page.waitForSelector('#report:not([hidden])');
  const report = await page.textContent('#report');
  check(/\[CLAHE\] skipped/.test(report) && /\[Clahe\] stops/.test(report) &&
        /\[BC\] not reached/.test(report), 'the report names the skipped, stopping and unreached blocks');
  await settled(beforeLoad);
  check((await shown()).steps === 1, 'only the step that runs is loaded into the form');
  await page.screenshot({path: path.join(artefacts, 'studio-report.png')});

  check(pageErrors.length === 0, 'no script errors on the page' +
        (pageErrors.length ? ': ' + pageErrors.join('; ') : ''));
  check(foreign.length === 0, 'nothing fetched from outside the studio' +
        (foreign.length ? ': ' + foreign.join(' ') : ''));
  console.log('screenshots in ' + artefacts);
} catch (error) {
  failed = true;
  console.error(error.stack || String(error));
} finally {
  if (browser) await browser.close();
  if (studio) studio.kill('SIGTERM');
  if (!failed) fs.rmSync(work, {recursive: true, force: true});
  else console.error('work folder kept: ' + work);
}
process.exit(failed ? 1 : 0);
