// A store's file from outside: what can be loaded takes a change, keeps the rest, and is the same when it is loaded
// again; what cannot is left alone. Any text is a key whose value is found where it was put, and which patterns match
// as regular expressions do.

#include "Require.h"

#include "agent/JSONConfigDataProvider.h"
#include "agent/PosixError.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <stdexcept>
#include <string>

namespace {

using agent::JSONConfigDataProvider;
using agent::fuzz::require;
using nlohmann::json;

/// A file in a directory that goes when the program ends.
class StoreFile {
public:
    StoreFile()
    {
        std::string name = std::filesystem::exists("/dev/shm") ? "/dev/shm/" : "/tmp/"; // memory: each change is synced
        require(::mkdtemp((name += "store_fuzz_XXXXXX").data()) != nullptr);
        m_directory = name;
    }
    StoreFile(const StoreFile&) = delete;
    StoreFile& operator=(const StoreFile&) = delete;
    ~StoreFile() { std::filesystem::remove_all(m_directory); }

    std::string path() const { return m_directory / "store.json"; }

    void fill(const std::string& text) const { std::ofstream(path(), std::ios::binary) << text; }

    std::string content() const
    {
        std::ifstream stream(path(), std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }

private:
    std::filesystem::path m_directory;
};

/// Whether the action was done and not refused; a failed system call is a fault of the store.
template <typename Action>
bool isDone(Action action)
{
    try {
        action();
        return true;
    } catch (const agent::PosixError&) {
        std::abort();
    } catch (const std::runtime_error&) {
        return false;
    }
}

void change(const StoreFile& file, const std::string& text)
{
    file.fill(text);
    json expected;
    const bool isChanged = isDone([&] {
        JSONConfigDataProvider store(file.path(), true);
        expected = store.document();
        expected["changed"] = text.size();
        store.set("changed", text.size());
        require(store.document() == expected);
    });
    if (isChanged) {
        require(JSONConfigDataProvider(file.path(), true).document() == expected);
    } else {
        require(file.content() == text);
    }
}

void findWhatWasSet(const StoreFile& file, const std::string& key)
{
    const std::string before = R"({"0": {"1.2": {"": 1}}, "1": "text"})";
    file.fill(before);
    JSONConfigDataProvider store(file.path(), true);
    if (isDone([&] { store.set(key, 7); })) {
        require(store.get(key) == 7);
        require(JSONConfigDataProvider(file.path(), true).document() == store.document());
    } else {
        require(file.content() == before);
    }
}

/// The first byte chooses the pattern; each of the next twelve stands for a piece of the key.
void matchAKey(const std::string& bytes)
{
    using agent::JSONKeyValidator;
    static const char* const patterns[] = {
        R"(\bvolumes\b\..+\.\bcowFileSizeMiB\b$)", "^a.*b$", "a.b", R"(\ba\b)", "", "$", R"(\b\b.*\.)"};
    static const char* const pieces[] = {"volumes", ".", "cowFileSizeMiB", ".", "autoExpand", "a", "b", "-", "_", "\n"};
    if (bytes.empty()) return;
    const char* const pattern = patterns[static_cast<unsigned char>(bytes[0]) % std::size(patterns)];
    std::string key;
    for (std::size_t i = 1; i < std::min<std::size_t>(bytes.size(), 13); ++i)
        key += pieces[static_cast<unsigned char>(bytes[i]) % std::size(pieces)];
    const JSONKeyValidator validator(pattern, JSONKeyValidator::Type::Bool);
    require(validator.matches(key) == std::regex_search(key, std::regex(pattern)));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const StoreFile file;
    const std::string text(reinterpret_cast<const char*>(data), size);
    change(file, text);
    change(file, "{\"value\": " + text + "}"); // numbers, mostly, where no fuzzer makes the text
    findWhatWasSet(file, text);
    matchAKey(text);
    return 0;
}
