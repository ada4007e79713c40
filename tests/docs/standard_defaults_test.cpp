// The standard edition's defaults that the pages and the comments of Http2ClientOptions.h state:
// change them together.
#include <gtest/gtest.h>

#include "Http2ClientStandard/client/options.h"
#include "Http2ClientStandard/session/peer_settings.h"

namespace h2 {
namespace {

constexpr uint32_t kKiB = 1024;
constexpr uint32_t kMiB = 1024 * kKiB;

TEST(StandardDefaults, OfTimesAreThoseOfTheOptionsPage) {
    const Options options;
    EXPECT_EQ(options.connect.timeout, 10'000U);
    EXPECT_EQ(options.firstByte, 0U);
    EXPECT_EQ(options.wholeRequest, 0U);
    EXPECT_EQ(options.silence, 0U);
    EXPECT_EQ(options.connect.connection.session.pingAfter, 30'000U);
    EXPECT_EQ(options.connect.connection.session.pingTimeout, 15'000U);
    EXPECT_EQ(options.connect.connection.idleTimeout, 90'000U);
}

TEST(StandardDefaults, OfWindowsConnectionsAndThreadsAreThoseOfTheScalingPage) {
    const Options options;
    EXPECT_EQ(options.connect.connection.session.streamWindow, 32 * kMiB);
    EXPECT_EQ(options.connect.connection.session.connectionWindow, 64 * kMiB);
    EXPECT_EQ(options.connect.maxConnections, 1U);
    EXPECT_FALSE(options.ownConnection);
    EXPECT_EQ(options.threads, 1U);
    EXPECT_EQ(PeerSettings().maxConcurrentStreams, 100U);
}

TEST(StandardDefaults, OfLimitsAreThoseOfTheOperatingPage) {
    const SessionOptions session;
    EXPECT_EQ(session.maxHeaderList, 128 * kKiB);
    EXPECT_EQ(session.maxHeaderBlock, session.maxHeaderList + 16 * kKiB);
    EXPECT_EQ(session.maxContinuations, 1000U);
    EXPECT_EQ(session.maxInterim, 100U);
    EXPECT_EQ(session.maxReplies, 1000U);
    EXPECT_EQ(session.frameBudget, 20'000U);
    EXPECT_EQ(session.frameBudgetPerSecond, 2'000U);
    EXPECT_EQ(Options().maxBlockedBody, size_t{64} * kMiB);
}

TEST(StandardDefaults, OfTlsAreThoseOfTheTlsPage) {
    const TlsOptions tls;
    EXPECT_TRUE(tls.verify);
    EXPECT_FALSE(tls.onlyTls13);
    EXPECT_TRUE(tls.caFile.empty() && tls.caDirectory.empty() && tls.serverName.empty());
}

}  // namespace
}  // namespace h2
