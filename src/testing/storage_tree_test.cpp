#include "testing/storage_tree.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "util/file_io.hpp"

namespace terrane::common::test {
namespace {

TEST(FilesContaining, FindsTheSecretInEveryFormAURLMayGiveIt) {
    const std::string secret = "se+cr/et";
    const struct {
        std::string name;
        std::string content;
        bool found;
    } rows[] = {
        {"plain", "access_token=se+cr/et&x", true},
        {"query", "GET /p?access_token=se%2Bcr/et HTTP/1.1", true},
        {"encoded", "url=se%2bcr%2fet", true},
        {"se+cr/et.rd", "", true},
        {"other", "se cr/et, se+cr", false},
    };
    for (const auto& row : rows) {
        TemporaryDirectory directory;
        // The secret's "/" makes a subdirectory of one row's name: the path is what counts.
        std::filesystem::create_directories((directory.path() / row.name).parent_path());
        ASSERT_TRUE(base::io::writeFileAtomically(directory.path() / row.name, row.content));
        EXPECT_EQ(filesContaining(directory.path(), secret).empty(), !row.found) << row.name;
    }
}

}  // namespace
}  // namespace terrane::common::test
