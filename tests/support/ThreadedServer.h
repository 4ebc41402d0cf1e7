// Test support: a TCP server on a thread of its own, each connection served by a handler on a
// thread of its own. Destroying it stops accepting, ends every open connection and waits for
// every thread, so no handler outlives the server (or what it captured). Header-only: only the
// programs that use Boost.Asio include it.
#pragma once

#include <sys/socket.h>

#include <boost/asio/ip/tcp.hpp>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qbrix::test {

class ThreadedServer {
  public:
    using Handler = std::function<void(boost::asio::ip::tcp::socket&)>;

    ThreadedServer(const std::string& address, unsigned short port, Handler handler)
        : m_handler(std::move(handler)) {
        using boost::asio::ip::tcp;
        m_acceptor.open(tcp::v4());
        m_acceptor.set_option(tcp::acceptor::reuse_address(true));
        m_acceptor.bind({boost::asio::ip::make_address(address), port});
        m_acceptor.listen(1024);
        m_thread = std::thread([this] { Accept(); });
    }
    ~ThreadedServer() {
        ::shutdown(m_acceptor.native_handle(), SHUT_RDWR);
        m_thread.join();
        std::list<Connection> connections;
        {
            std::lock_guard<std::mutex> lock(m_lock);
            for (Connection& connection : m_connections) {
                boost::system::error_code ignored;
                connection.socket->shutdown(boost::asio::ip::tcp::socket::shutdown_both, ignored);
            }
            connections.swap(m_connections);
        }
        for (Connection& connection : connections) {
            connection.thread.join();
        }
    }
    ThreadedServer(const ThreadedServer&) = delete;
    ThreadedServer& operator=(const ThreadedServer&) = delete;

  private:
    struct Connection {
        std::unique_ptr<boost::asio::ip::tcp::socket> socket;
        std::thread thread;
    };

    void Accept() {
        for (;;) {
            auto socket = std::make_unique<boost::asio::ip::tcp::socket>(m_io);
            boost::system::error_code ec;
            m_acceptor.accept(*socket, ec);
            if (ec) {
                return;
            }
            std::lock_guard<std::mutex> lock(m_lock);
            boost::asio::ip::tcp::socket* served = socket.get();
            m_connections.push_back(
                {std::move(socket), std::thread([this, served] { m_handler(*served); })});
        }
    }

    Handler m_handler;
    boost::asio::io_context m_io;
    boost::asio::ip::tcp::acceptor m_acceptor{m_io};
    std::thread m_thread;
    std::mutex m_lock;
    std::list<Connection> m_connections;  // kept until the server goes: sockets stay valid
};

}  // namespace qbrix::test
