/// @file
/// The wish to end the program.
#pragma once

#include <QObject>

/// Whether the program is to end, and with which exit code. The first request counts: what
/// happens while the program ends does not change its result.
///
/// Thread: the application's.
class ScriptEnd : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    bool isRequested() const { return m_requested; }
    int code() const { return m_code; }

    void request(int code)
    {
        if (m_requested)
            return;
        m_requested = true;
        m_code = code;
        emit requested();
    }

signals:
    void requested();

private:
    bool m_requested = false;
    int m_code = 0;
};
