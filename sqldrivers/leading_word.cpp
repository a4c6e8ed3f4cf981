#include "leading_word.h"

namespace
{

int behindBlanks(const QString &text, int at)
{
    while (at < text.size() && text.at(at).isSpace())
        ++at;
    return at;
}

int behindComment(const QString &text, int at)
{
    const QStringRef rest = text.midRef(at, 2);
    if (rest == QLatin1String("--")) {
        const int end = text.indexOf(QLatin1Char('\n'), at);
        return end < 0 ? text.size() : end + 1;
    }
    if (rest == QLatin1String("/*")) {
        const int end = text.indexOf(QLatin1String("*/"), at + 2);
        return end < 0 ? text.size() : end + 2;
    }
    return at;
}

} // namespace

QString leadingWord(const QString &text)
{
    int at = behindBlanks(text, 0);
    for (int next = behindComment(text, at); next != at; next = behindComment(text, at))
        at = behindBlanks(text, next);
    int end = at;
    while (end < text.size() && text.at(end).isLetter())
        ++end;
    return text.mid(at, end - at).toUpper();
}
