#include "httpd/live_connections.h"
#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

namespace {

class Fake_Worker final : public Live_Connections::Worker {
public:
    void interrupt() override { interrupted_.set_value(); }
    std::string plug_in() const override { return "uri '/slow' of dll 'slow'"; }

    std::promise<void> interrupted_;
};

} // namespace

TEST(Live_Connections, drains_at_once_when_there_is_none)
{
    EXPECT_TRUE(Live_Connections::instance().drain(std::chrono::milliseconds(0)));
}

TEST(Live_Connections, interrupts_workers_and_waits_until_they_are_gone)
{
    Live_Connections& connections = Live_Connections::instance();
    Fake_Worker worker;
    connections.add();
    connections.enter_thread(&worker);
    std::thread thread([&] {
        worker.interrupted_.get_future().wait();
        connections.leave_thread(&worker);
        connections.remove();
    });
    EXPECT_TRUE(connections.drain(std::chrono::seconds(20)));
    thread.join();
}

TEST(Live_Connections, names_the_plug_in_that_does_not_come_back)
{
    Live_Connections& connections = Live_Connections::instance();
    Log_Capture log;
    Fake_Worker worker;
    connections.add();
    connections.enter_thread(&worker);
    EXPECT_FALSE(connections.drain(std::chrono::milliseconds(1)));
    connections.leave_thread(&worker);
    connections.remove();
    EXPECT_EQ(1U, log.count(LM_ERROR, "uri '/slow' of dll 'slow'"));
}
