#ifndef HTTP2CLIENTSTANDARD_TRANSPORT_PLAIN_TRANSPORT_H
#define HTTP2CLIENTSTANDARD_TRANSPORT_PLAIN_TRANSPORT_H

#include "Http2ClientStandard/transport/transport.h"

namespace h2 {

// TCP as it is. Takes a connected socket.
class PlainTransport : public Transport {
public:
    using Transport::Transport;

    IoResult handshake() override { return {IoStatus::kDone}; }
    IoResult read(char* to, size_t size) override;
    IoResult write(std::span<const iovec> segments) override;
    IoResult flush() override { return {IoStatus::kDone}; }
    void endWriting() override;
    bool wantsWrite() const override { return m_wantsWrite; }

private:
    bool m_wantsWrite = false;
};

}  // namespace h2

#endif  // HTTP2CLIENTSTANDARD_TRANSPORT_PLAIN_TRANSPORT_H
