#!/usr/bin/env python3
"""Lists a shared table and follows it, in hexadecimal; docs/values.md says what the bytes mean."""
import argparse
import ctypes
import select
import sys

OK, KEY = 0, 0


class Entry(ctypes.Structure):
    _fields_ = [("key", ctypes.c_void_p), ("key_size", ctypes.c_size_t),
                ("value", ctypes.c_void_p), ("value_size", ctypes.c_size_t)]

    def text(self):
        return ctypes.string_at(self.key, self.key_size).hex() + " " + ctypes.string_at(self.value, self.value_size).hex()


class Change(ctypes.Structure):
    _fields_ = [("table", ctypes.c_void_p), ("kind", ctypes.c_uint32), ("key_size", ctypes.c_uint32),
                ("key", ctypes.c_ubyte * 40)]


class State(ctypes.Structure):
    _fields_ = [(name, ctypes.c_uint64) for name in ("entries", "capacity", "generation")] + [
        (name, ctypes.c_uint32) for name in ("present", "reconciled", "writer", "reserved")]


class Table:
    def __init__(self, library, run_directory, path):
        self.rct = ctypes.CDLL(library)
        self.rct.rct_error_text.restype = ctypes.c_char_p
        self.session, self.table = ctypes.c_void_p(), ctypes.c_void_p()
        self.check(self.rct.rct_open(run_directory.encode(), ctypes.byref(self.session)))
        self.check(self.rct.rct_table_open(self.session, path.encode(), ctypes.byref(self.table)))
        self.check(self.rct.rct_follow(self.table))
        self.changes = (Change * 256)()

    def check(self, result):
        if result < 0:
            sys.exit("reader.py: " + self.rct.rct_error_text().decode())
        return result

    def walk(self):
        cursor, entry = ctypes.c_void_p(), Entry()
        self.check(self.rct.rct_walk(self.table, None, ctypes.c_size_t(0), ctypes.byref(cursor)))
        while self.check(self.rct.rct_next(cursor, ctypes.byref(entry))) == OK:
            yield entry.text()
        self.rct.rct_cursor_close(cursor)

    def follow(self):
        """The changes as they come: a key and a value, a key that is "gone", or how the table stands."""
        while True:
            select.select([self.rct.rct_fd(self.session)], [], [])
            count = self.check(self.rct.rct_changes(self.session, self.changes, ctypes.c_size_t(len(self.changes))))
            for change in self.changes[:count]:
                entry, state = Entry(), State()
                key = bytes(change.key[:change.key_size])
                if change.kind != KEY:
                    self.rct.rct_table_state(self.table, ctypes.byref(state), ctypes.c_size_t(ctypes.sizeof(state)))
                    yield f"generation {state.generation} reconciled {state.reconciled} writer {state.writer}"
                elif self.rct.rct_get(self.table, key, ctypes.c_size_t(len(key)), ctypes.byref(entry)) == OK:
                    yield entry.text()
                else:
                    yield key.hex() + " gone"


arguments = argparse.ArgumentParser(description=__doc__)
arguments.add_argument("run_directory")
arguments.add_argument("path")
arguments.add_argument("--library", default="libroutecache-tables.so.1")
arguments.add_argument("--once", action="store_true", help="list the table, and do not follow it")
given = arguments.parse_args()
table = Table(given.library, given.run_directory, given.path)
for line in table.walk():
    print(line, flush=True)
for line in () if given.once else table.follow():
    print(line, flush=True)
