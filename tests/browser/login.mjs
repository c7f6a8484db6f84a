// A real browser through the example application's account area: node login.mjs BASE-URL
//
// Headless Chromium asks for the protected page, is shown the login form, logs in as the
// demo user, posts the CSRF-protected form, is refused the same post without the token,
// logs out, and is asked to log in again. It runs against any server on the example home,
// e.g. node login.mjs http://127.0.0.1:8080 beside sh scripts/run.sh. The steps build on
// each other, so the first failure ends the run.
import { chromium } from 'playwright-core';
import assert from 'node:assert/strict';
import { mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';

const base = process.argv[2];
if (!base) {
  console.error('usage: node login.mjs BASE-URL');
  process.exit(2);
}
const app = `${base}/demo`;
const user = { name: 'demo', password: 'demo' };

// Without these flags Chromium reaches out on its own (updates, sync, QUIC probes) and, on a
// machine with no network, hangs waiting for it.
const flags = [
  '--headless',
  '--no-sandbox',
  '--disable-gpu',
  '--disable-quic',
  '--no-first-run',
  '--disable-background-networking',
  '--disable-component-update',
  '--disable-sync',
];

const profile = mkdtempSync(join(tmpdir(), 'vesk-chromium-'));
const browser = await chromium.launchPersistentContext(profile, {
  executablePath: '/usr/bin/chromium',
  headless: true,
  args: flags,
});
browser.setDefaultTimeout(15000);
const page = browser.pages()[0] ?? (await browser.newPage());

// The cookie's path is the application's, so it is asked for with a page of it.
async function sessionCookie() {
  const cookies = await browser.cookies(`${app}/`);
  return cookies.find((cookie) => cookie.name === 'vsessionid');
}

async function showsLoginForm() {
  await page.locator('h1#login').waitFor();
  assert.equal(await page.locator('form input[name="v_username"]').count(), 1);
  assert.equal(await page.locator('form input[name="v_password"]').count(), 1);
  assert.match(await page.locator('form').first().getAttribute('action'), /\/v_security_check$/);
}

// Runs action, which leads to a new page, and waits until that page has loaded. The address
// alone cannot tell: the login form and the page it leads to share one.
async function navigates(action) {
  const committed = page.waitForEvent('framenavigated', (frame) => frame === page.mainFrame());
  await action();
  await committed;
  await page.waitForLoadState('load');
}

async function logIn(name, password) {
  await page.fill('input[name="v_username"]', name);
  await page.fill('input[name="v_password"]', password);
  await navigates(() => page.click('form button[type="submit"]'));
}

// Submits the form and answers the response to its post.
async function submit(form) {
  const posted = page.waitForResponse((r) => r.request().method() === 'POST');
  await navigates(() => page.click(`${form} button[type="submit"]`));
  return posted;
}

const steps = [
  ['the protected page shows the login form in its place', async () => {
    const response = await page.goto(`${app}/account/`);
    assert.equal(response.status(), 200);
    await showsLoginForm();
    assert.equal(page.url(), `${app}/account/`);
    assert.ok(await sessionCookie(), 'the login made a session and sent its cookie');
  }],
  ['a wrong password shows the login error page', async () => {
    await logIn(user.name, 'not the password');
    await page.locator('#login-failed').waitFor();
    await showsLoginForm();
  }],
  ['the demo user logs in and is sent on to the page asked for', async () => {
    await logIn(user.name, user.password);
    assert.equal(page.url(), `${app}/account/`);
    assert.equal(await page.textContent('#user'), user.name);
    assert.match(await page.textContent('#roles'), /\bmember\b/);
    assert.equal(await page.textContent('#visits'), '1');
    assert.equal(await page.textContent('#session-id'), (await sessionCookie()).value);
  }],
  ['the session counts the visits', async () => {
    await page.reload();
    assert.equal(await page.textContent('#visits'), '2');
  }],
  ['the protected form carries the session id as its CSRF token', async () => {
    await navigates(() => page.click('a[href$="/account/form.csp"]'));
    const token = await page.getAttribute('#protected-form input[name="CSRFToken"]', 'value');
    assert.equal(token, (await sessionCookie()).value);
  }],
  ['the form is posted and answered', async () => {
    const message = 'Hello from Chromium <b>not bold</b>';
    await page.fill('#protected-form input[name="message"]', message);
    const response = await submit('#protected-form');
    assert.equal(response.status(), 200);
    assert.equal(page.url(), `${app}/account/echo.csp`);
    assert.equal(await page.textContent('#posted'), message);
  }],
  ['the same post without the token is refused with 403', async () => {
    await page.goto(`${app}/account/form.csp`);
    await page.fill('#protected-form input[name="message"]', 'forged');
    await page.locator('#protected-form input[name="CSRFToken"]').evaluate((input) => input.remove());
    const response = await submit('#protected-form');
    assert.equal(response.status(), 403);
    assert.match(await page.textContent('body'), /Missing required CSRF Token/);
  }],
  ['logging out ends the session', async () => {
    await page.goto(`${app}/account/`);
    await Promise.all([page.waitForURL(`${app}/signed-out.html`), page.click('#logout')]);
    await page.locator('#signed-out').waitFor();
  }],
  ['the protected page asks for a login again', async () => {
    await page.goto(`${app}/account/`);
    await showsLoginForm();
  }],
];

let passed = 0;
let failed = 0;
for (const [name, step] of steps) {
  if (failed) break;
  try {
    await step();
    passed++;
    console.log(`ok ${passed} - ${name}`);
  } catch (error) {
    failed++;
    console.log(`not ok ${passed + failed} - ${name}\n  at ${page.url()}\n  ${String(error.stack ?? error).replaceAll('\n', '\n  ')}`);
    const artifacts = process.env.VESK_BROWSER_ARTIFACTS;
    if (artifacts) {
      const shot = join(artifacts, 'failure.png');
      await page.screenshot({ path: shot, fullPage: true }).catch(() => {});
      console.log(`  screenshot: ${shot}`);
    }
  }
}
await browser.close();
rmSync(profile, { recursive: true, force: true });
const skipped = steps.length - passed - failed;
console.log(`browser: ${passed} passed, ${failed} failed${skipped ? `, ${skipped} skipped` : ''}`);
process.exit(failed ? 1 : 0);
