#!/bin/sh
# Makes the example home's user and session database, HOME/data/example.db, when it is
# missing; an existing database is left as it is. The server reads the users and their
# roles from it and keeps sessions in it across restarts, but never creates a table itself.
#
# Demo users: demo / demo with the role "member", which opens the demo's account area, and
# guest / guest with the role "guest" only, which the account area refuses (403).
set -eu
if [ $# -ne 1 ]; then
        echo "Usage: $0 HOME -- makes HOME/data/example.db if it is missing" >&2
        exit 2
fi
home=$1
database=$home/data/example.db
[ -f "$database" ] && exit 0
if [ ! -d "$home" ]; then
        echo "$0: '$home' is not a directory" >&2
        exit 1
fi
if ! command -v sqlite3 >/dev/null 2>&1; then
        echo "$0: the sqlite3 program is missing (sh scripts/deps.sh installs it)" >&2
        exit 1
fi

# Passwords are kept as the MD5 digest in 32 uppercase hexadecimal characters, unsalted:
# the server compares exactly that text, so a lowercase digest would never match.
digest() {
        printf '%s' "$1" | md5sum | cut -c1-32 | tr 'a-f' 'A-F'
}

mkdir -p "$home/data"
# Built beside its final name and moved there whole, so that a failed or interrupted run
# never leaves a half-made database for the server to open.
partial=$(mktemp "$home/data/.example.db.XXXXXX")
trap 'rm -f "$partial"' EXIT
rm -f "$partial"
# The session table's columns stand in this order because the server reads a stored
# session back by column position.
sqlite3 -bail "$partial" <<EOF
CREATE TABLE users (
        uname TEXT PRIMARY KEY NOT NULL,
        password TEXT NOT NULL
);
CREATE TABLE userroles (
        uname TEXT NOT NULL REFERENCES users(uname) ON DELETE CASCADE,
        role TEXT NOT NULL,
        PRIMARY KEY (uname, role)
);
CREATE TABLE session (
        id TEXT PRIMARY KEY NOT NULL,
        context TEXT NOT NULL,
        ctime INTEGER NOT NULL,
        atime INTEGER NOT NULL,
        itime INTEGER NOT NULL,
        authtype TEXT,
        principal TEXT,
        data BLOB
);
CREATE INDEX session_context_atime ON session (context, atime);
INSERT INTO users VALUES ('demo', '$(digest demo)'), ('guest', '$(digest guest)');
INSERT INTO userroles VALUES ('demo', 'member'), ('guest', 'guest');
EOF
mv "$partial" "$database"
trap - EXIT
echo "Made $database (users demo/demo and guest/guest)"
