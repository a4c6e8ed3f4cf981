#include "options.h"

namespace
{

/// Walks along a command line and takes options and their values off its front.
class Arguments
{
public:
    explicit Arguments(const QStringList &list)
        : m_rest(list)
    {
    }

    bool nextIsOption() const
    {
        return !m_rest.isEmpty() && m_rest.first().startsWith(QLatin1Char('-')) &&
               m_rest.first() != QLatin1String("-");
    }

    /// Takes an option's name; "--name=value" leaves the value for takeValue().
    QString takeName()
    {
        QString name = m_rest.takeFirst();
        const int equals = name.indexOf(QLatin1Char('='));
        if (name.startsWith(QLatin1String("--")) && equals > 0) {
            m_rest.prepend(name.mid(equals + 1));
            name.truncate(equals);
            m_hasAttachedValue = true;
        }
        return name;
    }

    bool takeValue(const QString &name, QString *value, QString *error)
    {
        m_hasAttachedValue = false;
        if (m_rest.isEmpty()) {
            *error = QStringLiteral("option '%1' needs a value").arg(name);
            return false;
        }
        *value = m_rest.takeFirst();
        return true;
    }

    bool hasAttachedValue() const { return m_hasAttachedValue; }
    bool isEmpty() const { return m_rest.isEmpty(); }
    QString takeFirst() { return m_rest.takeFirst(); }
    QStringList rest() const { return m_rest; }

private:
    QStringList m_rest;
    bool m_hasAttachedValue = false;
};

/// An option without a value.
struct Flag {
    const char *name;
    void (*set)(Options *options);
};

const Flag Flags[] = {
    {"--trace", [](Options *options) { options->trace = true; }},
    {"--stock-drivers", [](Options *options) { options->stockDrivers = true; }},
    {"--keep-going", [](Options *options) { options->keepGoing = true; }},
    {"--quiet", [](Options *options) { options->log.level = LogRecord::Error; }},
    {"--csv", [](Options *options) { options->format = ResultFormat::Csv; }},
    {"--json", [](Options *options) { options->format = ResultFormat::Json; }},
    {"--json-lines", [](Options *options) { options->format = ResultFormat::JsonLines; }},
    {"--table", [](Options *options) { options->format = ResultFormat::Table; }},
    {"--help", [](Options *options) { options->action = Options::Action::ShowHelp; }},
    {"-h", [](Options *options) { options->action = Options::Action::ShowHelp; }},
    {"--manual", [](Options *options) { options->action = Options::Action::ShowManual; }},
    {"--version", [](Options *options) { options->action = Options::Action::ShowVersion; }},
};

/// An option with a value. `set` returns what the value should have been; empty: it is fine.
struct Valued {
    const char *name;
    QString (*set)(Options *options, const QString &value);
};

QString setCode(Options *options, const QString &code)
{
    options->hasCode = true;
    options->printsValue = false;
    options->code = code;
    return QString();
}

QString setPrinted(Options *options, const QString &code)
{
    setCode(options, code);
    options->printsValue = true;
    return QString();
}

QString setLevel(Options *options, const QString &value)
{
    bool isNumber = false;
    options->log.level = value.toInt(&isNumber);
    return isNumber ? QString() : QStringLiteral("a number");
}

QString setLogFormat(Options *options, const QString &value)
{
    options->log.format = value == QLatin1String("json") ? Log::Format::Json : Log::Format::Text;
    const bool isKnown = value == QLatin1String("json") || value == QLatin1String("text");
    return isKnown ? QString() : QStringLiteral("\"text\" or \"json\"");
}

QString setLanguage(Options *options, const QString &value)
{
    options->language = value;
    const bool isKnown = value == QLatin1String("ru") || value == QLatin1String("en");
    return isKnown ? QString() : QStringLiteral("\"ru\" or \"en\"");
}

QString setText(QString *text, const QString &value)
{
    *text = value;
    return value.isEmpty() ? QStringLiteral("a text") : QString();
}

const Valued ValuedOptions[] = {
    {"-e", setCode},
    {"-p", setPrinted},
    {"--level", setLevel},
    {"--log-format", setLogFormat},
    {"--lang", setLanguage},
    {"--log-file",
     [](Options *options, const QString &value) { return setText(&options->log.file, value); }},
    {"--open",
     [](Options *options, const QString &value) { return setText(&options->address, value); }},
    {"--plugin",
     [](Options *options, const QString &value) { return setText(&options->pluginFile, value); }},
};

template <typename Table>
auto find(const Table &table, const QString &name) -> decltype(&table[0])
{
    for (const auto &entry : table) {
        if (name == QLatin1String(entry.name))
            return &entry;
    }
    return nullptr;
}

bool takeValued(Arguments *arguments, const Valued &option, Options *options, QString *error)
{
    const QString name = QLatin1String(option.name);
    QString value;
    if (!arguments->takeValue(name, &value, error))
        return false;
    const QString wanted = option.set(options, value);
    if (wanted.isEmpty())
        return true;
    *error = QStringLiteral("option '%1' needs %2, not '%3'").arg(name, wanted, value);
    return false;
}

bool takeOption(Arguments *arguments, Options *options, QString *error)
{
    const QString name = arguments->takeName();
    if (const Valued *option = find(ValuedOptions, name))
        return takeValued(arguments, *option, options, error);
    const Flag *flag = find(Flags, name);
    if (!flag) {
        *error = QStringLiteral("unknown option '%1'").arg(name);
        return false;
    }
    if (arguments->hasAttachedValue()) {
        *error = QStringLiteral("option '%1' takes no value").arg(name);
        return false;
    }
    flag->set(options);
    return true;
}

} // namespace

bool Options::parse(const QStringList &commandLine, QString *error)
{
    Arguments rest(commandLine.mid(1));
    while (rest.nextIsOption()) {
        if (rest.rest().first() == QLatin1String("--")) {
            rest.takeFirst();
            break;
        }
        if (!takeOption(&rest, this, error))
            return false;
    }
    if (!hasCode && !rest.isEmpty())
        scriptFile = rest.takeFirst();
    arguments = rest.rest();
    if (trace)
        log.level = qMax(log.level, static_cast<int>(LogRecord::Statement));
    return true;
}
