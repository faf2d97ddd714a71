#include "client/routecache_tables.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>

#include "client/Session.h"

static_assert(sizeof(rct_change) == sizeof(void*) + 8 + RCT_MAX_KEY, "programs have been built with this");
static_assert(RCT_MAX_KEY == Pondra::maxKeySize, "the longest key is a table's");

namespace {

using Client::Bytes;
using Client::Fault;

thread_local char errorText[512];  // holds the text of one fault, or its beginning

int failed(int code, const char* text) {
  std::snprintf(errorText, sizeof errorText, "%s", text);
  return code;
}

// What is thrown becomes a code.
template <class Act>
int guarded(Act&& act) noexcept {
  try {
    return act();
  } catch (const Fault& fault) {
    return failed(fault.code, fault.text.c_str());
  } catch (const Pondra::TableError& error) {
    return failed(RCT_UNUSABLE, error.what());
  } catch (const std::bad_alloc&) {
    return failed(RCT_NO_MEMORY, "out of memory");
  } catch (const std::exception& error) {
    return failed(RCT_FAILED, error.what());
  } catch (...) {
    return failed(RCT_FAILED, "unknown error");
  }
}

void require(bool holds, const char* text) {
  if (!holds) throw Fault{RCT_BAD_ARGUMENT, text};
}
constexpr const char* nullPointer = "an argument is a null pointer";

// What a handle is told to do, and answers nothing to.
template <class Handle, class Act>
int told(Handle* handle, Act&& act) {
  return guarded([&] {
    require(handle != nullptr, nullPointer);
    act(*handle);
    return RCT_OK;
  });
}

Bytes bytes(const void* data, std::size_t size) {
  require(data != nullptr || size == 0, nullPointer);
  return {static_cast<const std::byte*>(data), size};
}

// As much of a struct as the caller knows.
template <class Struct>
void copyTo(Struct* to, const Struct& from, std::size_t size) {
  std::memcpy(to, &from, std::min(size, sizeof from));
}

}  // namespace

extern "C" {

uint32_t rct_version(void) {
  return RCT_VERSION;
}

const char* rct_error_text(void) {
  return errorText;
}

int rct_open(const char* run_directory, rct_session** session) {
  return guarded([&] {
    require(run_directory != nullptr && session != nullptr, nullPointer);
    require(run_directory[0] != '\0', "the run directory has no name");
    *session = new rct_session(run_directory);
    return RCT_OK;
  });
}

void rct_close(rct_session* session) {
  guarded([&] {
    delete session;
    return RCT_OK;
  });
}

int rct_on_damage(rct_session* session, rct_damage_handler handler, void* context) {
  return told(session, [=](rct_session& it) { it.damageHandlerIs(handler, context); });
}

int rct_table_open(rct_session* session, const char* path, rct_table** table) {
  return guarded([&] {
    require(session != nullptr && path != nullptr && table != nullptr, nullPointer);
    *table = session->read(path);
    return RCT_OK;
  });
}

int rct_table_write(rct_session* session, const char* path, uint32_t capacity, rct_table** table) {
  return guarded([&] {
    require(session != nullptr && path != nullptr && table != nullptr, nullPointer);
    *table = session->write(path, capacity);
    return RCT_OK;
  });
}

void rct_table_close(rct_table* table) {
  guarded([&] {
    if (table != nullptr) table->session().close(*table);
    return RCT_OK;
  });
}

int rct_table_info(rct_table* table, rct_info* info, size_t size) {
  return guarded([&]() -> int {
    require(table != nullptr && info != nullptr, nullPointer);
    const auto found = table->info();
    if (!found) return RCT_ABSENT;
    copyTo(info, *found, size);
    return RCT_OK;
  });
}

int rct_table_state(rct_table* table, rct_state* state, size_t size) {
  return guarded([&] {
    require(table != nullptr && state != nullptr, nullPointer);
    copyTo(state, table->state(), size);
    return RCT_OK;
  });
}

int rct_get(rct_table* table, const void* key, size_t key_size, rct_entry* entry) {
  return guarded([&]() -> int {
    require(table != nullptr && entry != nullptr, nullPointer);
    return table->find(bytes(key, key_size), *entry) ? RCT_OK : RCT_ABSENT;
  });
}

int rct_walk(rct_table* table, const void* from, size_t from_size, rct_cursor** cursor) {
  return guarded([&] {
    require(table != nullptr && cursor != nullptr, nullPointer);
    *cursor = new rct_cursor(*table, bytes(from, from == nullptr ? 0 : from_size));
    return RCT_OK;
  });
}

int rct_next(rct_cursor* cursor, rct_entry* entry) {
  return guarded([&]() -> int {
    require(cursor != nullptr && entry != nullptr, nullPointer);
    return cursor->next(*entry) ? RCT_OK : RCT_ABSENT;
  });
}

void rct_cursor_close(rct_cursor* cursor) {
  delete cursor;
}

int rct_follow(rct_table* table) {
  return told(table, [](rct_table& it) { it.follow(); });
}

int rct_fd(rct_session* session) {
  return guarded([&] {
    require(session != nullptr, nullPointer);
    return session->fd();
  });
}

int rct_changes(rct_session* session, rct_change* changes, size_t capacity) {
  return guarded([&] {
    require(session != nullptr && changes != nullptr, nullPointer);
    require(capacity > 0, "there is no room for a change");
    constexpr std::size_t most = 1 << 20;  // as many fit into a count
    return static_cast<int>(session->changes({changes, std::min(capacity, most)}));
  });
}

int rct_set(rct_table* table, const void* key, size_t key_size, const void* value, size_t value_size) {
  return guarded([&] {
    require(table != nullptr, nullPointer);
    table->set(bytes(key, key_size), bytes(value, value_size));
    return RCT_OK;
  });
}

int rct_delete(rct_table* table, const void* key, size_t key_size) {
  return guarded([&]() -> int {
    require(table != nullptr, nullPointer);
    return table->erase(bytes(key, key_size)) ? RCT_OK : RCT_ABSENT;
  });
}

int rct_delete_all(rct_table* table) {
  return told(table, [](rct_table& it) { it.eraseAll(); });
}

int rct_reconcile(rct_table* table) {
  return told(table, [](rct_table& it) { it.reconcile(); });
}

int rct_flush(rct_session* session) {
  return told(session, [](rct_session& it) { it.flush(); });
}

}  // extern "C"
