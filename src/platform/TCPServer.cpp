#include "TCPServer.h"

#include "zt_log.h"

#include <asio.hpp>

#include <array>
#include <chrono>
#include <atomic>
#include <future>
#include <map>
#include <thread>

namespace zt {

namespace {
constexpr std::size_t kReadBlock = 64 * 1024;
// The longest a send waits for the peer to take its bytes: the send time-out of the
// blocking sockets on the other end of the module proxy.
constexpr unsigned int kSendTimeoutMs = 3000;
} // namespace

struct TCPServer::Impl : std::enable_shared_from_this<TCPServer::Impl> {
    struct Connection {
        int id = 0;
        asio::ip::tcp::socket socket;
        std::array<char, kReadBlock> buffer{};
        bool paused = false;
        explicit Connection(asio::io_context& io) : socket(io) {}
    };
    // One sendMsg's bytes (its own copy: the caller may give up waiting), its result and
    // the connection it goes to.
    struct PendingWrite {
        std::vector<char> bytes;
        std::promise<int> done;
        std::weak_ptr<Connection> to;
        std::atomic<std::size_t> written{0}; // so far, for the sender's watch on progress
    };

    TCPServer& owner;
    asio::io_context io;
    asio::executor_work_guard<asio::io_context::executor_type> work{io.get_executor()};
    asio::ip::tcp::acceptor acceptor{io};
    asio::steady_timer retry{io};
    std::thread thread;
    // Touched only on the serving thread.
    std::map<int, std::shared_ptr<Connection>> connections;
    int nextId = 1;
    std::atomic<int> port{0};
    std::atomic<int> connectionCount{0};
    bool running = false; // guarded by the owner's state mutex

    explicit Impl(TCPServer& o) : owner(o) {}

    void accept()
    {
        auto conn = std::make_shared<Connection>(io);
        acceptor.async_accept(conn->socket, [this, conn](const asio::error_code& ec) {
            if (ec == asio::error::operation_aborted || !acceptor.is_open())
                return;
            if (!ec) {
                conn->id = nextId++;
                asio::error_code ignored;
                conn->socket.set_option(asio::ip::tcp::no_delay(true), ignored);
                const auto remote = conn->socket.remote_endpoint(ignored);
                connections[conn->id] = conn;
                connectionCount = static_cast<int>(connections.size());
                owner.onConnect(conn->id, remote.address().to_string() + ":" + std::to_string(remote.port()));
                read(conn);
                accept();
                return;
            }
            // Out of descriptors or a similar refusal: try again a little later rather
            // than spinning on the same error.
            owner.onError(0, ec.value());
            retry.expires_after(std::chrono::milliseconds(50));
            retry.async_wait([this](const asio::error_code& waited) {
                if (!waited && acceptor.is_open())
                    accept();
            });
        });
    }

    void read(const std::shared_ptr<Connection>& conn)
    {
        if (!owner.canReceive()) {
            conn->paused = true;
            return;
        }
        conn->socket.async_read_some(asio::buffer(conn->buffer), [this, conn](const asio::error_code& ec, std::size_t n) {
            if (ec) {
                if (ec != asio::error::eof && ec != asio::error::operation_aborted && ec != asio::error::connection_reset)
                    owner.onError(conn->id, ec.value());
                close(conn);
                return;
            }
            std::vector<char> bytes(conn->buffer.data(), conn->buffer.data() + n);
            owner.onData(conn->id, bytes);
            read(conn);
        });
    }

    // Takes its own reference: the map entry it erases may be the caller's.
    void close(std::shared_ptr<Connection> conn)
    {
        if (connections.erase(conn->id) == 0)
            return;
        connectionCount = static_cast<int>(connections.size());
        asio::error_code ignored;
        conn->socket.shutdown(asio::ip::tcp::socket::shutdown_both, ignored);
        conn->socket.close(ignored);
        owner.onDisconnect(conn->id);
    }

    void resume()
    {
        for (auto& [id, conn] : connections) {
            if (conn->paused) {
                conn->paused = false;
                read(conn);
            }
        }
    }

    void closeAll()
    {
        asio::error_code ignored;
        acceptor.close(ignored);
        retry.cancel();
        while (!connections.empty())
            close(connections.begin()->second);
        work.reset();
    }

    // Writes on the serving thread to the newest open connection.
    void write(const std::shared_ptr<PendingWrite>& w)
    {
        if (connections.empty()) {
            w->done.set_value(-1);
            return;
        }
        auto conn = connections.rbegin()->second;
        w->to = conn;
        const auto progress = [w](const asio::error_code& ec, std::size_t n) -> std::size_t {
            w->written = n;
            return ec ? 0 : kReadBlock;
        };
        asio::async_write(conn->socket, asio::buffer(w->bytes), progress, [this, conn, w](const asio::error_code& ec, std::size_t) {
            if (ec) {
                if (ec != asio::error::operation_aborted)
                    owner.onError(conn->id, ec.value());
                close(conn);
                w->done.set_value(-1);
            } else {
                w->done.set_value(static_cast<int>(w->bytes.size()));
            }
        });
    }

    // Closes the connection a write that was given up is still waiting on, so that the
    // rest of its message cannot follow later and misalign the stream.
    void abandon(const std::shared_ptr<PendingWrite>& w)
    {
        if (auto conn = w->to.lock())
            close(conn);
    }
};

TCPServer::TCPServer(bool reuseAddress) : m_reuseAddress(reuseAddress) {}

TCPServer::~TCPServer()
{
    stopThread();
}

void TCPServer::onConnect(int, const std::string&) {}
void TCPServer::onDisconnect(int) {}
void TCPServer::onError(int, int) {}
bool TCPServer::canReceive()
{
    return true;
}

int TCPServer::startThread(int port)
{
    std::lock_guard<std::mutex> lock(m_stateMutex);
    if (m_impl) {
        ZTLOG_ERROR("TCPServer::startThread port %d: already listening on port %d\n", port, m_impl->port.load());
        return -1;
    }
    auto impl = std::make_shared<Impl>(*this);
    asio::error_code ec;
    const asio::ip::tcp::endpoint endpoint(asio::ip::tcp::v4(), static_cast<unsigned short>(port));
    impl->acceptor.open(endpoint.protocol(), ec);
    // A second listener on a port in use must fail on both platforms. Linux refuses it
    // even with SO_REUSEADDR, which only lets a new listener past the old connections
    // still in TIME_WAIT; Windows would let a second socket share the port with
    // SO_REUSEADDR, so there the listener claims the port exclusively instead.
#ifdef _WIN32
    if (!ec) {
        const BOOL exclusive = TRUE;
        if (::setsockopt(impl->acceptor.native_handle(), SOL_SOCKET, SO_EXCLUSIVEADDRUSE,
                         reinterpret_cast<const char*>(&exclusive), sizeof exclusive) != 0)
            ec = asio::error_code(::WSAGetLastError(), asio::system_category());
    }
#else
    if (!ec && m_reuseAddress)
        impl->acceptor.set_option(asio::socket_base::reuse_address(true), ec);
#endif
    if (!ec)
        impl->acceptor.bind(endpoint, ec);
    if (!ec)
        impl->acceptor.listen(asio::socket_base::max_listen_connections, ec);
    if (ec) {
        ZTLOG_ERROR("TCPServer::startThread cannot listen on port %d: %s\n", port, ec.message());
        return -1;
    }
    impl->port = impl->acceptor.local_endpoint(ec).port();
    impl->accept();
    try {
        impl->thread = std::thread([impl] { impl->io.run(); });
    } catch (const std::system_error& e) {
        ZTLOG_ERROR("TCPServer::startThread cannot start the serving thread: %s\n", e.what());
        return -1;
    }
    impl->running = true;
    m_impl = std::move(impl);
    return 0;
}

void TCPServer::stopThread()
{
    std::shared_ptr<Impl> impl;
    {
        std::lock_guard<std::mutex> lock(m_stateMutex);
        if (!m_impl)
            return;
        // From here on no new write is posted; writes already posted run before closeAll
        // and are cancelled by it, so no sender is left waiting.
        m_impl->running = false;
        impl = m_impl;
    }
    asio::post(impl->io, [raw = impl.get()] { raw->closeAll(); });
    if (impl->thread.joinable()) {
        if (impl->thread.get_id() == std::this_thread::get_id())
            impl->thread.detach();
        else
            impl->thread.join();
    }
    std::lock_guard<std::mutex> lock(m_stateMutex);
    m_impl.reset();
}

int TCPServer::port() const
{
    std::lock_guard<std::mutex> lock(m_stateMutex);
    return m_impl ? m_impl->port.load() : 0;
}

int TCPServer::connectionCount() const
{
    std::lock_guard<std::mutex> lock(m_stateMutex);
    return m_impl ? m_impl->connectionCount.load() : 0;
}

void TCPServer::resumeReceive()
{
    std::lock_guard<std::mutex> lock(m_stateMutex);
    if (m_impl && m_impl->running)
        asio::post(m_impl->io, [raw = m_impl.get()] { raw->resume(); });
}

int TCPServer::sendMsg(const char* data, int length)
{
    if (data == nullptr || length < 0)
        return -1;
    if (length == 0)
        return 0;
    std::lock_guard<std::mutex> sendLock(m_sendMutex);
    std::shared_ptr<Impl> impl;
    auto pending = std::make_shared<Impl::PendingWrite>();
    std::future<int> result = pending->done.get_future();
    {
        std::lock_guard<std::mutex> lock(m_stateMutex);
        if (!m_impl || !m_impl->running)
            return -1;
        impl = m_impl;
        if (impl->io.get_executor().running_in_this_thread()) {
            // Called from an event handler: the serving thread itself writes.
            if (impl->connections.empty())
                return -1;
            asio::error_code ec;
            asio::write(impl->connections.rbegin()->second->socket,
                        asio::buffer(data, static_cast<std::size_t>(length)), ec);
            return ec ? -1 : length;
        }
        pending->bytes.assign(data, data + length);
        asio::post(impl->io, [raw = impl.get(), pending] { raw->write(pending); });
    }
    // A peer that stops reading would otherwise hold the sender, and every lock it holds,
    // for ever: the send gives up once the peer has taken nothing for kSendTimeoutMs.
    std::size_t seen = 0;
    auto lastProgress = std::chrono::steady_clock::now();
    while (result.wait_for(std::chrono::milliseconds(50)) != std::future_status::ready) {
        const std::size_t now = pending->written;
        if (now != seen) {
            seen = now;
            lastProgress = std::chrono::steady_clock::now();
        }
        if (std::chrono::steady_clock::now() - lastProgress < std::chrono::milliseconds(kSendTimeoutMs))
            continue;
        ZTLOG_ERROR("TCPServer::sendMsg: the peer took no data for %u ms, its connection is closed\n", kSendTimeoutMs);
        std::lock_guard<std::mutex> lock(m_stateMutex);
        if (m_impl == impl && impl->running)
            asio::post(impl->io, [raw = impl.get(), pending] { raw->abandon(pending); });
        return -1;
    }
    try {
        return result.get();
    } catch (const std::future_error&) {
        return -1; // the write was dropped with the server
    }
}

} // namespace zt
