/// @file
/// Stand-ins for the host's objects that the plugin finds by name and calls through the meta-object
/// system: the server, the post, and the receiver of messages that both of them are.
#pragma once

#include "deadline.h"

#include <QByteArray>
#include <QDir>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QVector>

#include <mutex>

/// One message as it reached the host.
struct SinkMessage {
    QString file;
    int line = 0;
    QString function;
    QString text;
    int level = 0;
    bool mainThread = false; ///< the slot ran in the application's thread
};

/// Receives what plugin objects report and records it. Made in the application's thread; messages
/// may come from any thread, those of other threads arrive through the event loop.
class MessageSink : public QObject
{
    Q_OBJECT

public:
    explicit MessageSink(QObject *parent = nullptr);

    QVector<SinkMessage> messages() const;
    QVector<SinkMessage> messages(int level) const;
    /// The texts of the messages, in order of arrival.
    QStringList texts() const;
    /// The messages whose text is exactly @p text.
    QVector<SinkMessage> withText(const QString &text) const;
    bool contains(const QString &text) const { return !withText(text).isEmpty(); }
    /// Runs events until a message with exactly this text has come.
    bool waitFor(const QString &text, int ms = defaultWaitMs) const;
    void clear();

    /// Makes "const char*" known to queued connections. Every sink does so itself.
    static void registerTypes();

public Q_SLOTS:
    void plugin_msg(const char *fl, int ln, const char *fn, const QString &msg, int val);

private:
    mutable std::mutex m_mutex;
    QVector<SinkMessage> m_messages; // guarded by m_mutex
};

/// A host's server with everything that the plugin may ask of it. The host's class names are found
/// by their beginning, so the name of this class is part of what it does.
class VextServerStub : public MessageSink
{
    Q_OBJECT
    Q_PROPERTY(bool gui READ gui)

public:
    /// One call of a port slot: the slot's name and the port.
    struct PortCall {
        QString slot;
        quint16 port;
    };

    /// Its object name is "server".
    explicit VextServerStub(QObject *parent = nullptr);

    void setGui(bool on) { m_gui = on; }
    bool gui() const;
    Q_INVOKABLE int isGuiApp();
    Q_INVOKABLE bool loadLib(const QString &name);
    void setLoadLibAnswer(bool answer) { m_loadLibAnswer = answer; }

    /// How often each way of asking was used.
    int guiReads() const { return m_guiReads; }
    int isGuiAppCalls() const { return m_isGuiAppCalls; }
    QStringList loadedLibs() const { return m_loadedLibs; }
    QVector<PortCall> portCalls() const { return m_portCalls; }

public Q_SLOTS:
    void aTcp(quint16 port);
    void rTcp(quint16 port);
    void aUdp(quint16 port);
    void rUdp(quint16 port);

private:
    bool m_gui = false;
    bool m_loadLibAnswer = true;
    mutable int m_guiReads = 0;
    int m_isGuiAppCalls = 0;
    QStringList m_loadedLibs;
    QVector<PortCall> m_portCalls;
};

/// A server that receives messages but cannot be asked whether it has a graphical interface.
class VextServerWithoutGui : public MessageSink
{
    Q_OBJECT

public:
    explicit VextServerWithoutGui(QObject *parent = nullptr);
};

/// A server by its name only: it has no slot for messages and none of the other methods.
class VextServerMute : public QObject
{
    Q_OBJECT

public:
    explicit VextServerMute(QObject *parent = nullptr);
};

/// A script's post with everything that the plugin may ask of it.
class VextPostStub : public MessageSink
{
    Q_OBJECT

public:
    /// One object handed to the post.
    struct Inserted {
        QPointer<QObject> object;
        QString name;
    };

    /// Its object name is "post".
    explicit VextPostStub(QObject *parent = nullptr);

    Q_INVOKABLE void insertObject(QObject *object, const QString &name);
    Q_INVOKABLE QDir getPostDir() const { return m_dir; }
    void setPostDir(const QDir &dir) { m_dir = dir; }

    QVector<Inserted> inserted() const { return m_inserted; }

private:
    QDir m_dir = QDir::current();
    QVector<Inserted> m_inserted;
};

/// A post by its name only: it has no slot for messages and none of the other methods.
class VextPostMute : public QObject
{
    Q_OBJECT

public:
    explicit VextPostMute(QObject *parent = nullptr);
};
