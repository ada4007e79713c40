#ifndef HTTP2CLIENT_TESTS_UNIT_ENGINE_FIXTURE_H
#define HTTP2CLIENT_TESTS_UNIT_ENGINE_FIXTURE_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Http2Client/Http2.h"
#include "Http2Client/HttpClientInterfaceImpl.h"
#include "tests/support/bytes.h"
#include "tests/support/capture.h"
#include "tests/support/log_capture.h"
#include "tests/support/recording_client.h"

namespace h2test {

// An engine without a connection, and clients that are registered with it directly.
class EngineTest : public testing::Test {
protected:
    using Impl = tiny::HttpClientInterfaceImpl;

    EngineTest() {
        tiny::HttpClientInterface* first = newClient();  // makes the context, which prints
        first->ctx()->setSocket(-1);
        m_out.clear();
    }
    ~EngineTest() override { m_engine.reset(); }

    RecordingClient* newClient(std::function<void(const Callback&)> hook = {}) {
        m_clients.push_back(std::make_unique<RecordingClient>(std::move(hook)));
        return m_clients.back().get();
    }

    // A registered request, marked as running like one that was started.
    RecordingClient* request(HTTP_METHOD method, const std::string& uri,
                             std::function<void(const Callback&)> hook = {}) {
        RecordingClient* client = newClient(std::move(hook));
        client->ctx()->setUri(uri);
        client->ctx()->setHttpMethod(method);
        client->ctx()->setHttpVersion(HTTP_2);
        client->ctx()->addClientStatus(tiny::CLI_STATUS_REQUESTING);
        m_engine->addHttpClient(client->ctx());
        return client;
    }

    static void addHeader(RecordingClient* client, const std::string& name,
                          const std::string& value, bool changable = false) {
        client->ctx()->addHttpHeader(
            std::make_shared<Impl::HttpHeader>(name.c_str(), value.c_str(), changable));
    }

    static bool isRequesting(RecordingClient* client) {
        return (client->ctx()->clientStatus() & tiny::CLI_STATUS_REQUESTING) != 0;
    }

    // The next output; its status must stay untouched.
    std::string encode() {
        int status = 77;
        std::string bytes = m_engine->encodeFrame(status);
        EXPECT_EQ(status, 77);
        return bytes;
    }

    // Takes preface and SETTINGS out of the way.
    void sendOpening() {
        encode();
        encode();
    }

    int decode(const std::string& bytes) {
        std::string copy = bytes;  // the engine takes the bytes as char*
        return m_engine->decodeFrame(copy.data(), copy.size());
    }

    std::vector<uint32_t> registered() const {
        std::vector<uint32_t> streams;
        for (const auto& [streamId, impl] : m_engine->m_httpClientMap) streams.push_back(streamId);
        return streams;
    }

    CoutCapture m_out;
    std::vector<std::unique_ptr<RecordingClient>> m_clients;
    std::unique_ptr<tiny::Http2> m_engine = std::make_unique<tiny::Http2>();
};

}  // namespace h2test

#endif  // HTTP2CLIENT_TESTS_UNIT_ENGINE_FIXTURE_H
