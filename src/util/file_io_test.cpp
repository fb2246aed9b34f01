#include "util/file_io.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "terrane/util/md5.hpp"
#include "util/digest_cache.hpp"
#include "util/file_descriptor.hpp"

namespace terrane::base::io {
namespace {

namespace fs = std::filesystem;
using common::unexpected;
using common::util::DigestCache;
using common::util::md5File;
using common::util::md5String;

// A fresh directory per test below the system's temporary directory, removed with its contents.
class FileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "terrane-XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        directory_ = pattern;
    }
    void TearDown() override {
        std::error_code ignored;
        fs::remove_all(directory_, ignored);
    }

    static fs::path put(const fs::path& path, const std::string& contents) {
        std::ofstream(path, std::ios::binary) << contents;
        return path;
    }

    // Bytes that repeat only after a long stretch, so that misplaced blocks show.
    static std::string patternedBytes(std::size_t size) {
        std::string bytes(size, '\0');
        for (std::size_t i = 0; i < size; ++i) {
            bytes[i] = static_cast<char>(i * 7 + i / 251);
        }
        return bytes;
    }

    static void recordDigest(const fs::path& path, const std::string& digest) {
        const FileDescriptor file{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
        ASSERT_TRUE(DigestCache::instance().record(file.get(), digest)) << path;
    }

    // Names in the directory, to show that no temporary file was left behind.
    std::vector<std::string> entries() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(directory_)) {
            names.push_back(entry.path().filename().string());
        }
        std::ranges::sort(names);
        return names;
    }

    fs::path directory_;
};

// A FIFO is refused without waiting for a writer. md5File names the step and the path too.
TEST_F(FileTest, ReadsAndDigestsWholeRegularFilesAndNamesWhatElseItFound) {
    // The digest is libcrypto's; the length with its NUL and the lower-case hex are this code's.
    EXPECT_EQ(md5String(std::string("a\0b", 3)), "70350f6027bce3713f6b76473084309b");
    // Sizes around the boundaries of the 1 MiB read buffer.
    for (const std::size_t size : {0, 1, 1 << 20, (1 << 20) + 1, 3 * (1 << 20) - 7}) {
        const std::string contents = patternedBytes(size);
        put(directory_ / "file", contents);
        EXPECT_EQ(readFile(directory_ / "file"), contents) << size;
        EXPECT_EQ(md5File(directory_ / "file"), md5String(contents)) << size;
    }
    ASSERT_EQ(::mkfifo((directory_ / "fifo").c_str(), 0600), 0);
    const std::vector<std::pair<fs::path, std::string>> rows{
        {directory_ / "missing", "open: No such file or directory"},
        {directory_, "read: Is a directory"},
        {directory_ / "fifo", "read: Not a regular file"},
    };
    for (const auto& [path, error] : rows) {
        const auto colon = error.find(':');
        EXPECT_EQ(readFile(path), unexpected(error.substr(colon + 2))) << path;
        const std::string step = error.substr(0, colon) + " \"" + path.string() + "\"";
        EXPECT_EQ(md5File(path), unexpected(step + error.substr(colon))) << path;
    }
}

TEST_F(FileTest, WritesOrReplacesWholeWithTheUsualPermissionsAndNoTemporaryLeft) {
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
TEST_F(FileTest, RewritesASameLengthRecordInPlaceAndReplacesAnythingElse) {
    put(directory_ / "linked", "0123");
    fs::create_symlink(directory_ / "linked", directory_ / "link");
    const std::string sector(512, 's');
    // The file, what it held before, what is written and whether it is written over in place.
    const std::vector<std::tuple<std::string, common::optional<std::string>, std::string, bool>>
        rows{
            {"same", "0123", "4567", true},
            {"shorter", "012345", "4567", false},
            {"absent", common::nullopt, "4567", false},
            {"sector", sector, std::string(512, 't'), true},
            {"beyond", sector + "s", std::string(513, 't'), false},
            {"link", common::nullopt, "4567", false},
        };
    for (const auto& [name, old, contents, inPlace] : rows) {
        const fs::path path = directory_ / name;
        if (old) {
            put(path, *old);
        }
        struct stat before {};
        const bool existed = ::lstat(path.c_str(), &before) == 0;
        ASSERT_TRUE(rewriteFile(path, contents).has_value()) << name;
        EXPECT_EQ(readFile(path), contents) << name;
        struct stat after {};
        ASSERT_EQ(::lstat(path.c_str(), &after), 0);
        EXPECT_EQ(existed && before.st_ino == after.st_ino, inPlace) << name;
    }
}

// Over a directory the rename fails, after the temporary was written: it goes too.
TEST_F(FileTest, AFailedWriteLeavesEverythingAsItWas) {
    fs::create_directory(directory_ / "maps");
    put(directory_ / "maps" / "1", "pack");
    const std::vector<std::pair<fs::path, std::string>> rows{
        {directory_ / "absent" / "metadata.json", "No such file or directory"},
        {directory_ / "maps", "Is a directory"},
    };
    for (const auto& [target, message] : rows) {
        EXPECT_EQ(writeFileAtomically(target, "{}"), unexpected(message)) << target;
    }
    EXPECT_EQ(readFile(directory_ / "maps" / "1"), "pack");
    EXPECT_EQ(entries(), std::vector<std::string>{"maps"});
}

TEST_F(FileTest, RemovesOnlyTheInterruptedWritesOfTheDirectoryItself) {
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
    std::ranges::sort(kept);
    EXPECT_EQ(entries(), kept);
    EXPECT_TRUE(fs::exists(directory_ / ".d.tmp-abcdef" / ".x.tmp-abcdef"));
}

// A digest recorded for a file answers for it, after the library renamed it into place, only while
// the file is the one recorded: the answer shows which it was, since the recorded digest is not the
// file's. The cache keeps only the newest entries.
TEST_F(FileTest, Md5FileAnswersFromTheDigestCacheOnlyForTheNewestFilesAsRecorded) {
    const std::string original = patternedBytes(100'000);
    const auto keepTimes = [](const fs::path& file, const std::function<void()>& change) {
        struct stat before {};
        ::stat(file.c_str(), &before);
        change();
        const timespec times[2] = {before.st_atim, before.st_mtim};
        EXPECT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
    };
    const struct {
        const char* change;
        std::function<void(const fs::path&)> apply;
        bool recorded;
    } rows[] = {
        {"none", [](const fs::path&) {}, true},
        {"one byte overwritten, times put back",
         [&](const fs::path& file) {
             keepTimes(file, [&] {
                 const FileDescriptor out{::open(file.c_str(), O_WRONLY | O_CLOEXEC)};
                 EXPECT_EQ(::pwrite(out.get(), "x", 1, 500), 1);
             });
         },
         false},
        {"truncated", [](const fs::path& file) { fs::resize_file(file, 50'000); }, false},
        {"replaced by a file of the same size and times",
         [&](const fs::path& file) {
             // Removed first, so that the new file may well get the same inode.
             keepTimes(file, [&] {
                 fs::remove(file);
                 put(file, std::string(original).replace(0, 1, "~"));
             });
         },
         false},
    };
    const fs::path part = directory_ / "part";
    const fs::path file = directory_ / "file";
    const std::string recorded = "digest recorded for the original";
    for (const auto& row : rows) {
        recordDigest(put(part, original), recorded);
        ASSERT_EQ(DigestCache::instance().rename(part, file), 0);
        row.apply(file);
        const auto expected = row.recorded ? recorded : md5String(*readFile(file));
        EXPECT_EQ(md5File(file), expected) << row.change;
    }

    std::vector<fs::path> files;
    for (std::size_t index = 0; index <= DigestCache::kCapacity; ++index) {
        files.push_back(put(directory_ / std::to_string(index), std::to_string(index)));
        recordDigest(files.back(), "recorded");
    }
    EXPECT_EQ(md5File(files.front()), md5String("0"));
    EXPECT_EQ(md5File(files.back()), "recorded");
}

}  // namespace
}  // namespace terrane::base::io
