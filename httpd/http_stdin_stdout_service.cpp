#include "httpd/http_stdin_stdout_service.h"

#include "httpd/http_handler_creator_map.h"
#include "httpd/http_options.h"
#include "httpd/websocket_handler_creator_map.h"
#include "support/log_rotation.h"

#include <ace/Assert.h>
#include <ace/Reactor.h>

#include <cerrno>
#include <new>
#include <utility>

#include <unistd.h>

HTTP_Stdin_Stout_Svc_Handler::~HTTP_Stdin_Stout_Svc_Handler() = default;

int HTTP_Stdin_Stout_Svc_Handler::handle_close(ACE_HANDLE, ACE_Reactor_Mask)
{
    this->end_connection();
    ACE_Reactor::instance()->end_reactor_event_loop();
    return 0;
}

HTTP_Stdin_Stout_Service::HTTP_Stdin_Stout_Service() = default;

HTTP_Stdin_Stout_Service::~HTTP_Stdin_Stout_Service()
{
    this->clear();
}

int HTTP_Stdin_Stout_Service::init(int argc, char** argv)
{
    ignore_sigpipe();
    // Before the options change: the connection of an earlier init reads them without a lock.
    this->clear();
    HTTP_Options* const options = HTTP_Options::instance();
    if (options == nullptr || options->parse_args(argc, argv) < 0) {
        return -1;
    }
    handler_ = new (std::nothrow) HTTP_Stdin_Stout_Svc_Handler;
    if (handler_ == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    share_.start();
    constexpr bool READ_SIDE = true;
    constexpr bool WRITE_SIDE = false;
    constexpr bool OWN = false; // the descriptors are the process's
    handler_->peer().set_handle(STDIN_FILENO, READ_SIDE, OWN);
    handler_->peer().set_handle(STDOUT_FILENO, WRITE_SIDE, OWN);
    return handler_->open(nullptr);
}

/// A worker thread or a plug-in may still hold the handler: the last one that lets go deletes it.
void HTTP_Stdin_Stout_Service::clear()
{
    if (handler_ != nullptr) {
        handler_->stop_connection();
        std::exchange(handler_, nullptr)->remove_reference();
    }
    share_.stop();
}

/// The authenticators stay, other than with HTTP_Service; kept, and pinned by
/// HTTP_Stdin_Stout_Service_Test.fini_releases_all_but_the_authenticators.
int HTTP_Stdin_Stout_Service::fini()
{
    this->clear();
    finish_log_compression();
    if (share_.is_last()) { // else they are in use
        HTTP_Options::close_instance();
        HTTP_Handler_Creator_Map::close_instance();
        WebSocket_Handler_Creator_Map::close_instance();
    }
    return 0;
}

ACE_Service_Object* _make_HTTP_Stdin_Stout_Service(void (**gobbler)(void*))
{
    if (gobbler != nullptr) {
        *gobbler = _gobble_HTTP_Stdin_Stout_Service;
    }
    try {
        return new HTTP_Stdin_Stout_Service;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return nullptr;
    }
}

void _gobble_HTTP_Stdin_Stout_Service(void* _p)
{
    ACE_ASSERT(_p != 0);
    delete static_cast<ACE_Service_Object*>(_p);
}
