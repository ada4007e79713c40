#include "Http2ClientStandard/transport/plain_transport.h"

#include <limits.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace h2 {

IoResult PlainTransport::read(char* to, size_t size) {
    ssize_t result = -1;
    do {
        result = recv(descriptor(), to, size, 0);
    } while (result == -1 && errno == EINTR);
    if (result > 0) return {IoStatus::kDone, static_cast<size_t>(result)};
    if (result == 0) return {size == 0 ? IoStatus::kDone : IoStatus::kClosed};
    if (errno == EAGAIN || errno == EWOULDBLOCK) return {IoStatus::kAgain};
    return fail(systemError(errno));
}

IoResult PlainTransport::write(std::span<const iovec> segments) {
    m_wantsWrite = false;
    size_t total = 0;
    while (!segments.empty()) {
        const auto part = segments.first(std::min<size_t>(segments.size(), IOV_MAX));
        size_t wanted = 0;
        for (const iovec& segment : part) wanted += segment.iov_len;
        msghdr message{};
        message.msg_iov = const_cast<iovec*>(part.data());
        message.msg_iovlen = part.size();
        ssize_t result = -1;
        do {
            result = sendmsg(descriptor(), &message, MSG_NOSIGNAL);
        } while (result == -1 && errno == EINTR);
        if (result == -1 && errno != EAGAIN && errno != EWOULDBLOCK)
            return fail(systemError(errno));
        const size_t sent = result == -1 ? 0 : static_cast<size_t>(result);
        total += sent;
        if (sent < wanted) {
            m_wantsWrite = true;
            return {total == 0 ? IoStatus::kAgain : IoStatus::kDone, total};
        }
        segments = segments.subspan(part.size());
    }
    return {IoStatus::kDone, total};
}

void PlainTransport::endWriting() { shutdown(descriptor(), SHUT_WR); }

}  // namespace h2
