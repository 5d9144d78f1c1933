#pragma once

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Callback.h>
#include <ace/Log_Record.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

/**
 * Collects the log lines of this thread while it lives (and of event loops that it opens);
 * nothing is printed meanwhile. Lines are kept as they were logged, final newline included.
 */
class Log_Capture : public ACE_Log_Msg_Callback {
public:
    struct Line {
        ACE_Log_Priority priority;
        std::string text;
    };

    Log_Capture();
    ~Log_Capture() override;
    Log_Capture(const Log_Capture&) = delete;
    Log_Capture& operator=(const Log_Capture&) = delete;

    std::vector<Line> lines() const;

    /// The texts of one priority, in order.
    std::vector<std::string> texts(ACE_Log_Priority priority) const;

    /// How many lines of that priority hold `text`.
    size_t count(ACE_Log_Priority priority, const std::string& text) const;

    /// Waits until a line holds `text`; false after `limit`.
    bool wait_for(const std::string& text,
                  std::chrono::seconds limit = std::chrono::seconds(10)) const;

    void clear();

    void log(ACE_Log_Record& record) override;

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Line> lines_;
    ACE_Log_Msg_Callback* previous_;
    unsigned long previous_flags_;
};
