#include "util/file_io.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "util/file_test_support.hpp"

namespace terrane::base::io {
namespace {

namespace fs = std::filesystem;

class FileIoTest : public common::util::test::TemporaryDirectoryTest {
  protected:
    // Names in the directory, to show that no temporary file was left behind.
    std::vector<std::string> entries() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(directory_)) {
            names.push_back(entry.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
};

TEST_F(FileIoTest, ReadsWholeRegularFilesAndNamesWhatElseItFound) {
    const std::string contents = patternedBytes(200 * 1024 + 3);
    EXPECT_EQ(readFile(put(directory_ / "data", contents)), contents);
    // A FIFO is refused without waiting for a writer.
    ASSERT_EQ(::mkfifo((directory_ / "fifo").c_str(), 0600), 0);
    const std::vector<std::pair<fs::path, std::string>> failures{
        {directory_ / "missing", "No such file or directory"},
        {directory_, "Is a directory"},
        {directory_ / "fifo", "Not a regular file"},
    };
    for (const auto& [path, message] : failures) {
        EXPECT_EQ(readFile(path), common::unexpected(message)) << path;
    }
}

TEST_F(FileIoTest, WritesOrReplacesWholeWithTheUsualPermissionsAndNoTemporaryLeft) {
    // As long as a name can be: the temporary's name is cut to fit.
    const std::string name(255, 'n');
    const fs::path target = directory_ / name;
    const mode_t previous = ::umask(022);
    const std::string contents = patternedBytes(100000);
    const auto written = writeFileAtomically(target, contents);
    ::umask(previous);
    ASSERT_TRUE(written.has_value()) << written.error();
    EXPECT_EQ(readFile(target), contents);
    struct stat status {};
    ASSERT_EQ(::stat(target.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0644u);
    ASSERT_TRUE(writeFileAtomically(target, "").has_value());
    EXPECT_EQ(readFile(target), "");
    EXPECT_EQ(entries(), std::vector<std::string>{name});
}

// Within one sector, a record of the same length is written over in place; anything else is
// replaced whole, and a link is replaced rather than followed.
TEST_F(FileIoTest, RewritesASameLengthRecordInPlaceAndReplacesAnythingElse) {
    put(directory_ / "linked", "0123");
    fs::create_symlink(directory_ / "linked", directory_ / "link");
    const std::string sector(512, 's');
    struct Row {
        std::string name;
        common::optional<std::string> old;
        std::string contents;
        bool inPlace;
    };
    const std::vector<Row> rows{
        {"same", "0123", "4567", true},
        {"shorter", "012345", "4567", false},
        {"longer", "01", "4567", false},
        {"absent", common::nullopt, "4567", false},
        {"sector", sector, std::string(512, 't'), true},
        {"beyond", sector + "s", std::string(513, 't'), false},
        {"link", common::nullopt, "4567", false},
    };
    for (const auto& row : rows) {
        const fs::path path = directory_ / row.name;
        if (row.old) {
            put(path, *row.old);
        }
        struct stat before {};
        const bool existed = ::lstat(path.c_str(), &before) == 0;
        ASSERT_TRUE(rewriteFile(path, row.contents).has_value()) << row.name;
        EXPECT_EQ(readFile(path), row.contents) << row.name;
        struct stat after {};
        ASSERT_EQ(::lstat(path.c_str(), &after), 0);
        EXPECT_EQ(existed && before.st_ino == after.st_ino, row.inPlace) << row.name;
    }
    EXPECT_EQ(readFile(directory_ / "linked"), "0123");
}

// Over a directory the rename fails, after the temporary was written: it goes too.
TEST_F(FileIoTest, AFailedWriteLeavesEverythingAsItWas) {
    fs::create_directory(directory_ / "maps");
    put(directory_ / "maps" / "1", "pack");
    const std::vector<std::pair<fs::path, std::string>> rows{
        {directory_ / "absent" / "metadata.json", "No such file or directory"},
        {directory_ / "maps", "Is a directory"},
    };
    for (const auto& [target, message] : rows) {
        EXPECT_EQ(writeFileAtomically(target, "{}"), common::unexpected(message)) << target;
    }
    EXPECT_EQ(readFile(directory_ / "maps" / "1"), "pack");
    EXPECT_EQ(entries(), std::vector<std::string>{"maps"});
}

TEST_F(FileIoTest, RemovesOnlyTheInterruptedWritesOfTheDirectoryItself) {
    const std::vector<std::pair<std::string, bool>> rows{
        {".1.json.tmp-AZaz09", true}, {".x.tmp-abcdef", true},  {"..tmp-abcdef", false},
        {"x.json.tmp-abcdef", false}, {".x.tmp_abcdef", false}, {".x.tmp-abcd@f", false},
        {".x.tmp-abcd[f", false},     {".x.tmp-abcd`f", false}, {".x.tmp-abcd{f", false},
        {".x.tmp-abcd:f", false},
    };
    std::vector<std::string> kept{".d.tmp-abcdef", ".l.tmp-abcdef"};
    fs::create_directory(directory_ / kept[0]);
    put(directory_ / kept[0] / ".x.tmp-abcdef", "");
    fs::create_symlink("x.json.tmp-abcdef", directory_ / kept[1]);
    for (const auto& [name, removed] : rows) {
        put(directory_ / name, "");
        if (!removed) {
            kept.push_back(name);
        }
    }
    removeInterruptedWrites(directory_);
    std::sort(kept.begin(), kept.end());
    EXPECT_EQ(entries(), kept);
    EXPECT_TRUE(fs::exists(directory_ / ".d.tmp-abcdef" / ".x.tmp-abcdef"));
}

}  // namespace
}  // namespace terrane::base::io
