#!/bin/sh
# kiv_host's output modes beside the sqlite3 shell's: the same commands and query through both,
# standard output and the exit status compared byte for byte.   modes_case.sh KIV_HOST WORK_DIR
set -u; host=$1 fails=0; rm -rf "$2" && mkdir -p "$2" && cd "$2" || exit 1
command -v sqlite3 >/dev/null || { echo "the sqlite3 shell is missing (Debian package sqlite3)"; exit 1; }
# f NAME: counts a failure when the files want and out differ, and shows how
f() { cmp -s want out || { echo "$1:"; diff want out; fails=$((fails + 1)); }; }
# Text with blanks, quotes, a comma, markup, a tab, UTF-8 and none at all; integers; NULL; names
# that need quoting; a result without rows between two; a failing statement that ends the run.
Q="SELECT 1 AS a, 'x y' AS \"b c\", NULL AS c UNION ALL SELECT -22, 'it''s \"q\", <&>Àé', 3;
  SELECT 5 AS z WHERE 0; SELECT '' AS e, 'tab	x' AS \"select\", 123456789012 AS n, NULL; SELECT nosuch()"
# Line breaks, a control character and a backslash, in a name too; a REAL; a separator in text.
Q2="SELECT 'a' || char(10) || 'b' || char(13) || char(1) || '\\' AS \"x
y\", 1.5 AS r, 'p::q' AS s"
# An error after two rows: what was held is printed, and the run fails.
Q3="SELECT abs(column1) AS v FROM (VALUES (1), (-2), (-9223372036854775808))"
# Each line: a mode, a dot-command run after it, the query (Q; Q2 for the modes that keep line
# breaks; Q3); each runs with headers on (in a UTF-8 locale) and off (in the C locale, where
# kiv_host counts code points as the shell does).
while IFS='|' read -r mode more q; do
  eval "query=\$Q$q"
  for h in header noheader; do
    set -- -cmd ".mode $mode" "-$h"; [ -z "$more" ] || set -- "$@" -cmd "$more"
    sqlite3 "$@" :memory: "$query" >want 2>/dev/null; echo "status $?" >>want
    l=C.UTF-8; [ $h = header ] || l=C
    LC_ALL=$l "$host" "$@" :memory: "$query" >out 2>/dev/null; echo "status $?" >>out
    f ".mode $mode, $more, -$h"
  done
done <<'E'
list|.mode
list|.separator ";" "~"
list|.nullvalue -
csv|
csv|.separator ;
line|
column|
box|.nullvalue -
markdown|
table|
insert|
insert t1|
insert my-t||3
quote|
json|
html|
tabs|
ascii|
tcl|.mode
list||2
csv|.separator ::|2
quote||2
tcl||2
line||2
json||2
html||2
box||3
json||3
E
# The first 1000 rows of a slow result leave at once, not when 64 KB are full: here the query
# finds no row after them and runs until it is stopped.
for mode in aligned list csv; do
  rm -f out  # the background run creates it anew, maybe after the first look below
  "$host" "-$mode" :memory: "WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM c)
    SELECT i FROM c WHERE i <= 1000 OR i < 0" >out 2>/dev/null & pid=$!
  i=0; while [ $i -lt 100 ] && ! grep -q '1000' out; do sleep 0.1; i=$((i + 1)); done
  grep -q '1000' out || { echo "$mode: no rows while the query runs"; fails=$((fails + 1)); }
  kill $pid; wait $pid 2>/dev/null
done
# Insert mode writes what SQLite reads back as the same values, reals and blobs among them.
sqlite3 r.db "CREATE TABLE t(v); CREATE TABLE u(v); INSERT INTO t VALUES (0.1), (0.30000000000000004),
  (1e300), (-2.5e-7), (1e999), (-1e999), (2.0), (1e20), ('it''s' || char(10) || 'x'), (X'00FF'), (NULL),
  (9223372036854775807), (-9223372036854775808), ('')"
"$host" -cmd ".mode insert u" r.db "SELECT v FROM t ORDER BY rowid" 2>/dev/null | sqlite3 r.db
sqlite3 r.db "SELECT count(*) FROM t JOIN u ON t.rowid = u.rowid AND t.v IS u.v AND typeof(t.v) = typeof(u.v)" >out
echo 14 >want; f "insert mode read back"
# Widths in display columns where the shell counts characters: CJK characters take two.
printf '%s\n' '┌──────┬───┐' '│  w   │ n │' '├──────┼───┤' '│ 日本 │ 1 │' '└──────┴───┘' >want
LC_ALL=C.UTF-8 "$host" -box :memory: "SELECT '日本' AS w, 1 AS n" >out 2>/dev/null; f "wide characters"
# .show: the settings as they stand
printf '%12s: %s\n' bail on changes off headers off mode csv nullvalue '"-"' output stdout \
  colseparator '"\t"' rowseparator '"\r\n"' filename :memory: >want
"$host" -csv -noheader :memory: ".nullvalue -" ".separator \t" .show >out 2>/dev/null; f .show
[ $fails -eq 0 ] && echo "modes: ok"
exit $fails
