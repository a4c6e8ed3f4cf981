/// @file
/// A page of the documentation as data: its script blocks and the members that it describes.
#pragma once

#include <QString>
#include <QStringList>
#include <QVector>

/// One fenced block of a page. The first word behind the fence names the language; "js" blocks are
/// scripts, and a second word says more:
///
///   js           complete, run as it stands, behind the page's opening unless it makes its own
///                `db`
///   js opening   the page's opening
///   js server    needs a database server; only its syntax is checked
///   output       what the script before it prints, the errors left out
struct PageBlock {
    QString language;
    QString remark;
    QString text;
    int line = 0; ///< of the first line inside, from 1
};

class Page
{
public:
    /// @param file path below the project's folder
    explicit Page(const QString &file);

    bool isRead() const { return m_isRead; }
    QString fileName() const { return m_file; }
    const QVector<PageBlock> &blocks() const { return m_blocks; }
    /// The text of the "js opening" block, or nothing.
    QString opening() const;
    /// The lines from the heading to the next one of the same or a higher level.
    QStringList section(const QString &heading) const;
    /// The names under which links find its headings.
    QStringList anchors() const;

private:
    void findBlocks();

    QString m_file;
    QStringList m_lines;
    QVector<PageBlock> m_blocks;
    bool m_isRead = false;
};
