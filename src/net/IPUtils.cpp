#include "agent/IPUtils.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <vector>

namespace agent {

unsigned long IPUtils::resolveHost(const char* name, int& hostError) const
{
    std::vector<char> scratch(1024);
    hostent entry{};
    hostent* found = nullptr;
    int result = 0;
    while ((result = ::gethostbyname_r(name, &entry, scratch.data(), scratch.size(), &found, &hostError)) == ERANGE) {
        try {
            scratch.resize(scratch.size() * 2);
        } catch (const std::exception&) {
            hostError = ENOMEM;
            return 0;
        }
    }
    if (result != 0) return 0;
    if (found == nullptr || found->h_addr_list[0] == nullptr) {
        hostError = errno;
        return 0;
    }
    in_addr address{};
    std::memcpy(&address, found->h_addr_list[0], sizeof address);
    return address.s_addr;
}

std::string IPUtils::str(unsigned long address) const
{
    const in_addr raw{static_cast<in_addr_t>(address)};
    std::array<char, INET_ADDRSTRLEN> text{};
    (void)::inet_ntop(AF_INET, &raw, text.data(), text.size()); // cannot fail: the family is known and the room enough
    return text.data();
}

} // namespace agent
