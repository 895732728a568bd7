// Eight processes write and read the inventory file at once, each its own keys and a few keys
// they share. No reader may ever see a half-written file, and afterwards the file holds every
// key once, with its last value.
#include "support/test_env.hpp"

#include <cstring>
#include <fcntl.h>
#include <map>
#include <regex>
#include <sys/wait.h>
#include <unistd.h>

using namespace karst::test;

namespace {

constexpr int PROCESSES = 8;
constexpr int ROUNDS = 300;
constexpr int OWN_KEYS = 6;
constexpr int SHARED_KEYS = 4;

std::string own_key(int process, int k) {
    return "p" + std::to_string(process) + "_key" + std::to_string(k);
}
std::string shared_key(int k) {
    return "shared" + std::to_string(k);
}

// Reads the whole file under a read lock, as a reader of the lines would see it.
std::string locked_read(const std::string &file) {
    const int fd = open(file.c_str(), O_RDONLY);
    if (fd < 0) {
        return "<open failed>";
    }
    struct flock lock {};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    std::string text;
    if (fcntl(fd, F_SETLKW, &lock) == 0) {
        char chunk[4096];
        ssize_t n = 0;
        while ((n = read(fd, chunk, sizeof chunk)) > 0) {
            text.append(chunk, static_cast<size_t>(n));
        }
        lock.l_type = F_UNLCK;
        fcntl(fd, F_SETLK, &lock);
    }
    close(fd);
    return text;
}

// Parses a file of whole key=value lines with unique keys; false when it is not one.
bool parse_whole(const std::string &text, std::map<std::string, std::string> &entries) {
    static const std::regex line(R"(([a-z0-9_]+)=([a-z0-9]+))");
    entries.clear();
    size_t pos = 0;
    while (pos < text.size()) {
        const size_t eol = text.find('\n', pos);
        std::smatch m;
        const std::string one = text.substr(pos, eol == std::string::npos ? eol : eol - pos);
        if (eol == std::string::npos || !std::regex_match(one, m, line) ||
            !entries.emplace(m[1], m[2]).second) {
            return false;
        }
        pos = eol + 1;
    }
    return true;
}

// One writer and reader; returns 0, or the number of the check that failed.
int worker(const std::string &file, int me) {
    static const std::regex shared_value(R"(p[0-9]+r[0-9]+)");
    std::map<std::string, std::string> mine;
    for (int r = 0; r < ROUNDS; ++r) {
        const std::string key = own_key(me, r % OWN_KEYS);
        const std::string value = "v" + std::to_string(r);
        if (write_config(file.c_str(), key.c_str(), value.c_str(),
                         static_cast<uint32_t>(value.size() + 1)) != 0) {
            return 1;
        }
        mine[key] = value;
        const std::string shared = "p" + std::to_string(me) + "r" + std::to_string(r);
        if (write_config(file.c_str(), shared_key(r % SHARED_KEYS).c_str(), shared.c_str(),
                         static_cast<uint32_t>(shared.size() + 1)) != 0) {
            return 2;
        }
        for (const auto &[k, v] : mine) {
            char out[32] = {};
            if (read_config(file.c_str(), k.c_str(), out, sizeof out) != 0 || v != out) {
                return 3;
            }
        }
        char out[32] = {};
        if (read_config(file.c_str(), shared_key(r % SHARED_KEYS).c_str(), out, sizeof out) != 0 ||
            !std::regex_match(out, shared_value)) {
            return 4;
        }
        if (r % 10 == 0) {
            std::map<std::string, std::string> seen;
            if (!parse_whole(locked_read(file), seen)) {
                return 5;
            }
            for (const auto &[k, v] : mine) {
                if (seen[k] != v) {
                    return 6;
                }
            }
        }
    }
    return 0;
}

class InventoryStressTest : public KarstTest {};

TEST_F(InventoryStressTest, ConcurrentWritersLoseNothing) {
    const std::string file = path("/tmp/inventory.txt");
    ASSERT_EQ(write_config(file.c_str(), "seed", "x", 2), -1); // creates the file
    ASSERT_EQ(write_config(file.c_str(), "seed", "x", 2), 0);

    std::fflush(nullptr);
    pid_t pids[PROCESSES];
    for (int i = 0; i < PROCESSES; ++i) {
        pids[i] = fork();
        ASSERT_GE(pids[i], 0);
        if (pids[i] == 0) {
            _exit(worker(file, i));
        }
    }
    for (int i = 0; i < PROCESSES; ++i) {
        int status = 0;
        ASSERT_EQ(waitpid(pids[i], &status, 0), pids[i]);
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 0)
            << "worker " << i << " failed check " << WEXITSTATUS(status);
    }

    std::map<std::string, std::string> final;
    const std::string text = read_file(file);
    ASSERT_TRUE(parse_whole(text, final)) << text;
    EXPECT_EQ(final.size(), 1u + PROCESSES * OWN_KEYS + SHARED_KEYS);
    EXPECT_EQ(final["seed"], "x");
    for (int i = 0; i < PROCESSES; ++i) {
        for (int k = 0; k < OWN_KEYS; ++k) {
            const int last = (ROUNDS - 1) - ((ROUNDS - 1 - k) % OWN_KEYS);
            EXPECT_EQ(final[own_key(i, k)], "v" + std::to_string(last));
        }
    }
    for (int k = 0; k < SHARED_KEYS; ++k) {
        const int last = (ROUNDS - 1) - ((ROUNDS - 1 - k) % SHARED_KEYS);
        EXPECT_TRUE(
            std::regex_match(final[shared_key(k)], std::regex("p[0-7]r" + std::to_string(last))))
            << shared_key(k) << "=" << final[shared_key(k)];
    }
}

} // namespace
