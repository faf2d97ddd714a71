// The `routecache` command.
#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>

#include "host/Output.h"
#include "platform/values/Net.h"
#include "platform/values/Printable.h"
#include "platform/values/Text.h"
#include "tools/commandline/Commands.h"
#include "tools/commandline/Common.h"

namespace {

constexpr int failed = 1;
constexpr int misused = 2;

// A standard stream that whoever started us has closed would be the first file or socket that is opened, and take what
// is meant for a reader.
void openStandardStreams() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) < 0) open("/dev/null", O_RDWR);  // gets the lowest number that is free
  }
}

int complain(std::string text, int exitCode) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  std::fprintf(stderr, "routecache: %s\n", Platform::printable(text).c_str());
  return exitCode;
}

}  // namespace

int main(int argc, char** argv) {
  openStandardStreams();
  std::signal(SIGXFSZ, SIG_IGN);  // a file that may not grow is an error of the write, like a full disk
  CLI::App app("Route-cache agent: run it, feed it, look at it", "routecache");
  app.require_subcommand(0, 1);  // so that a wrong one is named as what it is, not as a missing one
  app.get_formatter()->column_width(36);
  Tools::ToolContext context;
  Tools::addCommands(app, context);
  try {
    try {
      app.parse(argc, argv);
      if (app.get_subcommands().empty()) return complain("a subcommand is wanted (--help tells more)", misused);
    } catch (const CLI::Success& help) {
      app.exit(help);
    }
    Tools::flushOutput();
    return context.exitCode;
  } catch (const CLI::ParseError& error) {
    return complain(std::string(error.what()) + " (--help tells more)", misused);
  } catch (const Platform::BadText& error) {
    return complain(error.what(), misused);
  } catch (const RangeError& error) {
    return complain(error.what(), misused);
  } catch (const std::exception& error) {
    return complain(error.what(), failed);
  }
}
