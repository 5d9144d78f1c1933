#include "httpd/http_service.h"

#include "httpd/http_authenticator_creator_map.h"
#include "httpd/http_handler_creator_map.h"
#include "httpd/http_options.h"
#include "httpd/make_acceptor.h"
#include "httpd/websocket_handler_creator_map.h"
#include "support/log.h"
#include "support/log_rotation.h"
#include "support/lsock_stream.h"
#include "support/mem_stream.h"

#include <ace/Assert.h>
#include <ace/INET_Addr.h>
#include <ace/MEM_Addr.h>
#include <ace/SOCK_Stream.h>
#include <ace/SSL/SSL_SOCK_Stream.h>
#include <ace/UNIX_Addr.h>

#include <cerrno>
#include <memory>
#include <new>

namespace {

using Listen_Address = HTTP_Options::Listen_Address;

template <typename Stream, typename Addr>
ACE_Service_Object* make_acceptor_for(Event_Loop_Manager& loops, const HTTP_Options& options,
                                      const Listen_Address& address)
{
    return make_acceptor<Stream, Addr>(loops, static_cast<const Addr&>(*address.sap),
                                       options.accept_timeout(), options.listen_backlog(),
                                       address.ipv6_only ? 1 : 0);
}

ACE_Service_Object* make_acceptor_by_type(Event_Loop_Manager& loops, const HTTP_Options& options,
                                          const Listen_Address& address)
{
    switch (address.type) {
    case Listen_Address::TYPE_HTTP:
        return make_acceptor_for<ACE_SOCK_Stream, ACE_INET_Addr>(loops, options, address);
    case Listen_Address::TYPE_HTTPS:
        return make_acceptor_for<ACE_SSL_SOCK_Stream, ACE_INET_Addr>(loops, options, address);
    case Listen_Address::TYPE_HTTPM:
        return make_acceptor_for<MEM_Stream, ACE_MEM_Addr>(loops, options, address);
    case Listen_Address::TYPE_HTTPU:
        return make_acceptor_for<LSOCK_Stream, ACE_UNIX_Addr>(loops, options, address);
    }
    return nullptr;
}

/// Appends an acceptor to those it belongs to; null is left out.
void keep(ACE_Service_Object* acceptor, std::vector<ACE_Service_Object*>& acceptors)
{
    if (acceptor == nullptr) {
        return;
    }
    try {
        acceptors.push_back(acceptor);
    } catch (const std::bad_alloc&) {
        delete acceptor;
        errno = ENOMEM;
    }
}

/// These come last only because the listeners log first: the settings are in force already.
void log_settings(const HTTP_Options& options)
{
    if (options.idle_timeout() != nullptr) {
        HTTPD_INFO("HTTP idle timeout %:s", options.idle_timeout()->sec());
    }
    if (options.listen_backlog() != 0) {
        HTTPD_INFO("HTTP listen backlog %d", options.listen_backlog());
    }
    if (options.accept_timeout() != 0) {
        HTTPD_INFO("HTTP accept timeout %ds", options.accept_timeout());
    }
    if (options.ping_interval() != nullptr) {
        HTTPD_INFO("WebSocketd ping interval %:s", options.ping_interval()->sec());
    }
    if (options.ping_timeout() != nullptr) {
        HTTPD_INFO("WebSocketd ping timeout %:s", options.ping_timeout()->sec());
    }
}

} // namespace

HTTP_Service::HTTP_Service() = default;

HTTP_Service::~HTTP_Service()
{
    this->clear();
}

int HTTP_Service::init(int argc, char** argv)
{
    ignore_sigpipe();
    // Before the options change: the connections of an earlier init read them without a lock.
    this->clear();
    HTTP_Options* const options = HTTP_Options::instance();
    if (options == nullptr || options->parse_args(argc, argv) < 0) {
        HTTPD_ERROR("Failed to parse HTTP options.");
        return -1;
    }
    const char* const reactor_type = get_preferred_reactor_type();
    const auto loops = static_cast<unsigned int>(options->loops());
    if (!loops_.open(reactor_type, loops)) {
        HTTPD_ERROR("Failed to open event loops for HTTP: reactor type %s, threads %u.",
                    reactor_type, loops);
        return -1;
    }
    share_.start();
    HTTPD_INFO("HTTP event loops(reactor type: %s, number: %u) are started.", reactor_type, loops);
    for (int i = 0; options->listen_address(i) != nullptr; ++i) {
        // An address that cannot be listened on has been logged.
        keep(make_acceptor_by_type(loops_, *options, *options->listen_address(i)), acceptors_);
    }
    log_settings(*options);
    return 0;
}

void HTTP_Service::clear()
{
    for (ACE_Service_Object* const acceptor : acceptors_) {
        delete acceptor;
    }
    acceptors_.clear();
    loops_.close();
    // What has moved to a thread of its own is not known to the loops.
    if (!share_.stop()) {
        loops_.abandon();
    }
}

int HTTP_Service::fini()
{
    this->clear();
    finish_log_compression();
    if (share_.is_last()) { // else they are in use
        HTTP_Options::close_instance();
        HTTP_Handler_Creator_Map::close_instance();
        HTTP_Authenticator_Creator_Map::close_instance();
        WebSocket_Handler_Creator_Map::close_instance();
    }
    return 0;
}

ACE_Service_Object* _make_HTTP_Service(void (**gobbler)(void*))
{
    if (gobbler != nullptr) {
        *gobbler = _gobble_HTTP_Service;
    }
    try {
        return new HTTP_Service;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return nullptr;
    }
}

void _gobble_HTTP_Service(void* _p)
{
    ACE_ASSERT(_p != 0);
    delete static_cast<ACE_Service_Object*>(_p);
}
