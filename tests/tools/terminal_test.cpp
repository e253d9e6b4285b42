// Colour only on a terminal, and never with NO_COLOR.
#include "terminal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

namespace {

class TerminalTest : public ::testing::Test {
  protected:
    void SetUp() override {
        master_ = posix_openpt(O_RDWR | O_NOCTTY);
        ASSERT_GE(master_, 0);
        ASSERT_EQ(grantpt(master_), 0);
        ASSERT_EQ(unlockpt(master_), 0);
        terminal_ = open(ptsname(master_), O_RDWR | O_NOCTTY);
        ASSERT_GE(terminal_, 0);
        ASSERT_EQ(pipe(pipe_), 0);
        unsetenv("NO_COLOR");
        setenv("TERM", "xterm", 1);
    }
    void TearDown() override {
        for (int fd : {terminal_, master_, pipe_[0], pipe_[1]})
            close(fd);
        unsetenv("NO_COLOR");
    }
    int master_ = -1;
    int terminal_ = -1;
    int pipe_[2] = {-1, -1};
};

TEST_F(TerminalTest, colourOnATerminalOnly) {
    EXPECT_TRUE(uoztools::colour_allowed(terminal_));
    EXPECT_FALSE(uoztools::colour_allowed(pipe_[1]));
}

TEST_F(TerminalTest, noColourWhenNoColorIsSetOrTheTerminalIsDumb) {
    setenv("NO_COLOR", "1", 1);
    EXPECT_FALSE(uoztools::colour_allowed(terminal_));
    // An empty NO_COLOR does not count.
    setenv("NO_COLOR", "", 1);
    EXPECT_TRUE(uoztools::colour_allowed(terminal_));
    setenv("TERM", "dumb", 1);
    EXPECT_FALSE(uoztools::colour_allowed(terminal_));
}

}  // namespace
