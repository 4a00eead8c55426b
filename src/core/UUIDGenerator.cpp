#include "agent/UUIDGenerator.h"

#include "agent/StringUtils.h"

#include <uuid/uuid.h>

#include <array>

namespace agent {

UUIDGenerator::~UUIDGenerator() = default;

void UUIDGenerator::generate(std::string& out)
{
    uuid_t uuid{};
    ::uuid_generate(uuid);
    std::array<char, UUID_STR_LEN> text{};
    ::uuid_unparse(uuid, text.data());
    out = text.data();
}

std::string UUIDGenerator::empty()
{
    const uuid_t zeros{};
    return convert(zeros);
}

std::string UUIDGenerator::convert(const unsigned char* bytes)
{
    return StringUtils::byte_array_to_hex(bytes, sizeof(uuid_t));
}

} // namespace agent
