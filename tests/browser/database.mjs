// The example home's database set-up (scripts/example-db.sh) against what the server asks of
// it: the Realm's own statements find the demo user's unsalted uppercase MD5 digest and
// role, and the session table's columns stand in the order that loading a stored session
// reads them by. An existing database is kept, and a bad home is refused.
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import { createHash } from 'node:crypto';
import { mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { dirname, join, resolve } from 'node:path';
import test from 'node:test';
import { fileURLToPath } from 'node:url';

const setup = resolve(dirname(fileURLToPath(import.meta.url)), '..', '..', 'scripts', 'example-db.sh');

function run(...args) {
  return spawnSync('sh', [setup, ...args], { encoding: 'utf8' });
}

function sql(database, statement) {
  const result = spawnSync('sqlite3', ['-json', '-bail', database, statement], { encoding: 'utf8' });
  assert.equal(result.status, 0, result.stderr);
  return result.stdout.trim() ? JSON.parse(result.stdout) : [];
}

function withHome(body) {
  const home = mkdtempSync(join(tmpdir(), 'vesk-example-db-'));
  try {
    const made = run(home);
    assert.equal(made.status, 0, made.stderr);
    body(join(home, 'data', 'example.db'), home);
  } finally {
    rmSync(home, { recursive: true, force: true });
  }
}

const md5 = (text) => createHash('md5').update(text).digest('hex').toUpperCase();

test('the Realm finds the demo users with their digests and roles', () => {
  withHome((database) => {
    for (const [name, role] of [['demo', 'member'], ['guest', 'guest']]) {
      assert.deepEqual(sql(database, `SELECT password FROM users WHERE uname='${name}';`), [{ password: md5(name) }]);
      assert.deepEqual(sql(database, `SELECT role FROM userroles WHERE uname='${name}';`), [{ role }]);
    }
    assert.ok(!sql(database, "SELECT role FROM userroles WHERE uname='guest';").some((r) => r.role === 'member'),
      'the guest user must not open the members\' area');
  });
});

test('a stored session reads back by column position', () => {
  withHome((database) => {
    sql(database, "insert into session(context, ctime, atime, itime, authtype, principal, data, id) " +
      "values('/demo', 1, 2, 1800, 'FORM', 'demo', X'353A7669736974733B313A333B', 'ABC');");
    const row = sql(database, "select * from session where id = 'ABC';")[0];
    assert.deepEqual(Object.keys(row), ['id', 'context', 'ctime', 'atime', 'itime', 'authtype', 'principal', 'data']);
    assert.deepEqual(Object.values(row).slice(0, 7), ['ABC', '/demo', 1, 2, 1800, 'FORM', 'demo']);
    assert.deepEqual(sql(database, "select hex(data) as data from session where id = 'ABC';"),
      [{ data: '353A7669736974733B313A333B' }]);
    // A never-logged-in session has no auth type, principal or attributes.
    sql(database, "insert into session(context, ctime, atime, itime, authtype, principal, data, id) " +
      "values('', 1, 1, -1, NULL, NULL, NULL, 'DEF');");
  });
});

test('an existing database is kept as it is', () => {
  withHome((database, home) => {
    sql(database, "UPDATE users SET password='CHANGED' WHERE uname='demo';");
    const again = run(home);
    assert.equal(again.status, 0, again.stderr);
    assert.equal(again.stdout, '');
    assert.deepEqual(sql(database, "SELECT password FROM users WHERE uname='demo';"), [{ password: 'CHANGED' }]);
  });
});

test('a missing home or argument is refused', () => {
  const missing = run(join(tmpdir(), 'vesk-no-such-home'));
  assert.notEqual(missing.status, 0);
  assert.match(missing.stderr, /is not a directory/);
  const bare = run();
  assert.equal(bare.status, 2);
  assert.match(bare.stderr, /Usage:/);
});
