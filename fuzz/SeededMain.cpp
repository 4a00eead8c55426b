// Runs a fuzz target on inputs that are the same each time, for builds without a fuzzer: noise, long runs of equal
// bytes, and text made of few characters.

#include <cstddef>
#include <cstdint>
#include <random>
#include <string_view>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

class InputMaker {
public:
    std::vector<std::uint8_t> make(std::size_t size)
    {
        std::vector<std::uint8_t> input(size);
        const auto kind = m_random() % 3;
        for (std::size_t i = 0; i < size; ++i) {
            switch (kind) {
            case 0: // noise
                input[i] = byte();
                break;
            case 1: // runs, with something else at their seams; the first byte is left to the targets for flags
                input[i] = i < 2 || m_random() % 12 == 0 ? byte() : input[i - 1];
                if (i > 2 && m_random() % 16 == 0) input[i] = (m_random() & 1U) != 0 ? 0x00 : 0xFF;
                break;
            default:
                constexpr std::string_view kCharacters = "0123456789..-+ =/Zz";
                input[i] = static_cast<std::uint8_t>(kCharacters[m_random() % kCharacters.size()]);
            }
        }
        return input;
    }

private:
    std::uint8_t byte() { return static_cast<std::uint8_t>(m_random()); }

    std::mt19937 m_random{1}; // NOLINT(cert-msc*): the same inputs each time
};

} // namespace

int main()
{
    constexpr std::size_t kInputs = 20'000;
    constexpr std::size_t kLongest = 300;
    InputMaker maker;
    for (std::size_t i = 0; i < kInputs; ++i) {
        const auto input = maker.make(i % kLongest);
        (void)LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    return 0;
}
