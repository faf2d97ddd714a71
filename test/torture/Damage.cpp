// Bits that are flipped and bytes that are zeroed or scribbled over, anywhere in a table. Nobody crashes, runs without
// end, finds what was never written, or misses an entry without a word.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "test/torture/Torture.h"

namespace Torture {

namespace {

constexpr unsigned mutations = 60;  // of a seed, each for every role
constexpr std::uint64_t longestRead = 5000000, longestRole = 400000000;

class DamagedTable {
 public:
  explicit DamagedTable(unsigned seed)
      : seed_(seed), random_(seed), shape_(shapeOf(seed, random_)), keys_(shape_, random_), memory_(shape_) {
    model_ =
        makeHistory(memory_, shape_, keys_, static_cast<std::uint32_t>(random_() % (shape_.capacity + 1)), random_);
    good_ = memory_.bytes();
  }

  static constexpr unsigned roles = 4;
  void play(unsigned number) {
    Random random(seed_ * 1000 + number / roles);
    std::string bytes = good_;
    const std::string place = damage(bytes, random);
    scene =
        "seed " + std::to_string(seed_) + ", " + shape_.text() + ", damage " + std::to_string(number) + " at " + place;
    play(number % roles, bytes, random);
  }
  // Every role, before a table with these bytes changed: two that say where, one to change it with, and so on.
  void play(std::span<const std::uint8_t> changes) {
    std::string bytes = good_;
    constexpr std::size_t first = sizeof(LinuxPlatform::TableHeader);
    for (; changes.size() >= 3; changes = changes.subspan(3)) {
      const std::size_t at = first + (changes[0] | std::size_t{changes[1]} << 8) % (bytes.size() - first);
      bytes[at] = static_cast<char>(static_cast<unsigned char>(bytes[at]) ^ changes[2]);
    }
    Random random(seed_);
    scene = "seed " + std::to_string(seed_) + ", " + shape_.text();
    for (unsigned role = 0; role < roles; ++role) play(role, bytes, random);
  }

 private:
  void play(unsigned role, const std::string& bytes, Random& random) {
    hooks.loads = 0;
    hooks.mostLoads = longestRole;
    try {
      memory_.bytesAre(good_);
      switch (role) {
        case 0:
          read(bytes);
          break;
        case 1:
          takeOver(bytes, random);
          break;
        case 2:
          goOnWriting(bytes, random);
          break;
        default:
          follow(bytes, random);
      }
    } catch (const Endless&) {
      fail("it does not end");
    } catch (const std::runtime_error&) {
      count("writers that gave up");
    }
    hooks.mostLoads = ~std::uint64_t{0};
  }

  // A bit, bytes that become zero, or a block of noise.
  std::string damage(std::string& bytes, Random& random) const {
    std::size_t at =
        sizeof(LinuxPlatform::TableHeader) + random() % (bytes.size() - sizeof(LinuxPlatform::TableHeader));
    const auto kind = random() % 4;
    if (kind < 3) {
      while (at < bytes.size() - 1 && bytes[at] == 0) ++at;  // where something stands
    }
    const std::size_t length =
        kind == 0 ? 1 : std::min<std::size_t>(bytes.size() - at, kind == 1 ? 1 + random() % 8 : 512);
    for (std::size_t i = at; i < at + length; ++i) {
      const auto byte = static_cast<unsigned char>(bytes[i]);
      bytes[i] = static_cast<char>(kind == 0 ? byte ^ 1U << random() % 8 : kind == 3 ? random() : 0U);
    }
    return "byte " + std::to_string(at);
  }
  bool holds(std::uint32_t number, const std::string& value) const {
    const auto found = model_.find(number);
    return found != model_.end() && found->second == value;
  }
  void read(const std::string& bytes) {
    memory_.bytesAre(bytes);
    Reader reader(memory_, shape_, keys_);
    reader.mostLoads = longestRead;
    unsigned missed = 0, believed = 0;
    for (std::uint32_t number = 0; number < shape_.universe; ++number) {
      const auto value = reader.find(number);
      if (value && !holds(number, *value)) fail("a lookup finds what was never written");
      missed += !value && model_.contains(number) ? 1 : 0;
      believed += reader.has(number) && !value ? 1 : 0;
    }
    const Model walked = reader.walk();
    for (const auto& [number, value] : walked) {
      if (!holds(number, value)) fail("a walk finds what was never written");
    }
    const auto passed = model_.size() - std::min(model_.size(), walked.size());
    if (believed != 0) fail("a key without a whole entry is said to be there");
    if (missed + passed != 0 && reader.damage.empty()) fail("entries are missed without a word");
    const bool sound = LinuxPlatform::TableInspection(memory_.image).check().faults.empty();
    if (sound && (missed + passed != 0 || !reader.damage.empty())) fail("a check finds nothing");
    if (missed + passed != 0) count("damage that costs readers entries");
  }
  void takeOver(const std::string& bytes, Random& random) {
    memory_.bytesAre(bytes);
    Model model;
    {
      Writer writer(memory_, shape_, keys_);
      if (random() % 2 == 0) writer.reader.walk();  // before anything is known to be damaged
      writer.settle();
      model = writer.reader.walk();
      for (const auto& [number, value] : model) {
        if (!holds(number, value)) fail("the next writer finds what was never written");
      }
      if (model.size() < model_.size() && writer.damage.empty()) fail("the next writer drops entries without a word");
      writer.applyRandom(40, model, random);
      writer.check(model);
    }
    Writer again(memory_, shape_, keys_);
    again.check(model);
    for (const auto& text : again.damage) fail("the writer after the next one reports: " + text);
  }
  // Under a writer at work, which may lose entries or give up; readers see values of these keys and nothing else.
  void goOnWriting(const std::string& bytes, Random& random) {
    Writer writer(memory_, shape_, keys_);
    Reader reader(memory_, shape_, keys_);
    reader.mostLoads = longestRead;
    memory_.bytesAre(bytes);
    std::map<std::uint32_t, std::vector<std::string>> written;
    for (const auto& [number, value] : model_) written[number].push_back(value);
    for (unsigned i = 0; i < 80; ++i) {
      const Change change = randomChange(shape_, random);
      if (change.kind == Change::Kind::write) {
        written[change.number].push_back(change.value);
        writer.writer.write(keys_[change.number], std::as_bytes(std::span(change.value)));
      } else if (change.kind == Change::Kind::giveBack) {
        writer.giveBack(8, 2);
      } else {
        writer.writer.erase(keys_[change.number]);
      }
    }
    for (const auto& [number, value] : reader.walk()) {
      const auto& values = written[number];
      if (std::find(values.begin(), values.end(), value) == values.end()) fail("a reader finds what was never written");
    }
  }
  void follow(const std::string& bytes, Random& random) {
    Believer believer(memory_, shape_, keys_);
    believer.reader.mostLoads = longestRead;
    memory_.bytesAre(bytes);
    for (unsigned i = 0; i < 5; ++i) believer.deliver();
    Writer writer(memory_, shape_, keys_);
    writer.settle();
    Model model = writer.reader.walk();
    writer.applyRandom(20, model, random);
    believer.catchUp();
    if (believer.believed != model) fail("a follower misses a loss:" + difference(believer.believed, model));
  }

  unsigned seed_;
  Random random_;
  Shape shape_;
  Keys keys_;
  Memory memory_;
  Model model_;
  std::string good_;
};

void damageHeader() {
  const Shape shape;
  const auto good = LinuxPlatform::tableHeader("torture", shape.layout(), 8, 8, 1);
  for (std::size_t at = 0; at < sizeof good; ++at) {
    for (unsigned bit = 0; bit < 8; ++bit) {
      auto header = good;
      reinterpret_cast<unsigned char*>(&header)[at] ^= static_cast<unsigned char>(1U << bit);
      if (LinuxPlatform::headerFault(header, "torture", shape.layout()).empty()) fail("a damaged header is believed");
    }
  }
}

}  // namespace

// In children, so that one that dies is told by its number.
void damageBytes(unsigned seed) {
  damageHeader();
  auto* const at = static_cast<unsigned*>(
      mmap(nullptr, sizeof(unsigned), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  unsigned next = 0;
  DamagedTable table(seed);
  while (next < mutations * DamagedTable::roles) {
    int ends[2];
    if (pipe(ends) != 0) return fail("no pipe");
    const pid_t child = fork();
    if (child == 0) {
      const Counts before = std::exchange(counts, {});
      for (*at = next; *at < mutations * DamagedTable::roles; ++*at) table.play(*at);
      std::string lines;
      for (const auto& [what, number] : counts.of) lines += std::to_string(number) + " " + what + "\n";
      const bool told = write(ends[1], lines.data(), lines.size()) == static_cast<ssize_t>(lines.size());
      std::fflush(stdout);
      _exit(told && counts.failures == 0 ? 0 : 1);
    }
    close(ends[1]);
    std::string lines;
    char buffer[4096];
    for (ssize_t size = 0; (size = read(ends[0], buffer, sizeof buffer)) > 0;)
      lines.append(buffer, static_cast<std::size_t>(size));
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    for (std::size_t begin = 0; begin < lines.size();) {
      const std::size_t blank = lines.find(' ', begin), end = lines.find('\n', begin);
      const std::string what = lines.substr(blank + 1, end - blank - 1);
      const std::uint64_t number = std::strtoull(lines.c_str() + begin, nullptr, 10);
      counts.of[what] = what.starts_with("most") ? std::max(counts.of[what], number) : counts.of[what] + number;
      begin = end + 1;
    }
    scene = "seed " + std::to_string(seed);
    next = *at + 1;
    if (WIFSIGNALED(status))
      fail("damage " + std::to_string(*at) + " kills: signal " + std::to_string(WTERMSIG(status)));
    if (WIFEXITED(status) && WEXITSTATUS(status) != 0) fail("as told above");
  }
  count("damages", mutations);
  munmap(at, sizeof(unsigned));
}

void damageAs(std::span<const std::uint8_t> input) {
  constexpr unsigned seeds = 12;  // every key size and value size
  static std::array<std::unique_ptr<DamagedTable>, seeds> tables;
  if (input.empty()) return;
  auto& table = tables[input[0] % seeds];
  if (!table) table = std::make_unique<DamagedTable>(input[0] % seeds);
  table->play(input.subspan(1));
}

}  // namespace Torture
