// The log line format: time stamp, coloured label, file, line, message.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <regex>

#include "log_capture.h"

namespace uoztest {
namespace {

TEST(LoggingTest, lineCarriesUtcStampColouredLabelBaseNameAndLine) {
    LogCapture capture(0);
    uoz_dbglog(UOZ_LOG_ERR, "/src/UDSOverZelko/exchange.cpp", 42, "abc\n");
    std::string raw = capture.raw();
    EXPECT_TRUE(
        std::regex_match(raw, std::regex(R"(\[\d\d-\d\d:\d\d:\d\d:\d\d\.\d\d\d\] )"
                                         "\x1b\\[1;31mERR \x1b\\[1;0m exchange.cpp:42 abc\n")))
        << raw;
}

TEST(LoggingTest, labelsFollowTheLevelTableAndClampOutside) {
    struct Case {
        int level;
        const char *label;
    } cases[] = {
        {-5, ""},
        {-2, ""},
        {-1, "\x1b[1;31mFATAL\x1b[1;0m"},
        {0, "\x1b[1;31mERR \x1b[1;0m"},
        {1, "\x1b[1;33mWARN\x1b[1;0m"},
        {2, "\x1b[1;32mINFO\x1b[1;0m"},
        {3, "\x1b[1;35mDBG \x1b[1;0m"},
        {4, "\x1b[1;36mD2BG\x1b[1;0m"},
        {5, "\x1b[1;36mD3BG\x1b[1;0m"},
        {6, ""},
        {9, ""},
    };
    for (const Case &c : cases) {
        LogCapture capture(9);
        uoz_dbglog(c.level, "f.c", 1, "m");
        std::string raw = capture.raw();
        EXPECT_EQ(raw.substr(raw.find("] ") + 2), std::string(c.label) + " f.c:1 m\n") << c.level;
    }
}

TEST(LoggingTest, oneTrailingNewlineIsDroppedAndASecondKept) {
    LogCapture capture(0);
    uoz_dbglog(UOZ_LOG_ERR, "a/b/c.cpp", 7, "two\n\n");
    uoz_dbglog(UOZ_LOG_ERR, "nodir.cpp", 8, "%s", "");
    uoz_dbglog(UOZ_LOG_ERR, "dir/", 9, "x");
    EXPECT_EQ(capture.text(), "[T] ERR  c.cpp:7 two\n\n[T] ERR  nodir.cpp:8 \n[T] ERR  :9 x\n");
}

TEST(LoggingTest, longMessagesAreCutAndMarked) {
    struct Case {
        size_t length;
        size_t kept;
        bool marked;
    } cases[] = {{1019, 1019, false}, {1020, 1016, true}, {1022, 1018, true}, {5000, 1019, true}};
    for (const Case &c : cases) {
        LogCapture capture(0);
        std::string message(c.length, 'x');
        uoz_dbglog(UOZ_LOG_ERR, "f.c", 1, "%s", message.c_str());
        std::string text = capture.text();
        std::string expected =
            "[T] ERR  f.c:1 " + std::string(c.kept, 'x') + (c.marked ? "..." : "") + "\n";
        EXPECT_EQ(text, expected) << c.length;
    }
}

int g_evaluations = 0;
const char *counted() {
    ++g_evaluations;
    return "evaluated";
}

TEST(LoggingTest, suppressedStatementsEvaluateNoArgument) {
    LogCapture capture(0);
    g_evaluations = 0;
    UOZ_DBGLOG(UOZ_LOG_INFO, "%s", counted());
    EXPECT_EQ(g_evaluations, 0);
    EXPECT_EQ(capture.raw(), "");
    LogCapture enabled(2);
    UOZ_DBGLOG(UOZ_LOG_INFO, "%s", counted());
    EXPECT_EQ(g_evaluations, 1);
    EXPECT_NE(enabled.text().find("INFO logging_test.cpp:"), std::string::npos);
}

TEST(LoggingTest, stampIsUtcWhateverTheTimeZone) {
    setenv("TZ", "Asia/Kolkata", 1);
    tzset();
    time_t now = time(nullptr);
    struct tm utc;
    gmtime_r(&now, &utc);
    char hour[8];
    strftime(hour, sizeof(hour), "%H:%M", &utc);
    LogCapture capture(0);
    uoz_dbglog(UOZ_LOG_ERR, "f.c", 1, "m");
    std::string raw = capture.raw();
    unsetenv("TZ");
    tzset();
    // The minute may turn between the two readings; the hour and minute of UTC
    // (not of UTC+05:30) must appear unless it did.
    EXPECT_NE(raw.find(std::string(":") + hour), std::string::npos) << raw << " vs " << hour;
}

}  // namespace
}  // namespace uoztest
