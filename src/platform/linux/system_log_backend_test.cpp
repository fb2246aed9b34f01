#include "terrane/log/system_log_backend.hpp"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "testing/namespaces.hpp"
#include "util/file_descriptor.hpp"

namespace terrane::common {
namespace {

using base::io::FileDescriptor;

struct Row {
    LoggingLevel level;
    std::string message;
    optional<std::string> category;
};

constexpr int kSkip = 77;

bool sendAll(int fd, const void* data, std::size_t size) {
    return base::io::writeAll(fd, std::string_view(static_cast<const char*>(data), size)) == 0;
}

// In a forked child, in a mount namespace of its own with empty /run and /dev: binds a
// capturing socket where the journal listens, logs every row through a fresh sink, then does the
// same with a socket at /dev/log and no journal. Every captured datagram goes to `out` as a
// 32-bit length and the bytes; a zero length ends each of the two groups.
[[noreturn]] void captureInChild(int out, const std::vector<Row>& rows) {
    if (!test::enterFreshNamespaces(CLONE_NEWNS) ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("tmpfs", "/run", "tmpfs", 0, nullptr) != 0 ||
        ::mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0 || ::mkdir("/run/systemd", 0755) != 0 ||
        ::mkdir("/run/systemd/journal", 0755) != 0) {
        ::_exit(kSkip);
    }
    for (const char* path : {"/run/systemd/journal/socket", "/dev/log"}) {
        const FileDescriptor capture(::socket(AF_UNIX, SOCK_DGRAM, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, path);
        if (::bind(capture.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            ::_exit(kSkip);
        }
        {
            SystemLogBackend sink;
            for (const Row& row : rows) {
                sink.writeLog(row.level, row.message, row.category);
            }
        }
        std::vector<char> buffer(64 * 1024);
        for (;;) {
            const ssize_t size = ::recv(capture.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (size <= 0) {
                break;
            }
            const auto length = static_cast<std::uint32_t>(size);
            sendAll(out, &length, sizeof length);
            sendAll(out, buffer.data(), length);
        }
        const std::uint32_t end = 0;
        sendAll(out, &end, sizeof end);
        ::unlink(path);
    }
    ::_exit(0);
}

// The journal's native datagram: "NAME=value\n" fields, or "NAME\n", a 64-bit little-endian
// length and the value, then "\n", for values with line breaks.
std::map<std::string, std::string> journalFields(const std::string& datagram) {
    std::map<std::string, std::string> fields;
    std::size_t at = 0;
    while (at < datagram.size()) {
        const std::size_t stop = datagram.find_first_of("=\n", at);
        const std::string name = datagram.substr(at, stop - at);
        if (datagram[stop] == '=') {
            const std::size_t end = datagram.find('\n', stop);
            fields[name] = datagram.substr(stop + 1, end - stop - 1);
            at = end + 1;
        } else {
            std::uint64_t length = 0;
            std::memcpy(&length, datagram.data() + stop + 1, sizeof length);
            fields[name] = datagram.substr(stop + 1 + sizeof length, length);
            at = stop + 1 + sizeof length + length + 1;
        }
    }
    return fields;
}

TEST(SystemLogBackendTest, JournalAndSyslogGetTheLevelMappingAndTexts) {
    const struct {
        Row row;
        const char* priority;  // null: nothing is written
        const char* text;
    } rows[] = {
        {{LoggingLevel::Debug, "d", nullopt}, "7", " d"},
        {{LoggingLevel::Info, "i", std::string("net")}, "6", "<net> i"},
        {{LoggingLevel::Warning, "w", std::string()}, "6", "Warning:  w"},
        {{LoggingLevel::Error, "two\nlines", std::string("disk")}, "3", "<disk> two\nlines"},
        {{static_cast<LoggingLevel>(4), "x", nullopt}, nullptr, nullptr},
    };
    std::vector<Row> input;
    std::vector<std::size_t> written;
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        input.push_back(rows[i].row);
        if (rows[i].priority != nullptr) {
            written.push_back(i);
        }
    }

    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(ends[0]);
        captureInChild(ends[1], input);
    }
    ::close(ends[1]);
    const FileDescriptor reader(ends[0]);
    std::string stream;
    char buffer[4096];
    for (ssize_t n; (n = ::read(reader.get(), buffer, sizeof buffer)) > 0;) {
        stream.append(buffer, static_cast<std::size_t>(n));
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == kSkip) {
        GTEST_SKIP() << "no private mount namespace allowed here";
    }
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    std::vector<std::vector<std::string>> groups(1);
    for (std::size_t at = 0; at + 4 <= stream.size();) {
        std::uint32_t length = 0;
        std::memcpy(&length, stream.data() + at, sizeof length);
        at += sizeof length;
        if (length == 0) {
            groups.emplace_back();
        } else {
            groups.back().push_back(stream.substr(at, length));
            at += length;
        }
    }
    ASSERT_EQ(groups.size(), 3u);
    const auto& journal = groups[0];
    const auto& syslog = groups[1];
    ASSERT_EQ(journal.size(), written.size());
    ASSERT_EQ(syslog.size(), written.size());

    for (std::size_t i = 0; i < written.size(); ++i) {
        const auto& row = rows[written[i]];
        const bool tagged = row.row.category && !row.row.category->empty();
        std::map<std::string, std::string> expected = {
            {"MESSAGE", row.text},
            {"PRIORITY", row.priority},
            {"SYSLOG_IDENTIFIER", program_invocation_short_name},
        };
        if (tagged) {
            expected["TERRANE_CATEGORY"] = *row.row.category;
        }
        EXPECT_EQ(journalFields(journal[i]), expected) << row.row.message;

        // "<priority>Mmm dd hh:mm:ss program: text"
        const std::string expectedLine =
            "<" + std::to_string(LOG_USER + std::stoi(row.priority)) + ">";
        const std::string tail = std::string(" ") + program_invocation_short_name + ": " + row.text;
        EXPECT_TRUE(syslog[i].starts_with(expectedLine)) << syslog[i];
        EXPECT_EQ(syslog[i].size(), expectedLine.size() + 15 + tail.size()) << syslog[i];
        EXPECT_TRUE(syslog[i].ends_with(tail)) << syslog[i];
    }
}

}  // namespace
}  // namespace terrane::common
