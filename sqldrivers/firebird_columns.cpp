#include "firebird_columns.h"

#include <QtSql/private/qsqlcachedresult_p.h>

#include <cstdint>

namespace
{

// Of the client library's header. The last bit of a type tells whether NULL is allowed.
constexpr int SqlVarying = 448;
constexpr int SqlLong = 496;
constexpr int SqlShort = 500;
constexpr int SqlInt64 = 580;
constexpr short Ascii = 2; ///< a character set

constexpr short DescriptionVersion = 1;
constexpr int StatusLength = 20;
/// 19 digits, a sign, a point and a zero before it.
constexpr short LongestDecimal = 24;

struct Name {
    short length;
    char text[32];
};

struct Column {
    short type;
    short scale;
    short subtype;
    short length;
    char *data;
    short *isNull;
    Name name;
    Name relation;
    Name owner;
    Name alias;
};

struct Description {
    short version;
    char id[8];
    std::int32_t size;
    short allocated;
    short count;
    Column columns[1];
};

/// What QIBASE (5.15) declares behind Qt's own part of a result.
struct StockPart {
    std::intptr_t status[StatusLength];
    FirebirdClient::Handle transaction;
    bool hasOwnTransaction;
    FirebirdClient::Handle statement;
    FirebirdClient::Handle connection;
    Description *columns;
    Description *parameters;
};

bool isDecimal(const Column &column)
{
    const int type = column.type & ~1;
    return column.scale < 0 && (type == SqlInt64 || type == SqlLong || type == SqlShort);
}

/// The driver allocates with new[] and frees with delete[].
void makeText(Column &column)
{
    delete[] column.data;
    column.data = new char[LongestDecimal + sizeof(short)];
    column.type = short(SqlVarying | (column.type & 1));
    column.scale = 0;
    column.subtype = Ascii;
    column.length = LongestDecimal;
}

/// The driver's description of the columns; null where it is not found for certain.
Description *descriptionOf(StockResult &rows, FirebirdClient::Handle connection)
{
    const QVariant handle = rows.handle();
    if (handle.userType() != QMetaType::UInt)
        return nullptr;
    const FirebirdClient::Handle statement = handle.toUInt();
    const auto *stock = reinterpret_cast<const StockPart *>(
        reinterpret_cast<const char *>(rows.privateData()) + sizeof(QSqlCachedResultPrivate));
    if (statement == 0 || connection == 0 || stock->statement != statement ||
        stock->connection != connection)
        return nullptr;
    Description *columns = stock->columns;
    const bool isKnown = columns && columns->version == DescriptionVersion && columns->count >= 0 &&
                         columns->count <= columns->allocated;
    return isKnown ? columns : nullptr;
}

} // namespace

void FirebirdColumns::askForDecimalsAsTexts(StockResult &rows, FirebirdClient::Handle connection)
{
    Description *columns = descriptionOf(rows, connection);
    for (int i = 0; columns && i < columns->count; ++i) {
        Column &column = columns->columns[i];
        if (isDecimal(column))
            makeText(column);
    }
}
