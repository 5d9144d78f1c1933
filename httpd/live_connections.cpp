#include "httpd/live_connections.h"

#include "httpd/worker_threads.h"
#include "support/log.h"

#include <cerrno>
#include <new>

Live_Connections& Live_Connections::instance()
{
    static Live_Connections* const connections = new Live_Connections;
    return *connections;
}

void Live_Connections::add()
{
    const std::lock_guard<std::mutex> guard(mutex_);
    ++count_;
}

void Live_Connections::remove()
{
    const std::lock_guard<std::mutex> guard(mutex_);
    if (--count_ == 0) {
        changed_.notify_all();
    }
}

bool Live_Connections::enter_thread(Worker* worker)
{
    const std::lock_guard<std::mutex> guard(mutex_);
    try {
        workers_.insert(worker);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return false;
    }
    return true;
}

void Live_Connections::leave_thread(Worker* worker)
{
    const std::lock_guard<std::mutex> guard(mutex_);
    workers_.erase(worker);
}

void Live_Connections::interrupt(Worker* worker)
{
    const std::lock_guard<std::mutex> guard(mutex_);
    if (workers_.count(worker) > 0) {
        worker->interrupt();
    }
}

bool Live_Connections::drain(std::chrono::milliseconds limit)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    std::unique_lock<std::mutex> guard(mutex_);
    for (Worker* worker : workers_) {
        worker->interrupt();
    }
    if (changed_.wait_until(guard, deadline, [this] { return count_ == 0; })) {
        guard.unlock();
        // All they have left to do is ACE's own work, which takes no time to speak of.
        Worker_Threads::wait_until(std::chrono::steady_clock::now() + limit);
        return true;
    }
    for (const Worker* worker : workers_) {
        HTTPD_ERROR("A connection is still in its worker thread, its plug-in is left loaded: %s.",
                    worker->plug_in().c_str());
    }
    HTTPD_ERROR("%B HTTP connections are still in use, plug-ins are left loaded.", count_);
    return false;
}
