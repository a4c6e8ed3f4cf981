// What a column's rule makes of its values.
#include "column_rule.h"

#include <QtTest>

Q_DECLARE_METATYPE(ColumnRule::Kind)

class TestColumnRule : public QObject
{
    Q_OBJECT

private slots:
    void valueIsChangedByItsColumnsRule_data();
    void valueIsChangedByItsColumnsRule();
    void onlyWideIntegersNeedARule();
};

void TestColumnRule::valueIsChangedByItsColumnsRule_data()
{
    QTest::addColumn<ColumnRule::Kind>("kind");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QVariant>("expected");
    const auto row = [](const char *name, ColumnRule::Kind kind, const QVariant &value,
                        const QVariant &expected) {
        QTest::newRow(name) << kind << value << expected;
    };
    const qlonglong largest = 9007199254740991LL;
    row("largest exact", ColumnRule::ExactInteger, largest, largest);
    row("one more", ColumnRule::ExactInteger, largest + 1, QStringLiteral("9007199254740992"));
    row("least exact", ColumnRule::ExactInteger, -largest, -largest);
    row("one less", ColumnRule::ExactInteger, -largest - 1, QStringLiteral("-9007199254740992"));
    row("least of all", ColumnRule::ExactInteger, std::numeric_limits<qlonglong>::min(),
        QStringLiteral("-9223372036854775808"));
    row("largest of all", ColumnRule::ExactInteger, std::numeric_limits<qulonglong>::max(),
        QStringLiteral("18446744073709551615"));
    row("small unsigned", ColumnRule::ExactInteger, qulonglong(7), qulonglong(7));
    row("null integer", ColumnRule::ExactInteger, QVariant(QVariant::LongLong),
        QVariant(QVariant::LongLong));
    row("real text", ColumnRule::Real, QStringLiteral("1.5e3"), 1500.0);
    row("real number", ColumnRule::Real, 2.5, 2.5);
    row("least real", ColumnRule::Real, QStringLiteral("-Infinity"),
        -std::numeric_limits<double>::infinity());
    row("no real", ColumnRule::Real, QStringLiteral("x"), QStringLiteral("x"));
    row("null real", ColumnRule::Real, QVariant(QVariant::String), QVariant(QVariant::String));
    row("padded", ColumnRule::Padded, QStringLiteral("ab          "), QStringLiteral("ab  "));
    row("not padded", ColumnRule::Padded, QStringLiteral("abcdef"), QStringLiteral("abcdef"));
    row("own blanks", ColumnRule::Padded, QStringLiteral("a   "), QStringLiteral("a   "));
    row("padded beyond the basic plane", ColumnRule::Padded, QStringLiteral("\U0001F600     "),
        QStringLiteral("\U0001F600   "));
    row("padded null", ColumnRule::Padded, QVariant(QVariant::String), QVariant(QVariant::String));
    row("as it is", ColumnRule::AsIs, largest + 1, largest + 1);
}

void TestColumnRule::valueIsChangedByItsColumnsRule()
{
    QFETCH(ColumnRule::Kind, kind);
    QFETCH(QVariant, value);
    QFETCH(QVariant, expected);
    const ColumnRule rule{kind, 4};
    const QVariant actual = rule.applied(value);
    QCOMPARE(actual.userType(), expected.userType());
    QCOMPARE(actual.isNull(), expected.isNull());
    QCOMPARE(actual, expected);
}

void TestColumnRule::onlyWideIntegersNeedARule()
{
    const auto kind = [](QVariant::Type type) {
        return ColumnRule::exact(QSqlField(QStringLiteral("a"), type)).kind;
    };
    QCOMPARE(kind(QVariant::LongLong), ColumnRule::ExactInteger);
    QCOMPARE(kind(QVariant::ULongLong), ColumnRule::ExactInteger);
    QCOMPARE(kind(QVariant::Int), ColumnRule::AsIs);
    QCOMPARE(kind(QVariant::String), ColumnRule::AsIs);
}

QTEST_GUILESS_MAIN(TestColumnRule)
#include "test_column_rule.moc"
