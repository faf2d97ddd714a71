#include "tools/commandline/OptionChecks.h"

#include <string>

#include "platform/values/Printable.h"
#include "platform/values/Text.h"

namespace Tools {

namespace {

using Platform::toText;

template <class T>
CLI::Validator numberFrom(const char* what, T least, T most) {
  const std::string wanted = std::string(what) + " from " + toText(least) + " to " + toText(most);
  return CLI::Validator(
      [=](std::string& text) {
        const auto value = Platform::TextForm<T>::from(text);
        if (value && *value >= least && *value <= most) return std::string();
        return "'" + Platform::printable(text) + "' is not " + wanted;
      },
      "");
}

}  // namespace

CLI::Validator wholeNumber(std::uint64_t least, std::uint64_t most) {
  return numberFrom("a whole number", least, most);
}

CLI::Validator realNumber(double least, double most) {
  return numberFrom("a number", least, most);
}

void refuseEmptyValues(CLI::App& command) {
  const auto refuse = [](const std::string& text) {
    return text.empty() ? std::string("it is given no value") : std::string();
  };
  for (CLI::Option* option : command.get_options()) {
    if (!option->get_positional() && option->get_items_expected_max() > 0) option->check(refuse, "", "");
  }
  for (CLI::App* subcommand : command.get_subcommands([](const CLI::App*) { return true; })) {
    if (!subcommand->get_group().empty()) refuseEmptyValues(*subcommand);
  }
}

}  // namespace Tools
