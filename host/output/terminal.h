/// @file
/// Where the host writes.
#pragma once

#include <QString>

#include <functional>

/// Standard output and standard error in UTF-8, in the order in which they were written, also
/// while a prompt waits on the same screen.
///
/// Thread: the application's.
class Terminal
{
public:
    enum class Stream { Output, Error };

    /// A prompt that shares the screen: it makes room before something is written and comes back
    /// afterwards.
    class ScreenSharer
    {
    public:
        virtual void hide() = 0;
        virtual void show() = 0;

    protected:
        ~ScreenSharer() = default;
    };

    /// @param sharer not owned; null when there is none (any more).
    void setScreenSharer(ScreenSharer *sharer) { m_sharer = sharer; }

    /// Called at the first failure of standard output, with the number of the error: EPIPE when its
    /// reader is gone. Nothing is written there any more from then on. Failures of standard error
    /// are not reported: there is nowhere left to report them.
    void setFailureHandler(const std::function<void(int)> &handler) { m_onFailure = handler; }
    bool hasFailed() const { return m_failed; }

    /// Writes `text` as it is and at once.
    void write(Stream stream, const QString &text);

    /// Writes a text that begins with a carriage return in the place of the line that is there; it
    /// stays until the next one of its kind, or until something else is written below it. Where
    /// standard output is no terminal it is left out.
    void writeProgress(const QString &text);

    /// Writes `text` and a line break.
    void writeLine(Stream stream, const QString &text);

private:
    void put(Stream stream, const QByteArray &bytes);
    void endProgress();

    ScreenSharer *m_sharer = nullptr;
    std::function<void(int)> m_onFailure;
    bool m_failed = false;
    bool m_hasProgress = false; ///< the last line on the screen is one of progress
};
