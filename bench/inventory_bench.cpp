// SPDX-License-Identifier: Apache-2.0
// The inventory file: write_config changing the first entry of a 1,000-entry file (the whole
// file is rewritten) against one read of that file line by line, and read_config of the last
// entry.
#include <karst.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace {

constexpr int ENTRIES = 1000;

// A 1,000-entry file in a fresh directory (memory-backed where the system has one).
class InventoryFile {
  public:
    InventoryFile() {
        char shm[] = "/dev/shm/karst-bench-XXXXXX";
        char tmp[] = "/tmp/karst-bench-XXXXXX";
        const char *made = mkdtemp(shm);
        made = made != nullptr ? made : mkdtemp(tmp);
        if (made == nullptr) {
            return;
        }
        dir_ = made;
        path_ = dir_ + "/inventory.txt";
        std::FILE *f = std::fopen(path_.c_str(), "w");
        written_ = f != nullptr;
        for (int i = 0; written_ && i < ENTRIES; ++i) {
            written_ = std::fprintf(f, "FW_COMPONENT_%04d_VERSION=%d.%02d.%04d\n", i, i % 7,
                                    i % 100, i) > 0;
        }
        written_ = f != nullptr && std::fclose(f) == 0 && written_;
    }
    ~InventoryFile() {
        if (!dir_.empty()) {
            unlink(path_.c_str());
            rmdir(dir_.c_str());
        }
    }
    const char *path() const { return path_.c_str(); }
    // Whether the file was written whole; a benchmark skips itself otherwise.
    bool written(benchmark::State &state) const {
        if (!written_) {
            state.SkipWithError("cannot write the inventory file");
        }
        return written_;
    }

  private:
    std::string dir_;
    std::string path_;
    bool written_ = false;
};

void BM_ReadFileLineByLine(benchmark::State &state) {
    InventoryFile file;
    if (!file.written(state)) {
        return;
    }
    char *line = nullptr;
    size_t capacity = 0;
    for (auto _ : state) {
        std::FILE *f = std::fopen(file.path(), "r");
        if (f == nullptr) {
            state.SkipWithError("cannot open the inventory file");
            break;
        }
        size_t lines = 0;
        while (getline(&line, &capacity, f) > 0) {
            ++lines;
        }
        std::fclose(f);
        benchmark::DoNotOptimize(lines);
    }
    std::free(line);
}
BENCHMARK(BM_ReadFileLineByLine);

void BM_WriteConfigFirstEntry(benchmark::State &state) {
    InventoryFile file;
    if (!file.written(state)) {
        return;
    }
    const char *values[2] = {"9.99.9999", "0.00.0000"};
    int turn = 0;
    for (auto _ : state) {
        const char *value = values[turn ^= 1];
        if (write_config(file.path(), "FW_COMPONENT_0000_VERSION", value, 10) != 0) {
            state.SkipWithError("write_config failed");
            break;
        }
    }
}
BENCHMARK(BM_WriteConfigFirstEntry);

void BM_ReadConfigLastEntry(benchmark::State &state) {
    InventoryFile file;
    if (!file.written(state)) {
        return;
    }
    char value[64];
    for (auto _ : state) {
        if (read_config(file.path(), "FW_COMPONENT_0999_VERSION", value, sizeof value) != 0) {
            state.SkipWithError("read_config failed");
            break;
        }
    }
}
BENCHMARK(BM_ReadConfigLastEntry);

} // namespace

BENCHMARK_MAIN();
