#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace terrane::common::util::test {

// A fresh directory per test below the system's temporary directory, removed with its contents.
class TemporaryDirectoryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = (std::filesystem::temp_directory_path() / "terrane-XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        directory_ = pattern;
    }
    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }

    static std::filesystem::path put(const std::filesystem::path& path,
                                     const std::string& contents) {
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

    std::filesystem::path directory_;
};

}  // namespace terrane::common::util::test
