#include "terrane/util/md5.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "util/digest_cache.hpp"
#include "util/file_descriptor.hpp"

namespace terrane::common::util {
namespace {

namespace fs = std::filesystem;

class TemporaryDirectory {
  public:
    TemporaryDirectory() {
        std::string pattern = (fs::temp_directory_path() / "terrane-md5-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            ADD_FAILURE() << "mkdtemp failed";
        }
        path_ = pattern;
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    ~TemporaryDirectory() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    const fs::path& path() const { return path_; }

  private:
    fs::path path_;
};

std::string patternedBytes(std::size_t size) {
    std::string bytes(size, '\0');
    std::uint32_t state = 12345;
    for (auto& byte : bytes) {
        state = state * 1103515245 + 12345;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

fs::path writeFile(const fs::path& path, const std::string& contents) {
    std::ofstream out(path, std::ios::binary);
    out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
    return path;
}

TEST(Md5String, MatchesTheReferenceDigestsInLowerCaseHex) {
    EXPECT_EQ(md5String(""), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(md5String("a"), "0cc175b9c0f1b6a831c399e269772661");
    EXPECT_EQ(md5String("abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(md5String("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
    EXPECT_EQ(md5String("12345678901234567890123456789012345678901234567890123456789012345678901234"
                        "567890"),
              "57edf4a22be3c955ac49da2e2107b67a");
}

TEST(Md5String, HashesEmbeddedZeroBytes) {
    const std::string withZeros("a\0b", 3);
    EXPECT_NE(md5String(withZeros), md5String("a"));
    EXPECT_EQ(md5String(std::string(1, '\0')), "93b885adfe0da089cdf634904fd59f71");
}

TEST(Md5File, DigestEqualsTheDigestOfTheContents) {
    TemporaryDirectory directory;
    // Sizes around the read buffer's boundaries and the historical 32 KiB block.
    for (const std::size_t size :
         {std::size_t{0}, std::size_t{1}, std::size_t{32768}, std::size_t{3 * 32768},
          std::size_t{1} << 20, (std::size_t{1} << 20) + 1, 3 * (std::size_t{1} << 20) - 7}) {
        const std::string contents = patternedBytes(size);
        const auto path = writeFile(directory.path() / ("file-" + std::to_string(size)), contents);
        const auto digest = md5File(path.string());
        ASSERT_TRUE(digest.has_value()) << size << ": " << digest.error();
        EXPECT_EQ(*digest, md5String(contents)) << "size " << size;
    }
}

FileIdentity identityOf(const fs::path& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return FileIdentity::of(status);
}

void recordDigest(const fs::path& path, const std::string& digest) {
    const base::io::FileDescriptor file{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    ASSERT_TRUE(DigestCache::instance().record(file.get(), digest)) << path;
}

void setTimes(const fs::path& path, const struct stat& times) {
    const timespec both[2] = {times.st_atim, times.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), both, 0), 0) << path;
}

// A digest recorded for a file answers for it only while the file is the one recorded: the answer
// shows which it was, since the recorded digest is not the file's.
TEST(Md5File, AnswersFromTheDigestCacheOnlyForTheFileAsRecorded) {
    enum class Answer { Recorded, Read, RecordedIfIdentityKept };
    struct Row {
        const char* change;
        std::function<fs::path(const fs::path&)> apply;  // returns where the file is now
        Answer expected;
    };
    const std::string original = patternedBytes(100'000);
    const auto unchanged = [](const fs::path& file) { return file; };
    const std::vector<Row> rows = {
        {"none", unchanged, Answer::Recorded},
        {"one byte overwritten, times put back",
         [](const fs::path& file) {
             struct stat before {};
             ::stat(file.c_str(), &before);
             const base::io::FileDescriptor out{::open(file.c_str(), O_WRONLY | O_CLOEXEC)};
             EXPECT_EQ(::pwrite(out.get(), "x", 1, 500), 1);
             setTimes(file, before);
             return file;
         },
         Answer::Read},
        {"appended to",
         [](const fs::path& file) {
             std::ofstream(file, std::ios::binary | std::ios::app) << 'x';
             return file;
         },
         Answer::Read},
        {"truncated",
         [](const fs::path& file) {
             fs::resize_file(file, 50'000);
             return file;
         },
         Answer::Read},
        {"replaced by a file of the same size and times",
         [&](const fs::path& file) {
             struct stat before {};
             ::stat(file.c_str(), &before);
             // Removed first, so that the new file may well get the same inode.
             fs::remove(file);
             std::string other = original;
             other[0] = static_cast<char>(~other[0]);
             setTimes(writeFile(file, other), before);
             return file;
         },
         Answer::Read},
        {"mode changed",
         [](const fs::path& file) {
             fs::permissions(file, fs::perms::owner_read, fs::perm_options::replace);
             return file;
         },
         Answer::Read},
        {"renamed through the digest cache, as the library renames what it verified",
         [](const fs::path& file) {
             const fs::path renamed = file.string() + ".renamed";
             EXPECT_EQ(DigestCache::instance().rename(file, renamed), 0);
             return renamed;
         },
         Answer::Recorded},
        {"renamed by another hand, which moves the change time",
         [](const fs::path& file) {
             const fs::path renamed = file.string() + ".renamed";
             fs::rename(file, renamed);
             return renamed;
         },
         Answer::RecordedIfIdentityKept},
        {"written to, then renamed through the digest cache",
         [](const fs::path& file) {
             std::ofstream(file, std::ios::binary | std::ios::in | std::ios::out) << 'x';
             const fs::path renamed = file.string() + ".renamed";
             EXPECT_EQ(DigestCache::instance().rename(file, renamed), 0);
             return renamed;
         },
         Answer::Read},
    };
    TemporaryDirectory directory;
    const std::string recorded = "digest recorded for the original";
    for (const auto& row : rows) {
        const auto file = writeFile(directory.path() / "file", original);
        recordDigest(file, recorded);
        const FileIdentity before = identityOf(file);
        const fs::path now = row.apply(file);
        const bool kept = identityOf(now) == before;
        std::string contents(fs::file_size(now), '\0');
        std::ifstream(now, std::ios::binary)
            .read(contents.data(), static_cast<std::streamsize>(contents.size()));
        const bool expectRecorded = row.expected == Answer::Recorded ||
                                    (row.expected == Answer::RecordedIfIdentityKept && kept);
        EXPECT_EQ(md5File(now.string()), expectRecorded ? recorded : md5String(contents))
            << row.change;
        fs::remove(now);
    }
}

TEST(Md5File, DigestCacheKeepsTheNewestEntries) {
    TemporaryDirectory directory;
    std::vector<fs::path> files;
    for (std::size_t index = 0; index <= DigestCache::kCapacity; ++index) {
        files.push_back(writeFile(directory.path() / std::to_string(index), std::to_string(index)));
    }
    for (const auto& file : files) {
        recordDigest(file, "recorded " + file.filename().string());
    }
    EXPECT_EQ(md5File(files.front().string()), md5String("0"));
    EXPECT_EQ(md5File(files.back().string()), "recorded " + files.back().filename().string());
}

TEST(Md5File, EmptyFileHasTheEmptyDigest) {
    TemporaryDirectory directory;
    const auto path = writeFile(directory.path() / "empty", "");
    EXPECT_EQ(md5File(path.string()), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(Md5File, MissingFileIsAnErrorNamingPathAndReason) {
    TemporaryDirectory directory;
    const std::string path = (directory.path() / "absent.bin").string();
    const auto digest = md5File(path);
    ASSERT_FALSE(digest.has_value());
    EXPECT_EQ(digest.error(), "open \"" + path + "\": No such file or directory");
}

TEST(Md5File, DirectoryIsAnError) {
    TemporaryDirectory directory;
    const auto digest = md5File(directory.path().string());
    ASSERT_FALSE(digest.has_value());
    EXPECT_EQ(digest.error(), "read \"" + directory.path().string() + "\": Is a directory");
}

TEST(Md5File, FifoWithoutWriterIsRefusedInsteadOfBlocking) {
    TemporaryDirectory directory;
    const std::string path = (directory.path() / "pipe").string();
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    const auto digest = md5File(path);
    ASSERT_FALSE(digest.has_value());
    EXPECT_EQ(digest.error(), "read \"" + path + "\": Not a regular file");
}

TEST(Md5File, UnreadableFileIsAnError) {
    if (::geteuid() == 0) {
        GTEST_SKIP() << "permissions do not apply to root";
    }
    TemporaryDirectory directory;
    const auto path = writeFile(directory.path() / "secret", "contents");
    ASSERT_EQ(::chmod(path.c_str(), 0), 0);
    const auto digest = md5File(path.string());
    ASSERT_FALSE(digest.has_value());
    EXPECT_EQ(digest.error(), "open \"" + path.string() + "\": Permission denied");
}

TEST(Md5File, PathThroughAFileIsAnError) {
    TemporaryDirectory directory;
    const auto file = writeFile(directory.path() / "plain", "contents");
    const std::string path = (file / "child").string();
    const auto digest = md5File(path);
    ASSERT_FALSE(digest.has_value());
    EXPECT_EQ(digest.error(), "open \"" + path + "\": Not a directory");
}

TEST(Md5File, EmptyPathIsAnError) {
    const auto digest = md5File("");
    ASSERT_FALSE(digest.has_value());
    EXPECT_EQ(digest.error(), "open \"\": No such file or directory");
}

}  // namespace
}  // namespace terrane::common::util
