// What people call the numbers of frames.
#include <gtest/gtest.h>

#include "Http2ClientStandard/frames/names.h"

namespace {

TEST(Names, CoverAllNumbersAndTheRest) {
    EXPECT_EQ(h2::frameTypeName(h2::FrameType::kData), "DATA");
    EXPECT_EQ(h2::frameTypeName(h2::FrameType::kContinuation), "CONTINUATION");
    EXPECT_EQ(h2::frameTypeName(static_cast<h2::FrameType>(10)), "type 10");
    EXPECT_EQ(h2::errorName(0), "NO_ERROR");
    EXPECT_EQ(h2::errorName(13), "HTTP_1_1_REQUIRED");
    EXPECT_EQ(h2::errorName(14), "error 14");
    EXPECT_EQ(h2::settingName(0), "setting 0");
    EXPECT_EQ(h2::settingName(6), "MAX_HEADER_LIST_SIZE");
    EXPECT_EQ(h2::settingName(7), "setting 7");
    EXPECT_EQ(h2::printable("a\x7f\x1f\xff~ "), "a\\x7f\\x1f\\xff~ ");
    EXPECT_EQ(h2::printable("abcdef", 3), "abc...");
}

}  // namespace
