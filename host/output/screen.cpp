#include "screen.h"

#include <sys/ioctl.h>
#include <unistd.h>

namespace
{

winsize size()
{
    winsize found = {};
    if (!::isatty(STDOUT_FILENO) || ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &found) != 0)
        found = {};
    return found;
}

} // namespace

int Screen::columns()
{
    return size().ws_col;
}

int Screen::rows()
{
    return size().ws_row;
}
