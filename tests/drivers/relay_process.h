/// @file
/// The relay in a process of its own.
#pragma once

#include <QProcess>
#include <QString>

/// A TcpRelay in a child of the test program: whoever looks at the sockets of the test program
/// finds none of the relay there. The child is the program itself, see runRelay(). In the test's
/// thread; each member returns when the relay has done it.
class RelayProcess
{
public:
    ~RelayProcess();

    /// @return whether the relay passes connections on to `serverPort`
    bool start(quint16 serverPort);
    quint16 port() const { return m_port; }
    void cut() { order("cut"); }
    void halfClose() { order("half"); }
    void blackHole() { order("hole"); }
    /// From the moment on at which a client sends the text.
    void blackHoleAt(const QByteArray &text) { order("hole at " + text); }
    void delay(int milliseconds) { order("delay " + QByteArray::number(milliseconds)); }
    void heal() { order("heal"); }

    /// What main() does first. @return whether this is the child; then it has run to its end
    static bool runRelay(int argc, char **argv);

private:
    QByteArray order(const QByteArray &word);

    QProcess m_process;
    quint16 m_port = 0;
};
