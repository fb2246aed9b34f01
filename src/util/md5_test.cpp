#include "terrane/util/md5.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "util/digest_cache.hpp"
#include "util/file_descriptor.hpp"
#include "util/file_io.hpp"
#include "util/file_test_support.hpp"

namespace terrane::common::util {
namespace {

namespace fs = std::filesystem;

void recordDigest(const fs::path& path, const std::string& digest) {
    const base::io::FileDescriptor file{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    ASSERT_TRUE(DigestCache::instance().record(file.get(), digest)) << path;
}

using Md5FileTest = test::TemporaryDirectoryTest;

TEST(Md5String, MatchesTheReferenceDigestsInLowerCaseHex) {
    const std::vector<std::pair<std::string, std::string>> rows{
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {std::string("a\0b", 3), "70350f6027bce3713f6b76473084309b"},
        {std::string(80, '7'), "f57cdd6b6e803f7b1b4208daa2f9e64b"},
    };
    for (const auto& [input, digest] : rows) {
        EXPECT_EQ(md5String(input), digest) << input;
    }
}

TEST_F(Md5FileTest, DigestEqualsTheDigestOfTheContents) {
    // Sizes around the boundaries of the 1 MiB read buffer.
    for (const std::size_t size : {0, 1, 1 << 20, (1 << 20) + 1, 3 * (1 << 20) - 7}) {
        const std::string contents = patternedBytes(size);
        EXPECT_EQ(md5File(put(directory_ / "file", contents)), md5String(contents)) << size;
    }
}

TEST_F(Md5FileTest, FailuresNameTheStepThePathAndTheReason) {
    ASSERT_EQ(::mkfifo((directory_ / "pipe").c_str(), 0600), 0);
    const std::vector<std::pair<fs::path, std::string>> rows{
        {directory_ / "absent", "open \"%\": No such file or directory"},
        {directory_, "read \"%\": Is a directory"},
        // Refused instead of waiting for a writer.
        {directory_ / "pipe", "read \"%\": Not a regular file"},
    };
    for (auto [path, error] : rows) {
        error.replace(error.find('%'), 1, path.string());
        EXPECT_EQ(md5File(path), unexpected(error));
    }
}

// A digest recorded for a file answers for it, after the library renamed it into place, only while
// the file is the one recorded: the answer shows which it was, since the recorded digest is not the
// file's.
TEST_F(Md5FileTest, AnswersFromTheDigestCacheOnlyForTheFileAsRecorded) {
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
                 const base::io::FileDescriptor out{::open(file.c_str(), O_WRONLY | O_CLOEXEC)};
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
        const auto expected = row.recorded ? recorded : md5String(*base::io::readFile(file));
        EXPECT_EQ(md5File(file), expected) << row.change;
    }
}

TEST_F(Md5FileTest, DigestCacheKeepsTheNewestEntries) {
    std::vector<fs::path> files;
    for (std::size_t index = 0; index <= DigestCache::kCapacity; ++index) {
        files.push_back(put(directory_ / std::to_string(index), std::to_string(index)));
        recordDigest(files.back(), "recorded");
    }
    EXPECT_EQ(md5File(files.front()), md5String("0"));
    EXPECT_EQ(md5File(files.back()), "recorded");
}

}  // namespace
}  // namespace terrane::common::util
