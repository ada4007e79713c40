#include "Http2ClientStandard/transport/address.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <system_error>

namespace h2 {

Address::Address(const sockaddr* address, socklen_t length)
    : m_length(std::min<socklen_t>(length, sizeof m_storage)) {
    std::memcpy(&m_storage, address, m_length);
}

std::string Address::text() const {
    char host[NI_MAXHOST];
    if (getnameinfo(get(), m_length, host, sizeof host, nullptr, 0, NI_NUMERICHOST) != 0) return "";
    return host;
}

bool isAddressText(const std::string& host) {
    in6_addr address;
    return inet_pton(AF_INET, host.c_str(), &address) == 1 ||
           inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

Resolution resolve(const std::string& host, uint16_t port) {
    Resolution resolution;
    // A NUL byte would make getaddrinfo look up another name than the one that TLS verifies.
    if (host.empty() || host.find('\0') != std::string::npos) {
        resolution.error = "no host name given";
        return resolution;
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | (isAddressText(host) ? AI_NUMERICHOST : 0);
    addrinfo* found = nullptr;
    const int result = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (result != 0) {
        const std::string reason = result == EAI_SYSTEM ? std::generic_category().message(errno)
                                                        : std::string(gai_strerror(result));
        resolution.error = "cannot find host " + host + ": " + reason;
        return resolution;
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owned(found, &freeaddrinfo);
    for (const addrinfo* entry = found; entry != nullptr; entry = entry->ai_next) {
        resolution.addresses.emplace_back(entry->ai_addr, entry->ai_addrlen);
    }
    return resolution;
}

}  // namespace h2
