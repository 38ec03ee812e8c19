#!/bin/sh
# kiv_host end to end: each case compares the exit status and the bytes of standard output and
# standard error with what it expects.   host_case.sh KIV_HOST WORK_DIR GROUP VERSION
set -u; host=$1 fails=0; rm -rf "$2" && mkdir -p "$2" && cd "$2" || exit 1
S=$(printf '%s\n' 'left objects in database reference count: 0' 'DATABASE SERVICE SHOT DONW REQUEST' \
  'DATABASE THREAD SERVICE STOPPED' 'DATABASE SERVICE DONE') U="Try 'kiv_host --help'."
# t NAME STATUS STDOUT STDERR ARGS...: outputs without their last newline; standard input from $IN;
# the shutdown lines end standard error when V is set (-v, the demo)
t() { n=$1 s=$2; printf "${3:+%s\n}" "$3" >want_out; { printf "${4:+%s\n}" "$4"; [ -z "${V:-}" ] || echo "$S"; } >want_err
  shift 4
  "$host" "$@" <"${IN:-/dev/null}" >out 2>err; st=$?; sed -i -e 's/\(database worker: \).*/\1RATE/' \
    -e 's/^\(Run Time: real\) [0-9.]* user [0-9.]* sys [0-9.]*$/\1 T/' out
  [ $st = "$s" ] && cmp -s want_out out && cmp -s want_err err || {
    echo "$n: status $st, expected $s"; diff want_out out; diff want_err err; fails=$((fails + 1)); }; }
case $3 in
demo) # a fresh directory, then the same file again: the second run replaces the rows
  for line in 'no earlier rows: table readings filled' 'earlier run found: its 100000 rows replaced'; do
    V=1 t "demo" 0 "kiv_host demo on kiv_demo.db
$line
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
" "" --demo
  done ;;
sql) # statements split at semicolons outside strings, comments and trigger bodies
  cat >in <<'E'
CREATE TABLE t(a INTEGER, b TEXT, c BLOB, d REAL); CREATE TRIGGER tr AFTER INSERT ON t WHEN new.a = 3 BEGIN INSERT INTO t VALUES (4, 'a;', 1, 1); END;
INSERT INTO t VALUES (1, 'x', X'00ff', 1.5), (22, NULL, NULL, NULL), (3, 'h\é' || char(10, 9) || ';', x'', -2e-7);
SELECT * FROM t; -- a comment; with a semicolon
/* another; */ SELECT count(*) AS "n
1" FROM t
E
  IN=in t "table, NULL, blobs, escapes, UTF-8" 0 ' a  b          c               d
--  ---------  -------  --------
 1  x          X'\''00FF'\''       1.5
22  NULL       NULL         NULL
 3  h\\é\n\t;  X'\'''\''      -2.0e-07
 4  a;         1             1.0
(4 rows)

n\n1
----
   4
(1 row)' "" t.db -
  t "CSV" 0 "$(printf 'a,"b,c"\r\n1,"x,y"\r\n2,"say ""hi"""\r\n,"two\nlines"\r\n3.5,"cr\r"\r\n"X'\''00'\''",""\r')" "" \
    --csv t.db "SELECT column1 AS a, column2 AS \"b,c\" FROM (VALUES (1, 'x,y'), (2, 'say \"hi\"'),
    (NULL, 'two' || char(10) || 'lines'), (3.5, 'cr' || char(13)), (X'00', ''))"
  t "widths from the first 1000 rows" 0 "$(printf 'v     i\n-  ----\n'; seq 1000 | awk '{printf "a  %4d\n", $1}'
    printf 'a|wide  1001\n(1001 rows)')" "" :memory: "WITH RECURSIVE c(i) AS (SELECT 1
    UNION ALL SELECT i + 1 FROM c WHERE i < 1001) SELECT CASE i WHEN 1001 THEN 'a|wide' ELSE 'a' END AS v, i FROM c"
  # A reader that leaves early: the endless result stops at once, quietly, with a clean shutdown.
  { "$host" :memory: "WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM c) SELECT i FROM c" 2>err
    echo $? >st; } | head -3 >out
  [ "$(cat st out err)" = "$(printf '0\n   i\n----\n   1')" ] || { echo "| head -3: $(cat st err)"; fails=$((fails + 1)); } ;;
errors) # the rows before an error print, then the error; later statements never run
  t "rows, then the error" 1 "$(printf 'v\n-\n1\n2')" "kiv_host: e.db: statement 2: SQLite error 1: integer overflow
  in: SELECT abs(column1) AS v FROM (VALUES (1), (-2), (-9223372036854775808));" e.db "CREATE TABLE t(a);
    SELECT abs(column1) AS v FROM (VALUES (1), (-2), (-9223372036854775808)); CREATE TABLE never(a)"
  t "bad SQL" 1 "" "$(printf 'kiv_host: e.db: statement 1: SQLite error 1: near "SELEC": syntax error\n  in: SELEC')" e.db SELEC
  t "--no-create, existing file" 0 "$(printf 'never\r\n0\r')" "" --csv --no-create e.db \
    "SELECT count(*) AS never FROM sqlite_master WHERE name = 'never'"
  echo 'not a database, only text that is long enough to hold a header' >nodb
  t "not a database" 1 "" "kiv_host: nodb: SQLite error 26: file is not a database" nodb "SELECT 1"
  # e STATUS MESSAGE ARGS...: refused before the database is reached; usage errors add the hint
  e() { s=$1 m="kiv_host: $2"; shift 2; [ $s = 2 ] && m=$(printf '%s\n%s' "$m" "$U"); t "$m" $s "" "$m" "$@"; }
  e 1 "missing.db: file does not exist (--no-create)" --no-create missing.db "SELECT 1"
  e 2 "unknown option '--bogus'" --bogus x.db "SELECT 1"
  e 2 "option '--csv' after PATH (options go before PATH)" x.db --csv "SELECT 1"
  e 2 "an empty SQL argument" x.db "SELECT 1" " "
  e 2 "-timeout needs milliseconds, not 'x'" -timeout x x.db
  e 2 "--help takes no other arguments" --help x.db
  t "--version" 0 "kiv_host $4" "" --version
  [ "$("$host" --help | head -1)" = "Usage: kiv_host [OPTION]... PATH [SQL|.COMMAND]..." ] || { echo "--help"; fails=$((fails + 1)); } ;;
commands) # dot-commands and the options that match them, as arguments
  "$host" c.db "CREATE TABLE t(a INTEGER, b TEXT); INSERT INTO t VALUES (1, 'x'), (2, NULL)" "CREATE VIEW v AS SELECT 1" 2>/dev/null
  printf 'SELECT 3 AS n;\n.mode csv\nSELECT 4 AS n;\n' >r.sql; Q="SELECT * FROM t"
  t ".tables" 0 "$(printf 't\nv\nt')" "" c.db .tables ".tables t%"
  t ".schema" 0 "CREATE TABLE t(a INTEGER, b TEXT);" "" c.db ".schema t"
  t "list, separator, nullvalue, headers" 0 "$(printf 'a;b\n1;x\n2;-\n1;x\n2;-')" "" c.db ".mode list" \
    ".separator ;" ".nullvalue -" "$Q" ".headers off" "$Q"
  t ".nullvalue in the aligned table" 0 "$(printf 'n\n-\n-\n(1 row)')" "" -aligned :memory: ".nullvalue -" "SELECT NULL AS n"
  t ".mode line" 0 "$(printf '    a = 1\n    b = x\n\n    a = 2\n    b = ')" "" c.db ".mode line" "$Q"
  t ".mode json" 0 "$(printf '[{"a":1,"b":"x"},\n{"a":2,"b":null}]')" "" c.db ".mode json" "$Q"
  t "-csv -noheader -cmd" 0 "$(printf '1,x\r\n2,N\r')" "" -csv -noheader -cmd ".nullvalue N" c.db "$Q"
  t ".once" 0 "$(printf 'two\n---\n  2\n(1 row)')" "" c.db ".once o.txt" "SELECT 1 AS one" "SELECT 2 AS two"
  [ "$(cat o.txt)" = "$(printf 'one\n---\n  1\n(1 row)')" ] || { echo ".once: $(cat o.txt)"; fails=$((fails + 1)); }
  t ".read" 0 "$(printf 'n\n-\n3\n(1 row)\nn\r\n4\r')" "" c.db ".read r.sql"
  t ".bail off" 1 "$(printf 'n\n-\n5\n(1 row)')" "$(printf 'kiv_host: c.db: statement 1: SQLite error 1: near "SELEC": syntax error\n  in: SELEC')" \
    c.db ".bail off" SELEC "SELECT 5 AS n"
  t ".changes" 0 "$(printf 'changes: 0   total_changes: 0\nchanges: 2   total_changes: 2')" "" \
    :memory: ".changes on" "CREATE TABLE m(a)" "INSERT INTO m VALUES (1), (2)"
  t "-readonly" 1 "" "$(printf 'kiv_host: c.db: statement 1: SQLite error 8: attempt to write a readonly database\n  in: DELETE FROM t')" \
    -readonly c.db "DELETE FROM t"
  t ".quit" 0 "" "" c.db .quit "SELECT 1"
  t ".indexes, .print, .backup, .open, .timer" 0 "$(printf 'i\nsay  hi\n2\nRun Time: real T')" "" -noheader -list c.db \
    "CREATE INDEX i ON t(a)" .indexes ".indexes v" ".print say ' hi'" ".backup b.db" ".open b.db" ".timeout 0" ".timer on" \
    "SELECT count(*) FROM t"
  echo "SELECT 1;" >one.sql; IN=one.sql V=1 t "-v, no PATH: :memory:" 0 1 "" -v -list -noheader
  [ ! -e kiv_demo.db ] || { echo "no PATH: kiv_demo.db made"; fails=$((fails + 1)); }
  # c ARGUMENT MESSAGE: a command refused, and nothing after it runs
  c() { t "$1" 1 "" "kiv_host: $2" c.db "$1" "SELECT 1"; }
  c .bogus "unknown command '.bogus' (.help lists the commands)"
  c ".headers maybe" "usage: .headers on|off"
  c ".mode bogus" "unknown mode 'bogus' (aligned, ascii, box, column, csv, html, insert, json, line, list, markdown, quote, table, tabs, tcl)"
  c ".timeout 1x" ".timeout: not a number of milliseconds: 1x"
  c ".import only.csv" "usage: .import [--csv] FILE TABLE"
  c ".read missing.sql" ".read: missing.sql: No such file or directory"
  c ".timeout -1" ".timeout: not a number of milliseconds: -1"
  c ".tables a b" "usage: .tables [PATTERN]"
  c ".open /missing/x.db" ".open: /missing/x.db: SQLite error 14: unable to open database file"
  c ".backup /missing/x.db" ".backup: /missing/x.db: SQLite error 14: unable to open database file"
  echo ".read self.sql" >self.sql; c ".read self.sql" "self.sql:1: .read: self.sql: files nested 32 deep"
  for w in on yes true 1 off no false 0; do printf '.headers %s\nSELECT 1 AS h;\n' $w; done >switch.sql
  t "on|off spellings, .output stdout" 0 "$(printf 'h\n1\nh\n1\nh\n1\nh\n1\n1\n1\n1\n1\n2')" "" -list c.db ".output o2.txt" \
    "SELECT 0" ".output stdout" ".read switch.sql" ".output" "SELECT 2 AS n"
  [ "$(cat o2.txt)" = "$(printf '0\n0')" ] || { echo ".output: $(cat o2.txt)"; fails=$((fails + 1)); } ;;
session) # standard input as a stream: statements over lines, commands between, errors go on
  printf '%s\n' "CREATE TABLE s(a); INSERT INTO s" "  VALUES (1), ('two;');" ".mode csv" ";-- it's a comment, after an empty statement" \
    "SELECT * FROM s;" "SELEC;" "SELECT count(*) AS n FROM s" >in
  E=$(printf 'kiv_host: s.db: statement 4: SQLite error 1: near "SELEC": syntax error\n  in: SELEC;')
  IN=in t "piped session" 1 "$(printf 'a\r\n1\r\ntwo;\r\nn\r\n2\r')" "$E" s.db
  E=$(printf '%s\n' "$E" | sed 's/s\.db/s2.db/')
  IN=in t "-bail" 1 "$(printf 'a\r\n1\r\ntwo;\r')" "$E" -bail s2.db
  # 200 KB of statements over two lines each: the splitter drops what it has handed out
  { echo "CREATE TABLE big(a, b);"; seq 3000 | awk '{printf "INSERT INTO big VALUES (%d,\n'"'%060d'"');\n", $1, $1}'
    echo "SELECT count(*), sum(a), count(DISTINCT b), min(b) FROM big;"; } >big.sql
  IN=big.sql t "a long script" 0 "3000|4501500|3000|$(printf '%060d' 1)" "" -list -noheader :memory:
  # A statement runs as soon as its line is read, while standard input stays open.
  mkfifo fifo; "$host" -list s.db <fifo >out 2>err & exec 3>fifo; echo "SELECT 40 + 2 AS n;" >&3
  i=0; while [ $i -lt 100 ] && ! grep -q 42 out; do sleep 0.1; i=$((i + 1)); done
  grep -q 42 out || { echo "streaming: no result while standard input was open"; fails=$((fails + 1)); }
  # While that session holds a write lock, another run waits its timeout, then names the statement.
  echo "BEGIN EXCLUSIVE; INSERT INTO s VALUES (3); SELECT 43;" >&3
  i=0; while [ $i -lt 100 ] && ! grep -q 43 out; do sleep 0.1; i=$((i + 1)); done
  t "locked" 1 "" "$(printf 'kiv_host: s.db: statement 1: SQLite error 5: database is locked\n  in: SELECT count(*) FROM s')" \
    -timeout 200 s.db "SELECT count(*) FROM s"
  for c in .tables .dump; do t "locked $c" 1 "" "kiv_host: s.db: SQLite error 5: database is locked" -timeout 0 s.db $c; done
  exec 3>&-; wait ;;
import) # a CSV with quoted commas, quotes and line ends; the table made from its header line
  printf 'name,"note, quoted",n\r\n"Smith, J","line one\nline two",1\r\nplain,"say ""hi""","2"\r\n\nshort\n' >a.csv
  W="kiv_host: a.csv:6: expected 3 columns, found 1: the rest are NULL"
  t ".import" 0 "$(printf 'name,"note, quoted",n\r\n"Smith, J","line one\nline two",1\r\nplain,"say ""hi""",2\r\nshort,,\r')" "$W" \
    -csv i.db ".import a.csv p" "SELECT * FROM p"
  t "into an existing table" 0 "$(printf 'count(*),typeof(n)\r\n7,text\r')" "$W" -csv i.db ".import --csv a.csv p" \
    "SELECT count(*), typeof(n) FROM p" ;;
terminal) # a person at a terminal, under tmux: what the screen shows, and the exit status
  X="tmux -L kiv_host_test$$ -f /dev/null"
  $X new-session -d -x 120 -y 50 "HOME=$PWD LANG=C.UTF-8 $host i.db; echo \$? >st; sleep 600" || exit 1
  # w LINE: waits until the screen shows LINE; p: until the last line is a prompt; k TEXT: at
  # the next prompt, types TEXT and Enter (a final ';' escaped, which tmux would take as its own)
  w() { i=0; while [ $i -lt 100 ] && ! $X capture-pane -p | grep -qxF "$1"; do sleep 0.1; i=$((i + 1)); done; }
  p() { i=0; while [ $i -lt 100 ] && ! $X capture-pane -p | grep . | tail -1 | grep -qx 'kiv_host>\|   \.\.\.>'; do
      sleep 0.1; i=$((i + 1)); done; }
  k() { p; $X send-keys -l "${1%;}"; [ "${1%;}" = "$1" ] || $X send-keys '\;'; $X send-keys Enter
    i=0; while [ $i -lt 100 ] && ! $X capture-pane -p | grep -qF -- "$1"; do sleep 0.1; i=$((i + 1)); done; }
  k "CREATE TABLE t("; k "a INTEGER, b TEXT);"; k "INSERT INTO t VALUES (1, 'one'), (2, '日本');"
  k "SELECT * FROM t;"; k .tables; k .schema; k ".mode csv"; k "SELECT * FROM t;"; k "SELEC;"
  k "WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM c) SELECT 0 n UNION ALL SELECT count(*) FROM c;"
  w 0; $X send-keys C-c; w "  in: WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM c) SELECT 0 n UNION ALL SELECT count(*) FROM c;"
  k "SELECT 3"; p; $X send-keys C-c; k "SELECT 4;"; k .quit
  i=0; while [ $i -lt 100 ] && [ ! -s st ]; do sleep 0.1; i=$((i + 1)); done
  $X capture-pane -p -S 0 -E 49 | sed -e :a -e '/^\n*$/{$d;N;ba' -e '}' >screen; $X kill-server
  cat >want <<E
kiv_host 1.0.0 on i.db: SQL ends with ";", .help lists the commands, Ctrl-D leaves
kiv_host> CREATE TABLE t(
   ...> a INTEGER, b TEXT);
kiv_host> INSERT INTO t VALUES (1, 'one'), (2, '日本');
kiv_host> SELECT * FROM t;
a  b
-  ----
1  one
2  日本
(2 rows)
kiv_host> .tables
t
kiv_host> .schema
CREATE TABLE t(
a INTEGER, b TEXT);
kiv_host> .mode csv
kiv_host> SELECT * FROM t;
a,b
1,one
2,"日本"
kiv_host> SELEC;
kiv_host: i.db: statement 5: SQLite error 1: near "SELEC": syntax error
  in: SELEC;
kiv_host> WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM c) SELECT 0 n UNION ALL SELECT count(*) FROM c;
n
0
^Ckiv_host: i.db: statement 6: SQLite error 9: interrupted
  in: WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM c) SELECT 0 n UNION ALL SELECT count(*) FROM c;
kiv_host> SELECT 3
   ...>
kiv_host> SELECT 4;
4
4
kiv_host> .quit
E
  [ "$(cat st)" = 0 ] && cmp -s want screen || { echo "terminal: status $(cat st)"; diff want screen; fails=$((fails + 1)); } ;;
bad) # bad input is refused loudly: an error naming it, and a failing exit status
  printf 'SELECT 2\0 ; SELECT 3;\nSELECT 4;\n' >nul.sql; printf 'a,b\n1,2\n3,"x\n4,5\n' >open.csv; printf '1\n2\n5\n' >n.csv
  printf 'SELECT 1;\n\nSELECT\n  nope;\n' >r.sql; printf '.read r.sql\n.bogus\n/* ; */ SELEC;\n' >r2.sql; mkdir d
  printf '%s\n' '-- c;' '.print a' '/* c; */' '.print b' "/* c; */ SELECT 'x'; -- it's" "SELECT 'y', 2 AS \"a;\", 3 AS [b;], 4 AS \`c;\` /* ; */ ;" '.print c' ';' \
    '/* c */ SELEC;' 'SELECT 2; /* open' >comments.sql
  I='SQLite error 1: no such column: nope'
  IN=nul.sql t "NUL byte" 1 4 "kiv_host: standard input:1: a NUL byte in the line; the line and the statement in progress are dropped" -list -noheader b.db
  t ".read of a directory" 1 "" "kiv_host: .read: d: Is a directory" b.db ".read d" "SELECT 1"
  t ".read names file and line" 1 "$(printf '1\n1')" "$(printf '%s\n' "kiv_host: r.sql:3: statement 2: $I" '  in: SELECT' '  nope;' \
    "kiv_host: r.sql:3: statement 4: $I" '  in: SELECT' '  nope;' "kiv_host: r2.sql:2: unknown command '.bogus' (.help lists the commands)" \
    'kiv_host: r2.sql:3: statement 5: SQLite error 1: near "SELEC": syntax error' '  in: SELEC;')" -list -noheader b.db \
    ".bail off" ".read r.sql" ".read r2.sql"
  IN=comments.sql t "comments around commands" 1 "$(printf 'a\nb\nx\ny|2|3|4\nc\n2')" "$(printf '%s\n' \
    'kiv_host: b.db: statement 3: SQLite error 1: near "SELEC": syntax error' '  in: SELEC;')" -list -noheader b.db
  t ".import into a read-only database" 1 "" "kiv_host: n.csv: SQLite error 8: attempt to write a readonly database" \
    -readonly b.db ".import n.csv n"
  t ".output to a full device" 1 "" "kiv_host: output file: No space left on device" b.db ".output /dev/full" "SELECT 1" "SELECT 2"
  t ".import ends in quotes" 1 0 "kiv_host: open.csv:3: the file ends inside the quoted field opened here; nothing imported" \
    -list -noheader b.db ".bail off" ".import open.csv o" "SELECT count(*) FROM sqlite_master"
  t ".import fails in a transaction" 1 "$(printf '1\n0')" "kiv_host: n.csv:3: inserting the row: SQLite error 19: CHECK constraint failed: a < 3" \
    -list -noheader b.db "BEGIN; CREATE TABLE c(a INTEGER CHECK (a < 3)); INSERT INTO c VALUES (1)" ".bail off" ".import n.csv c" \
    "SELECT count(*) FROM c" "COMMIT" "SELECT count(*) FROM c WHERE a <> 1"
  "$host" :memory: "SELECT 1" >/dev/full 2>err; [ $? = 1 ] && [ "$(cat err)" = "kiv_host: standard output: No space left on device" ] ||
    { echo "standard output full: $(cat err)"; fails=$((fails + 1)); } ;;
dump) # .dump's SQL loads into the sqlite3 shell as the same database
  "$host" a.db "CREATE TABLE t(a INTEGER PRIMARY KEY AUTOINCREMENT, b TEXT, c BLOB, d REAL, e);
    CREATE TABLE \"odd \"\"name\"(x UNIQUE); INSERT INTO \"odd \"\"name\" VALUES ('it''s'), (char(10)), (NULL);
    INSERT INTO t(b, c, d, e) VALUES ('x''y' || char(13, 10) || 'z', X'00FF', 0.1, NULL), (NULL, x'', 1e300, 3),
      ('', NULL, -2.5e-7, 2.5), ('日本', NULL, 1.0 / 3, -9223372036854775808);
    CREATE TABLE sqlitely_1(a); INSERT INTO sqlitely_1 VALUES (1); CREATE VIRTUAL TABLE f USING fts5(x);
    INSERT INTO f VALUES ('a b');
    CREATE INDEX ti ON t(b, d); CREATE VIEW v AS SELECT a FROM t; ANALYZE;
    CREATE TRIGGER tr AFTER DELETE ON t BEGIN INSERT INTO \"odd \"\"name\" VALUES ('a;b'); END" .dump >d.sql
  "$host" a.db ".dump o%" >o.sql
  sqlite3 b.db <d.sql && sqlite3 a.db .dump >a.sql && sqlite3 b.db .dump >b.sql && cmp -s a.sql b.sql &&
    [ "$(grep -c '^INSERT INTO "odd ""name"\|^CREATE' o.sql)" = 4 ] && [ "$(tail -1 d.sql)" = "COMMIT;" ] && grep -qx 'INSERT INTO sqlitely_1 VALUES(1);' d.sql ||
    { echo ".dump: a round trip through the sqlite3 shell differs"; diff a.sql b.sql; fails=$((fails + 1)); } ;;
esac
[ $fails -eq 0 ] && echo "$3: ok"
exit $fails
