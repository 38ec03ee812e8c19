#!/bin/sh
# Runs kiv_host in a fresh directory and compares its standard output, standard error and exit
# status byte for byte with what each case expects.
#   host_case.sh KIV_HOST WORK_DIR CASE
set -u
host="$1"
work="$2"
case_name="$3"
rm -rf "$work" && mkdir -p "$work" && cd "$work" || exit 1
failures=0

shutdown_lines='left objects in database reference count: 0
DATABASE SERVICE SHOT DONW REQUEST
DATABASE THREAD SERVICE STOPPED
DATABASE SERVICE DONE'

# expect NAME STATUS STDOUT STDERR -- ARGS...   (standard input from the file "stdin" if present)
expect() {
  name="$1"; want_status="$2"; want_out="$3"; want_err="$4"; shift 5
  if [ -f stdin ]; then
    "$host" "$@" <stdin >out 2>err; status=$?
  else
    "$host" "$@" </dev/null >out 2>err; status=$?
  fi
  printf '%s\n' "$want_out" | sed '${/^$/d}' >want_out
  printf '%s\n' "$want_err" | sed '${/^$/d}' >want_err
  if [ -n "${MASK_RATE:-}" ]; then
    sed -i 's/^\(inserted 100000 rows in one transaction on the database worker: \).*$/\1RATE/' out
  fi
  ok=1
  [ "$status" -eq "$want_status" ] || { echo "$name: exit status $status, expected $want_status"; ok=0; }
  cmp -s want_out out || { echo "$name: standard output differs:"; diff -u want_out out; ok=0; }
  cmp -s want_err err || { echo "$name: standard error differs:"; diff -u want_err err; ok=0; }
  [ $ok -eq 1 ] || failures=$((failures + 1))
}

demo_out() {
  printf '%s\n' "kiv_host demo on kiv_demo.db
$1
inserted 100000 rows in one transaction on the database worker: RATE

  rows  sensors  min_value  max_value  avg_value  payloads
------  -------  ---------  ---------  ---------  --------
100000       16        0.0     249.75    124.875     80000

id  sensor     value  payload
--  ---------  -----  -----------
 1  sensor-01   0.25  X'00000001'
 2  sensor-02    0.5  X'00000002'
 3  sensor-03   0.75  X'00000003'
 4  sensor-04    1.0  X'00000004'
 5  sensor-05   1.25  NULL
 6  sensor-06    1.5  X'00000006'

$shutdown_lines"
}

case "$case_name" in
demo)
  # A fresh directory, then the same file again: the second run replaces the first run's rows.
  MASK_RATE=1 expect "first demo run" 0 "$(demo_out 'no earlier rows: table readings filled')" "" --
  MASK_RATE=1 expect "second demo run" 0 "$(demo_out 'earlier run found: its 100000 rows replaced')" "" --
  [ -f kiv_demo.db ] || { echo "demo: kiv_demo.db was not created"; failures=$((failures + 1)); }
  # A kiv_demo.db that is not a database: SQLite's error, exit status 1, a clean shutdown.
  printf 'not a database, just text long enough to fill a database header\n' >kiv_demo.db
  expect "demo on a non-database file" 1 "kiv_host demo on kiv_demo.db
$shutdown_lines" "kiv_host: kiv_demo.db: SQLite error 26: file is not a database
  in: CREATE TABLE IF NOT EXISTS readings(id INTEGER PRIMARY KEY, sensor TEXT NOT NULL, value REAL NOT NULL, payload BLOB)" --
  ;;
sql)
  # Several statements per argument; semicolons inside strings, comments and a trigger body;
  # NULL and blobs; a statement without columns prints nothing; UTF-8 widths.
  expect "rows, NULL and blobs" 0 " a  b       c               d
--  ------  -------  --------
 1  x       X'00FF'       1.5
22  NULL    NULL         NULL
 3  héllo;  X''      -2.0e-07
(3 rows)

n
-
3
(1 row)
$shutdown_lines" "" -- t.db \
    "CREATE TABLE t(a INTEGER, b TEXT, c BLOB, d REAL);
     INSERT INTO t VALUES (1, 'x', X'00ff', 1.5), (22, NULL, NULL, NULL), (3, 'héllo;', x'', -2e-7)" \
    "SELECT * FROM t; -- a comment; with a semicolon
     /* another; */ SELECT count(*) AS n FROM t"
  cat >stdin <<'SQL'
CREATE TRIGGER tr AFTER INSERT ON t BEGIN
  INSERT INTO t VALUES (99, 'from trigger; ok', NULL, NULL);
END;
INSERT INTO t VALUES (5, 'y', NULL, NULL);;
SELECT a, b FROM t WHERE a >= 5 ORDER BY a;
SELECT b FROM t WHERE b = 'no;such'
SQL
  expect "standard input" 0 " a  b
--  ----------------
 5  y
22  NULL
99  from trigger; ok
(3 rows)

b
-
(0 rows)
$shutdown_lines" "" -- t.db -
  rm -f stdin
  expect "in-memory database" 0 "x
-
7
(1 row)
$shutdown_lines" "" -- :memory: "SELECT 7 AS x"
  ;;
errors)
  # A failing statement: earlier ones ran, later ones did not, SQLite's code and message on
  # standard error, and still a clean shutdown.
  expect "bad SQL" 1 "x
-
1
(1 row)
$shutdown_lines" "kiv_host: e.db: statement 2: SQLite error 1: near \"SELEC\": syntax error
  in: SELEC 2;" -- e.db "SELECT 1 AS x; SELEC 2; CREATE TABLE never(a)"
  expect "later statement not run" 0 "n
-
0
(1 row)
$shutdown_lines" "" -- e.db "SELECT count(*) AS n FROM sqlite_master WHERE name = 'never'"
  expect "constraint failure while stepping" 1 "$shutdown_lines" \
    "kiv_host: e.db: statement 3: SQLite error 19: UNIQUE constraint failed: u.a
  in: INSERT INTO u VALUES (1)" -- e.db "CREATE TABLE u(a UNIQUE); INSERT INTO u VALUES (1); INSERT INTO u VALUES (1)"
  expect "missing directory" 1 "" "kiv_host: no/such/dir/x.db: directory no/such/dir does not exist" -- \
    no/such/dir/x.db "SELECT 1"
  mkdir adir
  expect "directory as PATH" 1 "" "kiv_host: adir: is a directory, not a database file" -- adir "SELECT 1"
  printf 'this is not a database file, only text that is long enough to hold a header\n' >notdb
  expect "not a database" 1 "$shutdown_lines" "kiv_host: notdb: SQLite error 26: file is not a database" -- \
    notdb "SELECT 1"
  expect "--no-create on a missing file" 1 "$shutdown_lines" \
    "kiv_host: missing.db: SQLite error 14: unable to open database file" -- --no-create missing.db "SELECT 1"
  [ ! -e missing.db ] || { echo "--no-create created missing.db"; failures=$((failures + 1)); }
  expect "--no-create on an existing file" 0 "x
-
1
(1 row)
$shutdown_lines" "" -- --no-create e.db "SELECT 1 AS x"
  ;;
usage)
  expect "unknown option" 2 "" "kiv_host: unknown option '--bogus'
Try 'kiv_host --help'." -- --bogus x.db "SELECT 1"
  expect "no SQL" 2 "" "kiv_host: no SQL given for x.db (use - to read standard input)
Try 'kiv_host --help'." -- x.db
  expect "stdin among other SQL" 2 "" "kiv_host: - must be the only SQL argument
Try 'kiv_host --help'." -- x.db "SELECT 1" -
  "$host" --help >out 2>err; status=$?
  if [ $status -ne 0 ] || [ -s err ] || ! grep -q '^usage: kiv_host' out || ! grep -q -- '--no-create' out; then
    echo "--help: status $status or text wrong"; failures=$((failures + 1))
  fi
  [ ! -e x.db ] || { echo "usage errors created x.db"; failures=$((failures + 1)); }
  ;;
*)
  echo "unknown case $case_name"; exit 2 ;;
esac

[ $failures -eq 0 ] && echo "$case_name: ok"
exit $failures
