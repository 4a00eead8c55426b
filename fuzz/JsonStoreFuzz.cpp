// The file of a store, as it comes from outside: refused, or read, changed, and read again with the same result.

#include "Require.h"

#include "agent/JSONConfigDataProvider.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace {

using agent::JSONConfigDataProvider;
using agent::fuzz::require;

class Store {
public:
    Store() { require(::mkdtemp(m_directory.data()) != nullptr); }
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;
    ~Store() { std::filesystem::remove_all(m_directory); }

    void check(const std::string& text) const
    {
        const std::string path = m_directory + "/store";
        std::ofstream(path, std::ios::binary) << text;
        try {
            JSONConfigDataProvider store(path, true);
            store.set("fuzz.key", 1);
            const JSONConfigDataProvider again(path, true);
            require(again.document() == store.document() && again.get("fuzz.key") == 1);
        } catch (const std::runtime_error&) { // refused, or "fuzz" is no object in it
        }
    }

private:
    std::string m_directory = (std::filesystem::temp_directory_path() / "agentkit_fuzz_XXXXXX").string();
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const Store store;
    const std::string text(reinterpret_cast<const char*>(data), size);
    store.check(text);
    if (size < 3) store.check("{\"a\": [" + text + "]}"); // numbers, for inputs that were not made for JSON
    return 0;
}
