// The examples, with a live agent: a routing process and a forwarding agent in C, a reader in Python.
#include <gmock/gmock.h>

#include <csignal>
#include <string>

#include "test/support/Command.h"
#include "test/support/TemporaryDirectory.h"

namespace {

class ExamplesTest : public testing::Test {
 protected:
  Outcome rib(const std::string& routes) const {
    return Command(runDir + " Vxlan1 10010 " + routes, "", nullptr, ROUTECACHE_RIB).wait();
  }
  std::string reader() const {
    return "python3 " ROUTECACHE_EXAMPLES "/reader.py --library " ROUTECACHE_TABLES " " + runDir +
           " routecache/route/hw/ipv4";
  }

  const TemporaryDirectory directory;
  const std::string runDir = directory.path() + "/run";
  const std::string run =
      "run --scenario " ROUTECACHE_EXAMPLES "/leaf.json --agent " ROUTECACHE_AGENT " --run-dir " + runDir;
};

TEST_F(ExamplesTest, AForwardingAgentKeepsItsRoutesUntilARestartIsComplete) {
  Command forwarding(runDir, "", nullptr, ROUTECACHE_FORWARDING);  // before there is anything
  EXPECT_EQ(rib("10.1.0.0/16@2=10.255.0.1,10.255.200.1 10.2.0.0/16@2=10.255.0.2").exitCode, 0);
  Command first(run);
  ASSERT_TRUE(forwarding.says("install 10.1.0.0/16@101 10.255.0.1 by Vxlan1 10.255.200.1 by Vxlan1\n"));
  ASSERT_TRUE(forwarding.says("install 10.2.0.0/16@101 10.255.0.2 by Vxlan1\n"));
  ASSERT_TRUE(forwarding.says("reconciled: 2 routes\n"));
#ifndef __SANITIZE_ADDRESS__  // whose run-time library has to be there before Python is
  EXPECT_EQ(Command(reader() + " --once", "", nullptr, "/usr/bin/env").wait().out.substr(0, 19), "0a01ffff1000000065 ");
  Command reading(reader(), "", nullptr, "/usr/bin/env");
  ASSERT_TRUE(reading.says("0a02ffff1000000065 "));
#endif

  first.stop(SIGKILL);
  ASSERT_TRUE(forwarding.says("gone: keeping 2 routes\n"));
  EXPECT_EQ(rib("10.2.0.0/16@2=10.255.0.2 10.3.0.0/16@2=10.255.0.3").exitCode, 0);
  Command second(run);
  ASSERT_TRUE(forwarding.says("remove 10.1.0.0/16@101\nreconciled: 2 routes\n"));
#ifndef __SANITIZE_ADDRESS__
  EXPECT_TRUE(reading.says("reconciled 0 writer 1\n"));
  EXPECT_TRUE(reading.says("0a01ffff1000000065 gone\n"));
#endif
  const std::string told = forwarding.stop(SIGTERM).out;
  std::size_t at = 0;
  for (const char* line : {"gone: keeping 2", "restarted: keeping 2", "install 10.3.0.0/16@101",
                           "remove 10.1.0.0/16@101", "reconciled: 2 routes"}) {
    at = told.find(line, at);
    ASSERT_NE(at, std::string::npos) << line << " in this order in\n" << told;
  }
  const Outcome unwritable = Command("/dev/null/run Vxlan1 10010", "", nullptr, ROUTECACHE_RIB).wait();
  EXPECT_EQ(unwritable.exitCode, 1);
  EXPECT_TRUE(unwritable.isOneComplaint()) << unwritable.err;
}

}  // namespace
