#pragma once
// Several INI documents in one stream.

#include <optional>
#include <string>
#include <string_view>

namespace korlo::settings::cli
{

/// Splits a stream that comes in pieces into documents, at lines that are exactly "." (CRLF is accepted).
///
///     splitter.Add(piece);
///     while (auto document = splitter.Take())
///         Merge(*document);
///
/// Thread safety: none of its own; the owner guards it.
class DocumentSplitter
{
public:
    void Add(std::string_view piece) { _pending += piece; }

    /// The next document whose separator has come.
    std::optional<std::string> Take();

    /// Adds the separator that the last document may lack.
    void AddEnd() { _pending += "\n.\n"; }

private:
    std::string _pending;
    std::size_t _searched = 0;  // the lines before this hold no separator; always the start of a line
};

}  // namespace korlo::settings::cli
