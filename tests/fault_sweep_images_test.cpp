// Every acquisition of the image calls, failed in turn.
#include "support/fault_sweep.hpp"
#include "support/image_files.hpp"
#include "support/sweep_session.hpp"
#include "support/test_env.hpp"

#include <atomic>
#include <thread>

using namespace karst::test;

namespace {

// What an image routine returns when registration or the invoke fails: the client's code.
constexpr int REGISTRATION_FAILED = static_cast<int>(TEEC_ERROR_OUT_OF_MEMORY);
constexpr int INVOKE_FAILED = static_cast<int>(TEEC_ERROR_COMMUNICATION);

class ImageSweepTest : public KarstTest {
  protected:
    void SetUp() override {
        KarstTest::SetUp();
        karst_emu_program_rate(0);
        write_file(path("/nv1/cpld_staging.bin"), image_);
        write_file(path("/nv1/bios_staging.bin"), image_);
        write_file(path("/tmp/image.bin"), image_);
    }
    const std::string image_ = image_bytes(0x1000);
};

TEST_F(ImageSweepTest, ImageCalls) {
    const std::string file = path("/tmp/image.bin");
    void *buffer = const_cast<char *>(image_.data());
    const auto size = static_cast<uint32_t>(image_.size());
    void *file_arg = const_cast<char *>(file.c_str());
    const std::vector<int> client_failures = {-1, REGISTRATION_FAILED, INVOKE_FAILED};
    const std::vector<SweepCall> calls = {
        {.name = "pta20_img_auth", .call = [] { return pta20_img_auth(0x0201, 0, nullptr, 0); }},
        {.name = "pta20_img_upload buffer",
         .call = [&] { return pta20_img_upload(0x0201, IMG_SRC_BUFFER, buffer, size); },
         .failure_results = client_failures},
        {.name = "pta20_img_upload file",
         .call = [&] { return pta20_img_upload(0x0201, IMG_SRC_FILE, file_arg, 0); },
         .failure_results = client_failures},
        {.name = "pta20_img_upload extended",
         .call = [&] { return pta20_img_upload(0x0101, IMG_SRC_EXTENDED, nullptr, 0); },
         .failure_results = client_failures},
        {.name = "pta20_img_dump",
         .call = [] { return pta20_img_dump(0x0202, 0, nullptr, 0x3000); },
         .failure_results = client_failures},
        {.name = "pta20_img_delete", .call = [] { return pta20_img_delete(0x0201, 0); }},
        {.name = "pta20_img_update",
         .call =
             [] {
                 return pta20_img_update(0x0201, IMG_FLAG_BACKUP | IMG_FLAG_EVIDENCE, nullptr, 0);
             },
         .failure_results = client_failures},
        {.name = "pta_invoke_fw_auth",
         .call =
             [&] {
                 return in_session(
                     [&] { return pta_invoke_fw_auth(0, 0x0201, IMG_SRC_BUFFER, buffer, size); });
             }},
        {.name = "pta_invoke_fw_upload",
         .call =
             [&] {
                 return in_session(
                     [&] { return pta_invoke_fw_upload(1, 0x0201, IMG_SRC_BUFFER, buffer, size); });
             },
         .failure_results = client_failures},
        {.name = "pta_invoke_fw_update",
         .call =
             [&] {
                 return in_session(
                     [&] { return pta_invoke_fw_update(2, 0x0201, IMG_SRC_BUFFER, buffer, size); });
             },
         .failure_results = client_failures},
        {.name = "pta_invoke_fw_dump",
         .call =
             [&] {
                 return in_session(
                     [&] { return pta_invoke_fw_dump(3, 0x0202, 0, nullptr, 0x3000); });
             },
         .failure_results = client_failures},
        {.name = "pta_invoke_fw_delete",
         .call =
             [&] {
                 return in_session([&] { return pta_invoke_fw_delete(10, 0x0201, 0, nullptr); });
             }},
        {.name = "pta_invoke_fw_auth_dblk",
         .call =
             [&] {
                 return in_session([&] {
                     return pta_invoke_fw_auth_dblk(31, 0x0101, IMG_SRC_BUFFER, buffer, size);
                 });
             },
         // The key block is made, then its format byte set, so its first store finds the CRC
         // stale (and stores a fresh one): by design.
         .expected_noise = R"(\[E:blk_getenv:\d+\] Data Block bad CRC)"},
        {.name = "pta20_img_updmsg",
         .call = [] { return pta20_img_updmsg(IMG_ID(IMG_TYPE_BIOS, 0), 0); },
         .success_result = 75,
         .prepare =
             [&] { write_file(path("/tmp/fw-update-BIOS.out"), "written: 3, total: 4, 75%\n"); }},
        {.name = "pta20_fpga_ready", .call = [] { return pta20_fpga_ready(); }},
        {.name = "pta_invoke_fpga_ready",
         .call = [] { return in_session([] { return pta_invoke_fpga_ready(25); }); },
         .failure_results = {-1, INVOKE_FAILED}},
        {.name = "pta20_bios_set4Byte", .call = [] { return pta20_bios_set4Byte(1); }},
    };
    sweep_each(calls);
}

// The asynchronous update: a failure in the starting call or in the update thread ends with the
// context failed (or never started) and everything released.
TEST_F(ImageSweepTest, UpdateThread) {
    img_update_ctx ctx{};
    const SweepCall update = {
        .name = "pta20_img_update_async",
        .call =
            [&] {
                ctx = img_update_ctx{};
                ctx.img = IMG_ID(IMG_TYPE_CPLD, 1);
                if (pta20_img_update_async(&ctx) != 0) {
                    return -1;
                }
                // The update thread writes state: read it as the library does, atomically.
                const std::atomic_ref<int32_t> state(ctx.state);
                while (state.load() == IMG_UPD_QUEUED || state.load() == IMG_UPD_RUNNING) {
                    pta20_img_updprogress(&ctx);
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                }
                return state.load() == IMG_UPD_IDLE ? 0 : -1;
            },
        // A poll that cannot read the progress file shows no progress; the update goes on.
        .failure_results = {-1, 0},
    };
    EXPECT_GT(sweep_failures(update), 1u);
}

} // namespace
