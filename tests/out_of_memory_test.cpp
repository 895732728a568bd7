// SPDX-License-Identifier: Apache-2.0
// No C++ exception leaves the C interface: with the global operator new replaced (in this test
// program only) by one that throws std::bad_alloc on the Nth allocation, exported calls that
// build strings inside fail allocation 1, 2, 3, ... in turn. Each run must return the call's
// failure result, print one "out of memory" line and leave nothing behind (the sanitizer build
// counts leaked heap); the first run that does not reach the failure must succeed.
#include "support/image_files.hpp"
#include "support/test_env.hpp"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <execinfo.h>
#include <filesystem>
#include <new>
#include <thread>

using namespace karst::test;

namespace {

// The allocation that throws: 0 disarmed, n > 0 the nth allocation from now.
std::atomic<long> g_countdown{0};

// Whether the emulator is on the stack: a board's TEE client library is C and never throws, so
// the emulator's own allocations are not failed.
bool in_emulator() {
    void *frames[64];
    const int n = backtrace(frames, 64);
    Dl_info info;
    for (int i = 0; i < n; ++i) {
        if (dladdr(frames[i], &info) != 0 && info.dli_fname != nullptr &&
            std::strstr(info.dli_fname, "libteec") != nullptr) {
            return true;
        }
    }
    return false;
}

void *allocate(std::size_t size, std::size_t alignment) {
    long left = g_countdown.load();
    left = left > 0 && in_emulator() ? 0 : left;
    while (left > 0 && !g_countdown.compare_exchange_weak(left, left - 1)) {
    }
    if (left == 1) {
        throw std::bad_alloc();
    }
    size = std::max<std::size_t>(size, 1);
    void *p = alignment <= alignof(std::max_align_t)
                  ? std::malloc(size)
                  : std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    return p;
}

void *allocate_or_null(std::size_t size) noexcept {
    try {
        return allocate(size, 0);
    } catch (...) {
        return nullptr;
    }
}

} // namespace

// Every form of new and delete is replaced (a sanitizer build checks that they match): one line
// each.
// clang-format off
void *operator new(std::size_t n) { return allocate(n, 0); }
void *operator new[](std::size_t n) { return allocate(n, 0); }
void *operator new(std::size_t n, std::align_val_t a) { return allocate(n, std::size_t(a)); }
void *operator new[](std::size_t n, std::align_val_t a) { return allocate(n, std::size_t(a)); }
void *operator new(std::size_t n, const std::nothrow_t &) noexcept { return allocate_or_null(n); }
void *operator new[](std::size_t n, const std::nothrow_t &) noexcept { return allocate_or_null(n); }
void operator delete(void *p) noexcept { std::free(p); }
void operator delete[](void *p) noexcept { std::free(p); }
void operator delete(void *p, std::size_t) noexcept { std::free(p); }
void operator delete[](void *p, std::size_t) noexcept { std::free(p); }
void operator delete(void *p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void *p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void *p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void *p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete(void *p, const std::nothrow_t &) noexcept { std::free(p); }
void operator delete[](void *p, const std::nothrow_t &) noexcept { std::free(p); }
// clang-format on

namespace {

class OutOfMemoryTest : public KarstTest {
  protected:
    void SetUp() override {
        KarstTest::SetUp();
        write_file(path("/tmp/inventory.txt"), "");
        write_file(path("/tmp/fw-update-CPLD.out"), "written: 1, total: 2, 50%\n");
        write_file(path("/nv1/cpld_staging.bin"), image_bytes(0x1000, 5));
        // Evidence for the attestation dump, so that it prints no error.
        const std::string spdm = path("/tmp/spdm/aoc/boot_run/");
        std::filesystem::create_directories(spdm + "spdm_saved_cert_chains");
        std::filesystem::create_directories(spdm + "spdm_saved_measurements_bins/gpu0");
        write_file(spdm + "spdm_saved_cert_chains/dev0.der", std::string(1200, 'c'));
        write_file(spdm + "spdm_saved_measurements_bins/gpu0/m.bin", std::string(300, 'm'));
        write_file(path("/etc/defaults/spdm_dalu_rootCA.der"), std::string(500, 'r'));
        write_file(path("/etc/defaults/spdm_nv_rootCA.der"), std::string(600, 'r'));
    }
};

// The asynchronous update, to its end: its final state.
int update_to_the_end() {
    img_update_ctx ctx{};
    ctx.img = 0x0201;
    if (pta20_img_update_async(&ctx) != 0) {
        return -1;
    }
    while (std::atomic_ref<int32_t>(ctx.state).load() >= IMG_UPD_QUEUED) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return static_cast<int>(ctx.state);
}

// Fails allocation 1, 2, ... of each call in turn until a run does not reach the failure, which
// must succeed without an error line.
TEST_F(OutOfMemoryTest, CallsThatBuildStringsFailCleanlyAtEveryAllocation) {
    char value[64], where[512];
    const struct {
        const char *name;
        int success;
        std::function<int()> call;
    } cases[] = {
        {"inventory set", 0, [] { return pta20_inventory_set("CPLD_VER", "3", 2); }},
        {"inventory get", 0, [&] { return pta20_inventory_get("CPLD_VER", value, 64); }},
        {"image progress", 50, [] { return pta20_img_updmsg(0x0201, 0); }},
        {"attestation dump", 0, [&] { return pta20_att_dump("abc123", where, sizeof where); }},
        {"asynchronous update", IMG_UPD_IDLE, update_to_the_end},
    };
    for (const auto &c : cases) {
        long n = 1;
        for (; n < 10000 && !HasFailure(); ++n) {
            int rc = 0;
            long left = 0;
            const std::string out = capture_stdout([&] {
                g_countdown = n;
                rc = c.call();
                left = g_countdown.exchange(0);
            });
            const std::string at = std::string(c.name) + ", allocation " + std::to_string(n);
            if (left > 0) { // the call made fewer than n allocations
                EXPECT_EQ(rc, c.success) << at << "\n" << out;
                EXPECT_FALSE(matches(out, R"([^]*\[(E:|Error)[^]*)")) << at;
                break;
            }
            EXPECT_EQ(rc, -1) << at;
            // One error line, and it is the one of the exception.
            EXPECT_TRUE(matches(out, R"((\[(Debug|I)[^\n]*\n)*\[E:\w+:\d+\] out of memory\n)"))
                << at;
            karst_emu_stats stats{};
            karst_emu_get_stats(&stats);
            EXPECT_EQ(stats.sessions + stats.contexts + stats.registered, 0u) << at;
        }
        EXPECT_GT(n, 1) << c.name << " reaches no allocation";
    }
}

} // namespace
