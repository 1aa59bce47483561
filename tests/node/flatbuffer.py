"""Writes FlatBuffers by hand, parents before children, to build the two binary bodies of POST /raw."""
import struct


class Table(dict):
    """slot -> scalar (see the functions below), Table, str, bytes, or list of Tables or strings."""


class Structs:
    """A vector of structs: `layout` as of module struct, aligned to `align`."""

    def __init__(self, layout, align, rows):
        self.count, self.align = len(rows), align
        self.data = b"".join(struct.pack(layout, *row) for row in rows)


class Scalar:
    def __init__(self, code, value):
        self.data = struct.pack("<" + code, value)


def u8(v): return Scalar("B", v)
def i8(v): return Scalar("b", v)
def u16(v): return Scalar("H", v)
def i32(v): return Scalar("i", v)
def u32(v): return Scalar("I", v)
def i64(v): return Scalar("q", v)
def u64(v): return Scalar("Q", v)
def f64(v): return Scalar("d", v)


def build(root, identifier):
    """The finished buffer with its root table and its four-byte identifier."""
    out = bytearray(8)
    out[4:8] = identifier
    _link(out, 0, _table(out, root))
    return bytes(out)


def _align(out, to, extra=0):
    out.extend(b"\0" * (-(len(out) + extra) % to))


def _link(out, at, target):
    struct.pack_into("<I", out, at, target - at)


def _table(out, table):
    inline = {slot: v.data if isinstance(v, Scalar) else None for slot, v in table.items()}
    order = sorted(inline, key=lambda slot: -len(inline[slot] or b"0000"))
    slots = max(table, default=-1) + 1
    _align(out, 8, 4 + 2 * slots + 4)  # the table begins 4 before a multiple of 8: its first field lies on one
    vtable = len(out)
    out.extend(b"\0" * (4 + 2 * slots))
    begin = len(out)
    out.extend(struct.pack("<i", begin - vtable))
    places = {}
    for slot in order:
        _align(out, len(inline[slot] or b"0000"))
        places[slot] = len(out)
        out.extend(inline[slot] or b"0000")
    struct.pack_into("<HH", out, vtable, 4 + 2 * slots, len(out) - begin)
    for slot, place in places.items():
        struct.pack_into("<H", out, vtable + 4 + 2 * slot, place - begin)
    for slot, place in places.items():
        if inline[slot] is None:
            _link(out, place, _child(out, table[slot]))
    return begin


def _child(out, value):
    if isinstance(value, Table):
        return _table(out, value)
    if isinstance(value, str):
        value = value.encode()
        _align(out, 4)
        at = len(out)
        out.extend(struct.pack("<I", len(value)) + value + b"\0")
        return at
    if isinstance(value, bytes):
        _align(out, 4)
        at = len(out)
        out.extend(struct.pack("<I", len(value)) + value)
        return at
    if isinstance(value, Structs):
        _align(out, max(value.align, 4), 4)
        at = len(out)
        out.extend(struct.pack("<I", value.count) + value.data)
        return at
    _align(out, 4)
    at = len(out)
    out.extend(struct.pack("<I", len(value)) + b"\0" * 4 * len(value))
    for i, item in enumerate(value):
        _link(out, at + 4 + 4 * i, _child(out, item))
    return at


# ---- the two bodies. A value is (kind, value); the kinds in the order of the union.

KINDS = ["int", "uint", "long", "ulong", "double", "string", "histogram", "null", "null string", "null histogram"]
_WRITERS = {"int": i32, "uint": u32, "long": i64, "ulong": u64, "double": f64}


def _value(kind, value, buckets):
    """The union's type and table."""
    if kind in _WRITERS:
        table = Table({0: _WRITERS[kind](value)})
    elif kind == "string":
        table = Table({0: value})
    elif kind == "histogram":
        table = Table({0: buckets(value["bins"]), 1: u8(value.get("cumulative", 0))})
    else:
        table = Table()
    return u8(KINDS.index(kind) + 1), table


def relay(metrics):
    """metrics: dicts with name, ts (ms), kind, value; optional check, account, uuid, tags, generation."""
    rows = []
    for m in metrics:
        kind, table = _value(m["kind"], m.get("value"),
                             lambda bins: [Table({0: i8(v), 1: i8(e), 2: u64(n)}) for v, e, n in bins])
        value = Table({0: m["name"], 1: u64(m["ts"]), 2: kind, 3: table})
        if "generation" in m:
            value[4] = u16(m["generation"])
        if "tags" in m:
            value[5] = m["tags"]
        rows.append(Table({0: u64(m["ts"]), 1: m.get("check", "host"), 2: m["uuid"], 3: i32(m.get("account", 1)),
                           4: value}))
    return build(Table({0: rows}), b"TVML")


def dorn(metrics):
    """metrics: dicts with name, uuid (16 bytes), samples: list of (ts in ms, kind, value)."""
    rows = []
    for m in metrics:
        samples = []
        for ts, name, content in m["samples"]:
            kind, table = _value(name, content,
                                 lambda bins: Structs("<Qbb6x", 8, [(n, v, e) for v, e, n in bins]))
            samples.append(Table({0: u64(ts), 1: kind, 2: table}))
        value = Table({0: m["name"], 2: samples})
        if "tags" in m:
            value[1] = m["tags"]
        rows.append(Table({0: u64(0), 1: "host", 2: m["uuid"], 3: i32(m.get("account", 1)), 4: value}))
    return build(Table({0: rows}), b"TMLS")
