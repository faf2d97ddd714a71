#include "client/Session.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

using Client::Bytes;
using Client::Fault;
using Client::RawTable;
using Client::WritableTable;
using LinuxPlatform::FileDescriptor;
using Pondra::MountKind;

namespace Client {

namespace {

// A table that is written: of a type that is known.
template <class Table>
class WrittenTable final : public RawTable {
 public:
  static constexpr const char* typeName = Table::typeName;
  using RawTable::RawTable;
  Pondra::TableLayout layout() const override { return Pondra::layoutOf<Table>(); }
};

FileDescriptor made(int fd, const char* what) {
  if (fd < 0) throw Fault{RCT_FAILED, std::string(what) + ": " + std::strerror(errno)};
  return FileDescriptor(fd);
}

template <std::size_t size>
void setText(char (&to)[size], const std::string& text) {
  std::memcpy(to, text.data(), std::min(text.size(), size - 1));
}

}  // namespace

void RawTable::userIs(User& user) {
  user_ = &user;
  follow();
}

void RawTable::controlIs(std::shared_ptr<Pondra::SharedCollection> control) {
  collection_ = std::dynamic_pointer_cast<LinuxPlatform::TableCollection>(control);
  attach(std::move(control));
}

}  // namespace Client

// --- Tables ----------------------------------------------------------------------------------------------------------

std::optional<rct_info> rct_table::info() const {
  if (!collection().mounted()) return std::nullopt;
  const Pondra::TableLayout& layout = collection().layout();
  rct_info info{};
  Client::setText(info.type, layout.typeName);
  Client::setText(info.collection, layout.collection);
  info.layout_version = layout.version;
  info.key_size = layout.keySize;
  info.max_value_size = layout.maxValueSize;
  info.variable_size = layout.variableSize ? 1 : 0;
  return info;
}

std::uint32_t rct_table::writer() const {
  const auto locked = LinuxPlatform::tableLocked(session_.runDirectory() + "/tables", path_);
  if (!locked) return RCT_WRITER_UNKNOWN;
  return *locked ? RCT_WRITER_ALIVE : RCT_WRITER_GONE;
}

rct_state rct_table::state() const {
  rct_state state{};
  state.entries = collection().size();
  state.capacity = collection().capacity();
  state.generation = collection().generation();
  state.present = collection().mounted() ? 1 : 0;
  state.reconciled = collection().reconciled() ? 1 : 0;
  state.writer = writer();
  return state;
}

void rct_table::follow() {
  if (followed_) return;
  entity_->userIs(*this);
  followed_ = true;
  toldWriter_ = writer();
}

void rct_table::lookAfterWriter() {
  if (!followed_) return;
  const std::uint32_t now = writer();
  if (std::exchange(toldWriter_, now) != now) stateChanged();
}

void rct_table::keyChanged(Bytes key) {
  rct_change change{this, RCT_KEY, static_cast<std::uint32_t>(key.size()), {}};
  std::memcpy(change.key, key.data(), key.size());
  session_.tell(change);
}

void rct_table::stateChanged() {
  session_.tell({this, RCT_STATE, 0, {}});
}

// Of a table that is waited for nobody knows the size of the keys.
void rct_table::checkKey(Bytes key) const {
  const std::size_t size = collection().layout().keySize;
  if (key.size() == size || (size == 0 && key.size() <= RCT_MAX_KEY)) return;
  throw Fault{RCT_BAD_ARGUMENT, path_ + ": keys have " +
                                    (size == 0 ? "at most " + std::to_string(RCT_MAX_KEY) : std::to_string(size)) +
                                    " bytes, not " + std::to_string(key.size())};
}

bool rct_table::find(Bytes key, rct_entry& entry) {
  checkKey(key);
  if (!collection().mounted()) return false;
  value_.resize(collection().layout().maxValueSize);
  const auto size = collection().find(key, value_);
  if (!size) return false;
  std::memcpy(key_.data(), key.data(), key.size());
  entry = {reinterpret_cast<const unsigned char*>(key_.data()), key.size(),
           reinterpret_cast<const unsigned char*>(value_.data()), *size};
  return true;
}

const WritableTable& rct_table::writable() const {
  if (writable_ == nullptr) throw Fault{RCT_NOT_WRITER, path_ + ": the table is open for reading"};
  return *writable_;
}

void rct_table::set(Bytes key, Bytes value) {
  const WritableTable& type = writable();
  checkKey(key);
  if (!type.isKey(key)) throw Fault{RCT_BAD_ARGUMENT, path_ + ": these bytes are no key of a " + type.layout.typeName};
  if (value.size() > type.layout.maxValueSize || !type.isValue(key, value)) {
    throw Fault{RCT_BAD_ARGUMENT, path_ + ": these bytes are no value of a " + type.layout.typeName};
  }
  if (collection().write(key, value) == Pondra::WriteResult::full) {
    throw Fault{RCT_FULL, path_ + ": the table is full (" + std::to_string(collection().capacity()) + " entries)"};
  }
}

bool rct_table::erase(Bytes key) {
  writable();
  checkKey(key);
  return collection().erase(key);
}

void rct_table::eraseAll() {
  writable();
  const Pondra::TableLayout& layout = collection().layout();
  std::array<std::byte, Pondra::maxKeySize> bytes{};
  const Client::MutableBytes key(bytes.data(), layout.keySize);
  value_.resize(layout.maxValueSize);
  Pondra::WalkPlace place;
  for (bool erased = true; collection().seek(key, erased, key, value_, place);) erased = collection().erase(key);
}

void rct_table::reconcile() {
  writable();
  collection().reconciledIs();
}

// --- Cursors ---------------------------------------------------------------------------------------------------------

rct_cursor::rct_cursor(rct_table& table, Bytes from) : table_(table) {
  if (!from.empty()) table.checkKey(from);
  std::ranges::copy(from, key_.begin());
}

bool rct_cursor::next(rct_entry& entry) {
  LinuxPlatform::TableCollection& collection = table_.collection();
  if (!collection.mounted()) return false;
  const Client::MutableBytes key(key_.data(), collection.layout().keySize);
  value_.resize(collection.layout().maxValueSize);
  const auto size = collection.seek(key, !begun_, key, value_, place_);
  if (!size) return false;
  begun_ = true;
  entry = {reinterpret_cast<const unsigned char*>(key_.data()), key.size(),
           reinterpret_cast<const unsigned char*>(value_.data()), *size};
  return true;
}

// --- Sessions --------------------------------------------------------------------------------------------------------

namespace {

Platform::TableTypes rawTypes() {
  Platform::TableTypes types;
  types.typeIs<RawTable>();
  Client::forEachWritable([&]<class Table>(const Table*) { types.typeIs<Client::WrittenTable<Table>>(); });
  return types;
}

}  // namespace

rct_session::rct_session(const std::string& runDirectory)
    : runDirectory_(runDirectory),
      poll_(Client::made(epoll_create1(EPOLL_CLOEXEC), "epoll_create1")),
      more_(Client::made(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")),
      second_(Client::made(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK), "timerfd_create")),
      types_(rawTypes()),
      service_(
          runDirectory, types_,
          [this] {
            if (!inChanges_) moreIs(true);
          },
          LinuxPlatform::MissingDirectory::isAwaited) {
  itimerspec every{{1, 0}, {1, 0}};
  timerfd_settime(second_.get(), 0, &every, nullptr);
  for (const int fd : {more_.get(), second_.get(), service_.wakeupFd()}) {
    if (fd >= 0) watch(fd);
  }
}

// The service tells its tables that they are unmounted.
rct_session::~rct_session() {
  while (!tables_.empty()) close(*tables_.begin()->second);
}

void rct_session::watch(int fd) {
  epoll_event event{.events = EPOLLIN, .data = {}};
  if (epoll_ctl(poll_.get(), EPOLL_CTL_ADD, fd, &event) != 0) {
    throw Fault{RCT_FAILED, std::string("epoll_ctl: ") + std::strerror(errno)};
  }
}

void rct_session::moreIs(bool more) {
  const std::uint64_t one = 1;
  std::uint64_t taken = 0;
  [[maybe_unused]] const auto size =
      more ? ::write(more_.get(), &one, sizeof one) : ::read(more_.get(), &taken, sizeof taken);
}

void rct_session::damageHandlerIs(rct_damage_handler handler, void* context) {
  if (handler == nullptr) {
    service_.corruptionHandlerIs({});
  } else {
    service_.corruptionHandlerIs([handler, context](const std::string& path, const std::string& what) {
      handler(context, path.c_str(), what.c_str());
    });
  }
}

void rct_session::checkClosed(const std::string& path) const {
  if (tables_.contains(path)) throw Fault{RCT_BAD_ARGUMENT, path + ": the table is open in this session already"};
}

rct_table* rct_session::read(const std::string& path) {
  checkClosed(path);
  service_.mount(path, RawTable::typeName, MountKind::reader);
  return opened(path, nullptr);
}

rct_table* rct_session::write(const std::string& path, std::uint32_t capacity) {
  checkClosed(path);
  const WritableTable* const writable = Client::writableTable(path);
  if (writable == nullptr) throw Fault{RCT_NOT_WRITER, path + ": the table is not for other processes to write"};
  if (capacity == 0 || capacity > Pondra::maxCapacity) {
    throw Fault{RCT_BAD_ARGUMENT, path + ": a capacity of " + std::to_string(capacity) + " entries is impossible"};
  }
  try {
    service_.mount(path, writable->layout.typeName, MountKind::writer,
                   Pondra::CollectionInfo{writable->layout.collection, capacity});
  } catch (const Pondra::TableError& error) {
    const bool busy = LinuxPlatform::tableLocked(runDirectory_ + "/tables", path).value_or(false);
    throw Fault{busy ? RCT_BUSY : RCT_UNUSABLE, error.what()};
  }
  return opened(path, writable);
}

rct_table* rct_session::opened(const std::string& path, const WritableTable* writable) {
  auto& table = tables_[path];
  table = std::make_unique<rct_table>(*this, path, service_.get<RawTable>(path), writable);
  return table.get();
}

void rct_session::close(const rct_table& table) {
  const auto found = tables_.find(table.path());
  service_.unmount(found->first);
  std::erase_if(waiting_, [&](const rct_change& change) { return change.table == &table; });
  tables_.erase(found);
}

// --- Changes ---------------------------------------------------------------------------------------------------------

void rct_session::tell(const rct_change& change) {
  if (out_.empty()) {
    waiting_.push_back(change);
  } else {
    out_.front() = change;
    out_ = out_.subspan(1);
  }
}

std::size_t rct_session::changes(std::span<rct_change> out) {
  // Whatever is thrown, nobody writes to the caller's memory afterwards.
  const auto atTheEnd = [this](const bool* /*scope*/) {
    out_ = {};
    inChanges_ = false;
  };
  inChanges_ = true;
  const std::unique_ptr<bool, decltype(atTheEnd)> scope(&inChanges_, atTheEnd);
  moreIs(false);
  out_ = out;
  const std::size_t first = std::min(out.size(), waiting_.size());
  for (std::size_t i = 0; i < first; ++i) tell(waiting_[i]);
  waiting_.erase(waiting_.begin(), waiting_.begin() + static_cast<std::ptrdiff_t>(first));

  std::uint64_t seconds = 0;
  if (::read(second_.get(), &seconds, sizeof seconds) == sizeof seconds) {
    service_.pendingChanges();
    unsigned steps = 0;  // some milliseconds at the most
    service_.giveMemoryBack([&steps] { return ++steps == 32; });
    for (const auto& [path, table] : tables_) table->lookAfterWriter();
  }
  service_.handleWakeup();
  // The service asks after each change whether there is room for another.
  const bool more = out_.empty() || !service_.deliverChanges([this] { return out_.empty(); });
  if (more || !waiting_.empty()) moreIs(true);
  return out.size() - out_.size();
}
