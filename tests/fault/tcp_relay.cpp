#include "tcp_relay.h"

#include <QByteArray>

#include <arpa/inet.h>
#include <chrono>
#include <deque>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr int PieceBytes = 64 * 1024;
constexpr int KeptPieces = 64; ///< then the sender has to wait, as with any full buffer
constexpr int TickMs = 5;
constexpr int ListenBacklog = 16;

qint64 nowMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

sockaddr_in loopback(quint16 port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

} // namespace

struct TcpRelay::Stream {
    struct Piece {
        QByteArray bytes;
        qint64 arrived = 0;
    };
    int from = -1;
    int to = -1;
    bool fromClient = false;
    bool ended = false;     ///< the sender has finished
    bool endPassed = false; ///< the receiver was told so
    std::deque<Piece> pieces;
};

struct TcpRelay::Link {
    int client = -1;
    int server = -1;
    Stream up;   ///< client to server
    Stream down; ///< server to client
};

TcpRelay::~TcpRelay()
{
    stop();
}

bool TcpRelay::start(quint16 serverPort)
{
    m_serverPort = serverPort;
    m_wakeUp = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    auto *general = reinterpret_cast<sockaddr *>(&address);
    if (bind(m_listener, general, length) != 0 || listen(m_listener, ListenBacklog) != 0 ||
        getsockname(m_listener, general, &length) != 0)
        return false;
    m_port = ntohs(address.sin_port);
    m_thread = std::thread([this] { run(); });
    return true;
}

void TcpRelay::stop()
{
    if (!m_thread.joinable())
        return;
    m_quit = true;
    wake();
    m_thread.join();
    close(m_listener);
    close(m_wakeUp);
}

void TcpRelay::wake()
{
    const quint64 one = 1;
    if (write(m_wakeUp, &one, sizeof one) < 0)
        return; // already awake
}

void TcpRelay::cut()
{
    if (!m_thread.joinable())
        return;
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cutAsked = true;
    wake();
    m_done.wait(lock, [this] { return !m_cutAsked; });
}

void TcpRelay::refuse()
{
    m_mode = Mode::Refuse;
    cut();
}

void TcpRelay::blackHole()
{
    m_mode = Mode::BlackHole;
    wake();
}

void TcpRelay::blackHoleAt(const std::string &text)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_holeAt = text;
}

bool TcpRelay::opensHole(const QByteArray &bytes)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return !m_holeAt.empty() && bytes.contains(m_holeAt.c_str());
}

void TcpRelay::delay(int milliseconds)
{
    m_delayMs = milliseconds;
    wake();
}

void TcpRelay::halfClose()
{
    if (!m_thread.joinable())
        return;
    std::unique_lock<std::mutex> lock(m_mutex);
    m_halfCloseAsked = true;
    wake();
    m_done.wait(lock, [this] { return !m_halfCloseAsked; });
}

void TcpRelay::heal()
{
    blackHoleAt({});
    m_delayMs = 0;
    m_mode = Mode::Pass;
    wake();
}

void TcpRelay::run()
{
    while (!m_quit) {
        obey();
        std::vector<pollfd> fds{{m_listener, POLLIN, 0}, {m_wakeUp, POLLIN, 0}};
        bool waiting = false; // something is kept back and has to be looked at again soon
        for (const Link *link : m_links) {
            for (const Stream *stream : {&link->up, &link->down}) {
                waiting = waiting || !stream->pieces.empty();
                if (!stream->ended && stream->pieces.size() < KeptPieces)
                    fds.push_back({stream->from, POLLIN, 0});
            }
        }
        if (m_mode == Mode::BlackHole) // the kernel keeps the bytes; the sockets stay open
            fds.resize(2);
        poll(fds.data(), nfds_t(fds.size()), waiting ? TickMs : 1000);
        quint64 count = 0;
        if (read(m_wakeUp, &count, sizeof count) > 0)
            continue;
        accept();
        if (m_mode == Mode::BlackHole)
            continue;
        for (size_t i = 0; i < m_links.size();) {
            if (serve(*m_links[i])) {
                ++i;
                continue;
            }
            reset(*m_links[i]);
            delete m_links[i];
            m_links.erase(m_links.begin() + long(i));
        }
        m_open = int(m_links.size());
    }
    for (Link *link : m_links) {
        reset(*link);
        delete link;
    }
    m_links.clear();
    m_open = 0;
}

/// Carries out what cut() and halfClose() wait for.
void TcpRelay::obey()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_cutAsked) {
        for (Link *link : m_links) {
            reset(*link);
            delete link;
        }
        m_links.clear();
        m_open = 0;
    }
    if (m_halfCloseAsked) {
        for (Link *link : m_links) {
            shutdown(link->client, SHUT_WR);
            link->down.ended = true;
            link->down.endPassed = true;
            link->down.pieces.clear();
        }
    }
    m_cutAsked = false;
    m_halfCloseAsked = false;
    m_done.notify_all();
}

void TcpRelay::accept()
{
    for (;;) {
        const int client = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (client < 0)
            return;
        ++m_accepted;
        addLink(client);
    }
}

void TcpRelay::addLink(int client)
{
    auto *link = new Link;
    link->client = client;
    const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    link->server = server;
    sockaddr_in address = loopback(m_serverPort);
    if (m_mode == Mode::Refuse ||
        connect(server, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        reset(*link);
        delete link;
        return;
    }
    const int on = 1;
    setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    link->up.from = client;
    link->up.to = server;
    link->up.fromClient = true;
    link->down.from = server;
    link->down.to = client;
    m_links.push_back(link);
    m_open = int(m_links.size());
}

/// @return false when the connection is over and has to be dropped
bool TcpRelay::serve(Link &link)
{
    const qint64 now = nowMs();
    for (Stream *stream : {&link.up, &link.down}) {
        if (!receive(*stream, now) || !send(*stream, now))
            return false;
    }
    return !(link.up.endPassed && link.down.endPassed);
}

bool TcpRelay::receive(Stream &stream, qint64 now)
{
    while (!stream.ended && stream.pieces.size() < KeptPieces) {
        QByteArray bytes(PieceBytes, Qt::Uninitialized);
        const ssize_t got = recv(stream.from, bytes.data(), size_t(bytes.size()), MSG_DONTWAIT);
        if (got < 0)
            return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        if (got == 0) {
            stream.ended = true;
            return true;
        }
        bytes.truncate(int(got));
        (stream.fromClient ? m_fromClients : m_fromServer) += got;
        if (stream.fromClient && !m_cutAt.empty() && m_accepted >= m_cutFrom &&
            bytes.contains(m_cutAt.c_str()))
            return false;
        stream.pieces.push_back({bytes, now});
        if (stream.fromClient && opensHole(bytes)) {
            m_mode = Mode::BlackHole;
            return true;
        }
    }
    return true;
}

bool TcpRelay::send(Stream &stream, qint64 now)
{
    if (m_mode == Mode::BlackHole)
        return true;
    const int wait = m_delayMs;
    while (!stream.pieces.empty() && now - stream.pieces.front().arrived >= wait) {
        QByteArray &bytes = stream.pieces.front().bytes;
        const ssize_t sent =
            ::send(stream.to, bytes.constData(), size_t(bytes.size()), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent < 0)
            return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        if (sent == bytes.size())
            stream.pieces.pop_front();
        else
            bytes.remove(0, int(sent));
    }
    if (stream.ended && stream.pieces.empty() && !stream.endPassed) {
        shutdown(stream.to, SHUT_WR);
        stream.endPassed = true;
    }
    return true;
}

/// Both ends see a reset instead of an orderly end.
void TcpRelay::reset(Link &link)
{
    const linger hard{1, 0};
    for (int fd : {link.client, link.server}) {
        if (fd < 0)
            continue;
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
        close(fd);
    }
}
