/// @file
/// Tables of words that are there until the process is gone.
#pragma once

#include <QLatin1String>
#include <QString>

#include <algorithm>
#include <iterator>
#include <string_view>

// A program may end by exit() while a thread of it still runs statements. What is destroyed then
// must be nothing that a statement looks at: no table with a destructor, and no regular expression,
// which needs such a table of Qt's own.

/// Whether a word, in upper case, is in a table of such words. Any thread.
template <std::size_t Count>
bool isAmong(const QString &word, const std::string_view (&table)[Count])
{
    return std::any_of(std::begin(table), std::end(table), [&word](std::string_view entry) {
        return word == QLatin1String(entry.data(), int(entry.size()));
    });
}
