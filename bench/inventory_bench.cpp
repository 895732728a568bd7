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
        dir_ = made != nullptr ? made : mkdtemp(tmp);
        path_ = dir_ + "/inventory.txt";
        std::FILE *f = std::fopen(path_.c_str(), "w");
        for (int i = 0; i < ENTRIES; ++i) {
            std::fprintf(f, "FW_COMPONENT_%04d_VERSION=%d.%02d.%04d\n", i, i % 7, i % 100, i);
        }
        std::fclose(f);
    }
    ~InventoryFile() {
        unlink(path_.c_str());
        rmdir(dir_.c_str());
    }
    const char *path() const { return path_.c_str(); }

  private:
    std::string dir_;
    std::string path_;
};

void BM_ReadFileLineByLine(benchmark::State &state) {
    InventoryFile file;
    char *line = nullptr;
    size_t capacity = 0;
    for (auto _ : state) {
        std::FILE *f = std::fopen(file.path(), "r");
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
