// BIRD, Debian's, as a rival: it is given the routes in its configuration, as static ones.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "bench/harness/ChildProcess.h"
#include "bench/routers/KernelWriter.h"

namespace Bench {

class BirdDaemon {
 public:
  static bool isInstalled();

  // Begins to read its configuration, with these routes, in the directory. `exporting`: they go to the kernel too.
  BirdDaemon(const std::string& directory, const std::vector<RoutedPrefix>& routes, bool exporting);
  // Returns when it has so many routes, of its processor's seconds how many it has taken. Throws std::runtime_error
  // when it does not come to that.
  double loaded(std::size_t routes);
  // The same when they have got to the kernel.
  double exported(std::size_t routes);
  double residentBytes() const;

 private:
  void await(const char* what, const std::function<bool()>& isSo);
  std::size_t routes() const;

  std::string directory_;
  ChildProcess process_;
};

}  // namespace Bench
