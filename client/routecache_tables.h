/* Shared tables for processes that are not the agent, in C: read every table, follow its changes, and write the tables
 * that other processes own. docs/values.md draws the bytes of every table's keys and values.
 *
 * Threads. A session, its tables and its cursors belong to one thread at a time. Different sessions share nothing.
 * Forks. A child must not use a session of its parent, nor close it; it opens its own. Writers' locks stay the
 * parent's. Signals. A table's file that somebody cuts short kills nobody: with its first table the library installs a
 * handler for SIGBUS, which passes on what is not its own. The library stays loaded once it is. Threads must not block
 * SIGBUS. Errors. Functions that return int give RCT_OK, or a count, or RCT_ABSENT, or one of the negative codes;
 * rct_error_text() then says in a line what was wrong. Whoever fails has changed nothing. No argument makes the library
 * abort; a handle that was closed already is beyond its help. Memory. What a handle gives out as pointers stays valid
 * as the function says; nothing has to be freed but the handles. Stability. What stands here stays: later versions of
 * the library add functions, codes, kinds of change, and fields at the end of structs that are passed with their size.
 */
#ifndef ROUTECACHE_TABLES_H
#define ROUTECACHE_TABLES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define RCT_API __attribute__((visibility("default")))

/* Major, minor: a program needs a library of the same major and at least the same minor version. */
#define RCT_VERSION_MAJOR 1
#define RCT_VERSION_MINOR 0
#define RCT_VERSION (RCT_VERSION_MAJOR * 1000 + RCT_VERSION_MINOR)
/* RCT_VERSION of the library that the process runs with. */
RCT_API uint32_t rct_version(void);

enum {
  RCT_OK = 0,
  RCT_ABSENT = 1,        /* no such entry, or none further */
  RCT_BAD_ARGUMENT = -1, /* a null pointer, a size or bytes that the table cannot have, a path that is open already */
  RCT_NOT_WRITER = -2,   /* the table is open for reading, or nobody may write it through this library */
  RCT_BUSY = -3,         /* another process is the table's writer, or another session of this one */
  RCT_FULL = -4,         /* the key is new and the table has no room */
  RCT_UNUSABLE = -5,     /* the file is no table, or of another type or layout, or the system refuses it */
  RCT_NO_MEMORY = -6,
  RCT_FAILED = -7 /* anything else */
};

/* Why the last function of this thread that failed did so: one line, empty at first. Valid until the next call. */
RCT_API const char* rct_error_text(void);

/* --- Sessions ----------------------------------------------------------------------------------------------------- */

/* What a process does in one run directory: a few descriptors and the tables that it has open. */
typedef struct rct_session rct_session;
typedef struct rct_table rct_table;
typedef struct rct_cursor rct_cursor;

/* The directory need not exist yet; the first writer's table makes it. The caller closes the session. */
RCT_API int rct_open(const char* run_directory, rct_session** session);
/* Closes what it has open, writes' wake-ups included. Null is fine. */
RCT_API void rct_close(rct_session* session);

/* Damage that was met in a table: its mount path and one line. Called from inside any function that reads or writes;
 * it must not call the library. Null, as at first: each line goes to standard error, once. */
typedef void (*rct_damage_handler)(void* context, const char* path, const char* what);
RCT_API int rct_on_damage(rct_session* session, rct_damage_handler handler, void* context);

/* --- Tables ------------------------------------------------------------------------------------------------------- */

/* The longest key, in bytes. */
#define RCT_MAX_KEY 40

/* Opens a table for reading by its mount path, such as "routecache/route/hw/ipv4". One that does not exist is waited
 * for, and is empty meanwhile. RCT_UNUSABLE: what is there cannot be read by this process. */
RCT_API int rct_table_open(rct_session* session, const char* path, rct_table** table);
/* Opens a table as its one writer. These may be written: the routes and vias of the RIB, the routes of the FIB (of a
 * VRF too), the hit bits of hardware and of the SFE, the routes that the SFE has programmed; any other path is
 * RCT_NOT_WRITER. The table is made when it is missing; what stands in it stays, and can be looked up and walked.
 * `capacity`, in entries, 1 to 2^28: another one than the table has moves its entries; if there are more, all stay and
 * none is added until there are fewer. The writer's lock goes with the table's close or the process. */
RCT_API int rct_table_write(rct_session* session, const char* path, uint32_t capacity, rct_table** table);
/* Its changes that rct_changes() has given out must have been handled, and its cursors be closed. Null is fine. */
RCT_API void rct_table_close(rct_table* table);

/* What the table is, as its file says; fixed once it is known. RCT_ABSENT while a reader waits for the table. */
typedef struct rct_info {
  char type[128];          /* "RouteCache::Ipv4RouteStatus" */
  char collection[64];     /* "route" */
  uint32_t layout_version; /* of keys and values */
  uint32_t key_size;       /* bytes */
  uint32_t max_value_size; /* bytes */
  uint32_t variable_size;  /* 1: values differ in size; 0: all are of max_value_size */
} rct_info;
/* `size` is sizeof(rct_info) as the caller knows it. */
RCT_API int rct_table_info(rct_table* table, rct_info* info, size_t size);

enum { RCT_WRITER_GONE = 0, RCT_WRITER_ALIVE = 1, RCT_WRITER_UNKNOWN = 2 };

/* How the table stands now. Together they tell
 *   the same writer                 `generation` is what it was
 *   writer restarted, and adopted   `generation` is another
 *   writer gone                     `writer` is RCT_WRITER_GONE; unknown to another user than the writer's
 *   restart complete                `reconciled` is 1: this writer has brought the table in line with what it knows, so
 *                                   what is missing is really gone. Before, it may come back: keep what you have. */
typedef struct rct_state {
  uint64_t entries;
  uint64_t capacity;
  uint64_t generation; /* to be compared for equality; 0 while a reader waits for the table */
  uint32_t present;    /* 0 while a reader waits for the table */
  uint32_t reconciled;
  uint32_t writer;
  uint32_t reserved;
} rct_state;
/* `size` is sizeof(rct_state) as the caller knows it. Costs a few system calls. */
RCT_API int rct_table_state(rct_table* table, rct_state* state, size_t size);

/* --- Reading ------------------------------------------------------------------------------------------------------ */

/* An entry as it stood at one moment, whole. Valid until the next call that gives an entry of the same table (rct_get)
 * or cursor (rct_next), or closes it. */
typedef struct rct_entry {
  const unsigned char* key;
  size_t key_size;
  const unsigned char* value;
  size_t value_size;
} rct_entry;
/* RCT_ABSENT: there is none under the key. */
RCT_API int rct_get(rct_table* table, const void* key, size_t key_size, rct_entry* entry);

/* A walk in key order, beginning at the first key that is not below `from` (null: at the first of all). Two entries
 * need not be of one moment: the table may change meanwhile, and each step goes to the next key that is there then. */
RCT_API int rct_walk(rct_table* table, const void* from, size_t from_size, rct_cursor** cursor);
/* RCT_ABSENT: no more now; asked again later, it goes on behind the last entry it gave. */
RCT_API int rct_next(rct_cursor* cursor, rct_entry* entry);
/* Null is fine. */
RCT_API void rct_cursor_close(rct_cursor* cursor);

/* --- Following changes -------------------------------------------------------------------------------------------- */

/* From now on the table's changes are told: follow, then walk. Of a table that is waited for, or that is replaced by
 * another file, all that differs is a change. */
RCT_API int rct_follow(rct_table* table);

/* Readable when rct_changes() has something to do, and once a second to look after what nobody tells of: a table that
 * appears, the last changes and the death of a killed writer, an own table's file that somebody has removed. For any
 * event loop; belongs to the session. */
RCT_API int rct_fd(rct_session* session);

enum {
  RCT_KEY = 0,  /* the entry under `key` was added, changed or removed: rct_get() tells which */
  RCT_STATE = 1 /* rct_table_state() of a followed table tells something new of its file or its writer, `entries` and
                   `capacity` apart. Keys that changed before its writer said that it is reconciled come before. */
};
typedef struct rct_change {
  rct_table* table;
  uint32_t kind;
  uint32_t key_size;
  unsigned char key[RCT_MAX_KEY];
} rct_change;
/* Hands out the next changes of all tables followed, `capacity` at most, at least 1, and returns how many. Changes of
 * one key may be merged; no key that changed is missed, however late the reader is. Never blocks. */
RCT_API int rct_changes(rct_session* session, rct_change* changes, size_t capacity);

/* --- Writing: tables opened with rct_table_write() ---------------------------------------------------------------- */

/* Inserts or replaces. The bytes must be a key and a value of the table's type (RCT_BAD_ARGUMENT). Readers see it at
 * once; rct_flush() tells them to look. */
RCT_API int rct_set(rct_table* table, const void* key, size_t key_size, const void* value, size_t value_size);
/* RCT_ABSENT: there was none. */
RCT_API int rct_delete(rct_table* table, const void* key, size_t key_size);
/* One by one: a million entries take a second or more. */
RCT_API int rct_delete_all(rct_table* table);
/* Says that the table holds what it should: after a start, when all that is known has been written again and what is
 * not known any more has been deleted. */
RCT_API int rct_reconcile(rct_table* table);
/* Wakes those who follow what this session has written. For the end of a batch; a table does it by itself every few
 * thousand writes. */
RCT_API int rct_flush(rct_session* session);

#ifdef __cplusplus
}
#endif

#endif
