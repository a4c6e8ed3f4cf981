#include "text_decoding.h"

#include <QTextCodec>

namespace
{

const int Utf8Mib = 106;

bool isValid(const char *bytes, int size)
{
    QTextCodec::ConverterState state(QTextCodec::IgnoreHeader);
    QTextCodec::codecForMib(Utf8Mib)->toUnicode(bytes, size, &state);
    return state.invalidChars == 0 && state.remainingChars == 0;
}

/// The first byte that does not belong to a character, found by halving: only looked for when a
/// text is known to be wrong.
int firstWrongByte(const QByteArray &bytes)
{
    int good = 0;
    int pending = 0; // bytes of a character that has only begun
    int bad = bytes.size();
    while (bad - good > 1) {
        const int middle = good + (bad - good) / 2;
        QTextCodec::ConverterState state(QTextCodec::IgnoreHeader);
        QTextCodec::codecForMib(Utf8Mib)->toUnicode(bytes.constData(), middle, &state);
        if (state.invalidChars > 0) {
            bad = middle;
        } else {
            good = middle;
            pending = state.remainingChars;
        }
    }
    return good - pending;
}

} // namespace

bool TextDecoding::decode(const QByteArray &bytes, QString *text, QString *error)
{
    const int zero = bytes.indexOf('\0');
    if (zero >= 0) {
        *error = QStringLiteral("it is not text: byte %1 is zero").arg(zero);
        return false;
    }
    *text = QString::fromUtf8(bytes);
    // A text that is wrong holds replacement characters, as a right one may too.
    if (!text->contains(QChar(QChar::ReplacementCharacter)) ||
        isValid(bytes.constData(), bytes.size()))
        return true;
    *error = QStringLiteral("it is not text in UTF-8: byte %1").arg(firstWrongByte(bytes));
    return false;
}
