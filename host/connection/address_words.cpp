#include "address_words.h"

namespace
{

/// Walks along the line, one word after the other.
class Scanner
{
public:
    explicit Scanner(const QString &line)
        : m_line(line)
    {
    }

    bool skipBlanks()
    {
        while (m_at < m_line.size() && m_line.at(m_at).isSpace())
            ++m_at;
        return m_at < m_line.size();
    }

    /// Takes the next word.
    /// @return false when a quote is not closed.
    bool takeWord(AddressWord *word)
    {
        word->value = QLatin1String("");
        for (; m_at < m_line.size() && !m_line.at(m_at).isSpace(); ++m_at) {
            const QChar c = m_line.at(m_at);
            if (c == QLatin1Char('\'') || c == QLatin1Char('"')) {
                if (!takeQuoted(c, &word->value))
                    return false;
            } else if (c == QLatin1Char('=') && word->name.isEmpty() && !word->value.isEmpty()) {
                word->name.swap(word->value);
                word->value = QLatin1String("");
            } else {
                word->value += c;
            }
        }
        return true;
    }

private:
    /// From one quote to the other.
    bool takeQuoted(QChar quote, QString *text)
    {
        for (++m_at; m_at < m_line.size(); ++m_at) {
            QChar c = m_line.at(m_at);
            if (c == quote)
                return true;
            if (c == QLatin1Char('\\') && m_at + 1 < m_line.size())
                c = m_line.at(++m_at);
            *text += c;
        }
        return false;
    }

    QString m_line;
    int m_at = 0;
};

} // namespace

bool AddressWords::split(const QString &line, QVector<AddressWord> *words, QString *error)
{
    Scanner scanner(line);
    while (scanner.skipBlanks()) {
        AddressWord word;
        if (!scanner.takeWord(&word)) {
            *error = QStringLiteral("a quote is not closed");
            return false;
        }
        words->append(word);
    }
    return true;
}
