// Table files between real processes: writers that are killed or stopped at any moment, readers that come and are
// killed in numbers, files that are cut short while all of them look.
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>

#include "linux/tables/TableCollection.h"
#include "test/support/TemporaryDirectory.h"
#include "test/torture/Torture.h"

namespace Torture {

namespace {

using LinuxPlatform::TableCollection;
using Pondra::Bytes;
using Pondra::MountKind;

constexpr Shape filed{9, 60, true, 300, 200};

// A mount, by numbers.
class Side {
 public:
  Side(const std::string& directory, MountKind kind, const Keys& keys, std::uint32_t capacity = filed.capacity)
      : keys_(keys), value_(filed.maxValueSize) {
    context_->directory = directory + "/tables";
    std::filesystem::create_directories(context_->directory);
    context_->corruptionHandler = [this](const std::string&, const std::string& what) { damage.push_back(what); };
    table = std::make_shared<TableCollection>(context_, "t", kind, filed.layout(), capacity);
    if (kind == MountKind::writer) table->open([] { return false; });
  }
  virtual ~Side() { table->close(); }
  std::optional<std::string> find(std::uint32_t number) {
    const auto size = table->find(keys_.bytes(number), value_);
    return size ? std::optional(std::string(reinterpret_cast<const char*>(value_.data()), *size)) : std::nullopt;
  }
  Model walk() {
    Model found;
    std::array<std::byte, Pondra::maxKeySize> key{};
    const Pondra::MutableBytes at(key.data(), filed.keySize);
    decltype(hintOf(&Pondra::SharedCollection::seek)) hint{};
    for (bool first = true; found.size() <= filed.universe; first = false) {
      const auto size = table->seek(at, first, at, value_, hint);
      if (!size) break;
      const auto number = keys_.number(at);
      if (!number || (!found.empty() && found.rbegin()->first >= *number)) fail("a walk goes wrong");
      found[number.value_or(0)] = std::string(reinterpret_cast<const char*>(value_.data()), *size);
    }
    return found;
  }
  void apply(const Change& change) {
    const auto value = std::as_bytes(std::span(change.value));
    change.kind == Change::Kind::write ? void(table->write(keys_.bytes(change.number), value))
                                       : void(table->erase(keys_.bytes(change.number)));
  }
  // A step of it, as if the table had been quiet.
  void giveBack() {
    table->checkReplacement();
    table->giveMemoryBack();
  }
  void poll() {
    table->checkReplacement();
    table->adoptReplacement();
  }
  std::shared_ptr<TableCollection> table;
  std::vector<std::string> damage;

 protected:
  template <class Hint>
  static Hint hintOf(std::optional<std::size_t> (Pondra::SharedCollection::*)(Bytes, bool, Pondra::MutableBytes,
                                                                              Pondra::MutableBytes, Hint&) const);
  const Keys& keys_;

 private:
  std::shared_ptr<LinuxPlatform::TableServiceContext> context_ = std::make_shared<LinuxPlatform::TableServiceContext>();
  std::vector<std::byte> value_;
};

class Following final : public Side, private Pondra::SharedCollection::Sink {
 public:
  Following(const std::string& directory, const Keys& keys) : Side(directory, MountKind::reader, keys) {
    table->follow(this);
    believed = walk();
  }
  ~Following() override { table->follow(nullptr); }
  void catchUp() {
    for (unsigned i = 0; i < 1000; ++i) {
      poll();
      if (table->deliver([] { return false; }) && !table->pending()) return;
    }
  }
  Model believed;

 private:
  void keyChanged(Bytes key, std::uint64_t) override {
    const auto number = keys_.number(key);
    if (!number) return;
    const auto value = find(*number);
    believed.erase(*number);
    if (value) believed[*number] = *value;
  }
  void quiescedChanged(bool) override {}
  void mountStatusChanged() override {}
};

// The steps of an endless history, each a function of its number, which its value begins with. A quarter of the keys
// stays once it has come.
Change stepOf(std::uint64_t step) {
  Random random(static_cast<unsigned>(step * 2654435761U + 1));
  Change change;
  change.number = static_cast<std::uint32_t>(random() % filed.universe);
  if (change.number % 4 != 0 && random() % 2 == 0) {
    change.kind = Change::Kind::erase;
    return change;
  }
  change.value.assign(sizeof step + random() % (filed.maxValueSize - sizeof step + 1), static_cast<char>(step));
  change.value.replace(0, sizeof step, reinterpret_cast<const char*>(&step), sizeof step);
  return change;
}
constexpr std::uint64_t lastingStep = 3000;  // by then they all have come
bool written(std::uint32_t number, const std::string& value) {
  std::uint64_t step = 0;
  if (value.size() < sizeof step) return false;
  value.copy(reinterpret_cast<char*>(&step), sizeof step);
  const Change change = stepOf(step);
  return change.number == number && change.value == value;
}

// What children tell while they run.
struct Board {
  std::atomic<std::uint64_t> done{0};
};
class Process {
 public:
  explicit Process(const std::function<void()>& run) : pid_((std::fflush(stdout), fork())) {
    if (pid_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    run();
    std::fflush(stdout);
    _exit(counts.failures == 0 ? 0 : 1);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process() { end(SIGKILL); }
  void signal(int number) const { kill(pid_, number); }
  void stop() {
    if (std::exchange(stopped_, true)) return;
    signal(SIGSTOP);
    waitpid(pid_, nullptr, WUNTRACED);
  }
  void goOn() {
    stopped_ = false;
    signal(SIGCONT);
  }
  // Its status; it must not have ended before of its own will.
  int end(int number = 0) {
    if (pid_ == 0) return 0;
    int status = 0;
    const bool runs = number == 0 || waitpid(pid_, &status, WNOHANG) == 0;
    if (number != 0 && runs) signal(number);
    if (runs) waitpid(pid_, &status, 0);
    pid_ = 0;
    if (WIFEXITED(status) ? WEXITSTATUS(status) != 0 : WTERMSIG(status) != number) fail("a process has ended badly");
    return status;
  }
  bool runs() const {
    siginfo_t ended{};
    return waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 && ended.si_pid == 0;
  }

 private:
  pid_t pid_;
  bool stopped_ = false;
};

// A directory, a board, and the keys.
struct Stage {
  explicit Stage(unsigned seed) : random(seed), keys(filed, random) { scene = "seed " + std::to_string(seed); }
  ~Stage() { munmap(board, sizeof(Board)); }
  std::unique_ptr<Process> writer(std::uint64_t from, std::uint32_t capacity) {
    return std::make_unique<Process>([this, from, capacity] {
      Side side(files.path(), MountKind::writer, keys, capacity);
      for (std::uint64_t step = from + 1;; ++step) {
        side.apply(stepOf(step));
        board->done = step;
        if (step % 16 == 0) side.giveBack();
      }
    });
  }
  bool reaches(std::uint64_t step, const Process& process) const {
    while (board->done < step && process.runs()) usleep(20);
    return board->done >= step;
  }

  Random random;
  Keys keys;
  TemporaryDirectory files;
  Board* board = new (mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Board;
};

// Everything that lasts is there, and nothing else than was written.
void readEverything(Side& side) {
  const Model found = side.walk();
  for (const auto& [number, value] : found) {
    if (!written(number, value)) fail("a walk finds what was never written");
  }
  for (std::uint32_t number = 0; number < filed.universe; number += 4) {
    if (!found.contains(number)) fail("a walk passes over " + std::to_string(number));
    const auto value = side.find(number);
    if (!value || !written(number, *value)) fail("a lookup is wrong about " + std::to_string(number));
  }
  for (const auto& text : std::exchange(side.damage, {})) fail("a reader reports: " + text);
  count("reads of a whole table");
}

}  // namespace

// The table loses nothing but the last step of a writer that is killed, and nobody who follows misses anything.
void killWriters(unsigned seed) {
  Stage stage(seed);
  Following follower(stage.files.path(), stage.keys);
  Model model;
  std::uint64_t applied = 0;
  for (unsigned round = 0; round < 40; ++round) {
    const auto capacity =
        static_cast<std::uint32_t>(stage.random() % 4 == 0 ? 220 + stage.random() % 100 : filed.capacity);
    const auto writer = stage.writer(applied, capacity);
    if (!stage.reaches(applied + (stage.random() % 3 == 0 ? 0 : stage.random() % 400), *writer)) fail("no writer");
    usleep(static_cast<useconds_t>(stage.random() % 1500));
    writer->end(SIGKILL);
    for (; applied < stage.board->done; ++applied) stepOf(applied + 1).applyTo(model);
    Side next(stage.files.path(), MountKind::writer, stage.keys);
    next.table->checkInvariants();
    Model after = model;
    stepOf(applied + 1).applyTo(after);
    const Model found = next.walk();
    if (found != model && found != after) fail("the next writer finds neither what was nor what was to be");
    if (found == after) model = after, stage.board->done = ++applied;
    for (const auto& text : next.damage) fail("the next writer reports: " + text);
    if (stage.random() % 3 == 0) {
      follower.catchUp();
      if (follower.believed != model) fail("a follower has missed something");
    }
    count("kills");
  }
  for (const auto& text : follower.damage) fail("a follower reports: " + text);
}

// Readers that come, and are killed or stopped in the middle of it, beside a writer at full speed that is stopped, too.
void crowd(unsigned seed) {
  Stage stage(seed);
  const auto writer = stage.writer(0, filed.capacity);
  if (!stage.reaches(lastingStep, *writer)) fail("no writer");
  const auto attend = [&] {
    Following side(stage.files.path(), stage.keys);
    for (;;) {
      readEverything(side);
      side.table->deliver([] { return false; });
      if (counts.failures != 0) return;
    }
  };
  Following here(stage.files.path(), stage.keys);
  std::vector<std::unique_ptr<Process>> readers;
  for (unsigned i = 0; i < 60; ++i) {
    readers.push_back(std::make_unique<Process>(attend));
    if (stage.random() % 4 == 0) readers[stage.random() % readers.size()]->stop();
    if (readers.size() > 6) {
      const auto gone = readers.begin() + static_cast<std::ptrdiff_t>(stage.random() % readers.size());
      (*gone)->end(SIGKILL);
      readers.erase(gone);
    }
    if (i % 3 != 0) continue;
    writer->stop();
    readEverything(here);
    here.catchUp();
    const Model found = here.walk();
    // A change is seen before it is told: the one that the writer was stopped in may be on its way.
    std::size_t different = 0;
    for (std::uint32_t number = 0; number < filed.universe; ++number) {
      const auto a = found.find(number);
      const auto b = std::as_const(here.believed).find(number);
      const bool same = a == found.end() || b == here.believed.end() ? (a == found.end()) == (b == here.believed.end())
                                                                     : a->second == b->second;
      different += same ? 0 : 1;
    }
    if (different > 1) fail("a follower has missed something");
    writer->goOn();
    count("stops of the writer");
  }
  for (auto& reader : readers) reader->end(SIGKILL);
  writer->end(SIGKILL);
  count("readers", 60);
}

// At any page, under a writer, a reader and a follower: they live, and the writer's table is whole again.
void cutFiles(unsigned seed) {
  Stage stage(seed);
  const std::string file = stage.files.path() + "/tables/t.table";
  Process process([&] {
    for (std::size_t page = 0;; ++page) {
      std::filesystem::remove(file);
      Side writer(stage.files.path(), MountKind::writer, stage.keys);
      for (std::uint64_t step = 1; step <= 400; ++step) writer.apply(stepOf(step));
      const Model model = writer.walk();
      Side reader(stage.files.path(), MountKind::keyedReader, stage.keys);
      Following follower(stage.files.path(), stage.keys);
      if (page * 4096 >= std::filesystem::file_size(file)) break;
      std::filesystem::resize_file(file, page * 4096);
      const auto subset = [&](const Model& found) {
        for (const auto& [number, value] : found) {
          if (!written(number, value)) fail("found after a cut: what was never written");
        }
      };
      for (Side* side : std::initializer_list<Side*>{&reader, &follower, &writer}) {
        subset(side->walk());
        for (std::uint32_t number = 0; number < filed.universe; ++number) side->find(number);
      }
      follower.table->deliver([] { return false; });
      try {
        for (std::uint64_t step = 401; step <= 420; ++step) writer.apply(stepOf(step));
      } catch (const std::runtime_error&) {
        count("writers that gave up");
      }
      writer.poll();
      if (writer.damage.empty()) fail("nobody has told of the cut");
      writer.table->checkInvariants();
      subset(writer.walk());
      for (std::uint64_t step = 421; step <= 440; ++step) writer.apply(stepOf(step));
      reader.poll();
      follower.catchUp();
      if (reader.walk() != writer.walk() || follower.believed != writer.walk()) fail("they disagree after the cut");
    }
  });
  process.end();
  count("files cut at every page");
}

}  // namespace Torture
