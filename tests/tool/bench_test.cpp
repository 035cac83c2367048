// tolk bench: what it reports. How fast the machine is, no test asks.
#include <nlohmann/json.hpp>

#include "tests/tool/served.h"

namespace tolk::test {
namespace {

using Json = nlohmann::json;

TEST(ToolBench, StartsAServerOfItsOwnAndReports) {
  const Ended ended = tolk_command({"bench", "--duration", "50ms", "--callers", "2"});
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_THAT(ended.out, HasSubstr("machine  "));
  EXPECT_THAT(ended.out, HasSubstr("version  " TOLK_VERSION "\n"));
  EXPECT_THAT(ended.out, HasSubstr("call     echo at pipe:"));
  EXPECT_THAT(ended.out, HasSubstr("2 callers, "));
  EXPECT_THAT(ended.out, HasSubstr("calls/s  "));
  EXPECT_THAT(ended.out, HasSubstr("latency  min "));
  EXPECT_EQ(ended.err, "");
}

class ToolBenchServed : public ServedTest {};

TEST_F(ToolBenchServed, MeasuresARunningServer) {
  const Ended ended = tolk_command({"bench", at, "add", "2", "3", "--duration", "50ms", "--json"});
  EXPECT_EQ(ended.code, 0) << ended.err;
  const Json json = Json::parse(ended.out);
  EXPECT_EQ(json["address"], at);
  EXPECT_EQ(json["method"], "add");
  EXPECT_GT(json["calls"], 0);
  EXPECT_LE(json["min_us"], json["p50_us"]);
  EXPECT_LE(json["p50_us"], json["p99.9_us"]);
  EXPECT_LE(json["p99.9_us"], json["max_us"]);
}

TEST_F(ToolBenchServed, CallsWhatEveryServerHasWhereNoMethodIsNamed) {
  const Ended ended = tolk_command({"bench", at, "--duration", "10ms"});
  EXPECT_EQ(ended.code, 0) << ended.err;
  EXPECT_THAT(ended.out, HasSubstr("s_c_version at " + at));
}

TEST_F(ToolBenchServed, EndsWithTheErrorOfACall) {
  const Ended ended = tolk_command({"bench", at, "fail", "--duration", "10s"});
  EXPECT_EQ(ended.code, 6);
  EXPECT_THAT(ended.err, StartsWith("tolk: fail at " + at + ": handler failed: "));
}

}  // namespace
}  // namespace tolk::test
