// The column store: for its readers a list of variants, whatever it keeps inside.
#include "column_values.h"

#include <QDateTime>
#include <QFile>
#include <QSharedPointer>
#include <QtTest>

#include <unistd.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <malloc.h>
#include <random>
#include <type_traits>

Q_DECLARE_METATYPE(QSharedPointer<int>)
Q_DECLARE_METATYPE(ColumnValues::Storage)

using Storage = ColumnValues::Storage;

static_assert(std::is_nothrow_move_constructible<ColumnValues>::value, "moves must not copy");
static_assert(std::is_nothrow_move_assignable<ColumnValues>::value, "moves must not copy");

namespace
{

constexpr int Block = ColumnValues::BlockRows;

QVariant nullOf(QMetaType::Type type)
{
    return QVariant(QVariant::Type(type));
}

QVariant emptyText()
{
    return QString(QLatin1String(""));
}

/// Equality of two cells to the last bit: QVariant's own takes a null integer for a zero.
bool sameCell(const QVariant &a, const QVariant &b)
{
    if (a.userType() != b.userType() || a.isNull() != b.isNull())
        return false;
    if (a.userType() != QMetaType::Double)
        return a == b;
    const double x = a.toDouble();
    const double y = b.toDouble();
    return std::memcmp(&x, &y, sizeof x) == 0;
}

QString describe(const QVariant &cell)
{
    return QStringLiteral("%1 %2 '%3'")
        .arg(cell.userType())
        .arg(cell.isNull() ? QLatin1String("null") : QLatin1String("value"))
        .arg(cell.toString().left(40));
}

/// Empty when the column reads as the list; else what differs first.
QString difference(const ColumnValues &column, const QVariantList &list)
{
    if (column.size() != list.size())
        return QStringLiteral("size %1, not %2").arg(column.size()).arg(list.size());
    int row = 0;
    for (const QVariant &cell : column) {
        if (!sameCell(cell, list.at(row)) || !sameCell(column.at(row), list.at(row)) ||
            column.isNullAt(row) != list.at(row).isNull())
            return QStringLiteral("row %1: %2, not %3")
                .arg(row)
                .arg(describe(cell), describe(list.at(row)));
        ++row;
    }
    return row == list.size() ? QString() : QStringLiteral("iteration ends at %1").arg(row);
}

QVariantList repeated(const QVariantList &pattern, int rows)
{
    QVariantList list;
    for (int row = 0; row < rows; ++row)
        list.append(pattern.at(row % pattern.size()));
    return list;
}

bool underSanitizer()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return true;
#else
    return false;
#endif
}

QVariant lastOf(const ColumnValues &column)
{
    return column.at(column.size() - 1);
}

/// Memory in use: all of the process but what the heap holds free. Large blocks of a column come
/// from the system directly.
size_t usedMemory()
{
    QFile file(QStringLiteral("/proc/self/statm"));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    const size_t pages = file.readAll().split(' ').first().toULong();
    const struct mallinfo2 info = mallinfo2();
    return pages * size_t(sysconf(_SC_PAGESIZE)) - info.fordblks;
}

} // namespace

class TestColumnValues : public QObject
{
    Q_OBJECT

private slots:
    void readsAsTheListItWasMadeFrom_data();
    void readsAsTheListItWasMadeFrom();
    void readsTheSameAcrossBlocks_data() { readsAsTheListItWasMadeFrom_data(); }
    void readsTheSameAcrossBlocks();
    void nullsInFrontGetTheirPlaces_data();
    void nullsInFrontGetTheirPlaces();
    void firstMisfitTurnsTheColumnMixed_data();
    void firstMisfitTurnsTheColumnMixed();
    void nullThatHoldsAValueIsKeptWhole();
    void emptyTextIsNotNull();
    void directAccessGivesTheCells();
    void textViewSharesTheColumnsMemory();
    void textViewIsUsedAgainWithoutLeftovers();
    void appendingByMoveOrCopyIsTheSame();
    void standsInForAVariantList();
    void copyIsIndependent();
    void movedFromIsEmptyAndUsable();
    void clearForgetsStorageAndNulls();
    void releaseFreesWholeBlocksOnly();
    void releaseGivesTextMemoryBack();
    void growsAndTurnsMixedAfterRelease();
    void releasedBlocksTakeNoMemoryInAMixedColumn();
    void nullsReleasedBeforeTheFirstValue();
    void blockOfHugeTextsIsNotPacked();
    void textLargerThanABlockOpensTheColumn();
    void uniformColumnTakesAFewBytesACell();
    void anyMixOfOperationsReadsAsAList();
};

void TestColumnValues::readsAsTheListItWasMadeFrom_data()
{
    QTest::addColumn<QVariantList>("list");
    QTest::addColumn<Storage>("storage");
    QTest::addColumn<int>("nullType");

    const QVariant nullText = nullOf(QMetaType::QString);
    const QVariant nullInt = nullOf(QMetaType::Int);
    const qint64 big = std::numeric_limits<qint64>::min();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const QDate day(2021, 2, 3);
    const QString nul = QString(3, QChar(0));

    QTest::newRow("nothing") << QVariantList{} << Storage::Empty << 0;
    QTest::newRow("int") << QVariantList{1, -2, 0, INT_MAX, INT_MIN} << Storage::Int << 0;
    QTest::newRow("int, null") << QVariantList{1, nullInt, 0} << Storage::Int << 2;
    QTest::newRow("int, text null") << QVariantList{1, nullText, 0} << Storage::Int << 10;
    QTest::newRow("int, untyped null") << QVariantList{1, QVariant(), 0} << Storage::Int << 0;
    QTest::newRow("64 bit") << QVariantList{big, qint64(7)} << Storage::LongLong << 0;
    QTest::newRow("64 bit, text null") << QVariantList{nullText, big} << Storage::LongLong << 10;
    QTest::newRow("double") << QVariantList{0.5, -0.0, HUGE_VAL, 1e-308} << Storage::Double << 0;
    QTest::newRow("double, null") << QVariantList{0.5, nullOf(QMetaType::Double)} << Storage::Double
                                  << 6;
    QTest::newRow("not a number") << QVariantList{nan, 1.0} << Storage::Double << 0;
    QTest::newRow("text") << QVariantList{QStringLiteral("a"), emptyText(), QStringLiteral("Ж😀")}
                          << Storage::Text << 0;
    QTest::newRow("text, null") << QVariantList{nullText, QStringLiteral("b"), emptyText(),
                                                nullText}
                                << Storage::Text << 10;
    QTest::newRow("text, int null")
        << QVariantList{QStringLiteral("b"), nullInt} << Storage::Text << 2;
    QTest::newRow("NUL") << QVariantList{nul, nul} << Storage::Text << 0;
    QTest::newRow("empty texts") << QVariantList{emptyText(), emptyText()} << Storage::Text << 0;
    QTest::newRow("untyped nulls") << QVariantList{QVariant(), QVariant()} << Storage::Empty << 0;
    QTest::newRow("int nulls") << QVariantList{nullInt, nullInt} << Storage::Empty << 2;
    QTest::newRow("float nulls") << QVariantList{nullOf(QMetaType::Float)} << Storage::Empty << 38;
    QTest::newRow("null bytes") << QVariantList{QByteArray(), QByteArray()} << Storage::Empty << 12;
    QTest::newRow("null dates") << QVariantList{QDate(), QDate()} << Storage::Mixed << 0;
    QTest::newRow("dates") << QVariantList{day, QDate(), day.addDays(1)} << Storage::Mixed << 0;
    QTest::newRow("bytes") << QVariantList{QByteArray("\0x", 2), QByteArray(), QByteArray("")}
                           << Storage::Mixed << 0;
    QTest::newRow("bool") << QVariantList{true, false} << Storage::Mixed << 0;
    QTest::newRow("unsigned") << QVariantList{1u, ~0u} << Storage::Mixed << 0;
    QTest::newRow("int, text") << QVariantList{1, QStringLiteral("1")} << Storage::Mixed << 0;
    QTest::newRow("int, 64 bit") << QVariantList{1, qint64(1)} << Storage::Mixed << 0;
    QTest::newRow("64 bit, double")
        << QVariantList{qint64(1), nullText, 1.5} << Storage::Mixed << 0;
    QTest::newRow("two nulls") << QVariantList{1, nullText, nullInt} << Storage::Mixed << 0;
    QTest::newRow("nulls of two types") << QVariantList{nullInt, nullText} << Storage::Mixed << 0;
    QTest::newRow("lists") << QVariantList{QVariantList{1, 2}, QVariantMap()} << Storage::Mixed
                           << 0;
}

void TestColumnValues::readsAsTheListItWasMadeFrom()
{
    QFETCH(QVariantList, list);
    QFETCH(Storage, storage);
    QFETCH(int, nullType);

    const ColumnValues column(list);

    QCOMPARE(difference(column, list), QString());
    QCOMPARE(column.storage(), storage);
    QCOMPARE(column.nullType(), nullType);
}

void TestColumnValues::readsTheSameAcrossBlocks()
{
    QFETCH(QVariantList, list);
    QFETCH(Storage, storage);
    if (list.isEmpty())
        list.append(emptyText());
    else
        QCOMPARE(ColumnValues(repeated(list, 2 * Block + 5)).storage(), storage);

    for (int rows : {Block - 1, Block, Block + 1, 2 * Block, 2 * Block + 5}) {
        const QVariantList many = repeated(list, rows);
        QCOMPARE(difference(ColumnValues(many), many), QString());
    }
}

void TestColumnValues::nullsInFrontGetTheirPlaces_data()
{
    QTest::addColumn<QVariant>("null");
    QTest::addColumn<QVariant>("first");
    QTest::addColumn<Storage>("storage");
    for (const QVariant &null : {QVariant(), nullOf(QMetaType::QString), nullOf(QMetaType::Int)}) {
        const QByteArray name = QByteArray::number(null.userType());
        QTest::newRow("int " + name) << null << QVariant(7) << Storage::Int;
        QTest::newRow("64 bit " + name) << null << QVariant(qint64(7)) << Storage::LongLong;
        QTest::newRow("double " + name) << null << QVariant(7.5) << Storage::Double;
        QTest::newRow("text " + name) << null << QVariant(QStringLiteral("seven")) << Storage::Text;
        QTest::newRow("mixed " + name) << null << QVariant(QDate(2020, 1, 1)) << Storage::Mixed;
    }
}

void TestColumnValues::nullsInFrontGetTheirPlaces()
{
    QFETCH(QVariant, null);
    QFETCH(QVariant, first);
    QFETCH(Storage, storage);
    for (int nulls : {1, 63, 64, 65, Block, Block + 3, 2 * Block}) {
        QVariantList list = repeated({null}, nulls);
        list << first << null << first;
        const ColumnValues column(list);
        QCOMPARE(column.storage(), storage);
        QCOMPARE(difference(column, list), QString());
    }
}

void TestColumnValues::firstMisfitTurnsTheColumnMixed_data()
{
    QTest::addColumn<QVariantList>("pattern");
    QTest::addColumn<QVariant>("misfit");
    const QVariant null = nullOf(QMetaType::QString);
    QTest::newRow("int") << QVariantList{1, null, 3} << QVariant(true);
    QTest::newRow("64 bit") << QVariantList{qint64(1), null} << QVariant(1);
    QTest::newRow("double") << QVariantList{1.5, null} << QVariant(QStringLiteral("x"));
    QTest::newRow("text") << QVariantList{QStringLiteral("a"), null, emptyText()} << QVariant(2.5);
    QTest::newRow("other null") << QVariantList{null, 1} << nullOf(QMetaType::Int);
    QTest::newRow("nulls alone") << QVariantList{null} << QVariant();
}

void TestColumnValues::firstMisfitTurnsTheColumnMixed()
{
    QFETCH(QVariantList, pattern);
    QFETCH(QVariant, misfit);
    for (int rows : {1, 5, Block - 1, Block, Block + 1, 2 * Block + 9}) {
        QVariantList list = repeated(pattern, rows);
        ColumnValues column(list);
        QVERIFY(column.storage() != Storage::Mixed);
        list << misfit << pattern.first() << misfit;

        column << misfit << pattern.first() << misfit;

        QCOMPARE(column.storage(), Storage::Mixed);
        QCOMPARE(difference(column, list), QString());
    }
}

void TestColumnValues::nullThatHoldsAValueIsKeptWhole()
{
    QVariant odd = nullOf(QMetaType::Int);
    *static_cast<int *>(odd.data()) = 5;
    QVERIFY(odd.isNull());

    const ColumnValues column{1, odd};

    QVERIFY(column.at(1).isNull());
    QCOMPARE(column.at(1).toInt(), 5);
}

void TestColumnValues::emptyTextIsNotNull()
{
    const ColumnValues column{emptyText(), nullOf(QMetaType::QString), QString()};

    QVERIFY(!column.at(0).isNull());
    QVERIFY(!column.at(0).toString().isNull());
    QVERIFY(!column.textViewAt(0).isNull());
    QVERIFY(column.textViewAt(0).isEmpty());
    QString view;
    column.textViewAt(0, view);
    QVERIFY(!view.isNull() && view.isEmpty());
    QVERIFY(!column.isNullAt(0));
    QVERIFY(column.isNullAt(1));
    QVERIFY(column.at(2).isNull());
    QVERIFY(column.at(2).toString().isNull());
}

void TestColumnValues::directAccessGivesTheCells()
{
    ColumnValues ints;
    ColumnValues longs;
    ColumnValues doubles;
    ColumnValues texts;
    ColumnValues mixed{QDate()};
    for (int row = 0; row < Block + 10; ++row) {
        ints.append(-row);
        longs.append(qint64(row) << 32);
        doubles.append(row / 4.0);
        texts.append(QString::number(row));
        mixed.append(row);
    }
    for (int row : {0, 1, Block - 1, Block, Block + 9}) {
        QCOMPARE(ints.intAt(row), -row);
        QCOMPARE(longs.longLongAt(row), qint64(row) << 32);
        QCOMPARE(doubles.doubleAt(row), row / 4.0);
        QCOMPARE(texts.textAt(row).toString(), QString::number(row));
        QCOMPARE(texts.textViewAt(row), QString::number(row));
        QCOMPARE(mixed.variantAt(row + 1), QVariant(row));
    }
}

void TestColumnValues::textViewSharesTheColumnsMemory()
{
    const ColumnValues column{QStringLiteral("one"), QStringLiteral("two")};

    QCOMPARE(column.textViewAt(1).constData(), column.textAt(1).data());
    QCOMPARE(column.textAt(1).data(), column.textAt(0).data() + 3);
    QVERIFY(column.at(1).toString().constData() != column.textAt(1).data());
}

void TestColumnValues::textViewIsUsedAgainWithoutLeftovers()
{
    const ColumnValues column{QStringLiteral("long text"), emptyText(), QStringLiteral("b"),
                              QStringLiteral("Ж")};
    QString view = QStringLiteral("own memory");

    for (int row = 0; row < column.size(); ++row) {
        column.textViewAt(row, view);
        QCOMPARE(view, column.at(row).toString());
        QVERIFY(!view.isNull());
    }
    QCOMPARE(view.constData(), column.textAt(3).data());
}

void TestColumnValues::appendingByMoveOrCopyIsTheSame()
{
    const QVariant text = QStringLiteral("shared");
    QVariant moved = QDate(2020, 2, 2);
    ColumnValues column;

    column.append(text);
    column.append(QVariant(text));
    column.append(std::move(moved));

    QCOMPARE(difference(column, {text, text, QDate(2020, 2, 2)}), QString());
}

void TestColumnValues::standsInForAVariantList()
{
    const QVariantList list{1, 2, 3};
    ColumnValues column = list;

    QCOMPARE(column, list);
    QCOMPARE(column, (QVariantList{1, 2, 3}));
    QVERIFY(column != (QVariantList{1, 2, 4}));
    QVERIFY(column != (QVariantList{1, 2}));
    const QVariantList back = column;
    QCOMPARE(back, list);
    QCOMPARE(column.toList(), list);
    QCOMPARE(column.at(0), QVariant(1));
    QCOMPARE(column.at(column.size() - 1), QVariant(3));
    QCOMPARE(column[1], QVariant(2));
    QCOMPARE(QVariantList(column.begin(), column.end()), list);
    column = QVariantList{QStringLiteral("x")};
    QCOMPARE(column, QVariantList{QStringLiteral("x")});
    column = QVariantList{};
    QVERIFY(column.isEmpty());
}

void TestColumnValues::copyIsIndependent()
{
    const QVariantList list = repeated({1, QVariant()}, Block + 1);
    ColumnValues column(list);
    ColumnValues copy = column;

    column.append(QStringLiteral("misfit"));
    column.releaseBefore(column.size());
    copy.append(5);

    QCOMPARE(copy.storage(), Storage::Int);
    QCOMPARE(difference(copy, list + QVariantList{5}), QString());
}

void TestColumnValues::movedFromIsEmptyAndUsable()
{
    const QVariantList list = repeated({QStringLiteral("a"), QString()}, Block + 1);
    ColumnValues column(list);

    ColumnValues taken = std::move(column);

    QCOMPARE(difference(taken, list), QString());
    QCOMPARE(difference(column, {}), QString()); // NOLINT: promised to be empty
    column.append(1.5);
    QCOMPARE(difference(column, {1.5}), QString());
    column = std::move(taken);
    QCOMPARE(difference(column, list), QString());
    QVERIFY(taken.isEmpty()); // NOLINT: promised to be empty
    swap(column, taken);
    QCOMPARE(difference(taken, list), QString());
}

void TestColumnValues::clearForgetsStorageAndNulls()
{
    ColumnValues column(repeated({1, nullOf(QMetaType::QString)}, Block + 1));
    column.releaseBefore(Block);

    column.clear();
    column << QStringLiteral("t") << nullOf(QMetaType::Int);

    QCOMPARE(column.storage(), Storage::Text);
    QCOMPARE(difference(column, {QStringLiteral("t"), nullOf(QMetaType::Int)}), QString());
}

void TestColumnValues::releaseFreesWholeBlocksOnly()
{
    ColumnValues column;
    QVector<QWeakPointer<int>> seen;
    for (int row = 0; row < 2 * Block + 3; ++row) {
        const auto value = QSharedPointer<int>::create(row);
        seen.append(value);
        column.append(QVariant::fromValue(value));
    }
    const auto alive = [&] {
        return std::count_if(seen.cbegin(), seen.cend(),
                             [](const QWeakPointer<int> &value) { return !value.isNull(); });
    };
    QCOMPARE(int(alive()), 2 * Block + 3);

    column.releaseBefore(Block - 1);
    QCOMPARE(int(alive()), 2 * Block + 3);
    column.releaseBefore(Block);
    QCOMPARE(int(alive()), Block + 3);
    column.releaseBefore(Block);
    QVERIFY(!column.at(0).isValid());
    QVERIFY(!column.isNullAt(0));
    QCOMPARE(*column.at(Block).value<QSharedPointer<int>>(), Block);
    column.releaseBefore(INT_MAX);
    QCOMPARE(int(alive()), 3);
    column.releaseBefore(-1);
    QCOMPARE(*lastOf(column).value<QSharedPointer<int>>(), 2 * Block + 2);
}

void TestColumnValues::releaseGivesTextMemoryBack()
{
    if (underSanitizer())
        QSKIP("a sanitizer's allocator does not count memory");
    ColumnValues column;
    for (int row = 0; row < 10 * Block; ++row)
        column.append(QString(50, QLatin1Char('x')));
    const size_t before = usedMemory();

    column.releaseBefore(9 * Block);

    QVERIFY(before - usedMemory() > size_t(9 * Block) * 100);
    QCOMPARE(lastOf(column).toString(), QString(50, QLatin1Char('x')));
}

void TestColumnValues::growsAndTurnsMixedAfterRelease()
{
    ColumnValues column(repeated({QStringLiteral("t"), QVariant()}, 2 * Block));
    column.releaseBefore(2 * Block);

    column << QStringLiteral("u") << QVariant();
    QCOMPARE(column.at(2 * Block), QVariant(QStringLiteral("u")));
    QVERIFY(column.isNullAt(2 * Block + 1));
    column << 1;

    QCOMPARE(column.storage(), Storage::Mixed);
    QCOMPARE(column.size(), 2 * Block + 3);
    QVERIFY(!column.at(5).isValid());
    QVERIFY(!column.isNullAt(5));
    QCOMPARE(column.at(2 * Block), QVariant(QStringLiteral("u")));
    QCOMPARE(lastOf(column), QVariant(1));
}

void TestColumnValues::releasedBlocksTakeNoMemoryInAMixedColumn()
{
    if (underSanitizer())
        QSKIP("a sanitizer's allocator does not count memory");
    constexpr int Released = 50 * Block;
    ColumnValues column;
    for (int row = 0; row < Released; ++row)
        column.append(row);
    column.releaseBefore(Released);
    const size_t before = usedMemory();

    column.append(QStringLiteral("of another kind"));

    QCOMPARE(column.storage(), Storage::Mixed);
    QVERIFY(usedMemory() < before + size_t(Released));
}

void TestColumnValues::nullsReleasedBeforeTheFirstValue()
{
    ColumnValues column(repeated({QVariant()}, Block + 1));
    column.releaseBefore(Block);

    column << QStringLiteral("first") << 2;

    QCOMPARE(column.size(), Block + 3);
    QVERIFY(column.at(Block).isNull());
    QCOMPARE(column.at(Block + 1), QVariant(QStringLiteral("first")));
    QCOMPARE(lastOf(column), QVariant(2));
}

void TestColumnValues::blockOfHugeTextsIsNotPacked()
{
    const QString half(ColumnValues::MaxBlockUnits / 2, QLatin1Char('h'));
    ColumnValues column{half, half};
    QCOMPARE(column.storage(), Storage::Text);

    column << QStringLiteral("!") << half;

    QCOMPARE(column.storage(), Storage::Mixed);
    QCOMPARE(difference(column, {half, half, QStringLiteral("!"), half}), QString());
    QCOMPARE(column.variantAt(3).toString().constData(), half.constData());
}

void TestColumnValues::textLargerThanABlockOpensTheColumn()
{
    const QString huge(ColumnValues::MaxBlockUnits + 1, QLatin1Char('h'));
    for (int rowsBefore : {0, 3, Block}) {
        QVariantList list = repeated({QStringLiteral("t"), QVariant()}, rowsBefore);
        ColumnValues column(list);

        column << huge << QStringLiteral("t");

        QCOMPARE(column.storage(), Storage::Mixed);
        QCOMPARE(difference(column, list << huge << QStringLiteral("t")), QString());
    }
}

void TestColumnValues::uniformColumnTakesAFewBytesACell()
{
    if (underSanitizer())
        QSKIP("a sanitizer's allocator does not count memory");
    constexpr int Rows = 50 * Block;
    const auto bytesPerCell = [](const QVariant &value) {
        const size_t before = usedMemory();
        ColumnValues column;
        for (int row = 0; row < Rows; ++row)
            column.append(row % 7 == 0 ? QVariant() : value);
        return double(usedMemory() - before) / Rows;
    };
    QVERIFY2(bytesPerCell(1) < 4.5, "int");
    QVERIFY2(bytesPerCell(qint64(1)) < 8.5, "64 bit");
    QVERIFY2(bytesPerCell(1.5) < 8.5, "double");
    QVERIFY2(bytesPerCell(QString(10, QLatin1Char('t'))) < 26, "text of 20 bytes");
}

/// Random operations on a column and on a plain list side by side.
void TestColumnValues::anyMixOfOperationsReadsAsAList()
{
    const uint seed = qEnvironmentVariableIsSet("VEXT_SEED")
                          ? qEnvironmentVariableIntValue("VEXT_SEED")
                          : std::random_device()();
    qInfo("seed %u (VEXT_SEED repeats it)", seed);
    std::mt19937 random(seed);
    const auto below = [&random](int limit) { return int(random() % uint(limit)); };
    const QVariantList kinds{1,
                             qint64(2),
                             0.25,
                             QStringLiteral("text"),
                             QDate(),
                             QByteArray(),
                             true,
                             emptyText(),
                             QVariant(),
                             nullOf(QMetaType::QString),
                             nullOf(QMetaType::Int)};
    for (int round = 0; round < 300; ++round) {
        ColumnValues column;
        QVariantList list;
        const QVariantList two{kinds.at(below(kinds.size())), kinds.at(below(kinds.size()))};
        const int misfitIn = 1 + below(3 * Block);
        for (int rows = below(2) == 0 ? below(40) : below(3 * Block); rows > 0; --rows) {
            const QVariant &cell =
                below(misfitIn) == 0 ? kinds.at(below(kinds.size())) : two.at(below(2));
            column.append(cell);
            list.append(cell);
        }
        if (below(4) == 0)
            column = ColumnValues(column);
        const QString wrong = difference(column, list);
        QVERIFY2(wrong.isEmpty(), qPrintable(QStringLiteral("round %1: %2").arg(round).arg(wrong)));
        QCOMPARE(column, list);
        column.releaseBefore(below(list.size() + 1));
        if (!list.isEmpty())
            QVERIFY(sameCell(lastOf(column), list.last()) || list.size() % Block == 0);
    }
}

QTEST_APPLESS_MAIN(TestColumnValues)
#include "test_column_values.moc"
