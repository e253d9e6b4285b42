// Edge cases at unit level: validity periods, every ReadDTCInformation body
// and the banner text.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <regex>
#include <string>

#include "UDSOverZelko/read_dtc.h"
#include "UDSOverZelko/remote_command.h"
#include "core_support.h"
#include "golden.h"
#include "kt5Utils/kt5_json.h"

namespace uoztest {
namespace {

std::string utc_text(time_t when) {
    struct tm calendar = {};
    gmtime_r(&when, &calendar);
    char text[32];
    strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &calendar);
    return text;
}

TEST(ValidityTest, periodsAreCheckedToTheSecondWithTheirMessages) {
    struct Case {
        const char *name;
        long start_offset;  // seconds from now
        long end_offset;
        int valid;
        const char *log;  // the ERR line, or "" for none
    } cases[] = {
        {"now is the start", 0, 3600, 1, ""},
        {"now is the end", -3600, 0, 1, ""},
        {"start and end are now", 0, 0, 1, ""},
        {"starts in an hour", 3600, 7200, 0, "Command validity not started yet\n"},
        {"starts in a second", 1, 7200, 0, "Command validity not started yet\n"},
        {"ended an hour ago", -7200, -3600, 0, "Command validity expired\n"},
        {"ended a second ago", -7200, -1, 0, "Command validity expired\n"},
        {"end before start", 3600, -3600, 0, "Command validity not started yet\n"},
    };
    for (const Case &c : cases) {
        int valid = -1;
        std::string log;
        // Run again when the second turned, so that "now" is the texts' own.
        for (time_t now = 0; now != time(nullptr);) {
            now = time(nullptr);
            std::string start = utc_text(now + c.start_offset);
            std::string end = utc_text(now + c.end_offset);
            LogCapture capture(0);
            valid = check_command_validity(start.c_str(), end.c_str());
            log = capture.text();
        }
        EXPECT_EQ(valid, c.valid) << c.name;
        if (c.log[0] == '\0') {
            EXPECT_EQ(log, "") << c.name;
        } else {
            EXPECT_NE(log.find(std::string(" ") + c.log), std::string::npos) << c.name << log;
        }
    }
}

TEST(ValidityTest, unreadableTimesAreInvalidAndSaySoOnStandardOutput) {
    const char *const texts[] = {
        "2025-03-01 06:00:00",        // no T, no Z
        "2025-03-01T06:00:00+02:00",  // another zone than UTC
        "",
        "yesterday",
    };
    for (const char *text : texts) {
        LogCapture capture(0);
        EXPECT_EQ(check_command_validity(text, "2100-01-01T00:00:00Z"), 0) << text;
        EXPECT_EQ(capture.raw(), "Failed to parse time string\n") << text;
        LogCapture end_capture(0);
        EXPECT_EQ(check_command_validity("2000-01-01T00:00:00Z", text), 0) << text;
        EXPECT_EQ(end_capture.raw(), "Failed to parse time string\n") << text;
    }
}

TEST(ValidityTest, timesAreUtcWhateverTheProcessTimeZone) {
    const char *saved = getenv("TZ");
    std::string saved_zone = saved != nullptr ? saved : "";
    setenv("TZ", "EST5EDT", 1);
    tzset();
    time_t now = time(nullptr);
    // Valid in UTC; read as local time five hours off, it would not be.
    int result = check_command_validity(utc_text(now - 60).c_str(), utc_text(now + 3600).c_str());
    if (saved != nullptr)
        setenv("TZ", saved_zone.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
    EXPECT_EQ(result, 1);
}

// Status mask 0x09, DTC 0x12AB3C and record 0x05 for every report type: the
// served ones have their body in read_dtc_bodies.golden, the others none.
TEST(ReadDtcBodyTest, everyServedReportTypeHasItsBody) {
    Golden bodies(UOZ_GOLDEN_DIR "/read_dtc_bodies.golden");
    for (uint32_t subfunction = 0; subfunction <= 0x1A; ++subfunction) {
        char label[8];
        snprintf(label, sizeof(label), "0x%02X", subfunction);
        ASSERT_EQ(dtc_subfunction_supported(subfunction) == 0, bodies.has(label)) << label;
        if (!bodies.has(label))
            continue;
        JsonPtr body(build_read_dtc_body(subfunction, 0x09, 0x12AB3C, 0x05));
        EXPECT_EQ(json_object_to_json_string(body.get()), bodies[label]) << label;
    }
}

TEST(ReadDtcBodyTest, masksListTheirBitsInOrderAndEmptyWhenZero) {
    struct Case {
        uint32_t mask;
        const char *record;
    } cases[] = {
        {0x00, "[ ]"},
        {0x80, R"([ "UDS_STATUS_MASK_WARNING_INDICATOR_REQUESTED" ])"},
        {0x44,
         R"([ "UDS_STATUS_MASK_PENDING_DTC", "UDS_STATUS_MASK_TEST_NOT_COMPLETED_THIS_OP_CYCLE" ])"},
    };
    for (const Case &c : cases) {
        JsonPtr names(status_mask_to_names(c.mask));
        EXPECT_STREQ(json_object_to_json_string(names.get()), c.record) << c.mask;
    }
    // Bits above 0x80 are not looked at: all eight names.
    EXPECT_EQ(json_object_array_length(JsonPtr(status_mask_to_names(0x1FF)).get()), 8u);
}

TEST(BannerTest, entryPointsLogTheBannerAtErrAndTheLookUpsDoNot) {
    LogCapture capture(0);
    UDSOverZelko_Terminate(nullptr);
    EXPECT_EQ(UDSOverZelkoSendExternalConsent(nullptr, 0, "c"), CONSENT_INVALID_HANDLE);
    UDSOverZelkoGetTargetAddressFromECUName(nullptr, "x");
    UDSOverZelkoGetECUNameFromTargetAddress(nullptr, 1);
    std::string log = capture.text();
    const std::string line = R"(\[T\] ERR  [a-z_]+\.cpp:\d+ )";
    EXPECT_TRUE(std::regex_match(
        log, std::regex(line + "UDSOverZelko Library Version: -\n" + line +
                        "UDSOverZelko Library Version: -\n" + line + "Invalid Handle\n")))
        << log;
}

}  // namespace
}  // namespace uoztest
