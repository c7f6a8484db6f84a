// The browser test's driver: node run.mjs LAUNCHER HOME
//
// Copies the assembled example HOME to a temporary directory, gives it a fresh user
// database by the example's own set-up step and free ports in its server.xml, starts the
// built LAUNCHER on it in the foreground, runs login.mjs against it in a headless Chromium,
// and stops the server. It builds nothing. Exits with the script's status; on failure the
// temporary home (logs, screenshot) is kept and named.
import { spawn, spawnSync } from 'node:child_process';
import { cpSync, existsSync, mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { createConnection, createServer } from 'node:net';
import { tmpdir } from 'node:os';
import { dirname, join, relative, resolve, sep } from 'node:path';
import { fileURLToPath } from 'node:url';

const here = dirname(fileURLToPath(import.meta.url));
const repository = resolve(here, '..', '..');
const chromium = '/usr/bin/chromium';
const started = Date.now();

function fail(message) {
  console.error(`browser: ${message}`);
  process.exit(1);
}

const [launcher, home] = process.argv.slice(2);
if (!launcher || !home) fail('usage: node run.mjs LAUNCHER HOME');
if (!existsSync(launcher)) fail(`no launcher at ${launcher}: build first`);
if (!existsSync(join(home, 'conf', 'server.xml'))) fail(`${home} is no assembled example home: build first`);
if (!existsSync(chromium)) fail(`${chromium} is missing: sh scripts/deps.sh installs Debian's chromium`);
if (!existsSync(join(here, 'node_modules', 'playwright-core')))
  fail(`playwright-core is missing: run npm ci in ${here} (sh scripts/deps.sh does)`);

// A port that was free a moment ago; the server binds it right after.
function freePort() {
  return new Promise((resolvePort, reject) => {
    const server = createServer();
    server.once('error', reject);
    server.listen(0, '127.0.0.1', () => {
      const { port } = server.address();
      server.close(() => resolvePort(port));
    });
  });
}

// Every <Connector> port gets a free one, and a redirectPort that named another connector's
// port follows it there, so that runs beside each other or beside a server on the usual
// ports never clash. The first connector without Secure="true" serves the browser.
async function rewritePorts(serverXml) {
  const text = readFileSync(serverXml, 'utf8');
  const connectors = [...text.matchAll(/<Connector\b[^>]*>/gi)].map((m) => m[0]);
  if (connectors.length === 0) fail(`${serverXml} has no <Connector>`);
  const ports = new Map();
  for (const connector of connectors) {
    const port = /\bport="(\d+)"/i.exec(connector);
    if (port && !ports.has(port[1])) ports.set(port[1], await freePort());
  }
  let plain;
  let rewritten = text;
  for (const connector of connectors) {
    const changed = connector.replace(/\b(port|redirectPort)="(\d+)"/gi, (whole, name, value) =>
      ports.has(value) ? `${name}="${ports.get(value)}"` : whole);
    rewritten = rewritten.replace(connector, changed);
    const port = /\bport="(\d+)"/i.exec(changed);
    if (!plain && port && !/\bSecure="true"/i.test(changed)) plain = Number(port[1]);
  }
  if (!plain) fail(`${serverXml} has no plain HTTP <Connector> with a port`);
  writeFileSync(serverXml, rewritten);
  return plain;
}

function canConnect(port) {
  return new Promise((done) => {
    const socket = createConnection({ host: '127.0.0.1', port });
    socket.once('connect', () => {
      socket.destroy();
      done(true);
    });
    socket.once('error', () => done(false));
  });
}

function exited(child) {
  return new Promise((done) => {
    if (child.exitCode !== null || child.signalCode !== null) done();
    else child.once('exit', () => done());
  });
}

function tail(file, lines = 30) {
  if (!existsSync(file)) return `(no ${file})`;
  return readFileSync(file, 'utf8').split('\n').slice(-lines).join('\n');
}

const work = mkdtempSync(join(tmpdir(), 'vesk-browser-'));
const testHome = join(work, 'home');
// The assembled home may carry a database and logs of earlier runs: the copy starts clean.
cpSync(home, testHome, {
  recursive: true,
  filter: (source) => {
    const path = relative(home, source).split(sep);
    return !((path[0] === 'data' || path[0] === 'logs') && path.length > 1);
  },
});
mkdirSync(join(testHome, 'logs'), { recursive: true });
const setup = spawnSync('sh', [join(repository, 'scripts', 'example-db.sh'), testHome], { encoding: 'utf8' });
if (setup.status !== 0) fail(`the example's database set-up failed:\n${setup.stdout}${setup.stderr}`);
const port = await rewritePorts(join(testHome, 'conf', 'server.xml'));
const base = `http://127.0.0.1:${port}`;

let output = '';
const server = spawn(launcher, ['-H', testHome, '-f', 'start'], { stdio: ['ignore', 'pipe', 'pipe'] });
server.stdout.on('data', (chunk) => (output += chunk));
server.stderr.on('data', (chunk) => (output += chunk));
// Whatever ends this driver, the server it started goes with it.
process.on('exit', () => {
  if (server.exitCode === null && server.signalCode === null) server.kill('SIGKILL');
});

async function stopServer() {
  if (server.exitCode !== null || server.signalCode !== null) return;
  server.kill('SIGTERM');
  // The server answers what it has already read for up to 30 seconds before it exits.
  const timer = setTimeout(() => server.kill('SIGKILL'), 40000);
  await exited(server);
  clearTimeout(timer);
}

function report(status) {
  const seconds = ((Date.now() - started) / 1000).toFixed(1);
  if (status === 0) {
    rmSync(work, { recursive: true, force: true });
    console.log(`browser: done in ${seconds} s`);
  } else {
    console.error(`browser: failed after ${seconds} s; the server's home is kept in ${testHome}`);
    console.error(`--- launcher output\n${output}--- logs/error.log\n${tail(join(testHome, 'logs', 'error.log'))}`);
  }
  process.exit(status);
}

const readyBy = Date.now() + 30000;
while (!(await canConnect(port))) {
  if (server.exitCode !== null || server.signalCode !== null) {
    console.error(`browser: the server did not start (exit ${server.exitCode ?? server.signalCode})`);
    report(1);
  }
  if (Date.now() > readyBy) {
    console.error('browser: the server did not listen within 30 seconds');
    await stopServer();
    report(1);
  }
  await new Promise((wait) => setTimeout(wait, 50));
}

const script = spawn(process.execPath, [join(here, 'login.mjs'), base], {
  stdio: 'inherit',
  env: { ...process.env, VESK_BROWSER_ARTIFACTS: work },
});
const scriptTimer = setTimeout(() => {
  console.error('browser: the script ran for more than 90 seconds; stopping it');
  script.kill('SIGKILL');
}, 90000);
await exited(script);
clearTimeout(scriptTimer);
await stopServer();
report(script.exitCode === 0 && server.exitCode === 0 ? 0 : 1);
