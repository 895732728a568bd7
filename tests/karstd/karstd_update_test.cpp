// SPDX-License-Identifier: Apache-2.0
// Firmware updates through karstd: the whole update with its progress, its errors, and an
// update that outlives its client and a restart of the daemon.
#include "karstd/karstd_fixture.hpp"
#include "support/image_files.hpp"

#include <algorithm>
#include <fcntl.h>
#include <unistd.h>

namespace karst::test {
namespace {

constexpr char UPDATE[] = "xyz.openbmc_project.Software.Update";
constexpr char VERSION[] = "xyz.openbmc_project.Software.Version";
constexpr size_t IMAGE_SIZE = 1 << 20;

int open_image(const std::string &file, const std::string &bytes) {
    write_file(file, bytes);
    return open(file.c_str(), O_RDONLY | O_CLOEXEC);
}

TEST_F(KarstdTest, UpdateOfAClientThatLeftAtOnceRunsToActiveShowingItsProgress) {
    capture_stdout([] { ASSERT_EQ(pta20_inventory_set("BIOS_VERSION", "Ver 2.4", 8), 0); });
    stop_daemon(); // to read the version anew
    ASSERT_TRUE(start_daemon());
    const std::string image = image_bytes(IMAGE_SIZE);
    const int fd = open_image(path("/bios.bin"), image);
    sd_bus *client = connect_bus(address());
    ASSERT_GE(sd_bus_call_method_async(client, nullptr, KARSTD_BUS_NAME,
                                       (SOFTWARE + std::string("bios")).c_str(), UPDATE,
                                       "StartUpdate", nullptr, nullptr, "hs", fd, IMMEDIATE),
              0);
    sd_bus_flush_close_unref(client); // gone before the answer
    close(fd);

    const std::string update = recorded_path("bios");
    std::vector<int> seen;
    EXPECT_EQ(wait_end(update, &seen), "Active");
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
    EXPECT_EQ(seen.back(), 100);
    EXPECT_TRUE(std::any_of(seen.begin(), seen.end(), [](int p) { return p > 0 && p < 100; }));
    EXPECT_EQ(text(update, VERSION, "Version"), "Ver 2.4");
    EXPECT_EQ(text(SOFTWARE + std::string("bios"), VERSION, "Version"), "Ver 2.4");
    uint64_t size = 0;
    uint64_t digest = 0;
    ASSERT_EQ(karst_emu_image_copy(IMG_ID(IMG_TYPE_BIOS, IMG_IDX_STAGING), &size, &digest), 0);
    EXPECT_EQ(digest, karst_emu_image_digest(image.data(), image.size()));
}

// karstd stopped mid-update finds the update again, running; stopped until it has ended, it shows
// the end. The image takes eight seconds to program, so that the update still runs after the
// restart on a loaded machine.
TEST_F(KarstdTest, UpdateOutlivesRestartsOfTheDaemon) {
    const int fd = open_image(path("/bios.bin"), image_bytes(4 * IMAGE_SIZE));
    Call started = start_update("bios", fd);
    close(fd);
    const char *update = nullptr;
    ASSERT_GE(sd_bus_message_read(started.reply, "o", &update), 0);
    const std::string object = update;
    for (int tries = 0; progress(object) <= 0 && tries < 500; ++tries) {
        usleep(10000);
    }
    stop_daemon();
    ASSERT_TRUE(start_daemon());
    EXPECT_EQ(text(object, ACTIVATION, "Activation"),
              "xyz.openbmc_project.Software.Activation.Activations.Activating");
    EXPECT_GT(progress(object), 0);
    stop_daemon();
    ASSERT_TRUE(updates_ended());
    ASSERT_TRUE(start_daemon());
    EXPECT_EQ(wait_end(object), "Active");
    EXPECT_EQ(progress(object), 100);
}

} // namespace
} // namespace karst::test
