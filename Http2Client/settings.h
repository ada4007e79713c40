#ifndef HTTP2CLIENT_SETTINGS_H
#define HTTP2CLIENT_SETTINGS_H

#include <cstdint>

namespace tiny {

// The values of a SETTINGS frame (RFC 9113, 6.5.2). The defaults are what this client announces,
// not the protocol's initial values.
class Settings {
public:
    void setHeaderTableSize(uint32_t size) { m_headerTableSize = size; }
    uint32_t getHeaderTableSize() const { return m_headerTableSize; }
    void setEnablePush(bool enable) { m_enablePush = enable; }
    bool enablePush() const { return m_enablePush; }
    void setMaxConcurrentStream(uint32_t count) { m_maxConcurrentStream = count; }
    uint32_t getMaxConcurrentStream() const { return m_maxConcurrentStream; }
    void setInitialWindowSize(uint32_t size) { m_initialWindowSize = size; }
    uint32_t getInitialWindowSize() const { return m_initialWindowSize; }
    void setMaxFrameSize(uint32_t size) { m_maxFrameSize = size; }
    uint32_t getMaxFrameSize() const { return m_maxFrameSize; }
    void setMaxHeaderListSize(uint32_t size) { m_maxHeaderListSize = size; }
    uint32_t getMaxHeaderListSize() const { return m_maxHeaderListSize; }

private:
    uint32_t m_headerTableSize = 4096;
    uint32_t m_maxConcurrentStream = 100;
    uint32_t m_initialWindowSize = 0x40000000;
    uint32_t m_maxFrameSize = 0x800000;
    uint32_t m_maxHeaderListSize = 65535;
    bool m_enablePush = false;
};

}  // namespace tiny

#endif  // HTTP2CLIENT_SETTINGS_H
