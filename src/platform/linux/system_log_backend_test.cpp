#include "terrane/log/system_log_backend.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "testing/private_tmpfs.hpp"
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

// One field of the journal's native datagram: "NAME=value\n", or for a value with line breaks
// "NAME\n", a 64-bit little-endian length, the value and "\n".
std::string journalField(const std::string& name, const std::string& value) {
    if (value.find('\n') == std::string::npos) {
        return name + "=" + value + "\n";
    }
    const std::uint64_t length = value.size();
    return name + "\n" + std::string(reinterpret_cast<const char*>(&length), sizeof length) +
           value + "\n";
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
    // a datagram: the journal's, or the syslog line without its time stamp.
    std::vector<std::string> captured;
    bool isolated = false;
    std::thread([&] {
        const test::PrivateTmpfs run("/run");
        const test::PrivateTmpfs dev("/dev");
        isolated = run.mounted() && dev.mounted() && fs::create_directories("/run/systemd/journal");
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
                captured.push_back(path == "/dev/log" ? text.erase(text.find('>') + 1, 15) : text);
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
            journal.push_back(journalField("MESSAGE", row.text) +
                              journalField("PRIORITY", row.priority) +
                              journalField("SYSLOG_IDENTIFIER", program) +
                              (tagged ? journalField("TERRANE_CATEGORY", *row.category) : ""));
            syslog.push_back("<" + std::to_string(LOG_USER + std::stoi(row.priority)) + "> " +
                             program + ": " + row.text);
        }
    }
    journal.insert(journal.end(), syslog.begin(), syslog.end());
    EXPECT_EQ(captured, journal);
}

}  // namespace
}  // namespace terrane::common
