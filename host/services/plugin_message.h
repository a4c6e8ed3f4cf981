/// @file
/// One message that a plugin object sent to the host.
#pragma once

#include <QMetaType>
#include <QString>

/// A message as it arrives at a slot `plugin_msg`, with texts of its own.
struct PluginMessage {
    QString source;     ///< path of the emitting source file, without suffix
    int line = 0;       ///< line in that file
    QString operation;  ///< plain name of the emitting operation
    QString text;       ///< the finished text
    QString connection; ///< name of the script's object that sent it; empty for none
    int level = 0;      ///< -1 error, 0 notice, 1 state changes, 2 statement texts

    /// Takes over the arguments of `plugin_msg`; null pointers read as empty texts.
    static PluginMessage from(const char *source, int line, const char *operation,
                              const QString &text, int level);
};

Q_DECLARE_METATYPE(PluginMessage)
