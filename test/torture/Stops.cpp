// A writer that stops for ever before any store of an operation: who reads sees the table as it was or as it is to be,
// who follows misses nothing, and the next writer goes on from there.
#include <algorithm>

#include "test/torture/Torture.h"

namespace Torture {

namespace {

std::function<void()>* atStop = nullptr;

// Runs the operation with `stopped` before each of its stores, and after the last.
void atEveryStore(const std::function<void()>& operation, std::function<void()> stopped) {
  std::function<void()> visit = [&] {
    hooks.atStore = nullptr;  // what looks on may write tables of its own
    const Hooks outer = hooks;
    count("stops");
    stopped();
    hooks = outer;
    hooks.atStore = [] { (*atStop)(); };
  };
  atStop = &visit;
  hooks.atStore = [] { (*atStop)(); };
  operation();
  endOperation();
  visit();
  hooks.atStore = nullptr;
}

// The states that a table passes through during a change, one entry at a time.
std::vector<Model> statesOf(const Model& before, const Change& change) {
  std::vector<Model> states{before};
  if (change.kind == Change::Kind::giveBack) return states;
  if (change.kind == Change::Kind::eraseAll) {
    for (Model model = before; !model.empty();) {
      model.erase(model.begin());
      states.push_back(model);
    }
  } else {
    states.push_back(before);
    change.applyTo(states.back());
  }
  return states;
}

// Which of the states, from `atLeast` on, everything that the reader can ask shows.
std::size_t stateSeen(Reader& reader, const Shape& shape, const std::vector<Model>& states, std::size_t atLeast,
                      const std::string& who) {
  const Model seen = reader.walk();
  const auto state = std::find(states.begin() + static_cast<std::ptrdiff_t>(atLeast), states.end(), seen);
  if (state == states.end()) {
    fail(who + " walks through no state that there was:" + difference(seen, states[atLeast]));
    return atLeast;
  }
  for (std::uint32_t number = 0; number < shape.universe; ++number) {
    const auto wanted = seen.find(number);
    const auto found = reader.find(number);
    const bool right = wanted == seen.end() ? !found : found && *found == wanted->second;
    if (!right || reader.has(number) != found.has_value()) fail(who + " looks up another " + std::to_string(number));
    for (const bool inclusive : {true, false}) {
      const auto next = inclusive ? seen.lower_bound(number) : seen.upper_bound(number);
      const auto bound = reader.seek(number, inclusive);
      const bool same = bound ? next != seen.end() && Model::value_type(*bound) == *next : next == seen.end();
      if (!same) fail(who + " finds another bound of " + std::to_string(number));
    }
  }
  for (const auto& text : std::exchange(reader.damage, {})) fail(who + " reports: " + text);
  return static_cast<std::size_t>(state - states.begin());
}

// What became of a table whose writer stopped: a follower that was there before, and the next writer.
class Aftermath {
 public:
  Aftermath(const Shape& shape, const Keys& keys, const std::string& before)
      : shape_(shape), keys_(keys), memory_(shape), before_(before) {}

  // `stopped` are the bytes as the writer left them; the table is to be in one of the states, and nobody has read of an
  // earlier one. Returns what the next writer found.
  Model goOn(const std::string& stopped, const std::vector<Model>& states, std::size_t seen, Random& random,
             bool damaged) {
    memory_.bytesAre(before_);
    Believer before(memory_, shape_, keys_);
    before.reader.damage.clear();
    memory_.bytesAre(stopped);
    if (damaged) before.reader.mostLoads = ~std::uint64_t{0};
    if (random() % 2 == 0) before.deliver(1 + random() % 3);
    Writer next(memory_, shape_, keys_);
    const Model found = next.reader.walk();
    if (!damaged && stateSeen(next.reader, shape_, states, seen, "the next writer") != seen)
      fail("the next writer knows better");
    next.settle();
    for (const auto& text : std::exchange(next.damage, {})) {
      if (!damaged) fail("the next writer reports: " + text);
    }
    Model model = found;
    next.check(model);
    Believer after(memory_, shape_, keys_);
    for (unsigned i = 0; i < 4; ++i) {
      next.applyRandom(8, model, random);
      if (random() % 2 == 0) before.deliver(1 + random() % 3);
    }
    next.check(model);
    for (const auto& text : next.damage) fail("the next writer reports at work: " + text);
    for (Believer* believer : {&before, &after}) {
      believer->catchUp();
      // A follower from before the damage may believe in what a rebuild has lost.
      if (believer->believed == model) continue;
      if (damaged && believer == &before) {
        count("followers that missed a loss by damage");
      } else {
        fail("a follower believes otherwise:" + difference(believer->believed, model));
      }
    }
    count("next writers");
    return found;
  }

 private:
  Shape shape_;
  const Keys& keys_;
  Memory memory_;
  std::string before_;
};

// A table at rest and one change of it.
struct Scene {
  explicit Scene(unsigned seed) : random(seed), shape(shapeOf(seed, random)), keys(shape, random), memory(shape) {
    // Nearly full, or with room.
    const auto entries = static_cast<std::uint32_t>(random() % 3 == 0 ? shape.capacity - 1 : random() % shape.capacity);
    model = makeHistory(memory, shape, keys, entries, random);
    before = memory.bytes();
    change = randomChange(shape, random);
    scene = "seed " + std::to_string(seed) + ", " + shape.text() + ", of them " + std::to_string(model.size());
  }
  void changeIs(Change::Kind kind, bool there) {
    change.kind = kind;
    const auto first = random() % shape.universe;
    for (std::uint32_t i = 0; i < shape.universe; ++i) {
      change.number = static_cast<std::uint32_t>((first + i) % shape.universe);
      if (model.contains(change.number) == there) break;
    }
    if (kind == Change::Kind::write) change.value = randomValue(shape, random);
  }
  // The bytes before each store of the change.
  std::vector<std::string> stops() {
    std::vector<std::string> images;
    Writer writer(memory, shape, keys);
    Model after = model;
    const auto delayedStore = std::exchange(hooks.delayed, 0);
    atEveryStore([&] { writer.apply(change, after); }, [&] { images.push_back(memory.bytes()); });
    hooks.delayed = delayedStore;
    return images;
  }

  Random random;
  Shape shape;
  Keys keys;
  Memory memory;
  Model model;
  std::string before;
  Change change;
};

void stopOneOperation(Scene& at) {
  const std::string text = scene;
  scene += ", " + at.change.text();
  at.memory.bytesAre(at.before);
  const auto states = statesOf(at.model, at.change);
  Aftermath aftermath(at.shape, at.keys, at.before);
  Writer writer(at.memory, at.shape, at.keys);
  Reader reader(at.memory, at.shape, at.keys);
  Believer eager(at.memory, at.shape, at.keys), lazy(at.memory, at.shape, at.keys);
  std::size_t seen = 0;
  Model after = at.model;
  atEveryStore([&] { writer.apply(at.change, after); },
               [&] {
                 // All of them, but of the many of a long operation some.
                 if (states.size() > 4 && at.random() % 8 != 0) return;
                 seen = stateSeen(reader, at.shape, states, seen, "a reader");
                 eager.deliver();
                 if (at.random() % 4 == 0) lazy.reader.walk();
                 aftermath.goOn(at.memory.bytes(), states, seen, at.random, false);
               });
  if (stateSeen(reader, at.shape, states, seen, "a reader") + 1 != states.size()) fail("the change has not come");
  for (Believer* believer : {&eager, &lazy}) {
    believer->catchUp();
    if (believer->believed != states.back()) fail("a follower of the living believes otherwise");
  }
  writer.check(states.back());
  count("operations");
  scene = text;
}

// Thousands of keys in the same line of the hash index, and behind it: slow, and right.
void floodALine() {
  Random random(1);
  Shape shape;
  shape.capacity = 4099;
  shape.universe = shape.capacity + 1;
  shape.crowded = true;
  const Keys keys(shape, random);
  const Memory memory(shape);
  scene = "a flood of one line";
  Writer writer(memory, shape, keys);
  Model model;
  for (std::uint32_t number = 0; number < shape.capacity; ++number)
    writer.apply({Change::Kind::write, number, randomValue(shape, random)}, model);
  writer.check(model);
  writer.applyRandom(shape.capacity, model, random);
  writer.check(model);
  if (!writer.damage.empty()) fail("it is taken for damage");
}

// A table whose writer has stopped while it rebuilt the indexes is walked in some loads for each entry.
void walkWithoutIndexes() {
  Random random(1);
  Shape shape;
  shape.capacity = 20000;
  shape.universe = shape.capacity;
  const Keys keys(shape, random);
  const Memory memory(shape);
  {
    Writer writer(memory, shape, keys);
    for (std::uint32_t number = 0; number < shape.universe; ++number) {
      const std::string value = randomValue(shape, random);
      writer.writer.write(keys[number], std::as_bytes(std::span(value)));
    }
  }
  LinuxPlatform::storeNumber(memory.image.state().epoch, 1);
  Reader reader(memory, shape, keys);
  hooks.loads = 0;
  scene = "a walk without indexes";
  if (reader.walk().size() != shape.capacity) fail("it misses entries");
  if (hooks.loads > 50 * std::uint64_t{shape.capacity}) fail(std::to_string(hooks.loads) + " loads");
}

}  // namespace

void stopOperations(unsigned seed) {
  Scene at(seed);
  const bool some = !at.model.empty(), room = at.model.size() < at.shape.capacity;
  const struct {
    Change::Kind kind;
    bool there, possible;
  } changes[] = {{Change::Kind::write, false, room},
                 {Change::Kind::write, true, some},
                 {Change::Kind::erase, true, some},
                 {Change::Kind::eraseAll, true, some},
                 {Change::Kind::giveBack, true, some}};
  for (const auto& change : changes) {
    if (!change.possible) continue;
    at.changeIs(change.kind, change.there);
    stopOneOperation(at);
  }
}

// The next writer stops as well, while it takes over what the first one left.
void stopAdoptions(unsigned seed) {
  Scene at(seed);
  if (at.change.kind == Change::Kind::write && at.model.size() == at.shape.capacity)
    at.changeIs(Change::Kind::erase, true);
  const auto states = statesOf(at.model, at.change);
  Aftermath aftermath(at.shape, at.keys, at.before);
  const auto images = at.stops();
  scene += ", " + at.change.text() + ", taken over";
  for (std::size_t i = 0; i < images.size(); ++i) {
    at.memory.bytesAre(images[i]);
    Reader reader(at.memory, at.shape, at.keys);
    std::size_t seen = stateSeen(reader, at.shape, states, 0, "a reader before");
    std::unique_ptr<Writer> writer;
    atEveryStore([&] { writer = std::make_unique<Writer>(at.memory, at.shape, at.keys); },
                 [&] {
                   seen = stateSeen(reader, at.shape, states, seen, "a reader");
                   aftermath.goOn(at.memory.bytes(), states, seen, at.random, false);
                 });
    count("operations");
  }
}

// A writer that finds a damaged table, and stops while it repairs it: what was left when it did not stop is left.
void stopRebuilds(unsigned seed) {
  if (seed == 1) {
    walkWithoutIndexes();
    floodALine();
  }
  Scene at(seed);
  if (at.model.empty()) return;
  Aftermath aftermath(at.shape, at.keys, at.before);
  scene += ", damaged";
  for (unsigned round = 0; round < 6; ++round) {
    std::string bytes = at.before;
    for (auto bits = 1 + at.random() % 3; bits > 0; --bits) {
      // Where something stands.
      std::size_t place =
          sizeof(LinuxPlatform::TableHeader) + at.random() % (bytes.size() - sizeof(LinuxPlatform::TableHeader));
      while (place < bytes.size() - 1 && bytes[place] == 0) ++place;
      bytes[place] = static_cast<char>(bytes[place] ^ (1 << at.random() % 8));
    }
    const auto keepsToTheModel = [&](const Model& found, const char* who) {
      for (const auto& [number, value] : found) {
        const auto wanted = at.model.find(number);
        if (wanted == at.model.end() || wanted->second != value) fail(std::string(who) + " finds what was never there");
      }
    };
    at.memory.bytesAre(bytes);
    std::unique_ptr<Writer> writer;
    const auto takeOver = [&] {
      writer = std::make_unique<Writer>(at.memory, at.shape, at.keys);
      writer->settle();
    };
    takeOver();
    const Model left = writer->reader.walk();
    keepsToTheModel(left, "a writer");
    if (writer->damage.empty()) continue;  // nothing to repair
    at.memory.bytesAre(bytes);
    Reader reader(at.memory, at.shape, at.keys);
    reader.mostLoads = 5000000;
    const auto every = 1 + at.random() % 3;
    std::uint64_t stop = 0;
    atEveryStore(takeOver, [&] {
      if (++stop % every != 0) return;
      keepsToTheModel(reader.walk(), "a reader");
      for (std::uint32_t number = 0; number < at.shape.universe; ++number) {
        if (auto value = reader.find(number)) keepsToTheModel({{number, *value}}, "a lookup");
      }
      const Model found = aftermath.goOn(at.memory.bytes(), {}, 0, at.random, true);
      keepsToTheModel(found, "the next writer");
      if (found.size() < left.size()) fail("a repair that was stopped loses" + difference(found, left));
    });
    count("operations");
  }
}

// The table is copied into one of another capacity; the copy's writer stops, or goes on for good.
void stopMigrations(unsigned seed) {
  Scene at(seed);
  const auto states = statesOf(at.model, at.change);
  if (at.change.kind == Change::Kind::write && at.model.size() == at.shape.capacity) return;
  const auto images = at.stops();
  Shape other = at.shape;
  other.capacity = at.random() % 2 == 0 ? at.shape.capacity * 2 + 3 : std::max(1U, at.shape.capacity / 3);
  scene += ", " + at.change.text() + ", made one of " + std::to_string(other.capacity);
  Aftermath aftermath(at.shape, at.keys, at.before);
  for (std::size_t i = seed % 3; i < images.size(); i += 3) {
    at.memory.bytesAre(at.before);
    Believer believer(at.memory, at.shape, at.keys);
    at.memory.bytesAre(images[i]);
    if (at.random() % 2 == 0) believer.deliver(1);
    Reader reader(at.memory, at.shape, at.keys);
    std::size_t seen = 0;
    std::unique_ptr<Memory> next;
    std::unique_ptr<Writer> writer;
    const auto migrate = [&] {
      Writer old(at.memory, at.shape, at.keys);
      old.settle();
      next = std::make_unique<Memory>(other, std::max(other.capacity, static_cast<std::uint32_t>(old.writer.size())));
      writer = std::make_unique<Writer>(*next, other, at.keys);
      writer->writer.copyFrom(old.reader.view);
    };
    atEveryStore(migrate, [&] {
      if (next && at.random() % 8 != 0) return;  // nobody has seen the copy yet
      seen = stateSeen(reader, at.shape, states, seen, "a reader of the old one");
      aftermath.goOn(at.memory.bytes(), states, seen, at.random, false);
    });
    Model model = states[seen];
    writer->check(model);
    Reader newReader(*next, other, at.keys);
    believer.follower.restart(newReader.view, believer.reader.view, nullptr);
    Believer& follower = believer;
    // Lookups go to the new table from now on.
    const auto catchUp = [&](std::uint64_t most) {
      Listener listener(most, [&](const KeyWords& key) {
        const auto number = at.keys.number(key);
        const auto value = newReader.find(*number);
        follower.believed.erase(*number);
        if (value) follower.believed[*number] = *value;
      });
      follower.follower.deliver(listener);
    };
    catchUp(1 + at.random() % 4);
    writer->applyRandom(20, model, at.random);
    writer->check(model);
    for (unsigned round = 0; round < 1000 && follower.follower.pending(); ++round) catchUp(5);
    if (follower.believed != model)
      fail("a follower of both believes otherwise:" + difference(follower.believed, model));
    for (const auto& text : writer->damage) fail("the copy's writer reports: " + text);
    count("operations");
  }
}

}  // namespace Torture
