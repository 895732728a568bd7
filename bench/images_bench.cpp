// SPDX-License-Identifier: Apache-2.0
// pta20_img_upload of a 64 MiB staging file through the emulator, against the baseline of
// mapping the same file and reading every byte once; and the heap the upload takes.
//
// The heap is counted by this program's own malloc family (forwarding to glibc's), which keeps
// the bytes in use and their peak: the upload must not read the image into the heap.
#include "karst.h"
#include "karst_emu.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <malloc.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);
}

namespace {

std::atomic<long long> g_in_use{0};
std::atomic<long long> g_peak{0};

void count(long long delta) {
    const long long now = g_in_use.fetch_add(delta) + delta;
    long long peak = g_peak.load();
    while (now > peak && !g_peak.compare_exchange_weak(peak, now)) {
    }
}

} // namespace

extern "C" void *malloc(size_t size) {
    void *p = __libc_malloc(size);
    if (p != nullptr) {
        count(static_cast<long long>(malloc_usable_size(p)));
    }
    return p;
}
extern "C" void *calloc(size_t n, size_t size) {
    void *p = __libc_calloc(n, size);
    if (p != nullptr) {
        count(static_cast<long long>(malloc_usable_size(p)));
    }
    return p;
}
extern "C" void *realloc(void *old, size_t size) {
    const long long before = old != nullptr ? static_cast<long long>(malloc_usable_size(old)) : 0;
    void *p = __libc_realloc(old, size);
    if (p != nullptr) {
        count(static_cast<long long>(malloc_usable_size(p)) - before);
    } else if (size == 0) {
        count(-before);
    }
    return p;
}
extern "C" void free(void *p) {
    if (p != nullptr) {
        count(-static_cast<long long>(malloc_usable_size(p)));
    }
    __libc_free(p);
}

namespace {

constexpr size_t IMAGE_SIZE = 0x4000000; // 64 MiB: the BMC staging slot's limit

// A run root with the staging file, made once for the whole program.
struct Fixture {
    std::string root;
    std::string staging;

    Fixture() {
        char templ[] = "/tmp/karst-bench-XXXXXX";
        root = mkdtemp(templ);
        setenv("KARST_ROOT", root.c_str(), 1);
        karst_emu_setup(root.c_str());
        karst_emu_journal_input_limit(0);
        staging = root + "/nv1/bmc_staging.bin";
        const int fd = open(staging.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        std::string chunk(1 << 20, '\0');
        for (size_t i = 0; i < chunk.size(); ++i) {
            chunk[i] = static_cast<char>(i * 131 + 7);
        }
        for (size_t done = 0; done < IMAGE_SIZE; done += chunk.size()) {
            (void)!write(fd, chunk.data(), chunk.size());
        }
        close(fd);
    }
    ~Fixture() {
        std::error_code ec;
        std::filesystem::remove_all(root, ec);
    }
};

Fixture &fixture() {
    static Fixture f;
    return f;
}

// Standard output goes to /dev/null while a benchmark runs (the library logs each upload).
class QuietStdout {
  public:
    QuietStdout() {
        std::fflush(stdout);
        saved_ = dup(1);
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(null, 1);
        close(null);
    }
    ~QuietStdout() {
        std::fflush(stdout);
        dup2(saved_, 1);
        close(saved_);
    }

  private:
    int saved_;
};

uint64_t read_every_byte(const uint8_t *p, size_t n) {
    uint64_t sum = 0;
    for (size_t i = 0; i < n; i += 8) {
        uint64_t word;
        std::memcpy(&word, p + i, 8);
        sum += word;
    }
    return sum;
}

void BM_MapAndReadBaseline(benchmark::State &state) {
    const std::string &staging = fixture().staging;
    for (auto _ : state) {
        const int fd = open(staging.c_str(), O_RDONLY | O_CLOEXEC);
        void *p = mmap(nullptr, IMAGE_SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE, fd, 0);
        close(fd);
        benchmark::DoNotOptimize(read_every_byte(static_cast<const uint8_t *>(p), IMAGE_SIZE));
        munmap(p, IMAGE_SIZE);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * IMAGE_SIZE));
}

void BM_Upload64MiB(benchmark::State &state) {
    fixture();
    QuietStdout quiet;
    long long worst_peak = 0;
    struct mallinfo2 before = mallinfo2();
    for (auto _ : state) {
        const long long start = g_in_use.load();
        g_peak.store(start);
        const int rc = pta20_img_upload(IMG_ID(IMG_TYPE_BMC, IMG_IDX_STAGING), IMG_SRC_TABLE,
                                        nullptr, 0);
        if (rc != 0) {
            state.SkipWithError("upload failed");
            break;
        }
        worst_peak = std::max(worst_peak, g_peak.load() - start);
        state.PauseTiming();
        karst_emu_journal_clear();
        state.ResumeTiming();
    }
    struct mallinfo2 after = mallinfo2();
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * IMAGE_SIZE));
    state.counters["heap_peak_KiB"] = static_cast<double>(worst_peak) / 1024.0;
    state.counters["heap_net_KiB"] =
        (static_cast<double>(after.uordblks + after.hblkhd) -
         static_cast<double>(before.uordblks + before.hblkhd)) /
        1024.0;
}

} // namespace

BENCHMARK(BM_MapAndReadBaseline)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_Upload64MiB)->Unit(benchmark::kMillisecond)->MinTime(2.0);

BENCHMARK_MAIN();
