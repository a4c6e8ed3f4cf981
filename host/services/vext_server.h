/// @file
/// The host's server object, which serves the whole application.
#pragma once

#include "plugin_message.h"

#include <QObject>
#include <QSet>
#include <QVariantList>

/// What plugins find as the application's child "server" and scripts as the global `server`.
///
/// Plugins know it by the beginning of its class name, by its object name and by the names of its
/// members, all of which are looked up at run time: renaming one breaks every plugin silently.
///
/// Thread: the application's. Owner: the application object, whose child it is.
class VextServer : public QObject
{
    Q_OBJECT
    /// Whether the application has a graphical interface.
    Q_PROPERTY(bool gui READ gui CONSTANT)
    /// TCP ports that script objects hold open now, ascending.
    Q_PROPERTY(QVariantList tcpPorts READ tcpPorts)
    /// UDP ports that script objects hold open now, ascending.
    Q_PROPERTY(QVariantList udpPorts READ udpPorts)

public:
    explicit VextServer(QObject *application);

    bool gui() const { return false; }
    QVariantList tcpPorts() const;
    QVariantList udpPorts() const;

    /// The same answer as `gui`, for plugin objects that have no script engine to ask through.
    Q_INVOKABLE int isGuiApp() const { return gui() ? 1 : 0; }

signals:
    /// A message of a plugin object that belongs to no script.
    void message(const PluginMessage &message);

public slots:
    /// Receives the messages of plugin objects outside any post. Texts are copied.
    void plugin_msg(const char *source, int line, const char *operation, const QString &text,
                    int level);

    void aTcp(quint16 port); ///< a script object has opened a TCP port
    void rTcp(quint16 port); ///< a script object has released a TCP port
    void aUdp(quint16 port); ///< a script object has opened a UDP port
    void rUdp(quint16 port); ///< a script object has released a UDP port

private:
    QSet<quint16> m_tcpPorts;
    QSet<quint16> m_udpPorts;
};
