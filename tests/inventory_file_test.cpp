// The inventory file routines on files written by hand: what a scan counts as an entry, what a
// write rewrites and what it leaves alone, cuts of long keys and values, and the record locks.
#include "support/test_env.hpp"

#include <cstring>
#include <fcntl.h>
#include <regex>
#include <sys/wait.h>
#include <unistd.h>

using namespace karst::test;

namespace {

class InventoryFileTest : public KarstTest {
  protected:
    std::string file() const { return path("/tmp/inventory.txt"); }
    std::string contents() const { return read_file(file()); }
    void given(const std::string &text) const { write_file(file(), text); }

    int set(const char *key, const std::string &value) const {
        return write_config(file().c_str(), key, value.c_str(),
                            static_cast<uint32_t>(value.size() + 1));
    }
    // The value read back, or "<missing>".
    std::string get(const char *key, uint32_t size = 600) const {
        std::string out(size, '#');
        if (read_config(file().c_str(), key, out.data(), size) != 0) {
            return "<missing>";
        }
        return out.c_str();
    }
};

TEST_F(InventoryFileTest, ChangingAnEntryRewritesFromThatEntryOn) {
    given("=header\na=1\n=note\nb=2\n=note\nc=3\n");
    EXPECT_EQ(set("b", "2"), 0);
    EXPECT_EQ(contents(), "=header\na=1\n=note\nb=2\n=note\nc=3\n") << "same value: no write";

    EXPECT_EQ(set("b", "5"), 0);
    // Everything up to the last entry before the match stays; the rest is written back from
    // its entries, without the lines that are not entries.
    EXPECT_EQ(contents(), "=header\na=1\nb=5\nc=3\n");

    // Before the first entry the rewrite starts at the beginning of the file.
    EXPECT_EQ(set("a", "0"), 0);
    EXPECT_EQ(contents(), "a=0\nb=5\nc=3\n");

    given("k=1\nx=0\nk=2\n");
    EXPECT_EQ(set("k", "9"), 0);
    EXPECT_EQ(contents(), "k=9\nx=0\nk=9\n") << "every line of the key";
}

TEST_F(InventoryFileTest, NewKeysAreAppendedAfterTheLastEntry) {
    given("a=1\nb=2\nc=3\n");
    EXPECT_EQ(set("d", "4"), 0);
    EXPECT_EQ(contents(), "a=1\nb=2\nc=3\nd=4\n");

    // Lines after the last entry are overwritten as far as the new line reaches.
    given("a=1\n=trailing note\n");
    EXPECT_EQ(set("d", "4"), 0);
    EXPECT_EQ(contents(), "a=1\nd=4\niling note\n");

    // A last entry without its line end gets one before the new entry.
    given("a=1\nb=2");
    EXPECT_EQ(set("c", "3"), 0);
    EXPECT_EQ(contents(), "a=1\nb=2\nc=3\n");
    EXPECT_EQ(get("b"), "2");
    EXPECT_EQ(get("c"), "3");
    // A last line without "=" keeps its key: the line end must not become part of it.
    given("a=1\nplain");
    EXPECT_EQ(set("c", "3"), 0);
    EXPECT_EQ(contents(), "a=1\nplain=\nc=3\n");
    EXPECT_EQ(get("plain"), "");

    // A file without entries is written from its start.
    given("");
    EXPECT_EQ(set("x", "y"), 0);
    EXPECT_EQ(contents(), "x=y\n");
}

TEST_F(InventoryFileTest, ReadFindsTheFirstEntryAndBoundsTheCopy) {
    given("=a=0\n'a=0\nab=1\na=first\na=second\nempty=\nquote'd=x\nnoequals\n");
    EXPECT_EQ(get("a"), "first");
    EXPECT_EQ(get("empty"), "");
    EXPECT_EQ(get("quote"), "") << "an apostrophe ends the key and leaves no value";
    EXPECT_EQ(get("noequals\n"), "") << "a line without = is a key with its line end";
    EXPECT_EQ(get("noequals"), "<missing>");
    EXPECT_EQ(get("=a"), "<missing>");

    EXPECT_EQ(get("a", 4), "fir");
    char untouched[4] = {'#', '#', '#', '#'};
    EXPECT_EQ(read_config(file().c_str(), "a", untouched, 0), 0);
    EXPECT_EQ(read_config(file().c_str(), "zz", untouched, sizeof untouched), -1);
    EXPECT_EQ(std::string(untouched, 4), "####");
}

TEST_F(InventoryFileTest, EmptyValuesAndKeysWithoutValues) {
    given("b=\n=note\nc=3\n");
    EXPECT_EQ(set("b", ""), 0);
    EXPECT_EQ(contents(), "b=\nc=3\n") << "a match without a value always counts as a change";

    EXPECT_EQ(write_config(file().c_str(), "c", nullptr, 5), 0);
    EXPECT_EQ(contents(), "b=\nc=\n");
    EXPECT_EQ(write_config(file().c_str(), "b", "zz", 0), 0);
    EXPECT_EQ(contents(), "b=\nc=\n") << "size 0 stands for the empty value";

    given("a=1\nplain\nq'x\n");
    EXPECT_EQ(set("a", "2"), 0);
    EXPECT_EQ(contents(), "a=2\nplain\n=\nq=\n");
    EXPECT_EQ(get("plain\n"), "");
}

TEST_F(InventoryFileTest, LongValuesAreWrittenWholeButReadAndRewrittenCut) {
    given("a=1\n");
    const std::string v600(600, 'v');
    EXPECT_EQ(set("long", v600), 0);
    EXPECT_EQ(contents(), "a=1\nlong=" + v600 + "\n");
    EXPECT_EQ(get("long", 700), std::string(511, 'v'));

    // Replacing cuts the new value to the field, with xstrcpy's warning.
    std::string out = capture_stdout([&] { EXPECT_EQ(set("a", v600), 0); });
    EXPECT_EQ(out, "[xstrcpy] the length is too small.\n[xstrcpy] src string is " + v600 + "\n");
    EXPECT_EQ(contents(), "a=" + std::string(511, 'v') + "\nlong=" + std::string(511, 'v') + "\n");

    // The value is never taken past its size: 4 bytes without a zero among them are cut to 3.
    out = capture_stdout([&] { EXPECT_EQ(write_config(file().c_str(), "a", "abcdef", 4), 0); });
    EXPECT_EQ(out, "[xstrcpy] the length is too small.\n[xstrcpy] src string is abcd\n");
    EXPECT_EQ(get("a"), "abc");
}

TEST_F(InventoryFileTest, KeysThatNoLineCanHoldAreNeitherReadNorWritten) {
    const std::string key63(63, 'k');
    const std::string key64(64, 'k');
    given(key64 + "=long key line\n" + key63 + "=fits\n");
    EXPECT_EQ(get(key63.c_str()), "fits");
    EXPECT_EQ(get(key64.c_str()), "<missing>");

    const std::string before = contents();
    EXPECT_EQ(set(key64.c_str(), "v"), -1);
    EXPECT_EQ(set("a=b", "v"), -1);
    EXPECT_EQ(set("a'b", "v"), -1);
    EXPECT_EQ(set("a\nb", "v"), -1);
    EXPECT_EQ(set("", "v"), 0) << "the empty key: nothing to do";
    EXPECT_EQ(write_config(file().c_str(), nullptr, "v", 2), -1);
    EXPECT_EQ(contents(), before);

    // A line whose key is too long is not an entry: kept before the rewrite, dropped inside it.
    EXPECT_EQ(set(key63.c_str(), "new"), 0);
    EXPECT_EQ(contents(), key63 + "=new\n");
}

TEST_F(InventoryFileTest, TheFirstWriteOnlyCreatesTheFile) {
    EXPECT_EQ(set("a", "1"), -1);
    EXPECT_EQ(contents(), "");
    EXPECT_EQ(get("a"), "<missing>");
    EXPECT_EQ(set("a", "1"), 0);
    EXPECT_EQ(contents(), "a=1\n");
}

TEST_F(InventoryFileTest, OpenFailuresAreReported) {
    const std::string missing = path("/tmp/none.txt");
    char out[8];
    std::string text =
        capture_stdout([&] { EXPECT_EQ(read_config(missing.c_str(), "a", out, 8), -1); });
    EXPECT_EQ(text, "[read_config] open " + missing + " fail \n");

    const std::string no_dir = path("/tmp/no/such/dir.txt");
    text = capture_stdout([&] { EXPECT_EQ(write_config(no_dir.c_str(), "a", "1", 2), -1); });
    EXPECT_EQ(text, "[write_config] open fail \n");
}

// A process holding the write lock keeps readers and writers waiting until it lets go.
TEST_F(InventoryFileTest, ReadersAndWritersWaitForTheLockHolder) {
    given("a=old\n");
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    std::fflush(nullptr);
    const pid_t holder = fork();
    if (holder == 0) {
        const int fd = open(file().c_str(), O_RDWR);
        struct flock lock {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        if (fd < 0 || fcntl(fd, F_SETLKW, &lock) != 0) {
            _exit(1);
        }
        (void)!write(ready[1], "x", 1);
        usleep(200 * 1000); // the parent is waiting for the lock by now
        (void)!pwrite(fd, "a=new\n", 6, 0);
        _exit(0); // the lock goes with the process
    }
    close(ready[1]);
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    close(ready[0]);
    EXPECT_EQ(get("a"), "new");
    int status = 0;
    ASSERT_EQ(waitpid(holder, &status, 0), holder);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

} // namespace
