#include "Http2ClientStandard/transport/socket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace h2 {

void Socket::close() {
    if (m_descriptor != -1) ::close(m_descriptor);
    m_descriptor = -1;
}

Socket startConnect(const Address& address, std::string& error) {
    Socket socket(
        ::socket(address.family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP));
    if (!socket) {
        error = systemError(errno);
        return socket;
    }
    const int on = 1;
    setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    // An interrupted connect goes on by itself, like one in progress.
    if (connect(socket.get(), address.get(), address.length()) == -1 && errno != EINPROGRESS &&
        errno != EINTR) {
        error = systemError(errno);
        socket.close();
    }
    return socket;
}

std::string connectError(int descriptor) {
    int number = 0;
    socklen_t size = sizeof number;
    if (getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &number, &size) == -1) number = errno;
    return number == 0 ? std::string() : systemError(number);
}

std::string systemError(int number) { return std::generic_category().message(number); }

}  // namespace h2
