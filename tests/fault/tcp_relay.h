/// @file
/// A TCP relay on the loopback interface that treats the traffic badly on request.
#pragma once

#include <QByteArray>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// Stands between a client and a server of this machine and passes bytes on, in a thread of its
/// own. Every public member may be called in any thread.
///
/// Faults hold for all connections, those to come included, until heal().
class TcpRelay
{
public:
    TcpRelay() = default;
    ~TcpRelay();
    TcpRelay(const TcpRelay &) = delete;
    TcpRelay &operator=(const TcpRelay &) = delete;

    /// Listens on a free port and passes connections on to `serverPort`. @return whether it does
    bool start(quint16 serverPort);
    /// Closes everything and ends the thread.
    void stop();
    quint16 port() const { return m_port; }

    /// Resets every open connection, as a router that has lost its state does.
    void cut();
    /// Resets each connection whose client sends this text, before the server has it; not as long
    /// as fewer connections than `count` have been taken. Called before start().
    void cutAt(const std::string &text, int count)
    {
        m_cutAt = text;
        m_cutFrom = count;
    }
    /// Resets open connections and new ones at once.
    void refuse();
    /// Passes nothing on and closes nothing, as an unplugged cable does.
    void blackHole();
    /// As blackHole(), from the moment on at which a client sends this text.
    void blackHoleAt(const std::string &text);
    /// Passes each piece on only after this time.
    void delay(int milliseconds);
    /// Ends the stream from the server to the client in order and passes the other one on.
    void halfClose();
    /// Passes everything on again. What a black hole kept back is delivered.
    void heal();

    /// Connections taken so far.
    int accepted() const { return m_accepted; }
    /// Connections now open.
    int open() const { return m_open; }
    /// Bytes taken from clients so far.
    qint64 fromClients() const { return m_fromClients; }
    /// Bytes taken from the server so far.
    qint64 fromServer() const { return m_fromServer; }

private:
    enum class Mode { Pass, Refuse, BlackHole };
    struct Link;
    struct Stream;

    void run();
    void obey();
    void accept();
    void addLink(int client);
    bool serve(Link &link);
    bool receive(Stream &stream, qint64 now);
    bool send(Stream &stream, qint64 now);
    void reset(Link &link);
    bool opensHole(const QByteArray &bytes);
    void wake();

    std::thread m_thread;
    int m_listener = -1;
    int m_wakeUp = -1;
    quint16 m_serverPort = 0;
    quint16 m_port = 0;
    std::string m_cutAt; ///< empty for none
    int m_cutFrom = 0;

    std::atomic<bool> m_quit{false};
    std::atomic<Mode> m_mode{Mode::Pass};
    std::atomic<int> m_delayMs{0};
    std::atomic<int> m_accepted{0};
    std::atomic<int> m_open{0};
    std::atomic<qint64> m_fromClients{0};
    std::atomic<qint64> m_fromServer{0};

    // Orders that must be carried out when the caller goes on.
    std::mutex m_mutex;
    std::condition_variable m_done;
    bool m_cutAsked = false;       ///< guarded by m_mutex
    bool m_halfCloseAsked = false; ///< guarded by m_mutex
    std::string m_holeAt;          ///< guarded by m_mutex; empty for none

    std::vector<Link *> m_links; ///< the relay's thread only; owned
};
