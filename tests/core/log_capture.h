// Captures the library's log lines, with their time stamps masked.
#ifndef UOZ_TESTS_LOG_CAPTURE_H
#define UOZ_TESTS_LOG_CAPTURE_H

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "udsoverzelko.h"

namespace uoztest {

// Replaces "[MM-DD:HH:MM:SS.mmm]" by "[T]" and drops the colour escapes.
inline std::string masked(const std::string &log) {
    std::string text =
        std::regex_replace(log, std::regex(R"(\[\d\d-\d\d:\d\d:\d\d:\d\d\.\d\d\d\])"), "[T]");
    return std::regex_replace(text, std::regex("\x1b\\[1;[0-9]+m"), "");
}

class LogCapture {
  public:
    explicit LogCapture(int level) : saved_(uoz_dbg_level) {
        uoz_dbg_level = level;
        testing::internal::CaptureStdout();
    }
    ~LogCapture() {
        if (!taken_)
            testing::internal::GetCapturedStdout();
        uoz_dbg_level = saved_;
    }
    // The raw text written since the capture began.
    std::string raw() {
        taken_ = true;
        fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }
    std::string text() { return masked(raw()); }

  private:
    int saved_;
    bool taken_ = false;
};

}  // namespace uoztest

#endif
