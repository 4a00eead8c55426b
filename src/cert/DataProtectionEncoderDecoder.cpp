#include "agent/DataProtectionEncoderDecoder.h"

namespace agent {

DataProtectionEncoderDecoder::~DataProtectionEncoderDecoder() = default;

// The types of the arguments are the interface's.
std::vector<unsigned char> DataProtectionEncoderDecoder::encode(std::string text) const // NOLINT(performance-*)
{
    return {text.begin(), text.end()};
}

std::string DataProtectionEncoderDecoder::decode(std::vector<unsigned char> bytes) const // NOLINT(performance-*)
{
    return {bytes.begin(), bytes.end()};
}

} // namespace agent
