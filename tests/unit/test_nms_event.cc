#include "platform/nms_event.h"

#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// A system log that stops reading: its queue holds a dozen datagrams.
TEST(nms_event, without_the_library_an_event_goes_to_the_log_and_waits_for_nobody)
{
    const sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = "/dev/log"};
    unlink(address.sun_path);
    const int log = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_EQ(bind(log, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    alarm(20); // ends a test that waits
    for (int i = 0; i < 100; i++)
        EXPECT_EQ(nms_event_notify(10801001, nullptr, "{}"), 0);
    alarm(0);
    char text[256] = {};
    ASSERT_GT(recv(log, text, sizeof text - 1, MSG_DONTWAIT), 0);
    EXPECT_EQ(std::string(text), "<28>dnsproxyd[" + std::to_string(getpid()) + "]: event 10801001: {}");
    close(log);
    unlink(address.sun_path);
    EXPECT_EQ(nms_event_notify(10801001, nullptr, "{}"), 0) << "without a log";
}

} // namespace
