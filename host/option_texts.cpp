#include "option_texts.h"

#include <QStringList>
#include <QVector>

namespace
{

const int Indent = 17;  ///< of the texts behind the options
const int Columns = 80; ///< of a line of help

/// An option, an exit code or a variable, and what it means.
struct Entry {
    const char *name;
    const char *text;
};

struct Section {
    const char *title;
    const char *intro;
    QVector<Entry> entries;
};

const char Name[] = "vext-run";
const char Summary[] = "runs scripts with the SQL plugin of Vext, and SQL";

const char *const Usages[] = {
    "[options] [script.js [arguments...]]",
    "[options] -e CODE | -p EXPR [arguments...]",
    "[options] - [arguments...] < script.js",
    "[options] --open ADDRESS < statements.sql",
};

const char Introduction[] =
    "Runs a script. Without script and code it reads statements from standard input, with a prompt "
    "if that is a terminal; there, .help tells more. With --open, what comes through a pipe is "
    "SQL.";

QVector<Section> sections()
{
    return {
        {"Options",
         "",
         {
             {"-e CODE", "run CODE"},
             {"-p EXPR", "run EXPR and print its value"},
             {"-", "run the script that standard input holds"},
             {"--open ADDRESS", "open a connection, which scripts find as db; see below"},
             {"--table", "print results as tables (default)"},
             {"--csv", "print results as CSV: a header, NULL as nothing, the empty text as \"\""},
             {"--json", "print each result as one array of row objects"},
             {"--json-lines", "print each row as an object on a line of its own"},
             {"--keep-going", "go on after a failure, and end with 1"},
             {"--quiet", "show errors only"},
             {"--level N", "show messages up to level N: -1 errors, 0 notices (default), 1 state "
                           "changes, 2 statement texts"},
             {"--trace", "switch trace on for new connections and show levels up to 2"},
             {"--log-format text|json", "the form of messages, one a line"},
             {"--log-file FILE", "add messages to FILE instead of writing them to standard error"},
             {"--lang ru|en",
              "the language of the plugin's messages; by default that of the locale"},
             {"--stock-drivers", "use Qt's own SQL drivers, without Vext's layer over them"},
             {"--plugin FILE", "load this plugin library"},
             {"-h, --help", "show this text"},
             {"--manual", "show the source of the manual page"},
             {"--version", "show the versions and the SQL drivers"},
         }},
        {"Addresses",
         "What --open takes:",
         {
             {"postgresql://USER@HOST:PORT/DATABASE", "PostgreSQL; also mysql:// and mariadb://"},
             {"firebird:FILE, firebird://USER@HOST/PATH", "Firebird"},
             {"sqlite:FILE, sqlite::memory:", "SQLite"},
             {"odbc:SOURCE", "ODBC"},
             {"DRIVER host=... port=... dbname=... user=...",
              "any driver; further keywords are its connect options"},
             {"@FILE", "the file FILE holds one of these, the password included"},
         }},
        {"Passwords",
         "A password on the command line is seen by everybody who lists processes. It belongs into "
         "a file (see @FILE) or into the environment:",
         {
             {"PGPASSFILE, ~/.pgpass, PGPASSWORD",
              "PostgreSQL, and the other variables of its client"},
             {"MYSQL_PWD", "MariaDB and MySQL"},
             {"ISC_USER, ISC_PASSWORD", "Firebird"},
             {"VEXT_PASSWORD", "any driver"},
         }},
        {"Exit code",
         "",
         {
             {"0", "the script is through and nothing is left to wait for"},
             {"1",
              "an uncaught exception, a failed task that nobody listens to, a lost connection, "
              "a failed statement of piped SQL, output that cannot be written"},
             {"2",
              "a wrong option, a missing file, a syntax error, a plugin that cannot be loaded, a "
              "database that cannot be opened"},
             {"128 + N", "ended by signal N: 130 Ctrl-C, 143 SIGTERM, 129 SIGHUP; 141 when the "
                         "reader of the output is gone"},
             {"other", "that of quit()"},
         }},
    };
}

QStringList wrapped(const QString &text, int width)
{
    QStringList lines{QString()};
    const QStringList words = text.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    for (const QString &word : words) {
        if (!lines.last().isEmpty() && lines.last().size() + 1 + word.size() > width)
            lines.append(QString());
        lines.last() += (lines.last().isEmpty() ? QString() : QStringLiteral(" ")) + word;
    }
    return lines;
}

QString entryText(const Entry &entry)
{
    const QString name = QStringLiteral("  ") + QLatin1String(entry.name);
    const QStringList lines = wrapped(QLatin1String(entry.text), Columns - Indent);
    const QString margin(Indent, QLatin1Char(' '));
    const bool fits = name.size() < Indent;
    QString text = fits ? name.leftJustified(Indent) : name + QLatin1Char('\n') + margin;
    return text + lines.join(QLatin1Char('\n') + margin) + QLatin1Char('\n');
}

QString sectionText(const Section &section)
{
    QString text = QStringLiteral("\n%1:\n").arg(QLatin1String(section.title));
    const QString intro = QLatin1String(section.intro);
    if (!intro.isEmpty())
        text += wrapped(intro, Columns).join(QLatin1Char('\n')) + QLatin1Char('\n');
    for (const Entry &entry : section.entries)
        text += entryText(entry);
    return text;
}

/// A text as the typesetter wants it: its own signs are not to be taken for commands.
QString escaped(const QString &text)
{
    QString result = text;
    result.replace(QLatin1Char('\\'), QLatin1String("\\e"));
    result.replace(QLatin1Char('-'), QLatin1String("\\-"));
    if (result.startsWith(QLatin1Char('.')) || result.startsWith(QLatin1Char('\'')))
        result.prepend(QLatin1String("\\&"));
    return result;
}

QString manualSection(const Section &section)
{
    QString text = QStringLiteral(".SH %1\n").arg(QString::fromLatin1(section.title).toUpper());
    const QString intro = QLatin1String(section.intro);
    if (!intro.isEmpty())
        text += escaped(intro) + QLatin1Char('\n');
    for (const Entry &entry : section.entries)
        text += QStringLiteral(".TP\n.B %1\n%2\n")
                    .arg(escaped(QLatin1String(entry.name)), escaped(QLatin1String(entry.text)));
    return text;
}

} // namespace

QString OptionTexts::help()
{
    QString text;
    for (const char *usage : Usages)
        text += QStringLiteral("%1 %2 %3\n")
                    .arg(text.isEmpty() ? QStringLiteral("Usage:") : QStringLiteral("      "),
                         QLatin1String(Name), QLatin1String(usage));
    text += QLatin1Char('\n');
    text += wrapped(QLatin1String(Introduction), Columns).join(QLatin1Char('\n'));
    text += QLatin1Char('\n');
    for (const Section &section : sections())
        text += sectionText(section);
    return text;
}

QString OptionTexts::manual()
{
    QString text = QStringLiteral(".TH VEXT\\-RUN 1\n.SH NAME\nvext\\-run \\- %1\n.SH SYNOPSIS\n")
                       .arg(escaped(QLatin1String(Summary)));
    for (const char *usage : Usages)
        text += QStringLiteral(".B vext\\-run\n%1\n.br\n").arg(escaped(QLatin1String(usage)));
    text += QStringLiteral(".SH DESCRIPTION\n%1\n").arg(escaped(QLatin1String(Introduction)));
    for (const Section &section : sections())
        text += manualSection(section);
    return text;
}
