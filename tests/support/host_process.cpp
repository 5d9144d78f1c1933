#include "tests/support/host_process.h"

#include "tests/support/kept_log.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char** environ;

Temporary_Folder::Temporary_Folder()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "httpd-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed for " + pattern);
    }
    path_ = pattern;
}

Temporary_Folder::~Temporary_Folder()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string Temporary_Folder::write(const std::string& name, const std::string& content) const
{
    const std::filesystem::path file = std::filesystem::path(path_) / name;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
    return file.string();
}

std::string own_loopback_address()
{
    static std::atomic<unsigned> counter{0};
    // 127/8 has more addresses than there are process numbers: 22 bits of number, none reserved.
    const unsigned host = (static_cast<unsigned>(::getpid()) & 0x3FFFFFU) | 0x400000U;
    const unsigned shifted = (host + (counter++ << 19)) & 0xFFFFFFU;
    return "127." + std::to_string(shifted >> 16) + "." + std::to_string((shifted >> 8) & 0xFFU) +
           "." + std::to_string(shifted & 0xFFU);
}

unsigned short free_local_port()
{
    static std::atomic<unsigned> next{static_cast<unsigned>(::getpid()) * 7U};
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const auto port = static_cast<unsigned short>(10000U + next++ % 20000U);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int handle = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const bool free =
            ::bind(handle, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        ::close(handle);
        if (free) {
            return port;
        }
    }
    throw std::runtime_error("no free port on 127.0.0.1");
}

std::string library_path(const std::string& name)
{
    return std::string(HTTPD_TEST_LIBRARY_DIR "/lib") + name + ".so";
}

std::string plugin_configuration(const std::vector<Plugin_Record>& records)
{
    const auto quoted = [](const std::string& text) {
        std::string result = "\"";
        for (const char c : text) {
            if (c == '"' || c == '\\') {
                result += '\\';
            }
            result += c;
        }
        return result + "\"";
    };
    std::string text = "[";
    for (const Plugin_Record& record : records) {
        const bool is_path = record.dll.find('/') != std::string::npos;
        text += text.size() > 1 ? ",\n " : "\n ";
        text += "{\"uri\": " + quoted(record.uri) +
                ", \"dll\": " + quoted(is_path ? record.dll : library_path(record.dll)) +
                ", \"init\": " + quoted(record.init) + ", \"params\": " + quoted(record.params) +
                "}";
    }
    return text + "\n]\n";
}

Host_Process::Host_Process(const Command& command)
{
    std::vector<std::string> words = command.wrapper;
    words.insert(words.end(), {HTTPD_TEST_HOST, "--log-level", command.log_level});
    words.insert(words.end(), command.host.begin(), command.host.end());
    size_t listeners = 0;
    if (!command.service.empty()) {
        words.emplace_back("--");
        words.insert(words.end(), command.service.begin(), command.service.end());
        for (const std::string& word : command.service) {
            listeners += word == "-p" ? 1U : 0U;
        }
    }
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);

    int log[2];
    if (::pipe2(log, O_CLOEXEC) == -1) {
        throw std::runtime_error("pipe failed");
    }
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    if (command.standard_input == -1) {
        ::posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    } else {
        ::posix_spawn_file_actions_adddup2(&actions, command.standard_input, 0);
    }
    if (command.standard_output != -1) {
        ::posix_spawn_file_actions_adddup2(&actions, command.standard_output, 1);
    }
    ::posix_spawn_file_actions_adddup2(
        &actions, command.standard_error != -1 ? command.standard_error : log[1], 2);
    // The host starts as from a shell, whatever a client of this test has set.
    posix_spawnattr_t attributes;
    ::posix_spawnattr_init(&attributes);
    sigset_t defaults;
    ::sigemptyset(&defaults);
    ::sigaddset(&defaults, SIGPIPE);
    ::posix_spawnattr_setsigdefault(&attributes, &defaults);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    const int error =
        ::posix_spawnp(&pid_, words.front().c_str(), &actions, &attributes, argv.data(), environ);
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(log[1]);
    if (error != 0) {
        ::close(log[0]);
        throw std::runtime_error("cannot start " + words.front());
    }
    reader_ = std::thread([this, handle = log[0]] { this->read_log(handle); });
    if (command.wait_until_ready &&
        !this->wait_for_log_count(" is listening.", listeners, std::chrono::seconds(30))) {
        const std::string text = this->log_text();
        this->stop(SIGKILL);
        reader_.join();
        throw std::runtime_error("the host is not ready:\n" + text);
    }
}

Host_Process::~Host_Process()
{
    if (!ended_) {
        this->stop(SIGTERM);
    }
    if (reader_.joinable()) {
        reader_.join();
    }
}

void Host_Process::read_log(int handle)
{
    std::string rest;
    char buffer[4096];
    for (;;) {
        const ssize_t count = ::read(handle, buffer, sizeof buffer);
        if (count == -1 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            break;
        }
        rest.append(buffer, static_cast<size_t>(count));
        const std::lock_guard<std::mutex> guard(mutex_);
        for (size_t end; (end = rest.find('\n')) != std::string::npos; rest.erase(0, end + 1)) {
            lines_.push_back(rest.substr(0, end));
        }
        changed_.notify_all();
    }
    ::close(handle);
    const std::lock_guard<std::mutex> guard(mutex_);
    if (!rest.empty()) {
        lines_.push_back(rest);
    }
    std::string text;
    for (const std::string& line : lines_) {
        text += line + "\n";
    }
    keep_log(text);
    log_ended_ = true;
    changed_.notify_all();
}

bool Host_Process::wait_for_log(const std::string& text, std::chrono::seconds limit) const
{
    return this->wait_for_log_count(text, 1, limit);
}

bool Host_Process::wait_for_log_count(const std::string& text, size_t times,
                                      std::chrono::seconds limit) const
{
    std::unique_lock<std::mutex> guard(mutex_);
    const auto enough = [this, &text, times] {
        size_t found = 0;
        for (const std::string& line : lines_) {
            found += line.find(text) != std::string::npos ? 1U : 0U;
        }
        return found >= times;
    };
    changed_.wait_for(guard, limit, [this, &enough] { return enough() || log_ended_; });
    return enough();
}

size_t Host_Process::count_log(const std::string& text) const
{
    size_t found = 0;
    for (const std::string& line : this->log()) {
        found += line.find(text) != std::string::npos ? 1U : 0U;
    }
    return found;
}

std::vector<std::string> Host_Process::log() const
{
    const std::lock_guard<std::mutex> guard(mutex_);
    return lines_;
}

std::string Host_Process::log_text() const
{
    std::string text;
    for (const std::string& line : this->log()) {
        text += line + "\n";
    }
    return text;
}

int Host_Process::wait_for_end(std::chrono::seconds limit)
{
    if (ended_) {
        return status_;
    }
    // The host holds the log's writing end: its end of file tells of the host's end.
    {
        std::unique_lock<std::mutex> guard(mutex_);
        if (!changed_.wait_for(guard, limit, [this] { return log_ended_; })) {
            ::kill(pid_, SIGKILL);
        }
    }
    int status = 0;
    while (::waitpid(pid_, &status, 0) == -1 && errno == EINTR) {
    }
    ended_ = true;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return status_;
}

int Host_Process::stop(int signal)
{
    if (!ended_ && signal != 0) {
        ::kill(pid_, signal);
    }
    return this->wait_for_end(std::chrono::seconds(60));
}

bool Host_Process::is_running()
{
    if (ended_) {
        return false;
    }
    siginfo_t info = {};
    return ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
}
