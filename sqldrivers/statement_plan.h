/// @file
/// The placeholder rules: what a script's text becomes before it reaches a server, and which value
/// goes where. Pure text, Qt Core only, any thread.
#pragma once

#include "sql_scanner.h"

#include <QCoreApplication>
#include <QStringList>
#include <QVector>

/// A statement cut at its placeholders.
///
/// "?" takes the next value. ":name" takes the next value where the name appears first, and that
/// same value wherever it appears again; names differ by case. On SQLite "?7" takes the seventh.
class StatementPlan
{
    Q_DECLARE_TR_FUNCTIONS(StatementPlan)

public:
    /// Completes a text for `count` values:
    /// - the name of a procedure becomes a call: EXECUTE PROCEDURE p(?,?) on Firebird, CALL p(?,?)
    ///   on MariaDB, {call p(?,?)} through ODBC, SELECT p(?,?) on PostgreSQL and SQLite;
    /// - a statement head without placeholders ("INSERT INTO t VALUES", "... WHERE id IN") gets
    ///   "(?,?)" behind its last word, before blanks and comments at the end;
    /// - everything else stays as it is. The number of values is not checked here.
    static QString complete(SqlDialect dialect, const QString &text, int count);

    /// Finds the placeholders of a complete text.
    static StatementPlan of(SqlDialect dialect, const QString &given);

    /// The text without the question marks that stand in comments and in [names], meaning the same.
    static QString withoutFalseMarks(SqlDialect dialect, const QString &text);

    /// The rules by which the text was cut. Where other ones hold by now, so that what is a
    /// placeholder may be part of a string, it has to be cut anew.
    SqlDialect rules() const { return m_rules; }
    /// The texts around the placeholders, one more than there are placeholders.
    const QStringList &pieces() const { return m_pieces; }
    /// Per placeholder, from left to right, the index of its value.
    const QVector<int> &valueOf() const { return m_valueOf; }
    /// Per value its name, the colon included; empty for "?".
    const QStringList &names() const { return m_names; }
    /// How many values the statement needs.
    int valueCount() const { return m_names.size(); }

    /// Why the statement cannot run with `given` values, both numbers named; empty when it can.
    /// A text of PostgreSQL whose only question marks stand where an operator of jsonb can, may run
    /// without values: it has to be sent unprepared then.
    QString refusal(int given) const;

    /// The text with "?" for every placeholder; bind one value each, `valueOf` tells which.
    QString withMarks() const;
    /// The text with "$1", "$2" and so on, one a value.
    QString withNumbers() const;
    /// The text with the literals written in, one a value.
    QString withLiterals(const QStringList &literals) const;

    /// The first word behind blanks and comments, in upper case; empty when there is none.
    const QString &verb() const { return m_verb; }
    /// Whether the statement changes rows and answers with none.
    bool returnsNoColumns() const { return m_returnsNoColumns; }
    /// Whether the columns of the answer depend on the table's: a "*" that is not "(*)".
    bool namesAllColumns() const { return m_namesAllColumns; }
    /// Whether a semicolon parts the text into several statements.
    bool hasSeveral() const { return m_hasSeveral; }

private:
    void add(const SqlToken &token, const QString &text, QStringRef piece);
    void describe(const QVector<SqlToken> &tokens, const QString &text);

    SqlDialect m_rules = SqlDialect::Odbc;
    SqlDialect m_dialect = SqlDialect::Odbc; ///< the system's
    QStringList m_pieces;
    QVector<int> m_valueOf;
    QStringList m_names;
    QString m_verb;
    int m_likeOperators = 0; ///< placeholders that stand where a jsonb operator can
    bool m_returnsNoColumns = false;
    bool m_namesAllColumns = false;
    bool m_hasSeveral = false;
};
