/// @file
/// Where the host writes.
#pragma once

#include <QString>

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

    /// Writes `text` as it is and at once. A failure to write is not reported: there is nowhere
    /// left to report it.
    void write(Stream stream, const QString &text);

    /// Writes `text` and a line break.
    void writeLine(Stream stream, const QString &text);

private:
    ScreenSharer *m_sharer = nullptr;
};
