// Every acquisition of every call, failed in turn.
#include "core/fault_injection.hpp"
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

TEST_F(FaultSweepTest, ImageCalls) {
    karst_emu_program_rate(0);
    const std::string image(0x1000, '\0');
    write_file(path("/nv1/cpld_staging.bin"), "\x53" + image);
    // Session; mapping, registration, invoke.
    EXPECT_EQ(
        sweep_failures({"pta20_img_auth", [] { return pta20_img_auth(0x0201, 0, nullptr, 0); }}),
        3u);
    // Two dumps (mapping, registration, invoke, file) and the update (mapping, registration,
    // invoke).
    EXPECT_GE(sweep_failures(
                  {"pta20_img_update", [] { return pta20_img_update(0x0201, 0x18, nullptr, 0); }}),
              11u);
    EXPECT_EQ(sweep_failures({"pta20_img_delete", [] { return pta20_img_delete(0x0201, 0); }}), 1u);
    EXPECT_GT(sweep_failures({"pta20_bios_set4Byte", [] { return pta20_bios_set4Byte(1); }}), 0u);
}

TEST_F(FaultSweepTest, AsynchronousStartWithoutAThread) {
    img_update_ctx ctx{};
    ctx.img = 0x0201;
    karst::fault::arm(karst::fault::Kind::thread, 1);
    const std::string out = capture_stdout([&] { EXPECT_EQ(pta20_img_update_async(&ctx), -1); });
    karst::fault::disarm();
    EXPECT_NE(out.find("] create thread failed\n"), std::string::npos) << out;
    EXPECT_EQ(ctx.state, IMG_UPD_IDLE);
}

} // namespace
