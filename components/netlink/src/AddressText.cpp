#include "AddressText.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cctype>
#include <charconv>
#include <strings.h>
#include <sys/socket.h>
#include <system_error>
#include <utility>

namespace netlink_route {

namespace {

// A decimal number from 0 to 32. nl_addr_parse reads it with strtol: it takes 010 for 8, 0x10 for 16 and 24x for 24,
// and 280 ends as 24 in the one byte that the kernel is sent.
bool isPrefixLength(std::string const& text)
{
    unsigned int length = 0;
    char const* const end = text.data() + text.size();
    auto const [rest, error] = std::from_chars(text.data(), end, length);
    bool const leadingZero = text.size() > 1 && text[0] == '0';
    return error == std::errc() && rest == end && !leadingZero && length <= 32;
}

// Without a prefix length only libnl's words for all addresses are taken.
bool isIpv4(std::string const& text)
{
    auto const slash = text.find('/');
    if (slash == std::string::npos) {
        constexpr std::array<char const*, 4> words{"default", "any", "all", "none"};
        return std::any_of(words.begin(), words.end(),
                           [&](char const* word) { return strcasecmp(word, text.c_str()) == 0; });
    }
    in_addr bytes{};
    return inet_pton(AF_INET, text.substr(0, slash).c_str(), &bytes) == 1 && isPrefixLength(text.substr(slash + 1));
}

// nl_addr_parse also takes other numbers of pairs than six, since other hardware has longer and shorter addresses.
bool isMac(std::string const& text)
{
    int numbers = 1;
    int digits = 0;
    for (char const c : text) {
        if (c == ':' && digits > 0) {
            ++numbers;
            digits = 0;
        } else if (std::isxdigit(static_cast<unsigned char>(c)) == 0 || ++digits > 2) {
            return false;
        }
    }
    return numbers == 6;
}

} // namespace

int familyOf(Address::TYPE type)
{
    switch (type) {
    case Address::MAC:
        return AF_LLC;
    case Address::IPV4:
        return AF_INET;
    default:
        return AF_UNSPEC;
    }
}

Address::TYPE typeOf(int family)
{
    switch (family) {
    case AF_LLC:
        return Address::MAC;
    case AF_INET:
        return Address::IPV4;
    default:
        return Address::OTHER;
    }
}

NlAddrPtr parseAddress(std::string const& text, int family)
{
    nl_addr* parsed = nullptr;
    bool const isAddress = !holdsNul(text) && (family == AF_LLC ? isMac(text) : isIpv4(text));
    return NlAddrPtr(isAddress && nl_addr_parse(text.c_str(), family, &parsed) == 0 ? parsed : nullptr);
}

Address withPrefixLength(Address address)
{
    std::string const text = address.getAddress();
    if (address.getType() == Address::IPV4 && text.find('/') == std::string::npos) {
        address.setAddress(text + "/32");
    }
    return address;
}

bool holdsNul(std::string const& text) { return text.find('\0') != std::string::npos; }

} // namespace netlink_route
