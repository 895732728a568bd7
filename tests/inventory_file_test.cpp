// SPDX-License-Identifier: Apache-2.0
// The inventory file routines (write_config, read_config) on files written by hand: what a write
// rewrites and what it leaves alone, what a read counts as an entry, cuts of long keys and
// values, and the record locks that readers and writers wait for.
#include "support/call_text.hpp"

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace karst::test;

namespace {
// NOLINTBEGIN(readability-magic-numbers): the tests spell out the sizes and values they check.

class InventoryFileTest : public KarstTest {
  protected:
    std::string file() const { return path("/tmp/inventory.txt"); }

    // The value read back; "<missing>" when the read fails and leaves the buffer alone.
    std::string get(const std::string &key, uint32_t size = 600) const {
        std::string out(size + 4, '#');
        if (read_config(file().c_str(), key.c_str(), out.data(), size) == 0) {
            return out.substr(0, out.find('\0'));
        }
        return out == std::string(size + 4, '#') ? "<missing>" : "<missing, buffer written>";
    }
};

TEST_F(InventoryFileTest, WritesRewriteFromTheFirstChangedEntryOn) {
    const std::string v600(600, 'v'), v511(511, 'v'), k63(63, 'k'), k64(64, 'k');
    const std::string warning = "[xstrcpy] the length is too small.\n[xstrcpy] src string is ";
    struct Write {
        std::string given, key; // the file before ("-": as the row before left it; "!": none)
        const char *value;
        int size, rc; // size -1: the value with its terminating zero
        std::string after, printed{};
    };
    const std::vector<Write> writes = {
        {"=h\na=1\n=n\nb=2\n=n\nc=3\n", "b", "2", -1, 0, "=h\na=1\n=n\nb=2\n=n\nc=3\n"}, // same
        // Up to the last entry before the match all stays; the rest is written back from its
        // entries, without the lines that are not entries.
        {"-", "b", "5", -1, 0, "=h\na=1\nb=5\nc=3\n"},
        {"-", "a", "0", -1, 0, "a=0\nb=5\nc=3\n"},
        {"k=1\nx=0\nk=2\n", "k", "9", -1, 0, "k=9\nx=0\nk=9\n"}, // every line of the key
        // New keys come after the last entry, over what follows it as far as they reach.
        {"a=1\n=trailing note\n", "d", "4", -1, 0, "a=1\nd=4\niling note\n"},
        {"a=1\nb=2", "c", "3", -1, 0, "a=1\nb=2\nc=3\n"},
        {"a=1\nplain", "c", "3", -1, 0, "a=1\nplain=\nc=3\n"}, // the key keeps no line end
        {"", "x", "y", -1, 0, "x=y\n"},
        {"!", "a", "1", -1, -1, ""}, // the first write only creates the file
        {"-", "a", "1", -1, 0, "a=1\n"},
        // A match without a value always counts as a change; size 0 is the empty value.
        {"b=\n=note\nc=3\n", "b", "", -1, 0, "b=\nc=3\n"},
        {"-", "c", nullptr, 5, 0, "b=\nc=\n"},
        {"-", "b", "zz", 0, 0, "b=\nc=\n"},
        {"a=1\nplain\nq'x\n", "a", "2", -1, 0, "a=2\nplain\n=\nq=\n"},
        // Long values are written whole, but rewritten cut to the field, with xstrcpy's warning;
        // a value is never taken past its size.
        {"a=1\n", "long", v600.c_str(), -1, 0, "a=1\nlong=" + v600 + "\n"},
        {"-", "a", v600.c_str(), -1, 0, "a=" + v511 + "\nlong=" + v511 + "\n",
         warning + v600 + "\n"},
        {"-", "a", "abcdef", 4, 0, "a=abc\nlong=" + v511 + "\n", warning + "abcd\n"},
        // Keys that no line can hold; a too long key's line is no entry, dropped in a rewrite.
        {k64 + "=x\n" + k63 + "=y\n", k64, "v", -1, -1, k64 + "=x\n" + k63 + "=y\n"},
        {"-", "a=b", "v", -1, -1, k64 + "=x\n" + k63 + "=y\n"},
        {"-", "a'b", "v", -1, -1, k64 + "=x\n" + k63 + "=y\n"},
        {"-", "a\nb", "v", -1, -1, k64 + "=x\n" + k63 + "=y\n"},
        {"-", "", "v", -1, 0, k64 + "=x\n" + k63 + "=y\n"}, // the empty key: nothing to do
        {"-", k63, "new", -1, 0, k63 + "=new\n"},
    };
    for (const Write &w : writes) {
        if (w.given == "!") {
            std::remove(file().c_str());
        } else if (w.given != "-") {
            write_file(file(), w.given);
        }
        const auto size = static_cast<uint32_t>(w.size >= 0 ? w.size : std::strlen(w.value) + 1);
        EXPECT_EQ(capture_stdout([&] {
                      EXPECT_EQ(write_config(file().c_str(), w.key.c_str(), w.value, size), w.rc)
                          << w.key.substr(0, 8);
                  }),
                  w.printed);
        EXPECT_EQ(read_file(file()), w.after) << "after writing " << w.key.substr(0, 8);
    }
    EXPECT_EQ(write_config(file().c_str(), nullptr, "v", 2), -1);
}

TEST_F(InventoryFileTest, ReadsFindTheFirstEntryAndBoundTheCopy) {
    write_file(file(), "=a=0\n'a=0\nab=1\na=first\na=second\nempty=\nquote'd=x\nnoequals\nlong=" +
                           std::string(600, 'v') + "\n" + std::string(64, 'k') + "=x\n" +
                           std::string(63, 'k') + "=y\n");
    const std::vector<std::tuple<std::string, uint32_t, std::string>> reads = {
        {"a", 600, "first"},
        {"a", 4, "fir"},
        {"a", 0, "####"},
        {"empty", 600, ""},
        {"quote", 600, ""},      // an apostrophe ends the key and leaves no value
        {"noequals\n", 600, ""}, // a line without "=" is a key with its line end
        {"noequals", 600, "<missing>"},
        {"=a", 600, "<missing>"},
        {"zz", 4, "<missing>"},
        {"long", 700, std::string(511, 'v')},
        {std::string(64, 'k'), 600, "<missing>"},
        {std::string(63, 'k'), 600, "y"},
    };
    for (const auto &[key, size, value] : reads) {
        EXPECT_EQ(get(key, size), value) << key.substr(0, 8) << " " << size;
    }
    const std::string missing = path("/tmp/none.txt"), no_dir = path("/tmp/no/such/dir.txt");
    char out[8];
    EXPECT_EQ(run([&] {
                  return sum({read_config(missing.c_str(), "a", out, 8),
                              write_config(no_dir.c_str(), "a", "1", 2)});
              }),
              "-2 [read_config] open " + missing + " fail \n[write_config] open fail \n");
}

// Waits (20 s at most) until /proc/locks shows a record lock on the file being waited for.
void await_waiter(const std::string &path) {
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0);
    const std::regex waiting("-> POSIX .*:" + std::to_string(st.st_ino) + " ");
    for (int i = 0; i < 2000 && !std::regex_search(read_file("/proc/locks"), waiting); ++i) {
        usleep(10 * 1000);
    }
}

class InventoryFileThreadTest : public InventoryFileTest {};

// This thread holds an open file description lock, which conflicts with the record locks of the
// routines even in one process, and changes the file once another thread is seen waiting for the
// lock: a read waits for a write lock, a write for any lock. So no reader sees a half-written
// file and no writer loses another's entry.
TEST_F(InventoryFileThreadTest, ReadsAndWritesWaitForTheLockHolder) {
    for (const int held : {F_WRLCK, F_RDLCK}) {
        write_file(file(), "a=old\n");
        const int fd = open(file().c_str(), O_RDWR);
        struct flock lock {};
        lock.l_type = static_cast<short>(held);
        ASSERT_EQ(fcntl(fd, F_OFD_SETLK, &lock), 0);
        std::string got;
        std::thread waiter([&] {
            got = held == F_WRLCK ? get("z")
                                  : std::to_string(write_config(file().c_str(), "b", "1", 2));
        });
        await_waiter(file());
        (void)!pwrite(fd, "a=new\nz=9\n", 10, 0);
        close(fd);
        waiter.join();
        EXPECT_EQ(got + " " + read_file(file()),
                  held == F_WRLCK ? "9 a=new\nz=9\n" : "0 a=new\nz=9\nb=1\n");
    }
}

// NOLINTEND(readability-magic-numbers)
} // namespace
