/// @file
/// The program vext-run.
#pragma once

#include "options.h"

#include <QObject>
#include <QScopedPointer>
#include <QScriptValue>

class PromptSession;
class ScriptHost;
class StatementSource;

/// Runs what the options ask for in a script host: a file, code, or statements from standard
/// input.
///
/// Thread: the application's.
class Program : public QObject
{
    Q_OBJECT

public:
    explicit Program(const Options &options);
    ~Program() override;

    /// @return the exit code.
    int run();

private:
    bool readScript(QString *code);
    bool readStandardInput(QString *code);
    bool isStandardInput() const;
    int showVersion();
    bool openConnection(QScriptValue *connection);
    void runSql(const QScriptValue &connection);
    int finish();
    bool startHost();
    void runScript(const QString &code);
    void readStatements();
    void startPrompt();
    void leaveAbandoned();
    void onStatement(const QString &code);
    void onInputFailure(int line, const QString &reason);
    void onInputEnd();
    void onInterrupt(int number);
    int fail(const QString &error);

    Options m_options;
    QScopedPointer<ScriptHost> m_host;
    QScopedPointer<StatementSource> m_source;
    QScopedPointer<PromptSession> m_session; ///< null without a terminal
};
