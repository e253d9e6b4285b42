// The log line format: time stamp, coloured label, file, line, message.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include "core_support.h"

namespace uoztest {
namespace {

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
        EXPECT_EQ(without_stamp(capture.raw()), "[T] " + std::string(c.label) + " f.c:1 m\n")
            << c.level;
    }
}

TEST(LoggingTest, fileIsCutToItsBaseNameAndMessagesToTheLineLimit) {
    struct Case {
        const char *file;
        std::string message;
        std::string shown;
    } cases[] = {
        {"/src/UDSOverZelko/exchange.cpp", "abc\n", "exchange.cpp:1 abc"},
        {"nodir.cpp", "two\n\n", "nodir.cpp:1 two\n"},  // only one trailing newline is dropped
        {"nodir.cpp", "", "nodir.cpp:1 "},
        {"dir/", "x", ":1 x"},
        {"f.c", std::string(1019, 'x'), "f.c:1 " + std::string(1019, 'x')},
        {"f.c", std::string(1020, 'x'), "f.c:1 " + std::string(1016, 'x') + "..."},
        {"f.c", std::string(1022, 'x'), "f.c:1 " + std::string(1018, 'x') + "..."},
        {"f.c", std::string(5000, 'x'), "f.c:1 " + std::string(1019, 'x') + "..."},
    };
    for (const Case &c : cases) {
        LogCapture capture(0);
        uoz_dbglog(UOZ_LOG_ERR, c.file, 1, "%s", c.message.c_str());
        EXPECT_EQ(capture.text(), "[T] ERR  " + c.shown + "\n") << c.file << c.message.size();
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
    // Unless the minute turned between the readings, UTC's (not UTC+05:30's) shows.
    EXPECT_NE(raw.find(std::string(":") + hour), std::string::npos) << raw << " vs " << hour;
}

}  // namespace
}  // namespace uoztest
