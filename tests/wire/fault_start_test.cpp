// A start that fails tells why and ends with 1; what concerns one part alone leaves the others.

#include "tests/support/faults.h"
#include "tests/support/probe_server.h"
#include "tests/support/tls_files.h"
#include "tests/support/wire_client.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>

namespace {

struct Start_Fault {
    const char* name;
    Fault_Call call;
    int error;
    const char* path;
    const char* message; ///< a part of the line that tells
};

/// What the test runner prints of it.
[[maybe_unused]] void PrintTo(const Start_Fault& fault, std::ostream* out)
{
    *out << fault.name;
}

std::string name_of(const testing::TestParamInfo<Start_Fault>& fault)
{
    return fault.param.name;
}

/// A host with everything that a start can fail at; the faults are armed before it starts.
class Fault_Start : public testing::TestWithParam<Start_Fault> {
protected:
    std::unique_ptr<Host_Process> start()
    {
        const Tls_Files tls = write_tls_files(folder_.path());
        Host_Process::Command command;
        command.wait_until_ready = false;
        command.host = {"--tls-certificate", tls.certificate, "--tls-private-key",
                        tls.private_key,     "--pid-file",    folder_.path() + "/host.pid"};
        command.service = {
            "-p",
            address_ + ":8080",
            "-l",
            folder_.path() + "/access.log",
            "-f",
            folder_.write("http.json",
                          plugin_configuration({{"/probe", "probe_plugin", "_make_Probe"}}))};
        const Start_Fault& row = this->GetParam();
        Fault fault = {row.call, row.error};
        fault.path = row.path;
        faults_.arm(fault);
        const Faults::In_Environment environment(faults_);
        return std::make_unique<Host_Process>(command);
    }

    Temporary_Folder folder_;
    Faults faults_;
    std::string address_ = own_loopback_address();
};

class Fault_Start_Ends : public Fault_Start {};
class Fault_Start_Goes_On : public Fault_Start {};

} // namespace

TEST_P(Fault_Start_Ends, with_1_and_a_line_that_says_why)
{
    const auto host = this->start();
    EXPECT_EQ(1, host->stop(0)) << host->log_text();
    EXPECT_NE(std::string::npos, host->log_text().find(this->GetParam().message))
        << host->log_text();
    EXPECT_GT(faults_.struck(), 0U);
}

INSTANTIATE_TEST_SUITE_P(
    With, Fault_Start_Ends,
    testing::Values(Start_Fault{"no_epoll", Fault_Call::EPOLL_CREATE, EMFILE, "",
                                "errno=24, Too many open"},
                    Start_Fault{"no_event_descriptor", Fault_Call::EVENT, EMFILE, "",
                                "errno=24, Too many open"},
                    Start_Fault{"no_timer_descriptor", Fault_Call::TIMER, ENFILE, "",
                                "errno=23, Too many open"},
                    Start_Fault{"no_watched_descriptors", Fault_Call::EPOLL_CONTROL, ENOSPC, "",
                                "errno=28, No space left"},
                    Start_Fault{"no_signal_descriptor", Fault_Call::SIGNAL, EMFILE, "",
                                "Failed to watch signals, errno=24"},
                    Start_Fault{"no_thread", Fault_Call::THREAD, EAGAIN, "",
                                "Failed to open event loops for HTTP"},
                    Start_Fault{"pid_file_on_a_read_only_disk", Fault_Call::OPEN, EROFS, "host.pid",
                                "Read-only file system"},
                    Start_Fault{"pid_file_on_a_full_disk", Fault_Call::WRITE, ENOSPC, "host.pid",
                                "No space left on device"},
                    Start_Fault{"certificate_that_cannot_be_read", Fault_Call::OPEN, EIO,
                                "certificate.pem", "certificate.pem"}),
    &name_of);

TEST_P(Fault_Start_Goes_On, without_the_part_and_with_a_line_that_says_why)
{
    const auto host = this->start();
    EXPECT_TRUE(host->wait_for_log("is running")) << host->log_text();
    EXPECT_TRUE(host->wait_for_log(this->GetParam().message)) << host->log_text();
    EXPECT_GT(faults_.struck(), 0U);
    faults_.disarm();
    EXPECT_EQ(0, host->stop(SIGTERM)) << host->log_text();
}

INSTANTIATE_TEST_SUITE_P(
    With, Fault_Start_Goes_On,
    testing::Values(
        Start_Fault{"no_socket", Fault_Call::SOCKET, EMFILE, "", "Failed to listen HTTP"},
        Start_Fault{"no_binding", Fault_Call::BIND, EACCES, "", "errno=13, Permission denied"},
        Start_Fault{"no_listening", Fault_Call::LISTEN, EADDRINUSE, "",
                    "errno=98, Address already in use"},
        Start_Fault{"access_log_on_a_read_only_disk", Fault_Call::OPEN, EROFS, "access.log",
                    "Failed to open http access log"},
        Start_Fault{"configuration_that_cannot_be_opened", Fault_Call::OPEN, EIO, "http.json",
                    "http.json"},
        Start_Fault{"configuration_that_cannot_be_read", Fault_Call::READ, EIO, "http.json",
                    "http.json"}),
    &name_of);
