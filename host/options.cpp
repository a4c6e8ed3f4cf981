#include "options.h"

namespace
{

const int TraceLevel = 2;

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

bool takeLevel(Arguments *arguments, const QString &name, int *level, QString *error)
{
    QString text;
    if (!arguments->takeValue(name, &text, error))
        return false;
    bool isNumber = false;
    *level = text.toInt(&isNumber);
    if (!isNumber)
        *error = QStringLiteral("option '%1' needs a number, not '%2'").arg(name, text);
    return isNumber;
}

bool takeOption(Arguments *arguments, Options *options, QString *error)
{
    const QString name = arguments->takeName();
    if (name == QLatin1String("-e")) {
        options->hasCode = true;
        return arguments->takeValue(name, &options->code, error);
    }
    if (name == QLatin1String("--plugin"))
        return arguments->takeValue(name, &options->pluginFile, error);
    if (name == QLatin1String("--level"))
        return takeLevel(arguments, name, &options->level, error);
    if (name == QLatin1String("--trace")) {
        options->trace = true;
    } else if (name == QLatin1String("--stock-drivers")) {
        options->stockDrivers = true;
    } else if (name == QLatin1String("--help") || name == QLatin1String("-h")) {
        options->action = Options::Action::ShowHelp;
    } else if (name == QLatin1String("--version")) {
        options->action = Options::Action::ShowVersion;
    } else {
        *error = QStringLiteral("unknown option '%1'").arg(name);
        return false;
    }
    if (arguments->hasAttachedValue()) {
        *error = QStringLiteral("option '%1' takes no value").arg(name);
        return false;
    }
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
        level = qMax(level, TraceLevel);
    return true;
}

QString Options::helpText()
{
    return QStringLiteral(
        "Usage: vext-run [options] [script.js [arguments...]]\n"
        "       vext-run [options] -e CODE [arguments...]\n"
        "\n"
        "Runs a script with the SQL plugin. Without script and code it reads statements from\n"
        "standard input, with a prompt if that is a terminal.\n"
        "\n"
        "Options:\n"
        "  -e CODE        run CODE\n"
        "  --plugin FILE  load this plugin library\n"
        "  --level N      show messages up to level N: -1 errors, 0 notices (default),\n"
        "                 1 state changes, 2 statement texts\n"
        "  --trace        switch trace on for new connections and show levels up to 2\n"
        "  --stock-drivers\n"
        "                 use Qt's own SQL drivers, without Vext's layer over them\n"
        "  --help         show this text\n"
        "  --version      show the version\n"
        "\n"
        "Exit code: that of quit(); 0 at the end of the script; 1 after an uncaught exception;\n"
        "2 for a wrong option, a missing file, a syntax error or a plugin that cannot be loaded;\n"
        "128 and the signal's number after Ctrl-C and its like.\n");
}

QString Options::versionText()
{
    return QStringLiteral("vext-run " VEXT_VERSION "\n");
}
