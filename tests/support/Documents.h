#pragma once
// Short ways to write settings documents in tests.

#include <sstream>
#include <string>

#include "korlo/core/IniFile.h"

namespace korlo
{

/// The document in the INI text.
inline core::IniFile Ini(const std::string& text)
{
    core::IniFile ini;
    ini.LoadFromString(text);
    return ini;
}

/// The document as INI text.
inline std::string TextOf(const core::IniFile& ini)
{
    std::ostringstream out;
    ini.SaveToStream(out);
    return out.str();
}

}  // namespace korlo
