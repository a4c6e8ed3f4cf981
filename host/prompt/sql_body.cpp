#include "sql_splitter.h"

#include <QSet>

namespace
{

bool isOneOf(const QString &word, const QSet<QString> &words)
{
    return words.contains(word);
}

const QSet<QString> &makers()
{
    static const QSet<QString> words = {QStringLiteral("CREATE"), QStringLiteral("ALTER"),
                                        QStringLiteral("RECREATE")};
    return words;
}

const QSet<QString> &routines()
{
    static const QSet<QString> words = {QStringLiteral("TRIGGER"), QStringLiteral("PROCEDURE"),
                                        QStringLiteral("FUNCTION"), QStringLiteral("PACKAGE"),
                                        QStringLiteral("EVENT")};
    return words;
}

/// What else can be made: a column called "begin" opens no block.
const QSet<QString> &others()
{
    static const QSet<QString> words = {
        QStringLiteral("TABLE"),    QStringLiteral("VIEW"),   QStringLiteral("INDEX"),
        QStringLiteral("SEQUENCE"), QStringLiteral("SCHEMA"), QStringLiteral("DATABASE"),
        QStringLiteral("ROLE"),     QStringLiteral("USER"),   QStringLiteral("TYPE"),
        QStringLiteral("DOMAIN"),   QStringLiteral("RULE"),   QStringLiteral("EXTENSION")};
    return words;
}

/// Words behind END that close a loop or a condition, which are not counted.
const QSet<QString> &uncounted()
{
    static const QSet<QString> words = {QStringLiteral("IF"), QStringLiteral("LOOP"),
                                        QStringLiteral("WHILE"), QStringLiteral("REPEAT"),
                                        QStringLiteral("FOR")};
    return words;
}

} // namespace

void SqlBody::addWord(const QString &word)
{
    if (m_kind == Kind::Unknown || m_kind == Kind::Created)
        decideKind(word);
    else if (m_kind == Kind::Routine)
        follow(word);
    m_before = word;
}

void SqlBody::addOther()
{
    if (m_endsBlock)
        leaveBlock();
}

bool SqlBody::takesSemicolon()
{
    if (m_endsBlock)
        leaveBlock();
    return m_kind == Kind::Routine && (m_blocks > 0 || m_declares);
}

void SqlBody::decideKind(const QString &word)
{
    if (m_kind == Kind::Created) {
        if (isOneOf(word, routines()))
            m_kind = Kind::Routine;
        else if (isOneOf(word, others()))
            m_kind = Kind::Plain;
        return;
    }
    if (m_first.isEmpty()) {
        m_first = word;
        if (isOneOf(word, makers()))
            m_kind = Kind::Created;
        else if (word != QLatin1String("EXECUTE") && word != QLatin1String("BEGIN"))
            m_kind = Kind::Plain;
        return;
    }
    // EXECUTE BLOCK of Firebird, BEGIN NOT ATOMIC of MariaDB; a plain BEGIN opens a transaction.
    m_kind = Kind::Plain;
    if (m_first == QLatin1String("EXECUTE") && word == QLatin1String("BLOCK"))
        m_kind = Kind::Routine;
    if (m_first == QLatin1String("BEGIN") && word == QLatin1String("NOT")) {
        m_kind = Kind::Routine;
        m_blocks = 1;
    }
}

void SqlBody::follow(const QString &word)
{
    const bool afterEnd = m_endsBlock;
    m_endsBlock = false;
    if (afterEnd && isOneOf(word, uncounted()))
        return;
    if (afterEnd)
        leaveBlock();
    if (word == QLatin1String("END")) {
        m_endsBlock = true;
    } else if (word == QLatin1String("BEGIN")) {
        m_declares = false;
        ++m_blocks;
    } else if (word == QLatin1String("CASE")) {
        m_blocks += afterEnd ? 0 : 1; // END CASE closes
    } else if (word == QLatin1String("DECLARE") && m_before == QLatin1String("AS")) {
        m_declares = true;
    }
}

void SqlBody::leaveBlock()
{
    m_endsBlock = false;
    m_blocks = qMax(0, m_blocks - 1);
}
