#!/usr/bin/env python3
"""Writes the fuzzer's seed corpus: short call sequences in the target's input format."""
import os
import struct
import sys

NEW, OPEN, TRY_OPEN, CLOSE, PREPARE, EXEC, RESET, FINALIZE, STEP, ROWS_EACH = range(10)
BIND_INT, BIND_INT64, BIND_DOUBLE, BIND_BLOB, BIND_BLOB_STATIC, BIND_TEXT, BIND_TEXT_STATIC = range(10, 17)
PARAMS, COLUMNS, INFO, LOOKUP, DESTROY = range(17, 22)


def text(s):
    b = s.encode() if isinstance(s, str) else s
    assert len(b) < 255
    return bytes([len(b)]) + b


def op(code, *operands, slot=0, variant=0):
    """One call: the opcode byte (code, object slot, variant) and its operands."""
    return bytes([code + 22 * (slot + 2 * variant)]) + b"".join(operands)


def rows_mode(counter=False, calls=0, throw=False, stop_at=15):
    """rows_each's mode byte: overload, calls per row callback, stop by exception, stop row."""
    return u8(int(counter) | calls << 1 | int(throw) << 3 | stop_at << 4)


def u8(v):
    return bytes([v & 0xFF])


def seq(*ops):
    return b"".join(ops)


TABLE = "CREATE TABLE t(a INTEGER PRIMARY KEY, b TEXT, c BLOB, d REAL);" \
        "INSERT INTO t VALUES (1, 'one', x'00ff', 1.5), (2, NULL, zeroblob(3), -0.0);"
COUNT_50 = "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<50) SELECT i, i*i, 'r'||i FROM n"


def opened(slot=0, name=1):
    return seq(op(NEW, u8(name), slot=slot), op(OPEN, slot=slot))


def exec_sql(sql, slot=0, message=True):
    return op(EXEC, text(sql), slot=slot, variant=int(message))


def info(code, slot=0):
    return op(INFO, struct.pack("<i", code), slot=slot)


SEEDS = {
    "select_columns": seq(opened(), exec_sql(TABLE), op(PREPARE, text("SELECT * FROM t ORDER BY a")),
                          op(STEP), op(COLUMNS, u8(0)), op(COLUMNS, u8(1)), op(COLUMNS, u8(2)), op(COLUMNS, u8(3)),
                          op(COLUMNS, u8(0xFF)), op(STEP), op(COLUMNS, u8(1)), op(STEP), info(1001), op(DESTROY)),
    "bind_all": seq(opened(), exec_sql(TABLE, message=False),
                    op(PREPARE, text("INSERT INTO t(a, b, c, d) VALUES (?1, :b, @c, $d)")),
                    op(PARAMS, u8(2), text(":b")), op(BIND_INT, u8(1), struct.pack("<i", 7)),
                    op(BIND_TEXT, u8(2), text("seven")), op(BIND_BLOB, u8(3), text(b"\x00\x01\x02")),
                    op(BIND_DOUBLE, u8(4), struct.pack("<d", 7.25)), op(STEP), op(RESET),
                    op(BIND_INT64, u8(1), struct.pack("<q", 1 << 40)), op(BIND_TEXT_STATIC, u8(2), text("st")),
                    op(BIND_BLOB_STATIC, u8(3), text(b"\xff" * 8)), op(BIND_INT, u8(0), struct.pack("<i", 1)),
                    op(BIND_INT, u8(9), struct.pack("<i", 1)), op(STEP), op(PARAMS, u8(0), text("nope"), variant=1),
                    op(FINALIZE), info(0), op(DESTROY)),
    "rows_each": seq(opened(), op(PREPARE, text(COUNT_50)),
                     op(ROWS_EACH, rows_mode(counter=True, calls=1, stop_at=7)), op(COLUMNS, u8(2)),
                     op(ROWS_EACH, rows_mode()), op(RESET), op(ROWS_EACH, rows_mode(stop_at=2, throw=True)),
                     op(STEP), op(DESTROY)),
    # Row callbacks that call back into the library: finalize, prepare anew, iterate again.
    "rows_each_nested": seq(opened(), op(PREPARE, text(COUNT_50)),
                            op(ROWS_EACH, rows_mode(counter=True, calls=2, stop_at=15)),
                            op(COLUMNS, u8(1)), op(FINALIZE),
                            op(PREPARE, text("SELECT 1 UNION ALL SELECT 2")),
                            op(ROWS_EACH, rows_mode(calls=1, stop_at=0)), op(LOOKUP, variant=1),
                            op(PREPARE, text(COUNT_50)), op(ROWS_EACH, rows_mode(calls=1, stop_at=3)),
                            op(CLOSE), op(DESTROY)),
    "close_held": seq(opened(), op(PREPARE, text("SELECT 1")), op(CLOSE), op(STEP), op(OPEN),
                      op(PREPARE, text("SELECT 2")), op(FINALIZE), op(LOOKUP, variant=1), op(CLOSE),
                      op(LOOKUP, variant=1), op(TRY_OPEN), op(DESTROY), op(NEW, u8(0)), op(STEP), op(COLUMNS, u8(0)),
                      op(DESTROY, variant=1)),
    # Two objects under one name: the registry keeps the first, closing either removes the entry.
    "same_name": seq(opened(0, 0), opened(1, 0), op(PREPARE, text("SELECT 1"), slot=0),
                     op(PREPARE, text("SELECT 2"), slot=1), op(LOOKUP, variant=0), op(STEP, slot=0), op(STEP, slot=1),
                     op(CLOSE, slot=1), op(LOOKUP, variant=0), op(OPEN, slot=1), op(DESTROY, slot=0),
                     op(LOOKUP, variant=0), op(STEP, slot=1), op(DESTROY, slot=1, variant=1)),
    "errors": seq(opened(), op(PREPARE, text("SELEKT 1")), info(1),
                  exec_sql("CREATE TABLE u(x UNIQUE); INSERT INTO u VALUES (1), (1)"),
                  op(PREPARE, text("INSERT INTO u VALUES (1)")), op(ROWS_EACH, rows_mode()), op(STEP),
                  op(PREPARE, text("SELECT 1")), info(26), op(RESET), op(FINALIZE),
                  op(PREPARE, text("")), op(STEP), op(DESTROY)),
    "unopened": seq(op(NEW, u8(0)), op(PREPARE, text("SELECT 1")), op(STEP), op(ROWS_EACH, rows_mode(counter=True)),
                    op(BIND_TEXT, u8(1), text("x")), op(COLUMNS, u8(0)), info(5), op(CLOSE), op(DESTROY)),
    "empty_handle": seq(op(OPEN, slot=1), op(PREPARE, text("SELECT 1"), slot=1), op(STEP, slot=1),
                        op(ROWS_EACH, rows_mode(), slot=1), op(COLUMNS, u8(0), slot=1), info(0, slot=1),
                        op(LOOKUP, slot=1), op(DESTROY, slot=1)),
    "transaction": seq(opened(), exec_sql("BEGIN; CREATE TABLE k(v); INSERT INTO k VALUES (randomblob(16))"),
                       op(PREPARE, text("SELECT v, typeof(v), length(v) FROM k")), op(STEP), op(COLUMNS, u8(0)),
                       op(FINALIZE), exec_sql("ROLLBACK"), op(PREPARE, text("SELECT count(*) FROM k")),
                       op(STEP), info(0), op(DESTROY)),
}


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "corpus")
    os.makedirs(out, exist_ok=True)
    for name in os.listdir(out):  # seeds of an earlier layout would decode differently now
        os.remove(os.path.join(out, name))
    for name, data in SEEDS.items():
        with open(os.path.join(out, name), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    main()
