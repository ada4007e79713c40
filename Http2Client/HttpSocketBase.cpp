#include "HttpSocketBase.h"

#include "Sock.h"
#include "log.h"

namespace tiny {

HttpSocketBase::HttpSocketBase(HTTP_SCHEMA ver, const std::string& ip, uint16_t port)
    : m_ip(ip), m_ver(ver), m_port(port), m_socket(Sock::createSocket()) {
    HTTP2CLIENT_LOG_INFO("createSocket socket:" << m_socket);
}

HttpSocketBase::~HttpSocketBase() {
    HTTP2CLIENT_LOG_INFO("HttpSocket Closed, ip:" << m_ip);
    if (m_socket != -1) Sock::closeSocket(m_socket);
    m_socket = -1;
    m_ip.clear();
    m_port = 0;
    m_ver = HTTP_VERSION_UNDEFINED;
}

}  // namespace tiny
