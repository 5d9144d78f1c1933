#include "httpd/http_svc_handler_t.h"

#include "httpd/detail/forwarded_for.h"
#include "httpd/detail/receive_buffers.h"
#include "httpd/detail/request_check.h"
#include "httpd/detail/send_outcome.h"
#include "httpd/detail/send_vector.h"
#include "httpd/detail/timer_slot.h"
#include "httpd/http_access_logger.h"
#include "httpd/http_authenticator_creator_map.h"
#include "httpd/http_handler_creator_map.h"
#include "httpd/http_options.h"
#include "httpd/lingering_close.h"
#include "httpd/thread_name.h"
#include "httpd/websocket_handler_creator_map.h"
#include "httpd/worker_threads.h"
#include "support/epoll_reactor.h"
#include "support/file_send.h"
#include "support/fixed_block_file_reader_t.h"
#include "support/http_chunk_iovec.h"
#include "support/http_header_value.h"
#include "support/log.h"
#include "support/mime_type.h"
#include "support/scoped_deleter.h"
#include "support/signals_blocked.h"
#include "support/socket_helpers.h"
#include "support/uri.h"
#include "support/websocket_key_accept.h"

#include <ace/ACE.h>
#include <ace/FILE.h>
#include <ace/Message_Block.h>
#include <ace/Message_Queue_T.h>
#include <ace/Monotonic_Time_Policy.h>
#include <ace/OS_NS_strings.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/Timer_Queue.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <string_view>
#include <type_traits>
#include <utility>

namespace {

// Names for the flags of calls.
constexpr bool WITH_PORT = true;
constexpr bool WITHOUT_PORT = false;
constexpr bool PATH = true;

int copy_inet_addr(const ACE_INET_Addr& from, ACE_Addr& to)
{
    ACE_INET_Addr* const target = to.get_type() == AF_INET || to.get_type() == AF_INET6
                                      ? dynamic_cast<ACE_INET_Addr*>(&to)
                                      : nullptr;
    if (target == nullptr) {
        errno = EINVAL;
        return -1;
    }
    *target = from;
    return 0;
}

/// ACE would make a message queue for each connection, which nothing here uses: all share one.
template <typename Sync>
ACE_Message_Queue<Sync>* unused_queue()
{
    static auto* const queue = new ACE_Message_Queue<Sync>;
    return queue;
}

} // namespace

#include "httpd/http_svc_handler_t_file.ipp"
#include "httpd/http_svc_handler_t_life.ipp"
#include "httpd/http_svc_handler_t_receive.ipp"
#include "httpd/http_svc_handler_t_room.ipp"
#include "httpd/http_svc_handler_t_send.ipp"
#include "httpd/http_svc_handler_t_timers.ipp"
#include "httpd/http_svc_handler_t_websocket.ipp"

template class HTTP_Svc_Handler_T<ACE_SOCK_Stream, ACE_MT_SYNCH>;
template class HTTP_Svc_Handler_T<ACE_SSL_SOCK_Stream, ACE_MT_SYNCH>;
template class HTTP_Svc_Handler_T<LSOCK_Stream, ACE_MT_SYNCH>;
template class HTTP_Svc_Handler_T<MEM_Stream, ACE_MT_SYNCH>;
template class HTTP_Svc_Handler_T<Pipe_Stream, ACE_NULL_SYNCH>;
