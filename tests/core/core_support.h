// Shared by the core tests: the library's log lines with their time stamps
// masked, and configuration texts loaded into a handle.
#ifndef UOZ_TESTS_CORE_SUPPORT_H
#define UOZ_TESTS_CORE_SUPPORT_H

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <regex>
#include <string>

#include "UDSOverZelko/config.h"
#include "udsoverzelko.h"

namespace uoztest {

// Replaces "[MM-DD:HH:MM:SS.mmm]" by "[T]".
inline std::string without_stamp(const std::string &log) {
    return std::regex_replace(log, std::regex(R"(\[\d\d-\d\d:\d\d:\d\d:\d\d\.\d\d\d\])"), "[T]");
}

// Without the stamps and the colour escapes.
inline std::string masked(const std::string &log) {
    return std::regex_replace(without_stamp(log), std::regex("\x1b\\[1;[0-9]+m"), "");
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

// Writes text to a new temporary file; its path.
inline std::string temp_file(const std::string &text) {
    char path[] = "/tmp/uoz-core-XXXXXX";
    int fd = mkstemp(path);
    EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
    return path;
}

// Loads the configuration text into a new handle, with its log at `level`
// in *log; nullptr when the load failed.
inline UDSOverZelkoHandle *load_config(const std::string &text, std::string *log = nullptr,
                                       int level = 0) {
    std::string path = temp_file(text);
    UDSOverZelkoHandle *handle = new_handle();
    LogCapture capture(level);
    int rc = load_ecu_config(handle, path.c_str());
    if (log != nullptr)
        *log = capture.text();
    unlink(path.c_str());
    if (rc == 0)
        return handle;
    release_handle(handle);
    return nullptr;
}

}  // namespace uoztest

#endif
