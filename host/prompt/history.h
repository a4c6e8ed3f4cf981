/// @file
/// The lines that were typed before.
#pragma once

#include <QString>

/// The history of the line editor, kept in the user's data folder: readable for the user alone. An
/// entry of several lines is one entry. What holds a password is not kept.
///
/// The line editor has one history for the whole process. Thread: the application's.
class History
{
public:
    /// Reads the file.
    History();
    /// Writes the file and empties the editor's history.
    ~History();
    History(const History &) = delete;
    History &operator=(const History &) = delete;

    void save() const;

    /// Adds an entry, with line breaks between its lines.
    void add(const QString &entry);

    /// Whether a text holds a password, or may: on the safe side.
    static bool holdsPassword(const QString &text);

    static QString file();
};
