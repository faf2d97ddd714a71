#include <gmock/gmock.h>

#include <functional>
#include <limits>
#include <nlohmann/json.hpp>

#include "lib/control/CommandRenderer.h"
#include "platform/values/Printable.h"

using LinuxPlatform::JsonRenderer;
using Platform::OutputFormat;
using Platform::Renderer;
using Json = nlohmann::ordered_json;

namespace {

// What a command's calls leave behind in one format.
struct Output {
  std::string text;
  std::optional<std::string> error;
};
Output outputOf(OutputFormat format, const std::function<void(LinuxPlatform::CommandRenderer&)>& calls) {
  Output output;
  const auto renderer = LinuxPlatform::rendererOf(format, output.text);
  EXPECT_EQ(renderer->outputFormat(), format);
  calls(*renderer);
  output.error = renderer->commandError();
  return output;
}

// A listing of two routes, the second without next hop.
void writeRoutes(Renderer& out) {
  out.start();
  out.startDict("vrfs");
  out.startDictEntry("red");
  out.addFrills("%-12s %-5s\n", {"Prefix", "Id"});
  out.startDict("routes");
  out.startDictEntry("10.0.0.0/24");
  out.addAttributes("%-12s %-5d", {{"prefix", "10.0.0.0/24"}, {"id", -5}});
  out.startDict("hops");
  out.startDictEntry("0");
  out.addAttributes("%s %d %s\n", {{"", "Vxlan1"}, {"fec", std::numeric_limits<std::uint64_t>::max()}, {"up", "yes"}});
  out.endDictEntry();
  out.endDict();
  out.addAttributes("", {});
  out.addAttributes("%d hop\n", {{"count", 1U}});
  out.endDictEntry();
  out.startDictEntry("10.0.1.0/24");
  out.addAttributes("%-12s %-5d\n", {{"prefix", "10.0.1.0/24"}, {"id", 0}});
  out.endDictEntry();
  out.endDict();
  out.endDictEntry();
  out.startDictEntry("blue");
  out.endDictEntry();
  out.endDict();
  out.end();
  out.ioflush();
}

TEST(RendererTest, ControlCharactersOfNamesDoNotReachATerminal) {
  const auto write = [](Renderer& out) {
    out.start();
    out.addAttributes("%-4s|%s|%d\n", {{"name", "a\nb"}, {"alias", std::string_view("\x1b[2J\0\x7f", 6)}, {"id", 1}});
    out.end();
  };
  EXPECT_EQ(outputOf(OutputFormat::text, write).text, "a?b |?[2J??|1\n");
  const std::pair<const char*, const char*> names[] = {
      {"réd €", "réd €"}, {"a\xc2\x9bJ", "a?J"}, {"\xc2\xa0", "\xc2\xa0"},
      {"\xff\xfe", "??"}, {"\xe2\x82", "??"},    {"\xed\xa0\x80", "???"},
      {"\xc0\xaf", "??"}, {"\x7f", "?"},         {"", ""}};
  for (const auto& [name, shown] : names) {
    EXPECT_EQ(Platform::printable(name), shown);
    EXPECT_EQ(Platform::isPrintable(name), std::string(name) == shown) << shown;
  }
  EXPECT_EQ(Json::parse(outputOf(OutputFormat::json, write).text)["name"], "a\nb");
}

TEST(RendererTest, SameCallsMakeTextAndJson) {
  EXPECT_EQ(outputOf(OutputFormat::text, writeRoutes).text,
            "Prefix       Id   \n"
            "10.0.0.0/24  -5   Vxlan1 18446744073709551615 yes\n"
            "1 hop\n"
            "10.0.1.0/24  0    \n");
  const std::string json = outputOf(OutputFormat::json, writeRoutes).text;
  EXPECT_EQ(json, R"({
 "vrfs": {
  "red": {
   "routes": {
    "10.0.0.0/24": {"prefix": "10.0.0.0/24", "id": -5,
     "hops": {
      "0": {"fec": 18446744073709551615, "up": "yes"}
     },
     "count": 1},
    "10.0.1.0/24": {"prefix": "10.0.1.0/24", "id": 0}
   }
  },
  "blue": {}
 }
}
)");
  EXPECT_EQ(Json::parse(json)["vrfs"]["red"]["routes"]["10.0.0.0/24"]["hops"]["0"]["fec"],
            std::numeric_limits<std::uint64_t>::max());
}

TEST(RendererTest, AnyBytesBecomeJsonThatParses) {
  const struct {
    const char* what;
    std::string bytes;
    std::string read;  // what a parser makes of them
  } cases[] = {
      {"what JSON writes otherwise", "a\"b\\c\n\t\x01\x1f\x7f/", "a\"b\\c\n\t\x01\x1f\x7f/"},
      {"a zero byte", std::string("a\0b", 3), std::string("a\0b", 3)},
      {"sequences of two, three and four bytes", "\u00e9\u20ac\U0001F600\uD7FF\uE000\U0010FFFF",
       "\u00e9\u20ac\U0001F600\uD7FF\uE000\U0010FFFF"},
      {"no first byte at all", "a\x80z\xff", "a\uFFFDz\uFFFD"},
      {"cut off", "\xe2\x82", "\uFFFD\uFFFD"},
      {"cut off by a plain one", "\xf0\x9f\x98z", "\uFFFD\uFFFD\uFFFDz"},
      {"longer than needed", "\xc0\xaf|\xe0\x80\xaf|\xf0\x80\x80\xaf",
       "\uFFFD\uFFFD|\uFFFD\uFFFD\uFFFD|\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"half of a surrogate pair", "\xed\xa0\x80", "\uFFFD\uFFFD\uFFFD"},
      {"beyond the last character", "\xf4\x90\x80\x80", "\uFFFD\uFFFD\uFFFD\uFFFD"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string json = outputOf(OutputFormat::json, [&](Renderer& out) {
                               out.start();
                               out.startDictEntry(c.bytes);
                               out.addAttributes("%s", {{c.bytes, c.bytes}});
                               out.endDictEntry();
                               out.end();
                             }).text;
    const Json parsed = Json::parse(json, nullptr, false);
    ASSERT_FALSE(parsed.is_discarded()) << json;
    EXPECT_EQ(parsed, (Json{{c.read, {{c.read, c.read}}}}));
  }
}

TEST(RendererTest, EarlyEndClosesWhatIsOpen) {
  // After any number of the calls of a listing, and after all of them once more.
  std::string all;
  JsonRenderer whole(all);
  writeRoutes(whole);
  whole.close();
  EXPECT_TRUE(Json::accept(all));

  const auto beginning = [](LinuxPlatform::CommandRenderer& out) {
    out.close();
    out.start();
    out.startDict("vrfs");
    out.startDictEntry("red");
    out.addAttributes("%s\n", {{"name", "red"}});
    out.startDict("routes");
    out.close();
    out.close();
  };
  EXPECT_EQ(Json::parse(outputOf(OutputFormat::json, beginning).text),
            Json::parse(R"({"vrfs": {"red": {"name": "red", "routes": {}}}})"));
  EXPECT_EQ(outputOf(OutputFormat::text, beginning).text, "red\n");
  const auto nothing = [](LinuxPlatform::CommandRenderer& out) { out.close(); };
  EXPECT_EQ(outputOf(OutputFormat::json, nothing).text, "");
}

TEST(RendererTest, FailureIsRememberedAndStandsInJsonOnly) {
  const auto calls = [](Renderer& out) {
    out.start();
    out.addAttributes("%s\n", {{"cmdErr", "VRF red not found."}});
    out.end();
  };
  const Output json = outputOf(OutputFormat::json, calls);
  EXPECT_EQ(json.text, "{\"cmdErr\": \"VRF red not found.\"}\n");
  EXPECT_EQ(json.error, "VRF red not found.");
  const Output text = outputOf(OutputFormat::text, calls);
  EXPECT_EQ(text.text, "");
  EXPECT_EQ(text.error, "VRF red not found.");
  EXPECT_EQ(outputOf(OutputFormat::text, writeRoutes).error, std::nullopt);
}

TEST(RendererDeathTest, CallsThatMakeNoObjectAreOurMistake) {
  const auto dies = [](const char* what, const std::function<void(Renderer&)>& calls) {
    EXPECT_DEATH(outputOf(OutputFormat::json, calls), what);
  };
  dies("outside of start and end", [](Renderer& out) { out.startDict("a"); });
  dies("outside of start and end", [](Renderer& out) {
    out.start();
    out.end();
    out.addAttributes("%d", {{"a", 1}});
  });
  dies("starts twice", [](Renderer& out) {
    out.start();
    out.start();
  });
  dies("not the innermost", [](Renderer& out) {
    out.start();
    out.startDict("a");
    out.endDictEntry();
  });
  dies("not the innermost", [](Renderer& out) {
    out.start();
    out.startDict("a");
    out.end();
  });
  dies("used twice", [](Renderer& out) {
    out.start();
    out.addAttributes("%d", {{"a", 1}, {"b", 1}});
    out.startDict("a");
  });
}

}  // namespace
