// One reader and one writer that take turns at any load of the one and any store of the other. What stood there all the
// while is found, in order; nothing is made up; who follows misses nothing.
#include <ucontext.h>

#include <algorithm>

#include "test/torture/Torture.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/common_interface_defs.h>
#endif

namespace Torture {

namespace {

// The writer, on a stack of its own: it runs for some stores whenever the reader says so, and changes the table at
// random for ever.
class Fiber {
 public:
  Fiber(const Shape& shape, const Keys& keys, const Memory& memory, unsigned seed)
      : shape_(shape), keys_(keys), memory_(memory), random_(seed), stack_(std::size_t{1} << 18) {
    current = this;
    writer_ = std::make_unique<Writer>(memory_, shape_, keys_);
    getcontext(&ours_);
    ours_.uc_stack.ss_sp = stack_.data();
    ours_.uc_stack.ss_size = stack_.size();
    makecontext(
        &ours_, [] { current->work(); }, 0);
  }

  void run(std::uint64_t stores) {
    storesLeft_ = stores;
    running_ = true;
    hooks.atStore = [] { current->stored(); };
    const Hooks readers = hooks;
    hooks.mostLoads = ~std::uint64_t{0};
    change(readers_, ours_, stack_.data(), stack_.size());
    const std::uint64_t made = hooks.stores;
    hooks = readers;
    hooks.stores = made;
    hooks.atStore = nullptr;
    running_ = false;
  }
  bool running() const { return running_; }
  // Runs to the end of the change under way and no further, for good.
  void finish() {
    ending_ = true;
    run(~std::uint64_t{0});
  }
  Writer& writer() { return *writer_; }

  // --- what a read that began here may have seen
  const Model& model() const { return model_; }
  void readBegins() {
    possible_.clear();
    if (change_) note(*change_);
  }
  bool possible(std::uint32_t number, const std::optional<std::string>& value) const {
    if (valueOf(number) == value) return true;
    const auto others = possible_.find(number);
    return others != possible_.end() && std::count(others->second.begin(), others->second.end(), value) > 0;
  }
  bool everThere(std::uint32_t number) const {
    const auto others = possible_.find(number);
    return model_.contains(number) ||
           (others != possible_.end() &&
            std::ranges::any_of(others->second, [](const auto& value) { return value.has_value(); }));
  }
  bool lasting(std::uint32_t number) const { return !possible(number, std::nullopt); }

  static Fiber* current;

 private:
  std::optional<std::string> valueOf(std::uint32_t number) const {
    const auto found = model_.find(number);
    return found == model_.end() ? std::nullopt : std::optional(found->second);
  }
  void note(const Change& change) {
    auto& values = possible_[change.number];
    values.push_back(valueOf(change.number));
    values.push_back(change.kind == Change::Kind::write ? std::optional(change.value) : std::nullopt);
  }
  void work() {
#ifdef __SANITIZE_ADDRESS__
    __sanitizer_finish_switch_fiber(nullptr, &readersStack_, &readersSize_);
#endif
    while (!ending_) step();
    change(ours_, readers_, readersStack_, readersSize_);
  }
  void step() {
    if (random_() % 300 == 0) {  // another writer takes over
      for (const auto& text : writer_->damage) fail("the writer reports: " + text);
      writer_ = std::make_unique<Writer>(memory_, shape_, keys_);
      count("take-overs");
      return;
    }
    Change change = randomChange(shape_, random_);
    if (change.kind == Change::Kind::giveBack) {  // a part of it: changes come in between
      if (random_() % 4 == 0) writer_->settle();  // until then nothing moves
      writer_->giveBack(1 + random_() % 8, 1 + static_cast<std::uint32_t>(random_() % 3));
      if (random_() % 8 == 0) writer_->writer.endGivingBack();
      return endOperation();
    }
    // Some numbers are hot, and a quarter stays once it has come.
    if (random_() % 4 == 0) change.number %= 3;
    if (change.number % 4 == 0 && change.kind == Change::Kind::erase) return;
    if (change.kind == Change::Kind::write && !model_.contains(change.number) && model_.size() >= shape_.capacity)
      return;
    note(change);
    change_ = change;
    Model after = model_;
    writer_->apply(change, after);
    endOperation();
    model_ = std::move(after);
    change_.reset();
  }
  void stored() {
    if (storesLeft_ == 0 || --storesLeft_ == 0) change(ours_, readers_, readersStack_, readersSize_);
  }
  static void change(ucontext_t& from, ucontext_t& to, [[maybe_unused]] const void* stack,
                     [[maybe_unused]] std::size_t size) {
#ifdef __SANITIZE_ADDRESS__
    void* fake = nullptr;
    __sanitizer_start_switch_fiber(&fake, stack, size);
    swapcontext(&from, &to);
    __sanitizer_finish_switch_fiber(fake, nullptr, nullptr);
#else
    swapcontext(&from, &to);
#endif
  }

  Shape shape_;
  const Keys& keys_;
  const Memory& memory_;
  Random random_;
  std::unique_ptr<Writer> writer_;
  Model model_;                   // after the last whole change
  std::optional<Change> change_;  // the one under way
  std::map<std::uint32_t, std::vector<std::optional<std::string>>> possible_;
  std::vector<char> stack_;
  ucontext_t ours_{}, readers_{};
  const void* readersStack_ = nullptr;
  std::size_t readersSize_ = 0;
  std::uint64_t storesLeft_ = 0;
  bool running_ = false;
  bool ending_ = false;
};
Fiber* Fiber::current = nullptr;

// When the writer runs, and how far: at any load by chance, or once, at one of them.
struct Schedule {
  unsigned chance = 0;  // one in so many; 0: once
  std::uint64_t mostStores = 1;
  std::uint64_t loadsLeft = 0;
  Random random;
  void atLoad() {
    if (Fiber::current->running()) return;
    if (chance != 0 ? random() % chance == 0 : loadsLeft != 0 && --loadsLeft == 0) {
      count("turns");
      Fiber::current->run(1 + random() % mostStores);
    }
  }
};
Schedule schedule;

// Reads, one after the other, and what is wrong with them.
class Judge {
 public:
  Judge(Fiber& fiber, const Shape& shape, const Keys& keys, const Memory& memory, Random& random)
      : fiber_(fiber), shape_(shape), keys_(keys), memory_(memory), random_(random), reader_(memory, shape, keys) {
    reader_.mostLoads *= 200;  // the writer may be at its heels
    follow();
  }
  void read() {
    const auto number = static_cast<std::uint32_t>(random_() % shape_.universe);
    fiber_.readBegins();
    switch (random_() % 8) {
      case 0:
      case 1:
        lookUp(number);
        break;
      case 2:
      case 3:
        search(number, random_() % 2 == 0);
        break;
      case 4:
        walk();
        break;
      case 5:
        if (random_() % 20 == 0) follow();
        if (random_() % 20 == 0) inspect();
        deliver(1 + random_() % 20);
        break;
      default:
        goOn();
    }
    for (const auto& text : std::exchange(reader_.damage, {})) fail("a reader reports: " + text);
  }
  void end() {
    for (unsigned i = 0; i < 100 && follower_->pending(); ++i) deliver(~std::uint64_t{0});
    if (believed_ != fiber_.model()) fail("a follower has missed something");
  }

 private:
  void lookUp(std::uint32_t number) {
    if (random_() % 3 == 0) {
      const bool there = reader_.has(number);
      if (there ? !fiber_.everThere(number) : fiber_.lasting(number)) fail("is it there: " + std::to_string(number));
      return;
    }
    const auto value = reader_.find(number);
    if (!fiber_.possible(number, value))
      fail((value ? "a value that never was: " : "no value: ") + std::to_string(number));
  }
  void judge(const Reader::Found& found, std::uint32_t from, bool inclusive) {
    const std::uint32_t first = inclusive ? from : from + 1;
    if (found && found->first < first)
      fail("a search from " + std::to_string(first) + " goes back to " + std::to_string(found->first));
    if (found && !fiber_.possible(found->first, found->second)) fail("a search finds a value that never was");
    for (std::uint32_t number = first; number < (found ? found->first : shape_.universe); ++number) {
      if (fiber_.lasting(number)) fail("a search passes over " + std::to_string(number));
    }
  }
  void search(std::uint32_t from, bool inclusive) { judge(reader_.seek(from, inclusive), from, inclusive); }
  // A step of a walk that takes many reads.
  void goOn() {
    const auto found = reader_.seek(at_, first_, cursor_);
    judge(found, at_, first_);
    first_ = !found;
    at_ = found ? found->first : 0;
    if (!found) cursor_ = Cursor{};
  }
  void walk() {
    const Model found = reader_.walk();
    for (std::uint32_t number = 0; number < shape_.universe; ++number) {
      const auto entry = found.find(number);
      const bool right = fiber_.possible(number, entry == found.end() ? std::nullopt : std::optional(entry->second));
      if (!right) fail("a walk is wrong about " + std::to_string(number));
    }
  }
  void inspect() {
    for (const auto& text : LinuxPlatform::TableInspection(memory_.image).check().faults) fail("a check: " + text);
    count("checks");
  }
  void follow() {
    follower_ = std::make_unique<ChangeFollower>(reader_.report);
    follower_->start(reader_.view);
    reader_.follower = follower_.get();
    believed_ = reader_.walk();
    reader_.follower = nullptr;
  }
  void deliver(std::uint64_t most) {
    reader_.follower = follower_.get();
    Listener listener(most, [this](const KeyWords& key) {
      if (const auto number = keys_.number(key)) {
        const auto value = reader_.find(*number);
        believed_.erase(*number);
        if (value) believed_[*number] = *value;
      } else {
        fail("a follower hears of a key that never was");
      }
    });
    follower_->deliver(listener);
    reader_.follower = nullptr;
  }

  Fiber& fiber_;
  Shape shape_;
  const Keys& keys_;
  const Memory& memory_;
  Random& random_;
  Reader reader_;
  Cursor cursor_{};
  std::uint32_t at_ = 0;
  bool first_ = true;
  std::unique_ptr<ChangeFollower> follower_;
  Model believed_;
};

}  // namespace

void interleave(unsigned seed) {
  constexpr struct {
    unsigned chance;
    std::uint64_t mostStores;
  } paces[] = {{2, 3}, {6, 20}, {20, 80}, {60, 400}, {0, 40}, {0, 3000}};
  Random random(seed);
  const Shape shape = shapeOf(seed, random);
  const Keys keys(shape, random);
  const Memory memory(shape);
  const auto& pace = paces[random() % 6];
  scene = "seed " + std::to_string(seed) + ", " + shape.text() + ", one in " + std::to_string(pace.chance) +
          " loads, up to " + std::to_string(pace.mostStores) + " stores";
  schedule = {pace.chance, pace.mostStores, 0, Random(seed + 1)};
  Fiber fiber(shape, keys, memory, seed + 2);
  fiber.run(2000);
  Judge judge(fiber, shape, keys, memory, random);
  hooks.atLoad = [] { schedule.atLoad(); };
  for (unsigned read = 0; read < 3000; ++read) {
    schedule.loadsLeft = 1 + random() % 60;
    judge.read();
  }
  hooks.atLoad = nullptr;
  fiber.finish();
  judge.end();
  fiber.writer().check(fiber.model());
  count("interleavings");
}

}  // namespace Torture
