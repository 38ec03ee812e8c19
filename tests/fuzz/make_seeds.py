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


def op(code, *operands):
    return bytes([code]) + b"".join(operands)


def u8(v):
    return bytes([v & 0xFF])


def seq(*ops):
    return b"".join(ops)


TABLE = "CREATE TABLE t(a INTEGER PRIMARY KEY, b TEXT, c BLOB, d REAL);" \
        "INSERT INTO t VALUES (1, 'one', x'00ff', 1.5), (2, NULL, zeroblob(3), -0.0);"
OPENED = seq(op(NEW, u8(1)), op(OPEN))

SEEDS = {
    "select_columns": seq(OPENED, op(EXEC, text(TABLE), u8(1)), op(PREPARE, text("SELECT * FROM t ORDER BY a")),
                          op(STEP), op(COLUMNS, u8(0)), op(COLUMNS, u8(1)), op(COLUMNS, u8(2)), op(COLUMNS, u8(3)),
                          op(COLUMNS, u8(0xFF)), op(STEP), op(COLUMNS, u8(1)), op(STEP), op(INFO, struct.pack("<i", 1001)),
                          op(DESTROY)),
    "bind_all": seq(OPENED, op(EXEC, text(TABLE), u8(0)),
                    op(PREPARE, text("INSERT INTO t(a, b, c, d) VALUES (?1, :b, @c, $d)")),
                    op(PARAMS, u8(2), text(":b"), u8(0)), op(BIND_INT, u8(1), struct.pack("<i", 7)),
                    op(BIND_TEXT, u8(2), text("seven")), op(BIND_BLOB, u8(3), text(b"\x00\x01\x02")),
                    op(BIND_DOUBLE, u8(4), struct.pack("<d", 7.25)), op(STEP), op(RESET),
                    op(BIND_INT64, u8(1), struct.pack("<q", 1 << 40)), op(BIND_TEXT_STATIC, u8(2), text("st")),
                    op(BIND_BLOB_STATIC, u8(3), text(b"\xff" * 8)), op(BIND_INT, u8(0), struct.pack("<i", 1)),
                    op(BIND_INT, u8(9), struct.pack("<i", 1)), op(STEP), op(PARAMS, u8(0), text("nope"), u8(1)),
                    op(FINALIZE), op(INFO, struct.pack("<i", 0)), op(DESTROY)),
    "rows_each": seq(OPENED, op(EXEC, text(TABLE), u8(0)),
                     op(PREPARE, text("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<50) "
                                      "SELECT i, i*i, 'r'||i FROM n")),
                     op(ROWS_EACH, u8(0x7D), u8(0), u8(1)), op(ROWS_EACH, u8(0xFF)), op(RESET),
                     op(ROWS_EACH, u8(0x03)), op(STEP), op(DESTROY)),
    "close_held": seq(OPENED, op(PREPARE, text("SELECT 1")), op(CLOSE), op(STEP), op(OPEN),
                      op(PREPARE, text("SELECT 2")), op(FINALIZE), op(LOOKUP, u8(1)), op(CLOSE), op(LOOKUP, u8(1)),
                      op(TRY_OPEN), op(DESTROY), op(NEW, u8(0)), op(STEP), op(COLUMNS, u8(0)), op(DESTROY)),
    "errors": seq(OPENED, op(PREPARE, text("SELEKT 1")), op(INFO, struct.pack("<i", 1)),
                  op(EXEC, text("CREATE TABLE u(x UNIQUE); INSERT INTO u VALUES (1), (1)"), u8(1)),
                  op(PREPARE, text("INSERT INTO u VALUES (1)")), op(ROWS_EACH, u8(0)), op(STEP),
                  op(PREPARE, text("SELECT 1")), op(INFO, struct.pack("<i", 26)), op(RESET), op(FINALIZE),
                  op(PREPARE, text("")), op(STEP), op(DESTROY)),
    "unopened": seq(op(NEW, u8(0)), op(PREPARE, text("SELECT 1")), op(STEP), op(ROWS_EACH, u8(1)),
                    op(BIND_TEXT, u8(1), text("x")), op(COLUMNS, u8(0)), op(INFO, struct.pack("<i", 5)),
                    op(CLOSE), op(DESTROY)),
    "transaction": seq(OPENED, op(EXEC, text("BEGIN; CREATE TABLE k(v); INSERT INTO k VALUES (randomblob(16))"), u8(1)),
                       op(PREPARE, text("SELECT v, typeof(v), length(v) FROM k")), op(STEP), op(COLUMNS, u8(0)),
                       op(FINALIZE), op(EXEC, text("ROLLBACK"), u8(1)), op(PREPARE, text("SELECT count(*) FROM k")),
                       op(STEP), op(INFO, struct.pack("<i", 0)), op(DESTROY)),
}


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "corpus")
    os.makedirs(out, exist_ok=True)
    for name, data in SEEDS.items():
        with open(os.path.join(out, name), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    main()
