// Colour only on a terminal, and never with NO_COLOR or a dumb terminal.
#include "terminal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

namespace {

TEST(TerminalTest, colourOnATerminalOnlyAndNeverWithNoColor) {
    int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(grantpt(master), 0);
    ASSERT_EQ(unlockpt(master), 0);
    int terminal = open(ptsname(master), O_RDWR | O_NOCTTY);
    ASSERT_GE(terminal, 0);
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    unsetenv("NO_COLOR");
    setenv("TERM", "xterm", 1);
    EXPECT_TRUE(uoztools::colour_allowed(terminal));
    EXPECT_FALSE(uoztools::colour_allowed(pipe_fds[1]));
    setenv("NO_COLOR", "1", 1);
    EXPECT_FALSE(uoztools::colour_allowed(terminal));
    // An empty NO_COLOR does not count.
    setenv("NO_COLOR", "", 1);
    EXPECT_TRUE(uoztools::colour_allowed(terminal));
    setenv("TERM", "dumb", 1);
    EXPECT_FALSE(uoztools::colour_allowed(terminal));
    unsetenv("NO_COLOR");
    for (int fd : {terminal, master, pipe_fds[0], pipe_fds[1]})
        close(fd);
}

}  // namespace
