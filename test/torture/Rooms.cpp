// A writer on a filesystem that is full at times: what is refused changes nothing, what is there can be read, changed
// and removed, also while there is no room to build the indexes anew, and when there is room again the table holds what
// it is said to hold.
#include <memory>
#include <set>

#include "test/torture/Torture.h"

namespace Torture {

namespace {

// Pages that the file has, and how many it may have.
struct Disk {
  static constexpr std::size_t page = LinuxPlatform::tablePage;
  std::set<std::size_t> pages;
  std::size_t most = ~std::size_t{0};
  bool sharesPages = false;  // a filesystem that has to find room for a page that is written again
  bool give(std::size_t begin, std::size_t end) {
    std::size_t wanted = 0;
    for (std::size_t number = begin / page; number * page < end; ++number)
      wanted += sharesPages || !pages.contains(number) ? 1 : 0;
    if (pages.size() + wanted > most) return false;
    for (std::size_t number = begin / page; number * page < end; ++number) pages.insert(number);
    return true;
  }
  void takeBack(std::size_t begin, std::size_t end) {
    pages.erase(pages.lower_bound((begin + page - 1) / page), pages.lower_bound(end / page));
  }
};

class CrampedTable {
 public:
  explicit CrampedTable(unsigned seed) : random_(seed), shape_(shapeOf(seed, random_)), keys_(larger(), random_) {
    scene = "seed " + std::to_string(seed) + ", " + shape_.text();
    disk_.sharesPages = seed % 2 == 0;
    open();
  }
  void play() {
    for (unsigned phase = 0; phase < 12; ++phase) {
      for (unsigned i = 0; i < shape_.capacity; ++i) change(phase % 3);
      check();
      if (writer_->isSparse()) giveBack();
      disk_.most = random_() % 4 == 0 ? ~std::size_t{0} : random_() % 3 * (disk_.pages.size() / 2 + random_() % 60);
      const bool damage = random_() % 3 == 0;
      if (damage) flipBitOf(random_() % 2 == 0 ? memory_.image.state().root : memory_.image.state().nodesUsed[0]);
      if (damage || random_() % 2 == 0) open();
    }
    disk_.most = ~std::size_t{0};
    open();
    for (std::uint32_t number = 0; number < shape_.universe && model_.size() < shape_.capacity; ++number) {
      if (write(number) == Pondra::WriteResult::full) return fail("it is full with " + std::to_string(model_.size()));
    }
    check();
    count("tables on a full disk");
  }

 private:
  const Shape& larger() {
    shape_.capacity = 3000;
    shape_.universe = 2 * shape_.capacity;
    shape_.crowded = false;
    return shape_;
  }
  void flipBitOf(std::uint64_t& word) { word ^= std::uint64_t{1} << random_() % 48; }
  void open() {
    writer_.reset();
    writer_ = std::make_unique<TableWriter>(
        memory_.image, shape_.capacity, reader_.report,
        [this](std::size_t begin, std::size_t end) { return disk_.give(begin, end); },
        [this](std::size_t begin, std::size_t end) {
          disk_.takeBack(begin, end);
          return releaseIn(memory_)(begin, end);
        });
    while (!writer_->verify(1000)) {
    }
  }
  void giveBack() {
    while (!writer_->giveMemoryBack(100)) {
    }
    if (writer_->isSparse()) fail("it is sparse after all was given back");
    check();
    count("tables made smaller");
  }
  Pondra::WriteResult write(std::uint32_t number) {
    std::string value = randomValue(shape_, random_);
    const auto result = writer_->write(keys_[number], std::as_bytes(std::span(value)));
    if (result == Pondra::WriteResult::ok) model_[number] = std::move(value);
    if (result == Pondra::WriteResult::full) count("refusals");
    count("changes");
    return result;
  }
  void change(unsigned erasures) {
    const auto number = static_cast<std::uint32_t>(random_() % shape_.universe);
    if (random_() % 4 > erasures) {
      const bool mayFit = model_.size() < shape_.capacity || model_.contains(number);
      if (write(number) == Pondra::WriteResult::ok && !mayFit) fail("it takes more than it has room for");
    } else if (writer_->erase(keys_[number]) != (model_.erase(number) == 1)) {
      fail("erase " + std::to_string(number) + ": was it there");
    }
  }
  void check() {
    if (reader_.walk() != model_ || writer_->size() != model_.size()) fail("the table is not the model");
    for (unsigned i = 0; i < 50; ++i) {
      const auto number = static_cast<std::uint32_t>(random_() % shape_.universe);
      const auto wanted = model_.find(number);
      if (reader_.find(number) != (wanted == model_.end() ? std::nullopt : std::optional(wanted->second)))
        fail("a lookup of " + std::to_string(number));
    }
    if ((LinuxPlatform::loadNumber(memory_.image.state().epoch) & 1) != 0) return count("checks without indexes");
    writer_->checkInvariants();
  }

  Random random_;
  Shape shape_;
  Keys keys_;
  Memory memory_{shape_};
  Reader reader_{memory_, shape_, keys_};
  Disk disk_;
  std::unique_ptr<TableWriter> writer_;
  Model model_;
};

}  // namespace

void fillDisks(unsigned seed) {
  CrampedTable(seed).play();
}

}  // namespace Torture
