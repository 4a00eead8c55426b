#pragma once

// What all tests share, and what nearly all of them include.

#include "agent/PosixError.h"
#include "agent/info/Logger.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

namespace agent::test {

/// A logger that remembers what it is told. Log from as many threads as you like; read when they are done.
class CapturingLogger {
public:
    struct Entry {
        std::string text; ///< as the printer got it, newline included
        info::Logger::Level level;
        std::chrono::system_clock::time_point when;
    };

    info::Logger& logger() { return m_logger; }
    const std::vector<Entry>& entries() const { return m_entries; }

    /// "level text" of each entry, the level as a number and the text without the newline at its end.
    std::vector<std::string> lines() const
    {
        std::vector<std::string> lines;
        for (const Entry& entry : m_entries) {
            lines.push_back(std::to_string(entry.level) + ' ' + entry.text);
            if (lines.back().ends_with('\n')) lines.back().pop_back();
        }
        return lines;
    }

    /// lines() since the last time.
    std::vector<std::string> takeLines()
    {
        auto taken = lines();
        m_entries.clear();
        return taken;
    }

private:
    std::vector<Entry> m_entries;
    info::Logger m_logger{[this](std::string text, info::Logger::Level level, auto when) {
        m_entries.push_back({std::move(text), level, when});
    }};
};

/// A fresh directory that disappears, with all that is in it, at the end of the scope.
class TempDir {
public:
    TempDir() { (void)::mkdtemp(m_path.data()); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir() { std::filesystem::remove_all(m_path); }

    const std::string& path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + '/' + name; }

    /// Creates a file and returns its full name.
    std::string file(const std::string& name, const std::string& content) const
    {
        std::ofstream(*this / name, std::ios::binary) << content;
        return *this / name;
    }

private:
    std::string m_path = (std::filesystem::temp_directory_path() / "agentkit_test_XXXXXX").string();
};

/// The whole content of a file, read without help from the library.
inline std::string contentOf(const std::string& path)
{
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

/// The permission bits of a file, or of what a link names; 0 if there is none.
inline mode_t modeOf(const std::string& path)
{
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

/// Descriptors open in this process, to prove that none was leaked.
inline auto openDescriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

/// A directory and a logger for each test, which must leak no descriptor.
class FileFixture : public testing::Test {
protected:
    ~FileFixture() override { EXPECT_EQ(openDescriptors(), m_descriptors); }

private:
    decltype(openDescriptors()) m_descriptors = openDescriptors();

protected:
    TempDir m_dir;
    CapturingLogger m_log;
};

/// Runs the action in a forked process; true if it returned true there and the process ended well.
inline bool inChild(const std::function<bool()>& action)
{
    const pid_t child = ::fork();
    if (child == 0) ::_exit(action() ? 0 : 1);
    int status = -1;
    ::waitpid(child, &status, 0);
    return status == 0;
}

/// What an action throws, as "kind: text"; "nothing" if it does not throw.
inline std::string thrownBy(const std::function<void()>& action)
{
    try {
        action();
    } catch (const PosixError& e) {
        return std::string("posix: ") + e.what();
    } catch (const std::runtime_error& e) {
        return std::string("runtime: ") + e.what();
    } catch (const std::invalid_argument& e) {
        return std::string("invalid argument: ") + e.what();
    } catch (const std::logic_error& e) {
        return std::string("logic: ") + e.what();
    }
    return "nothing";
}

/// What thrownBy() says of such a PosixError.
inline std::string posix(const std::string& text, int code)
{
    return std::string("posix: ") + PosixError(text, code).what();
}

} // namespace agent::test

// What every test says by its bare name.
using namespace agent;
using namespace agent::test;
using namespace std::chrono_literals;
using namespace std::string_literals;
using std::chrono::nanoseconds;
using testing::AllOf, testing::Contains, testing::ElementsAre, testing::HasSubstr, testing::IsSupersetOf,
    testing::MatchesRegex, testing::StartsWith, testing::UnorderedElementsAre;
