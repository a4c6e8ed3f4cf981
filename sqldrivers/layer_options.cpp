#include "layer_options.h"

#include <QCoreApplication>
#include <QStringList>

#include <algorithm>

namespace
{

const char Prefix[] = "VEXT_";

/// Some 23 days. Longer times are as good as that, and sums with them stay within an int.
constexpr int Longest = 2000000000;

QString tr(const char *text)
{
    return QCoreApplication::translate("LayerOptions", text);
}

/// Reads a number of 0 or more. @return false when the text is none
bool readNumber(const QString &name, const QString &value, int *number, QString *error)
{
    bool isNumber = false;
    *number = value.toInt(&isNumber);
    if (isNumber && *number >= 0) {
        *number = std::min(*number, Longest);
        return true;
    }
    *error = tr("connect option %1 needs a number of 0 or more, not '%2'").arg(name, value);
    return false;
}

bool readOption(const QString &option, LayerOptions *layer, QString *error)
{
    const QString name = option.section(QLatin1Char('='), 0, 0).trimmed().toUpper();
    const QString value = option.section(QLatin1Char('='), 1).trimmed();
    int number = 0;
    if (name == QLatin1String("VEXT_EXACT_NUMBERS")) {
        if (!readNumber(name, value, &number, error))
            return false;
        layer->exactNumbers = number != 0;
        return true;
    }
    if (name == QLatin1String("VEXT_STATEMENT_TIMEOUT"))
        return readNumber(name, value, &layer->statementTimeoutMs, error);
    if (name == QLatin1String("VEXT_CONNECT_TIMEOUT"))
        return readNumber(name, value, &layer->connectTimeoutMs, error);
    *error = tr("unknown connect option %1").arg(name);
    return false;
}

} // namespace

bool LayerOptions::take(QString *options, LayerOptions *layer, QString *error)
{
    *layer = LayerOptions();
    if (!options->contains(QLatin1String(Prefix), Qt::CaseInsensitive))
        return true;
    QStringList rest;
    const QStringList all = options->split(QLatin1Char(';'));
    for (const QString &option : all) {
        if (!option.trimmed().startsWith(QLatin1String(Prefix), Qt::CaseInsensitive))
            rest.append(option);
        else if (!readOption(option, layer, error))
            return false;
    }
    *options = rest.join(QLatin1Char(';'));
    return true;
}
