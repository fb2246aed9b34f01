#include "platform/linux/resume_data.hpp"

#include <gtest/gtest.h>

#include <filesystem>

#include "testing/storage_tree.hpp"

namespace terrane::common {
namespace {

ResumeData sample(const std::string& localPath) {
    return ResumeData{"https://example.test/pack.zip", partialFilePathFor(localPath), 1234,
                      "\"e-1\"", "Tue, 01 Oct 2024 10:00:00 GMT"};
}

TEST(ResumeDataTest, TheAccessTokenIsLeftOutOfTheUrl) {
    const struct {
        const char* url;
        const char* expected;
    } rows[] = {
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

TEST(ResumeDataTest, OnlyValidDataThisLibraryStoredForTheSameUrlAndDestinationLoads) {
    test::TemporaryDirectory scratch;
    const std::string localPath = (scratch.path() / "pack.zip").string();
    DownloadOptions options(HttpRequest("https://example.test/pack.zip"), localPath, true);
    EXPECT_EQ(loadResumeData(options), nullopt);  // none stored
    ASSERT_TRUE(storeResumeData(localPath, sample(localPath)));
    EXPECT_EQ(loadResumeData(options), sample(localPath));

    // A renewed token still resumes; another URL does not, and its data stays where it is.
    options.request.url = "https://example.test/pack.zip?access_token=new";
    EXPECT_EQ(loadResumeData(options), sample(localPath));
    options.request.url = "https://example.test/other.zip";
    EXPECT_EQ(loadResumeData(options), nullopt);
    EXPECT_TRUE(std::filesystem::exists(resumeDataPathFor(localPath)));

    // Its partial file belongs to another destination.
    DownloadOptions moved(HttpRequest("https://example.test/pack.zip"),
                          (scratch.path() / "x.zip").string());
    std::filesystem::copy_file(resumeDataPathFor(localPath), resumeDataPathFor(moved.localPath));
    EXPECT_EQ(loadResumeData(moved), nullopt);

    // Without an entity tag the date is the validator; without either there is nothing to resume.
    auto data = sample(localPath);
    data.etag.clear();
    ASSERT_TRUE(storeResumeData(localPath, data));
    options.request.url = data.url;
    EXPECT_EQ(loadResumeData(options)->ifRangeValidator(), data.lastModified);
    data.lastModified.clear();
    ASSERT_TRUE(storeResumeData(localPath, data));
    EXPECT_EQ(loadResumeData(options), nullopt);

    // Only what this library encoded decodes.
    auto newer = encodeResumeData(data);
    newer.replace(newer.find("\"version\":1"), 11, "\"version\":2");
    for (const std::string& text :
         {std::string("bplist00"), std::string("[1, 2]"), newer,
          std::string(R"({"url": "https://example.test/pack.zip"})"),
          std::string(R"({"format":"terrane-resume-data","version":1,"url":"u",)"
                      R"("partialPath":"p","bytes":-1,"etag":"","lastModified":""})")}) {
        EXPECT_FALSE(decodeResumeData(text)) << text;
    }
    // Unreadable data is none.
    std::filesystem::remove(resumeDataPathFor(localPath));
    std::filesystem::create_directory(resumeDataPathFor(localPath));
    EXPECT_EQ(loadResumeData(options), nullopt);
    // Storing into a missing directory fails with the system's text.
    EXPECT_EQ(storeResumeData("/nonexistent-dir/pack.zip", data),
              unexpected(std::string("No such file or directory")));
}

}  // namespace
}  // namespace terrane::common
