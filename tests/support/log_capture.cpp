#include "tests/support/log_capture.h"

#include "tests/support/kept_log.h"

Log_Capture::Log_Capture()
    : previous_(ACE_Log_Msg::instance()->msg_callback(this)),
      previous_flags_(ACE_Log_Msg::instance()->flags())
{
    ACE_Log_Msg::instance()->clr_flags(ACE_Log_Msg::STDERR);
    ACE_Log_Msg::instance()->set_flags(ACE_Log_Msg::MSG_CALLBACK);
}

Log_Capture::~Log_Capture()
{
    ACE_Log_Msg::instance()->clr_flags(ACE_Log_Msg::MSG_CALLBACK);
    ACE_Log_Msg::instance()->set_flags(previous_flags_);
    ACE_Log_Msg::instance()->msg_callback(previous_);
}

std::vector<Log_Capture::Line> Log_Capture::lines() const
{
    const std::lock_guard<std::mutex> guard(mutex_);
    return lines_;
}

std::vector<std::string> Log_Capture::texts(ACE_Log_Priority priority) const
{
    const std::lock_guard<std::mutex> guard(mutex_);
    std::vector<std::string> result;
    for (const Line& line : lines_) {
        if (line.priority == priority) {
            result.push_back(line.text);
        }
    }
    return result;
}

size_t Log_Capture::count(ACE_Log_Priority priority, const std::string& text) const
{
    size_t found = 0;
    for (const std::string& line : texts(priority)) {
        found += line.find(text) != std::string::npos ? 1U : 0U;
    }
    return found;
}

bool Log_Capture::wait_for(const std::string& text, std::chrono::seconds limit) const
{
    std::unique_lock<std::mutex> guard(mutex_);
    return changed_.wait_for(guard, limit, [this, &text] {
        for (const Line& line : lines_) {
            if (line.text.find(text) != std::string::npos) {
                return true;
            }
        }
        return false;
    });
}

void Log_Capture::clear()
{
    const std::lock_guard<std::mutex> guard(mutex_);
    lines_.clear();
}

void Log_Capture::log(ACE_Log_Record& record)
{
    const std::lock_guard<std::mutex> guard(mutex_);
    lines_.push_back({static_cast<ACE_Log_Priority>(record.type()), record.msg_data()});
    const std::string& text = lines_.back().text;
    keep_log(text.ends_with('\n') ? text : text + "\n");
    changed_.notify_all();
}
