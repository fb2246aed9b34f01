#include "terrane/log/system_log_backend.hpp"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "util/file_descriptor.hpp"

namespace terrane::common {
namespace {

namespace fs = std::filesystem;
using base::io::FileDescriptor;

struct Row {
    LoggingLevel level;
    std::string message;
    optional<std::string> category;
    const char* priority;  // null: nothing is written
    std::string text;
};

// The journal's native datagram ("NAME=value\n" fields, or "NAME\n", a 64-bit little-endian
// length, the value and "\n" for values with line breaks) as "NAME=value;" fields by name.
std::string journalText(const std::string& datagram) {
    std::map<std::string, std::string> fields;
    for (std::size_t at = 0; at < datagram.size();) {
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
    std::string text;
    for (const auto& [name, value] : fields) {
        text += name + "=" + value + ";";
    }
    return text;
}

TEST(SystemLogBackendTest, JournalAndSyslogGetTheLevelMappingAndTexts) {
    const std::vector<Row> rows = {
        {LoggingLevel::Debug, "d", nullopt, "7", " d"},
        {LoggingLevel::Info, "i", std::string("net"), "6", "<net> i"},
        {LoggingLevel::Warning, "w", std::string(), "6", "Warning:  w"},
        {LoggingLevel::Error, "two\nlines", std::string("disk"), "3", "<disk> two\nlines"},
        {static_cast<LoggingLevel>(4), "x", nullopt, nullptr, ""},
    };
    // On a thread in a mount namespace of its own, with empty /run and /dev: what a fresh sink
    // writes for every row where the journal listens, then at /dev/log with no journal. One entry
    // a datagram: the journal's fields, or the syslog line without its time stamp.
    std::vector<std::string> captured;
    bool isolated = false;
    std::thread([&] {
        isolated = ::unshare(CLONE_NEWNS) == 0 &&
                   ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                   ::mount("tmpfs", "/run", "tmpfs", 0, nullptr) == 0 &&
                   ::mount("tmpfs", "/dev", "tmpfs", 0, nullptr) == 0 &&
                   fs::create_directories("/run/systemd/journal");
        for (const std::string path : {"/run/systemd/journal/socket", "/dev/log"}) {
            const FileDescriptor capture(::socket(AF_UNIX, SOCK_DGRAM, 0));
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            std::strcpy(address.sun_path, path.c_str());
            if (!isolated ||
                ::bind(capture.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
                isolated = false;
                return;
            }
            {
                SystemLogBackend sink;
                for (const Row& row : rows) {
                    sink.writeLog(row.level, row.message, row.category);
                }
            }
            std::string datagram(64 * 1024, '\0');
            for (ssize_t size; (size = ::recv(capture.get(), datagram.data(), datagram.size(),
                                              MSG_DONTWAIT)) > 0;) {
                std::string text = datagram.substr(0, static_cast<std::size_t>(size));
                captured.push_back(path == "/dev/log" ? text.erase(text.find('>') + 1, 15)
                                                      : journalText(text));
            }
            ::unlink(path.c_str());
        }
        ::closelog();  // the socket it wrote to goes with the namespace
    }).join();
    if (!isolated) {
        GTEST_SKIP() << "no private mount namespace allowed here";
    }

    const std::string program = program_invocation_short_name;
    std::vector<std::string> journal;
    std::vector<std::string> syslog;
    for (const auto& row : rows) {
        if (row.priority != nullptr) {
            const bool tagged = row.category && !row.category->empty();
            journal.push_back("MESSAGE=" + row.text + ";PRIORITY=" + row.priority +
                              ";SYSLOG_IDENTIFIER=" + program + ";" +
                              (tagged ? "TERRANE_CATEGORY=" + *row.category + ";" : ""));
            syslog.push_back("<" + std::to_string(LOG_USER + std::stoi(row.priority)) + "> " +
                             program + ": " + row.text);
        }
    }
    journal.insert(journal.end(), syslog.begin(), syslog.end());
    EXPECT_EQ(captured, journal);
}

}  // namespace
}  // namespace terrane::common
