// The POP3 side of the processor: connections redirected from port 110 go on to the server they
// were meant for; the messages of RETR and TOP answers pass through the rules and the scan.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "ProxyContext.h"

namespace qbrix::contentproc {

boost::asio::awaitable<void> ServePop3(ProxyContext& context, boost::asio::ip::tcp::socket client);

}  // namespace qbrix::contentproc
