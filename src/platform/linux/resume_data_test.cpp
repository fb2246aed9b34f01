#include "platform/linux/resume_data.hpp"

#include <gtest/gtest.h>

#include <filesystem>

#include "platform/linux/curl_test_support.hpp"

namespace terrane::common {
namespace {

using test::ScratchDirectory;

ResumeData sample(const std::string& localPath) {
    return ResumeData{"https://example.test/pack.zip", partialFilePathFor(localPath), 1234,
                      "\"e-1\"", "Tue, 01 Oct 2024 10:00:00 GMT"};
}

TEST(ResumeDataTest, FilesSitBesideTheDestination) {
    EXPECT_EQ(resumeDataPathFor("/data/pack.zip"), "/data/pack.zip.rd");
    EXPECT_EQ(partialFilePathFor("/data/pack.zip"), "/data/pack.zip.part");
}

TEST(ResumeDataTest, TheAccessTokenIsLeftOutOfTheUrl) {
    const struct {
        const char* url;
        const char* expected;
    } rows[] = {
        {"https://h/p.bin", "https://h/p.bin"},
        {"https://h/p.bin?access_token=s3cr%20t", "https://h/p.bin"},
        {"https://h/p.bin?a=1&access_token=s&b=2", "https://h/p.bin?a=1&b=2"},
        {"https://h/p.bin?access_token=s&access_token=t&a#frag", "https://h/p.bin?a#frag"},
        {"https://h/p.bin?my_access_token=s&access_token", "https://h/p.bin?my_access_token=s"},
        {"https://h/p.bin#access_token=s", "https://h/p.bin#access_token=s"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(resumeUrlFor(row.url), row.expected) << row.url;
    }
}

TEST(ResumeDataTest, EncodedDataDecodesToTheSameRecord) {
    ResumeData data = sample("/data/pack.zip");
    data.url = "https://example.test/a \"quoted\"\\path?x=1";
    EXPECT_EQ(decodeResumeData(encodeResumeData(data)), data);
}

TEST(ResumeDataTest, AnythingNotWrittenByThisLibraryIsRefused) {
    EXPECT_FALSE(decodeResumeData(""));
    EXPECT_FALSE(decodeResumeData("bplist00"));
    EXPECT_FALSE(decodeResumeData("[1, 2]"));
    EXPECT_FALSE(decodeResumeData(R"({"url": "https://example.test/pack.zip"})"));
    auto text = encodeResumeData(sample("/p"));
    EXPECT_FALSE(decodeResumeData(text.replace(text.find("\"version\":1"), 11, "\"version\":2")));
    EXPECT_FALSE(decodeResumeData(R"({"format":"terrane-resume-data","version":1,"url":"u",)"
                                  R"("partialPath":"p","bytes":-1,"etag":"","lastModified":""})"));
}

TEST(ResumeDataTest, StoredDataIsValidOnlyForTheSameUrlAndDestination) {
    ScratchDirectory scratch;
    const std::string localPath = scratch.file("pack.zip");
    ASSERT_TRUE(storeResumeData(localPath, sample(localPath)));

    DownloadOptions options(HttpRequest("https://example.test/pack.zip"), localPath, true);
    EXPECT_EQ(loadResumeData(options), sample(localPath));

    options.request.url = "https://example.test/other.zip";
    EXPECT_EQ(loadResumeData(options), nullopt);
    // Invalid data stays where it is.
    EXPECT_TRUE(std::filesystem::exists(resumeDataPathFor(localPath)));

    DownloadOptions moved(HttpRequest("https://example.test/pack.zip"), scratch.file("x.zip"));
    std::filesystem::copy_file(resumeDataPathFor(localPath), resumeDataPathFor(moved.localPath));
    EXPECT_EQ(loadResumeData(moved), nullopt);  // its partial file belongs to another destination
}

TEST(ResumeDataTest, DataWithoutAValidatorCannotResume) {
    ScratchDirectory scratch;
    const std::string localPath = scratch.file("pack.zip");
    auto data = sample(localPath);
    data.etag.clear();
    ASSERT_TRUE(storeResumeData(localPath, data));
    const DownloadOptions options(HttpRequest(data.url), localPath, true);
    EXPECT_EQ(loadResumeData(options)->ifRangeValidator(), data.lastModified);
    data.lastModified.clear();
    ASSERT_TRUE(storeResumeData(localPath, data));
    EXPECT_EQ(loadResumeData(options), nullopt);
}

TEST(ResumeDataTest, MissingOrUnreadableDataIsNone) {
    ScratchDirectory scratch;
    const std::string localPath = scratch.file("pack.zip");
    const DownloadOptions options(HttpRequest("https://example.test/pack.zip"), localPath, true);
    EXPECT_EQ(loadResumeData(options), nullopt);
    std::filesystem::create_directory(resumeDataPathFor(localPath));
    EXPECT_EQ(loadResumeData(options), nullopt);
    removeResumeData(localPath);  // a directory is not removed, and nothing fails
    EXPECT_TRUE(std::filesystem::is_directory(resumeDataPathFor(localPath)));
}

TEST(ResumeDataTest, StoringIntoAMissingDirectoryFailsWithTheSystemsText) {
    const auto stored = storeResumeData("/nonexistent-dir/pack.zip", sample("/nonexistent-dir/p"));
    ASSERT_FALSE(stored);
    EXPECT_EQ(stored.error(), "No such file or directory");
}

}  // namespace
}  // namespace terrane::common
