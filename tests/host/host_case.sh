#!/bin/sh
# kiv_host end to end: each case compares the exit status and the bytes of standard output and
# standard error with what it expects.   host_case.sh KIV_HOST WORK_DIR GROUP VERSION
set -u; host=$1 fails=0; rm -rf "$2" && mkdir -p "$2" && cd "$2" || exit 1
S=$(printf '%s\n' 'left objects in database reference count: 0' 'DATABASE SERVICE SHOT DONW REQUEST' \
  'DATABASE THREAD SERVICE STOPPED' 'DATABASE SERVICE DONE') U="Try 'kiv_host --help'."
# t NAME STATUS STDOUT STDERR ARGS...: outputs without their last newline; standard input from $IN;
# the shutdown lines end standard error unless NOS is set (a run that never reached the database)
t() { n=$1 s=$2; printf "${3:+%s\n}" "$3" >want_out; { printf "${4:+%s\n}" "$4"; [ -n "${NOS:-}" ] || echo "$S"; } >want_err
  shift 4
  "$host" "$@" <"${IN:-/dev/null}" >out 2>err; st=$?; sed -i 's/\(database worker: \).*/\1RATE/' out
  [ $st = "$s" ] && cmp -s want_out out && cmp -s want_err err || {
    echo "$n: status $st, expected $s"; diff want_out out; diff want_err err; fails=$((fails + 1)); }; }
case $3 in
demo) # a fresh directory, then the same file again: the second run replaces the rows
  for line in 'no earlier rows: table readings filled' 'earlier run found: its 100000 rows replaced'; do
    t "demo" 0 "kiv_host demo on kiv_demo.db
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
" ""
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
  t "CSV" 0 "$(printf 'a,"b,c"\n1,"x,y"\n2,"say ""hi"""\n,"two\nlines"\n3.5,"cr\r"\nX'\''00'\'',')" "" \
    --csv t.db "SELECT column1 AS a, column2 AS \"b,c\" FROM (VALUES (1, 'x,y'), (2, 'say \"hi\"'),
    (NULL, 'two' || char(10) || 'lines'), (3.5, 'cr' || char(13)), (X'00', ''))"
  t "widths from the first 1000 rows" 0 "$(printf 'v     i\n-  ----\n'; seq 1000 | awk '{printf "a  %4d\n", $1}'
    printf 'a|wide  1001\n(1001 rows)')" "" :memory: "WITH RECURSIVE c(i) AS (SELECT 1
    UNION ALL SELECT i + 1 FROM c WHERE i < 1001) SELECT CASE i WHEN 1001 THEN 'a|wide' ELSE 'a' END AS v, i FROM c"
  # A reader that leaves early: the endless result stops at once, quietly, with a clean shutdown.
  { "$host" :memory: "WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM c) SELECT i FROM c" 2>err
    echo $? >st; } | head -3 >out
  [ "$(cat st out err)" = "$(printf '0\n   i\n----\n   1\n%s' "$S")" ] || { echo "| head -3: $(cat st err)"; fails=$((fails + 1)); } ;;
errors) # the rows before an error print, then the error; later statements never run
  t "rows, then the error" 1 "$(printf 'v\n-\n1\n2')" "kiv_host: e.db: statement 2: SQLite error 1: integer overflow
  in: SELECT abs(column1) AS v FROM (VALUES (1), (-2), (-9223372036854775808));" e.db "CREATE TABLE t(a);
    SELECT abs(column1) AS v FROM (VALUES (1), (-2), (-9223372036854775808)); CREATE TABLE never(a)"
  t "bad SQL" 1 "" "$(printf 'kiv_host: e.db: statement 1: SQLite error 1: near "SELEC": syntax error\n  in: SELEC')" e.db SELEC
  t "--no-create, existing file" 0 "$(printf 'never\n0')" "" --csv --no-create e.db \
    "SELECT count(*) AS never FROM sqlite_master WHERE name = 'never'"
  echo 'not a database, only text that is long enough to hold a header' >nodb
  t "not a database" 1 "" "kiv_host: nodb: SQLite error 26: file is not a database" nodb "SELECT 1"
  # e STATUS MESSAGE ARGS...: refused before the database is reached; usage errors add the hint
  e() { s=$1 m="kiv_host: $2"; shift 2; [ $s = 2 ] && m=$(printf '%s\n%s' "$m" "$U"); NOS=1 t "$m" $s "" "$m" "$@"; }
  e 1 "missing.db: file does not exist (--no-create)" --no-create missing.db "SELECT 1"
  e 2 "unknown option '--bogus'" --bogus x.db "SELECT 1"
  e 2 "option '--csv' after PATH (options go before PATH)" x.db --csv "SELECT 1"
  e 2 "an empty SQL argument" x.db "SELECT 1" " "
  e 2 "-timeout needs milliseconds, not 'x'" -timeout x x.db
  e 2 "--help takes no other arguments" --help x.db
  NOS=1 t "--version" 0 "kiv_host $4" "" --version
  [ "$("$host" --help | head -1)" = "Usage: kiv_host [OPTION]... PATH [SQL|.COMMAND]..." ] || { echo "--help"; fails=$((fails + 1)); } ;;
esac
[ $fails -eq 0 ] && echo "$3: ok"
exit $fails
