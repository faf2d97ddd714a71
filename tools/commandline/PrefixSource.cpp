#include "tools/commandline/PrefixSource.h"

#include <CLI/CLI.hpp>

#include "tools/commandline/Common.h"
#include "tools/commandline/OptionChecks.h"

namespace Tools {

using Platform::BadText;

void addPrefixSource(CLI::App& command, PrefixSource& source) {
  command.add_option("FILE", source.file, "Prefixes, one a line, plain or gzip; - is standard input");
  command.add_option("--generate", source.generate, "Make up this many IPv4 prefixes instead")
      ->check(wholeNumber(1, maxGeneratedPrefixes));
  command.add_option("--within", source.within, "With --generate: host routes inside this prefix, of either family")
      ->type_name("PREFIX");
  command.add_option("--seed", source.seed, "Another seed, other prefixes")
      ->check(wholeNumber(0))
      ->capture_default_str();
}

void checkPrefixSource(const PrefixSource& source) {
  if (source.file.empty() == (source.generate == 0)) {
    throw BadText("load takes either a list of prefixes or --generate");
  }
  if (!source.within.empty() && source.generate == 0) throw BadText("--within goes with --generate");
}

PrefixList prefixesFrom(const PrefixSource& source) {
  if (source.generate == 0) {
    LineReader lines = linesOf(source.file);
    return readPrefixList(lines);
  }
  if (source.within.empty()) return {generatePrefixes(source.generate, source.seed), 0};
  const auto within = optionValue<IpGenPrefix>("--within", source.within);
  return {generateHosts(source.generate, within, source.seed), 0};
}

}  // namespace Tools
