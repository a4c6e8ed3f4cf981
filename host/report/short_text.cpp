#include "short_text.h"

namespace
{

const int MaxSize = 10000; ///< characters that are always shown
const int BeginSize = 2000;
const int EndSize = 500;

} // namespace

QString ShortText::of(const QString &text)
{
    if (text.size() <= MaxSize)
        return text;
    return QStringLiteral("%1 ... (%2 characters) ... %3")
        .arg(text.left(BeginSize), QString::number(text.size() - BeginSize - EndSize),
             text.right(EndSize));
}
