/// @file
/// Messages that tell again what the prompt tells itself.
#pragma once

#include "plugin_message.h"

#include <QVector>

#include <functional>

class ScriptHost;

/// Holds messages back while a statement runs: one failure is one line, and the statement's own
/// outcome is that line. What tells anything else is shown when the statement is through.
///
/// Thread: the engine's. The host is not owned.
class KeptMessages
{
public:
    explicit KeptMessages(ScriptHost *host);
    ~KeptMessages();
    KeptMessages(const KeptMessages &) = delete;
    KeptMessages &operator=(const KeptMessages &) = delete;

    /// From now on errors are held back.
    void hold();
    /// Shows what was held back, but for messages that tell of this error.
    void release(const QString &error);
    /// Forgets what was held back.
    void drop();

private:
    ScriptHost *m_host;
    QVector<PluginMessage> m_kept;
    bool m_holds = false;
};
