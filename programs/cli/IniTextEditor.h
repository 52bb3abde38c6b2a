#pragma once
// Changes settings in a text that a person wrote, and leaves the rest of the text as it is.

#include <string>

#include "korlo/core/IniFile.h"

namespace korlo::settings::cli
{

/// Turns an INI text into one that reads as another document, line by line, so that comments, blank lines, lines that
/// make no sense, the order of groups and keys and the spacing around them stay.
///
///     IniTextEditor editor(text);
///     text = editor.Edit(wanted);
///
/// What becomes of the text around a change:
///  - a changed value is replaced in its line; where a key stands several times, in the last of them, which counts;
///  - a removed key takes its own lines with it and no comment: that may well speak of its neighbours, too;
///  - a removed group takes everything from its header to its last line and the comments that touch it, above and
///    below. A comment that touches the next header stays, and so does the comment at the head of the file;
///  - a new key follows the last key of its group; a new group follows at the end, after a blank line;
///  - new lines end as the first line does, and the last line of a changed text is complete.
///
/// The result is read again, and should it not be the wanted document, that is written plainly instead: settings
/// before comments.
///
/// Thread safety: none of its own; the owner guards it. No other thread reads a document meanwhile, see ReadQuietly.
class IniTextEditor
{
public:
    explicit IniTextEditor(const std::string& text);

    /// What the text says as it stands.
    const core::IniFile& GetDocument() const { return _document; }

    /// The text changed so that it reads as `wanted`; as it is when it does so already.
    std::string Edit(const core::IniFile& wanted) const;

private:
    const std::string _text;
    const core::IniFile _document;
};

}  // namespace korlo::settings::cli
