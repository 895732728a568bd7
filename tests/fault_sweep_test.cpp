// Every acquisition of every call, failed in turn.
#include "support/fault_sweep.hpp"
#include "support/test_env.hpp"

#include <cstdlib>

using namespace karst::test;

namespace {

class FaultSweepTest : public KarstTest {};

TEST_F(FaultSweepTest, FileHelpers) {
    const std::string file = path("/tmp/sweep.bin");
    write_file(file, std::string(3000, 'x'));
    EXPECT_GT(sweep_failures({"writebin", [&] { return writebin(file.c_str(), "abc", 3); }}), 0u);
    EXPECT_GT(sweep_failures({"readbin",
                              [&] {
                                  uint8_t *buf = nullptr;
                                  uint32_t size = 0;
                                  const int rc = readbin(file.c_str(), &buf, &size);
                                  std::free(buf);
                                  return rc;
                              }}),
              0u);
}

TEST_F(FaultSweepTest, UbootEnvironment) {
    char value[64];
    EXPECT_EQ(
        sweep_failures({"pta20_ubootenv_get",
                        [&] { return pta20_ubootenv_get("bootdelay", value, sizeof value); }}),
        5u); // two buffers, two registrations, one invoke
    EXPECT_EQ(sweep_failures(
                  {"pta20_ubootenv_set", [&] { return pta20_ubootenv_set("bootdelay", "3"); }}),
              5u);
}

} // namespace
