// The HTTP side of the processor: one coroutine per client connection, as a transparent proxy
// (connections redirected from port 80 keep going to the address they were meant for) and as an
// explicit proxy (absolute request targets, CONNECT tunnels).
#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "ProxyContext.h"

namespace qbrix::contentproc {

boost::asio::awaitable<void> ServeHttp(ProxyContext& context, boost::asio::ip::tcp::socket client);

}  // namespace qbrix::contentproc
