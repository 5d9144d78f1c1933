#include "tests/support/host_run.h"

#include "tests/support/log_lines.h"

#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <stdexcept>

Host_Run run_host(const std::vector<std::string>& host, const std::vector<std::string>& service,
                  const std::vector<std::string>& wrapper)
{
    const Temporary_Folder folder;
    const std::string path = folder.path() + "/output";
    Host_Process::Command command;
    command.wrapper = wrapper;
    command.host = host;
    command.service = service;
    command.wait_until_ready = false;
    command.standard_output = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (command.standard_output == -1) {
        throw std::runtime_error("cannot write " + path);
    }
    Host_Process process(command);
    ::close(command.standard_output);
    Host_Run run;
    run.status = process.stop(0);
    run.lines = process.log();
    run.refusal = lines_of(process, "ERROR");
    std::ifstream output(path, std::ios::binary);
    run.output.assign(std::istreambuf_iterator<char>(output), {});
    return run;
}
