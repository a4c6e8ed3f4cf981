#include "syntax_hint.h"

#include <QRegularExpression>
#include <QScriptEngine>

namespace
{

struct Newer {
    const char *pattern; ///< what it looks like; its first group is what is marked
    const char *name;
};

/// In the order in which they are looked for: what stands further up explains more.
const Newer Constructs[] = {
    {"(`)", "template strings"},
    {"(=>)", "arrow functions"},
    {"\\b(let)\\s+[\\w$\\[{]", "\"let\""},
    {"\\b(const)\\b", "\"const\" in this form"},
    {"\\b(async)\\s+function\\b", "\"async\""},
    {"\\b(await)\\s+[\\w$(]", "\"await\""},
    {"(\\.\\.\\.)", "\"...\""},
    {"(?:^|[;{}]\\s*)(class)\\s+[\\w$]", "classes"},
    {"(?:^|[;{}]\\s*)(import|export)\\b", "modules"},
    {"\\bfor\\s*\\([^;)]*\\s(of)\\s", "\"for ... of\""},
};

const char ReservedWords[] =
    "break|case|catch|class|const|continue|debugger|default|delete|do|else|enum|export|extends|"
    "false|finally|for|function|if|import|in|instanceof|new|null|return|super|switch|this|throw|"
    "true|try|typeof|var|void|while|with";

/// The line with its strings and comments blanked, so that columns stay.
QString codeOnly(const QString &line)
{
    QString result = line;
    QChar quote;
    for (int i = 0; i < result.size(); ++i) {
        const QChar c = line.at(i);
        const bool isComment = quote.isNull() && line.midRef(i, 2) == QLatin1String("//");
        if (isComment)
            return result.left(i);
        if (quote.isNull()) {
            if (c == QLatin1Char('"') || c == QLatin1Char('\''))
                quote = c;
            continue;
        }
        if (c == quote) {
            quote = QChar();
            continue;
        }
        result[i] = QLatin1Char(' ');
        if (c == QLatin1Char('\\') && i + 1 < result.size())
            result[++i] = QLatin1Char(' ');
    }
    return result;
}

bool findIn(const QString &line, const QString &pattern, int *column, QString *word)
{
    const QRegularExpressionMatch match = QRegularExpression(pattern).match(line);
    if (!match.hasMatch())
        return false;
    *column = match.capturedStart(1) + 1;
    *word = match.captured(1);
    return true;
}

bool findReservedProperty(const QString &line, int *column, QString *word)
{
    const QString words = QLatin1String(ReservedWords);
    return findIn(line, QStringLiteral("\\.\\s*(%1)\\b").arg(words), column, word) ||
           findIn(line, QStringLiteral("[{,]\\s*(%1)\\s*:").arg(words), column, word) ||
           findIn(line, QStringLiteral("^\\s*(%1)\\s*:").arg(words), column, word) ||
           findIn(line, QStringLiteral("\\b[gs]et\\s+(%1)\\s*\\(").arg(words), column, word);
}

QString languageText()
{
    return QStringLiteral("the engine is ECMAScript 5, with reserved words as in ECMAScript 3");
}

/// The engine's second parser, which tells the column; the two do not always agree.
int columnOfCheck(const QString &code, int line)
{
    const QScriptSyntaxCheckResult check = QScriptEngine::checkSyntax(code);
    const bool agrees = check.state() != QScriptSyntaxCheckResult::Valid &&
                        check.errorLineNumber() == line && check.errorColumnNumber() > 0;
    return agrees ? check.errorColumnNumber() : 0;
}

} // namespace

SyntaxHint SyntaxHint::find(const QString &code, int line)
{
    SyntaxHint hint;
    const QString text = codeOnly(code.section(QLatin1Char('\n'), line - 1, line - 1));
    QString word;
    for (const Newer &construct : Constructs) {
        if (findIn(text, QLatin1String(construct.pattern), &hint.column, &word)) {
            hint.text = QStringLiteral("%1 cannot be used: %2")
                            .arg(QLatin1String(construct.name), languageText());
            return hint;
        }
    }
    if (findReservedProperty(text, &hint.column, &word)) {
        hint.text = QStringLiteral("\"%1\" as the name of a property has to stand in quotes: %2")
                        .arg(word, languageText());
        return hint;
    }
    hint.column = columnOfCheck(code, line);
    return hint;
}
