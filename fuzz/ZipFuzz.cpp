// Archives that come from outside: nothing that they hold may be written outside their destination, end the process or
// keep a descriptor open. The input is an archive, or a list of changes to one that is whole.

#include "Require.h"

#include "agent/Zip.h"
#include "agent/info/Logger.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace {

using agent::fuzz::require;
namespace fs = std::filesystem;

long descriptors()
{
    const fs::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

/// A directory with an archive and nothing else beside the destination; removed when the program ends.
class Place {
public:
    Place()
    {
        (void)::mkdtemp(m_path.data());
        std::ofstream(m_path + "/text") << std::string(2'000, 'x') << "some text";
        // One byte away from climbing out, and from being no directory.
        const std::string text = m_path + "/text";
        m_zip.compress(
            {{"sub/directory/text", text}, {"text", text}, {"..x/up", text}, {"empty/", "/dev/null"}}, archive(), 6);
        fs::remove(m_path + "/text");
        std::ifstream stream(archive(), std::ios::binary);
        m_whole.assign(std::istreambuf_iterator<char>(stream), {});
    }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;
    ~Place() { fs::remove_all(m_path); }

    const std::string& whole() const { return m_whole; }

    void extract(const std::string& bytes)
    {
        std::ofstream(archive(), std::ios::binary) << bytes;
        const auto before = descriptors();
        try {
            m_zip.decompress(archive(), m_path + "/out", "secret", false, false);
        } catch (const std::runtime_error&) { // refused
        }
        require(descriptors() == before);
        for (const auto& entry : fs::directory_iterator(m_path))
            require(entry.path().filename() == "out" || entry.path().filename() == "archive");
        fs::remove_all(m_path + "/out");
    }

private:
    std::string archive() const { return m_path + "/archive"; }
    // In memory where there is such a place: a disk takes minutes for as many files.
    std::string m_path = (fs::exists("/dev/shm") ? "/dev/shm" : fs::temp_directory_path()) / "agentkit_fuzz_XXXXXX";
    agent::info::Logger m_silent{agent::info::Logger::Printer()};
    agent::Zip m_zip{m_silent};
    std::string m_whole;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static Place place;
    if (size == 0) return 0;
    if (data[0] % 2 == 0) {
        place.extract(std::string(reinterpret_cast<const char*>(data + 1), size - 1));
        return 0;
    }
    constexpr std::size_t kMostChanges = 8;
    std::string changed = place.whole();
    for (std::size_t i = 1; i + 2 < size && i < 3 * kMostChanges; i += 3)
        changed[(data[i] * 256U + data[i + 1]) % changed.size()] = static_cast<char>(data[i + 2]);
    place.extract(changed);
    return 0;
}
